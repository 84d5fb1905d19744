// A connection lasts as long as it lasts: whatever ends it, the next one begins with all
// the checks, since meanwhile the server may have become another one.
#include "feed/postgresql/bridge.h"

#include "feed/backoff.h"
#include "feed/policy.h"
#include "feed/postgresql/ask.h"
#include "feed/postgresql/check.h"
#include "feed/postgresql/connect.h"
#include "feed/postgresql/follow.h"
#include "feed/postgresql/gap.h"
#include "feed/postgresql/prepare.h"
#include "feed/postgresql/reload.h"
#include "feed/postgresql/request.h"
#include "feed/postgresql/resume.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_retention.h"
#include "fwutil/fwu_start.h"
#include "util/notify.h"
#include "util/report_signal.h"
#include "util/stop_signal.h"

#include <csignal>
#include <cstring>

constexpr int SLOT_WAIT_MS = 60'000; // for a receiver that the server has not given up yet

struct bridge {
    explicit bridge(const pgb_options &given) : options(given)
    {
    }

    const pgb_options &options;
    fwu_config config = {};
    pgs_server server = {};
    pgb_state state = {};
    pgb_relations relations = {};
    feed_transaction tx = {};
    pgb_apply apply = {};
    pgr_requests requests = {};
    pgl_reload reload = {};
    bool connected = false; // the server was reached once
    uint64_t stop_at = 0;   // --once: position that the log has to reach; 0: not known yet
};

static outcome prepare(bridge &b)
{
    pgb_found found;
    found.sent = pgb_last_sent(b.tx, b.relations);
    found.log_gap = [&b](const std::string &why, uint64_t begin) {
        return begin != 0 ? pgb_log_gap_up_to(b.tx, b.relations, begin, why)
                          : pgb_log_gaps(b.tx, b.relations, {}, why);
    };
    outcome done = pgb_prepare(found, b.server, b.state, b.config, b.options,
                               fwu_writer_last_commit(b.tx.writer));
    if (b.stop_at == 0)
        b.stop_at = found.server_end;
    if (!done)
        return done;
    b.apply.sent = found.sent;
    b.apply.expects_sent = found.expects_sent;
    return done;
}

static outcome follow(bridge &b)
{
    if (b.options.verbose)
        tell("following slot \"%s\" behind %s", b.server.slot.c_str(),
             fwu_lsn_text(fwu_writer_last_lsn(b.tx.writer)).c_str());
    const pgb_follow_settings settings = {.durable = b.config.sync != FWU_SYNC_NONE,
                                          .verbose = b.options.verbose,
                                          .once = b.options.once,
                                          .stop_at = b.stop_at,
                                          .requests = &b.requests,
                                          .reload = &b.reload};
    return pgb_follow(b.server, b.state, b.tx, b.relations, b.apply, settings);
}

static outcome connect_and_follow(bridge &b)
{
    pgb_forget_all(b.relations);
    outcome done = pgs_connect(b.server);
    b.connected = b.connected || done;
    if (done)
        done = prepare(b);
    if (done)
        done = follow(b);
    pgs_disconnect(b.server);
    (void)feed_names_keep(b.relations.names, true); // told; they would be given again anyway
    return done;
}

// What is known of connections that did not last.
struct losses {
    feed_backoff backoff;
    bool followed = false; // the server's stream was read before
    int slot_waited_ms = 0;
};

