// How far the log is it tells itself; the consumer is there for the server: what it may forget, how
// much is outstanding.  So it is acknowledged behind the log's disk, and where it stands somewhere
// else than the log, it is made anew.
#include "ship/pull.h"

#include "feed/backoff.h"
#include "fwutil/fwu_config.h"
#include "ship/log_target.h"
#include "ship/signals.h"

#include <string>

static constexpr int64_t NS = 1'000'000'000;
static constexpr int64_t ACK_WAIT_S = 60;
static constexpr int64_t MOST_OUTSTANDING = 1'000'000'000; // messages: a transaction may have many
static constexpr int BATCH = 1024;                         // messages of one request
static constexpr int64_t BATCH_BYTES = 16 << 20;
static constexpr int LOOK_AFTER = 10;   // such waits in vain
static constexpr int64_t WAIT_MS = 500; // between two looks at a signal

namespace {
struct pull_run {
    const ship_pull_options &options;
    ship_signals signals;
    ship_log_target target;
    natsSubscription *subscription = nullptr;
    natsMsg *whole = nullptr; // owned; the last one that ends a transaction in the log
    uint64_t messages = 0;    // since the start

    explicit pull_run(const ship_pull_options &given) : options(given)
    {
    }
    ~pull_run()
    {
        natsMsg_Destroy(whole);
        natsSubscription_Destroy(subscription);
        ship_target_close(target);
    }
};
} // namespace

// The sequence of the stream's first message that the log does not have.
static outcome search(pull_run &run, ship_server &server, const ship_stream &stream,
                      uint64_t &sequence)
{
    uint64_t from = stream.first;
    uint64_t to = stream.last + 1;
    while (from < to) {
        const uint64_t middle = from + (to - from) / 2;
        ship_place place;
        bool found = false;
        if (outcome got = ship_place_at(place, found, server, run.options.server, middle); !got)
            return got;
        if (!found) // it may have been removed just now, and what is missing will be seen
            break;
        if (ship_target_has(run.target, place))
            from = middle + 1;
        else
            to = middle;
    }
    sequence = from;
    return {};
}

static outcome delete_consumer(pull_run &run, ship_server &server)
{
    jsErrCode code = jsErrCode(0);
    const natsStatus status = js_DeleteConsumer(server.js, run.options.server.stream,
                                                run.options.durable, nullptr, &code);
    if (status == NATS_OK || status == NATS_NOT_FOUND || code == JSConsumerNotFoundErr)
        return {};
    return ship_failed("cannot delete the consumer", status, code);
}

// Makes a consumer that begins where the log ends.
static outcome add_consumer(pull_run &run, ship_server &server)
{
    ship_stream stream;
    if (outcome looked = ship_look(stream, server, run.options.server); !looked)
        return looked;
    uint64_t sequence = 0;
    if (outcome searched = search(run, server, stream, sequence); !searched)
        return searched;
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = run.options.durable;
    config.AckPolicy = js_AckAll;
    config.AckWait = ACK_WAIT_S * NS;
    config.MaxAckPending = MOST_OUTSTANDING;
    config.DeliverPolicy = js_DeliverByStartSequence;
    config.OptStartSeq = sequence == 0 ? 1 : sequence;
    jsConsumerInfo *info = nullptr;
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_AddConsumer(&info, server.js, run.options.server.stream, &config, nullptr, &code);
    jsConsumerInfo_Destroy(info);
    if (status != NATS_OK)
        return ship_failed("cannot create the consumer", status, code);
    if (run.options.verbose)
        tell("consumer %s begins with message %llu", run.options.durable,
             static_cast<unsigned long long>(config.OptStartSeq));
    return {};
}

