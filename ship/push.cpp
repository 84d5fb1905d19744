// An attempt begins with a look at what the stream has last, and goes on behind that in the log.
// All that is kept about how far it is stands in the stream.
#include "ship/push.h"

#include "feed/backoff.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_wait.h"
#include "ship/acks.h"
#include "ship/log_source.h"
#include "ship/signals.h"
#include "ship/subject.h"

#include <algorithm>
#include <charconv>
#include <list>
#include <string>

static constexpr int LOOK_AFTER_MS = 1000;        // for file systems that do not tell of changes
static constexpr int STALL_MS = 100;              // between two looks at a signal
static constexpr uint64_t LOOK_AFTER = 64;        // messages
static constexpr size_t HEADERS_ROOM = 4096;      // of what a message may have, for its headers
static constexpr size_t LONGEST = 512 * 1024;     // bytes of a message, whatever the server takes
static constexpr int64_t STOP_PATIENCE_MS = 5000; // behind a signal, for what is on its way

// Those of all attempts: the library's threads may speak of one that is over, to the process's end.
static std::list<ship_acks> &all_acks()
{
    static std::list<ship_acks> &all = *new std::list<ship_acks>;
    return all;
}

namespace {
struct push_run {
    push_run(const ship_push_options &given, const fwu_reader_config &from)
        : options(given), config(from)
    {
    }
    const ship_push_options &options;
    const fwu_reader_config &config;
    ship_signals signals;
    fwu_watch watch;
    ship_log_source source;
    uint64_t acknowledged = 0; // sequence of the last message that the server had in the stream
    uint64_t sent = 0;         // since the start of the attempt
    uint64_t expected = 0;     // the stream's last sequence when all of them are in it
    std::string subject;
    std::string text;
    std::string id;
};
} // namespace

// Looks where the stream ends, and goes there in the log.
static outcome begin(push_run &run, ship_server &server)
{
    const ship_server_options &options = run.options.server;
    if (run.options.create)
        if (outcome made = ship_create(server, options, static_cast<int64_t>(run.options.replicas));
            !made)
            return made;
    ship_stream stream;
    if (outcome looked = ship_look(stream, server, options); !looked)
        return looked;
    ship_place place;
    bool found = true;
    if (stream.last != 0)
        if (outcome got = ship_place_at(place, found, server, options, stream.last); !got)
            return got;
    if (!found)
        return outcome_bad(std::string("the last message of stream ") + options.stream + ", " +
                           std::to_string(stream.last) +
                           ", is not there any more: it does not tell where to go on; push into a "
                           "new stream");
    const uint64_t next = stream.last + 1;
    if (stream.last < run.acknowledged)
        tell(
            "stream %s: the server has lost messages %llu to %llu, which it had acknowledged; they "
            "are pushed again from the log",
            options.stream, static_cast<unsigned long long>(next),
            static_cast<unsigned long long>(run.acknowledged));
    run.acknowledged = stream.last;
    run.expected = stream.last;
    run.sent = 0;
    const int64_t room = natsConnection_GetMaxPayload(server.connection);
    const size_t most = room <= 0 ? LONGEST : static_cast<size_t>(room);
    if (most < 2 * HEADERS_ROOM)
        return outcome_bad("the server takes messages of " + std::to_string(most) +
                           " bytes at most (max_payload), which is too little");
    if (run.options.verbose)
        tell("stream %s ends with message %llu%s%s", options.stream,
             static_cast<unsigned long long>(stream.last), stream.last == 0 ? "" : ", ",
             stream.last == 0 ? "" : ship_place_text(place).c_str());
    return ship_log_open(run.source, run.config.log_directory, place,
                         std::min(most - HEADERS_ROOM, LONGEST));
}

static natsStatus make_message(push_run &run, natsMsg *&made, const ship_message &message)
{
    run.subject = run.options.server.stream;
    ship_subject_put(run.subject, message.dbname, message.dsetname);
    run.text.clear();
    ship_place_put(run.text, message.place);
    run.id.clear();
    ship_id_put(run.id, message.place);
    char number[24] = {};
    std::to_chars(number, number + sizeof number - 1, run.expected);
    natsStatus status = natsMsg_Create(&made, run.subject.c_str(), nullptr,
                                       reinterpret_cast<const char *>(message.data),
                                       static_cast<int>(message.length));
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, SHIP_ID_HEADER, run.id.c_str());
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, SHIP_EXPECTED_HEADER, number);
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, SHIP_PLACE_HEADER, run.text.c_str());
    return status;
}