// Decides whether to try again, and waits for it.
static bool try_again(bridge &b, losses &past, const std::string &why)
{
    const pgs_server &server = b.server;
    if (strcmp(b.state.phase, "streaming") == 0) // it went well for a while
        past = {.backoff = {}, .followed = true};
    if (server.slot_in_use && !past.followed && past.slot_waited_ms >= SLOT_WAIT_MS) {
        (void)outcome_failed(
            "%s; stop the process that uses the slot, or name another slot with --slot",
            why.c_str());
        return false;
    }
    if (!b.connected) {
        (void)outcome_failed("cannot connect: %s; %s", why.c_str(),
                             server.remedy != nullptr ? server.remedy : PGS_CONNECT_REMEDY);
        return false;
    }
    feed_backoff_tell(past.backoff, why);
    pgb_state_enter(b.state, "waiting", why);
    b.state.reconnects++;
    b.state.alive = true;
    (void)pgb_state_tell(b.state); // told
    if (server.slot_in_use)
        past.slot_waited_ms += past.backoff.pause_ms;
    return feed_backoff_wait(past.backoff, [&b, &why] {
        fwu_writer_tend(b.tx.writer);
        pgl_look(b.reload, b.tx.writer);
        (void)pgr_look(b.requests, b.relations,
                       {.writer = b.tx.writer, .waits = "the server is not there: " + why});
        b.state.alive = true;          // it is up to the server
        (void)pgb_state_tell(b.state); // told
    });
}

static outcome run(bridge &b)
{
    losses past;
    for (;;) {
        outcome done = connect_and_follow(b);
        const bool lost = done.kind() == OUTCOME_LOST;
        if (lost && stop_signal_get() == 0 && try_again(b, past, done.text()))
            continue;
        if (done.kind() != OUTCOME_FAILED && stop_signal_get() != 0)
            return OUTCOME_STOPPED;
        return done ? OUTCOME_OK : OUTCOME_FAILED;
    }
}

// A repair may have cut off what the server was told, and will not send again.
static outcome accept_loss(bridge &b)
{
    uint64_t told = 0;
    if (!fwu_writer_lost(b.tx.writer, &told))
        return {};
    const std::string text = "the log was cut back to " +
                             fwu_lsn_text(fwu_writer_last_lsn(b.tx.writer)) +
                             " and lacks what the server was told up to " + fwu_lsn_text(told);
    if (b.options.accept_gap) {
        outcome done = pgb_log_gaps(b.tx, b.relations, {}, text);
        return done && fwu_writer_accept_loss(b.tx.writer) != 0 ? OUTCOME_FAILED : std::move(done);
    }
    return outcome_failed(
        "%s, which it will not send again: begin a new log directory with --create --snapshot, or "
        "go on as it is with --accept-gap",
        text.c_str());
}

// Tables that were set aside, or taken in in part, are followed from here on.
static outcome replace_standings(bridge &b)
{
    static const char why[] =
        "file aside was damaged: tables that were set aside are followed again";
    if (!b.relations.aside.damaged)
        return {};
    return pgb_log_gaps(b.tx, b.relations, {}, why);
}

// What the user and the configuration say.
static outcome set_up(bridge &b)
{
    const pgb_options &options = b.options;
    if (fwu_config_read(b.config, options.cfg) != 0)
        return OUTCOME_FAILED;
    pgl_open(b.reload, options.cfg, b.config.path);
    b.config.new_log_encoding = FWU_UTF8; // what a server's texts are, as a rule
    b.server.conninfo = options.conninfo;
    b.server.slot = options.slot;
    b.server.publication = options.publication;
    b.server.timeout_ms = b.server.patience_ms = int64_t{1000} * options.timeout_s;
    b.relations.tables.config = &b.config;
    b.relations.tables.default_policy = feed_server_policy(b.config);
    b.relations.facts.ask = [&b](const std::string &query, pgs_result &rows) {
        return pgs_ask_rows(b.server, b.server.replication.get(),
                            "SET search_path = pg_catalog; " + query, rows,
                            "what its tables and types are");
    };
    b.tx.work.settings = {.big_endian = b.config.big_endian, .truncate = options.truncate};
    b.apply.watch.config = &b.config;
    b.apply.accepts_gap = options.accept_gap;
    b.apply.skips = options.skips;
    b.state.relations = &b.relations;
    b.state.untold = &b.server.untold;
    b.state.slot = options.slot;
    b.state.publication = options.publication;
    b.state.kept.path = b.config.log_directory + "/source";
    b.state.path = b.config.log_directory + "/" + PGB_STATE_FILE;
    if (options.status == nullptr)
        return {};
    b.state.path = options.status;
    return pgb_state_check_path(b.state.path, b.config.log_directory);
}