// The consumer as it is.  outstanding: what it has delivered was not acknowledged; there: it is.
static outcome look_at_consumer(pull_run &run, ship_server &server, bool &there, bool &outstanding,
                                uint64_t &pending)
{
    jsConsumerInfo *info = nullptr;
    jsErrCode code = jsErrCode(0);
    const natsStatus status = js_GetConsumerInfo(&info, server.js, run.options.server.stream,
                                                 run.options.durable, nullptr, &code);
    there = status == NATS_OK;
    outstanding = false;
    pending = 0;
    if (there) {
        outstanding = info->NumAckPending > 0;
        pending = info->NumPending;
        const bool ours = info->Config != nullptr && info->Config->AckPolicy == js_AckAll;
        jsConsumerInfo_Destroy(info);
        if (!ours)
            return outcome_bad(std::string("consumer ") + run.options.durable +
                               " was not made by capship; give another name");
        return {};
    }
    if (code == JSStreamNotFoundErr)
        return ship_no_stream(run.options.server, run.options.once ? OUTCOME_BAD : OUTCOME_LOST);
    if (status == NATS_NOT_FOUND || code == JSConsumerNotFoundErr)
        return {};
    return ship_failed("cannot look at the consumer", status, code);
}

// anew: whatever the consumer says.
static outcome subscribe(pull_run &run, ship_server &server, bool anew)
{
    natsMsg_Destroy(run.whole);
    run.whole = nullptr;
    natsSubscription_Destroy(run.subscription);
    run.subscription = nullptr;
    fwu_replica_drop(run.target.replica);
    bool there = false;
    bool outstanding = false;
    uint64_t pending = 0;
    if (outcome looked = look_at_consumer(run, server, there, outstanding, pending); !looked)
        return looked;
    // What a run before has not acknowledged would come only when its time is over, behind what is
    // new.
    if (there && (outstanding || anew)) {
        if (outcome deleted = delete_consumer(run, server); !deleted)
            return deleted;
        there = false;
    }
    if (!there)
        if (outcome added = add_consumer(run, server); !added)
            return added;
    jsSubOptions how;
    jsSubOptions_Init(&how);
    how.Stream = run.options.server.stream;
    how.Consumer = run.options.durable;
    how.ManualAck = true;
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_PullSubscribe(&run.subscription, server.js, "", nullptr, nullptr, &how, &code);
    return status == NATS_OK ? outcome() : ship_failed("cannot subscribe", status, code);
}

// Brings what is whole to disk, and tells the server.
static outcome acknowledge(pull_run &run)
{
    if (run.whole == nullptr)
        return {};
    if (fwu_replica_acknowledge(run.target.replica) != 0)
        return OUTCOME_FAILED;
    const natsStatus status = natsMsg_Ack(run.whole, nullptr);
    natsMsg_Destroy(run.whole);
    run.whole = nullptr;
    return status == NATS_OK ? outcome() : ship_failed("cannot acknowledge", status);
}

static outcome take(pull_run &run, natsMsg *&message, ship_taken &taken)
{
    ship_place place;
    if (!ship_place_of(place, message))
        return outcome_bad(std::string("stream ") + run.options.server.stream +
                           " has a message that is not of a log; a stream has to be for capship "
                           "alone");
    if (outcome done =
            ship_target_take(taken, run.target, place,
                             reinterpret_cast<const unsigned char *>(natsMsg_GetData(message)),
                             static_cast<size_t>(natsMsg_GetDataLength(message)));
        !done)
        return done;
    if (taken == SHIP_WHOLE || (taken == SHIP_HAS && ship_place_last(place) &&
                                !fwu_replica_where(run.target.replica).mid())) {
        natsMsg_Destroy(run.whole);
        run.whole = message;
        message = nullptr;
    }
    if (taken == SHIP_WHOLE)
        run.messages++;
    return {};
}

// missing: what the next message needs is not there.
static outcome take_all(pull_run &run, natsMsgList &list, bool &missing)
{
    outcome done;
    missing = false;
    for (int i = 0; i < list.Count && done && !missing; i++) {
        ship_taken taken = SHIP_HAS;
        done = take(run, list.Msgs[i], taken);
        missing = taken == SHIP_MISSING;
    }
    outcome acknowledged = acknowledge(run);
    return done ? std::move(acknowledged) : std::move(done);
}