// Looks at what has come back, and whether the server is silent for too long.
static outcome look(push_run &run, ship_server &server, uint64_t &count, int64_t &since)
{
    uint64_t now = 0;
    uint64_t last = 0;
    if (outcome looked = ship_acks_look(all_acks().back(), now, last); !looked)
        return looked;
    run.acknowledged = std::max(run.acknowledged, last);
    if (now != count || now == run.sent)
        since = fwu_monotonic_ms();
    count = now;
    if (outcome alive = ship_alive(server); !alive)
        return alive;
    const auto patience = static_cast<int64_t>(run.options.server.timeout_s) * 1000;
    if (fwu_monotonic_ms() - since > patience)
        return {OUTCOME_LOST, "the server has acknowledged nothing for " +
                                  std::to_string(run.options.server.timeout_s) + " seconds"};
    return {};
}

static outcome send(push_run &run, ship_server &server, const ship_message &message,
                    uint64_t &count, int64_t &since)
{
    natsMsg *made = nullptr;
    natsStatus status = make_message(run, made, message);
    while (status == NATS_OK) {
        status = js_PublishMsgAsync(server.js, &made, nullptr);
        if (status != NATS_TIMEOUT)
            break;
        // As many are on their way as may be.
        outcome looked = look(run, server, count, since);
        run.signals.let_in();
        if (looked && run.signals.stopping())
            looked = OUTCOME_STOPPED;
        if (!looked) {
            natsMsg_Destroy(made);
            return looked;
        }
        status = NATS_OK;
    }
    natsMsg_Destroy(made);
    if (status != NATS_OK)
        return ship_failed("cannot send a message", status);
    run.sent++;
    run.expected++;
    return {};
}

// Waits until everything sent has come back, or until more can be done.
static outcome wait(push_run &run, ship_server &server, uint64_t &count, int64_t &since)
{
    fwu_log &log = run.source.log;
    const int ms = count == run.sent ? LOOK_AFTER_MS : 10;
    const fwu_wake wake = run.signals.wait(run.watch, ms);
    log.look = log.look || wake != FWU_WAKE_DATA;
    return look(run, server, count, since);
}

// Gives what is on its way a moment when a signal ends the run.
static outcome finish(push_run &run, ship_server &server, outcome done, uint64_t count)
{
    const int64_t end = fwu_monotonic_ms() + STOP_PATIENCE_MS;
    int64_t since = fwu_monotonic_ms();
    while (count != run.sent && fwu_monotonic_ms() < end)
        if (!look(run, server, count, since))
            break;
        else
            nats_Sleep(10);
    return done;
}

static outcome attempt(push_run &run, feed_backoff &backoff)
{
    ship_acks &acks = all_acks().emplace_back();
    acks.stream = run.options.server.stream;
    jsOptions how;
    jsOptions_Init(&how);
    how.PublishAsync.MaxPending = static_cast<int64_t>(run.options.pending);
    how.PublishAsync.StallWait = STALL_MS;
    how.PublishAsync.AckHandler = ship_acks_take;
    how.PublishAsync.AckHandlerClosure = &acks;
    ship_server server;
    if (outcome connected = ship_connect(server, run.options.server, "capship push", &how);
        !connected)
        return connected;
    if (outcome begun = begin(run, server); !begun)
        return begun;
    uint64_t count = 0;
    int64_t since = fwu_monotonic_ms();
    for (;;) {
        if (run.sent % LOOK_AFTER == 0)
            run.signals.let_in();
        if (run.signals.stopping())
            return finish(run, server, OUTCOME_STOPPED, count);
        ship_message message;
        bool found = false;
        if (outcome next = ship_log_next(run.source, message, found); !next)
            return fwu_stop != 0 ? finish(run, server, OUTCOME_STOPPED, count) : std::move(next);
        if (found) {
            if (outcome sent = send(run, server, message, count, since); !sent)
                return sent.kind() == OUTCOME_STOPPED ? finish(run, server, std::move(sent), count)
                                                      : std::move(sent);
            if (run.sent % LOOK_AFTER == 0)
                if (outcome looked = look(run, server, count, since); !looked)
                    return looked;
            continue;
        }
        if (outcome waited = wait(run, server, count, since); !waited)
            return waited;
        if (count == run.sent) {
            backoff = {};
            if (run.options.once)
                return {};
        }
    }
}

outcome ship_push(const ship_push_options &options)
{
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    push_run run(options, config);
    fwu_watch_open(run.watch, config.log_directory);
    feed_backoff backoff;
    outcome done;
    for (;;) {
        done = attempt(run, backoff);
        if (done.kind() != OUTCOME_LOST)
            break;
        feed_backoff_tell(backoff, done.text());
        if (!run.signals.pause(backoff)) {
            done = OUTCOME_STOPPED;
            break;
        }
    }
    ship_log_close(run.source);
    fwu_watch_close(run.watch);
    return done;
}