// What the log and the run before say.
static outcome take_over(bridge &b)
{
    pgb_kept &kept = b.state.kept;
    b.state.retained = &fwu_writer_retained(b.tx.writer);
    kept.mode = fwu_writer_file_mode(b.tx.writer);
    outcome done = pgb_kept_read(kept, b.state.path);
    if (done)
        done = pgb_state_take(b.state);
    const fwu_commit &last = fwu_writer_last_commit(b.tx.writer);
    b.state.commit_us = last.time_us;
    pgb_skip_open(b.apply.skips, last.lsn);
    if (last.lsn != 0 && kept.snapshot == "begun")
        kept.snapshot = "done"; // cut short behind its commit
    b.relations.encoding = fwu_writer_encoding(b.tx.writer);
    b.tx.work.settings.encoding = b.relations.encoding;
    if (done)
        done = feed_names_open(b.relations.names, b.config.log_directory, kept.mode);
    if (done)
        done = pga_open(b.relations.aside, b.config.log_directory, kept.mode, last.lsn,
                        b.options.accept_gap);
    b.requests.directory = b.config.log_directory;
    b.requests.mode = kept.mode;
    b.requests.publication = b.server.publication;
    if (done)
        pgr_open(b.requests, b.relations.aside, b.options.resume);
    return done;
}

// What a monitor finds when the program has ended.
static void enter_last_phase(pgb_state &state, const outcome &done)
{
    if (done || done.kind() == OUTCOME_STOPPED)
        pgb_state_enter(state, "stopped");
    else
        pgb_state_enter(state, "failed",
                        !done.text().empty()             ? done.text()
                        : !outcome_failed_last().empty() ? outcome_failed_last()
                                                         : fwu_error_last());
    (void)pgb_state_tell(state); // told
}

// The log cannot be written: monitors are to know.
static outcome fail_to_open(bridge &b)
{
    const outcome failed = OUTCOME_FAILED;
    pgb_kept &kept = b.state.kept;
    const pgr_holder holder = pgr_find_holder(b.config.log_directory);
    kept.mode = holder.mode;
    if (holder.known && !holder.held && pgb_kept_read(kept, b.state.path) &&
        pgb_state_take(b.state))
        enter_last_phase(b.state, failed);
    pgb_state_release(b.state);
    return OUTCOME_FAILED;
}

outcome pgb_run(const pgb_options &options)
{
    if (options.check)
        return pgk_check(options);
    report_signal_install();
    bridge b(options);
    b.state.started_us = fwu_now_us();
    if (outcome said = set_up(b); !said)
        return said;
    stop_signal_install();
    signal(SIGPIPE, SIG_IGN); // a dead server is an error of the connection
    if (!options.resume.empty() && pgr_find_holder(b.config.log_directory).held)
        return pgr_resume(b.config.log_directory, b.state.path, options.resume);
    if (fwu_writer_open(&b.tx.writer, b.config) != 0)
        return fail_to_open(b);
    outcome done = take_over(b);
    if (done)
        pgb_state_tell_aside(b.state);
    if (done)
        done = pgb_state_write(b.state); // before the server is asked, which may take long
    if (done)
        done = accept_loss(b);
    if (done)
        done = replace_standings(b);
    if (done)
        done = run(b);
    (void)notify_send("STOPPING=1"); // lost, it changes nothing
    if (done)
        pgr_close(b.requests, b.relations, b.tx.writer, b.state.logged_lsn);
    pgb_skip_close(b.apply.skips);
    if (done && b.requests.refused)
        done = outcome_failed("not all tables were taken in that --resume names");
    const fwu_retained retained = fwu_writer_retained(b.tx.writer);
    b.state.retained = &retained;
    if (fwu_writer_close(b.tx.writer) != 0)
        done = OUTCOME_FAILED;
    enter_last_phase(b.state, done);
    pgb_state_release(b.state);
    if (options.verbose)
        pgb_state_print(b.state);
    return done;
}