static outcome lacking(const pull_run &run)
{
    return outcome_bad(std::string("stream ") + run.options.server.stream +
                       " does not have what comes next; the log here has " +
                       ship_target_text(run.target) +
                       ": push again from the log into a new stream, and pull from that");
}

// all: the stream has nothing that the log has not.
static outcome look_while_idle(pull_run &run, ship_server &server, bool &all)
{
    bool there = false;
    bool outstanding = false;
    uint64_t pending = 0;
    outcome looked = look_at_consumer(run, server, there, outstanding, pending);
    all = there && pending == 0;
    if (looked && !there)
        return {OUTCOME_LOST, "the consumer is gone"};
    return looked;
}

// Fetches what is there, or else waits for one message.
static natsStatus fetch(const pull_run &run, natsMsgList &list)
{
    constexpr int64_t ns_of_ms = 1'000'000;
    jsFetchRequest request;
    jsFetchRequest_Init(&request);
    request.Batch = BATCH;
    request.MaxBytes = BATCH_BYTES;
    request.Expires = WAIT_MS * ns_of_ms;
    request.NoWait = true;
    const natsStatus status = natsSubscription_FetchRequest(&list, run.subscription, &request);
    if (status != NATS_TIMEOUT && status != NATS_NOT_FOUND)
        return status;
    jsErrCode code = jsErrCode(0);
    return natsSubscription_Fetch(&list, run.subscription, 1, WAIT_MS, &code);
}

static outcome attempt(pull_run &run, feed_backoff &backoff)
{
    ship_server server;
    if (outcome connected = ship_connect(server, run.options.server, "capship pull", nullptr);
        !connected)
        return connected;
    if (outcome subscribed = subscribe(run, server, false); !subscribed)
        return subscribed;
    int idle = 0;
    uint64_t at_gap = UINT64_MAX; // messages taken when something was missing last
    for (;;) {
        run.signals.let_in();
        if (run.signals.stopping())
            return OUTCOME_STOPPED;
        natsMsgList list = {};
        const natsStatus status = fetch(run, list);
        bool missing = false;
        outcome done;
        if (status == NATS_OK)
            done = take_all(run, list, missing);
        else if (status != NATS_TIMEOUT)
            done = ship_failed("cannot get messages", status);
        natsMsgList_Destroy(&list);
        if (!done)
            return done;
        if (missing) {
            if (at_gap == run.messages)
                return lacking(run);
            at_gap = run.messages;
            if (outcome anew = subscribe(run, server, true); !anew)
                return anew;
            continue;
        }
        if (outcome alive = ship_alive(server); !alive)
            return alive;
        fwu_replica_tend(run.target.replica);
        if (status == NATS_OK) {
            backoff = {};
            idle = 0;
            continue;
        }
        // Of a consumer that is no more nothing comes, and nothing is said.
        bool all = false;
        if (run.options.once || ++idle % LOOK_AFTER == 0)
            if (outcome looked = look_while_idle(run, server, all); !looked)
                return looked;
        if (all && run.options.once)
            return {};
    }
}

outcome ship_pull(const ship_pull_options &options)
{
    fwu_config config;
    if (fwu_config_read(config, options.file) != 0)
        return OUTCOME_FAILED;
    pull_run run(options);
    if (outcome opened = ship_target_open(run.target, config); !opened)
        return opened;
    feed_backoff backoff;
    for (;;) {
        outcome done = attempt(run, backoff);
        natsMsg_Destroy(run.whole);
        run.whole = nullptr;
        natsSubscription_Destroy(run.subscription);
        run.subscription = nullptr;
        if (done.kind() != OUTCOME_LOST)
            return done;
        feed_backoff_tell(backoff, done.text());
        if (!run.signals.pause(backoff))
            return OUTCOME_STOPPED;
    }
}
