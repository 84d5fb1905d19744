// fwlog postgresql: the bridge from one connection to the next.
#include "tools/fwlog/postgresql.h"

#include "feed/lsn.h"
#include "feed/postgresql/bridge.h"
#include "feed/postgresql/report_signal.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>

constexpr int FIRST_PAUSE_MS = 100;
constexpr int LONGEST_PAUSE_MS = 10'000;
constexpr int SLOT_WAIT_MS = 60'000; // for a receiver that the server has not given up yet

pgs_outcome pgb_bad(const pgb_bridge &bridge, const std::string &error)
{
    if (bridge.tx.open)
        fprintf(stderr, "fwlog: transaction %" PRIu64 " of %s: %s\n", bridge.tx.commit.xid,
                feed_lsn_text(bridge.tx.commit.lsn).c_str(), error.c_str());
    else
        fprintf(stderr, "fwlog: %s\n", error.c_str());
    return PGS_REFUSED;
}

static pgs_outcome connect_and_follow(pgb_bridge &bridge)
{
    bridge.relations.known.clear(); // the server describes the tables anew
    pgs_outcome outcome = pgs_connect(bridge.server);
    bridge.connected = bridge.connected || outcome == PGS_OK;
    if (outcome == PGS_OK)
        outcome = pgb_prepare(bridge);
    if (outcome == PGS_OK) {
        if (bridge.options.verbose)
            fprintf(stderr, "fwlog: following slot \"%s\" behind %s\n", bridge.server.slot.c_str(),
                    feed_lsn_text(fwu_writer_last_lsn(bridge.tx.writer)).c_str());
        outcome = pgb_follow(bridge);
    }
    pgs_disconnect(bridge.server);
    return outcome;
}

// What is known of a connection that did not last.
struct back_off {
    bool followed = false; // the server's stream was read before
    int pause_ms = FIRST_PAUSE_MS;
    int slot_waited_ms = 0;
    std::string told = {}; // last
};

// Decides whether to try again, and waits for it.
static bool try_again(pgb_bridge &bridge, back_off &off)
{
    const pgs_server &server = bridge.server;
    const bool went_well = strcmp(bridge.state.phase, "streaming") == 0;
    if (went_well)
        off = {.followed = true};
    if (server.slot_in_use && !off.followed && off.slot_waited_ms >= SLOT_WAIT_MS) {
        fprintf(stderr,
                "fwlog: %s; stop the process that uses the slot, or name another slot with "
                "--slot\n",
                server.lost.c_str());
        return false;
    }
    if (!bridge.connected) {
        fprintf(stderr, "fwlog: cannot connect: %s; %s\n", server.lost.c_str(),
                server.remedy != nullptr
                    ? server.remedy
                    : "check --conninfo or the environment (host, port, dbname, user, password), "
                      "and that the server runs");
        return false;
    }
    if (off.pause_ms == FIRST_PAUSE_MS || off.told != server.lost)
        fprintf(stderr, "fwlog: %s; trying again\n", server.lost.c_str());
    off.told = server.lost;
    bridge.state.phase = "waiting";
    bridge.state.reconnects++;
    (void)pgb_state_write(bridge.state, false); // reported
    (void)stop_signal_wait(-1, off.pause_ms);
    if (server.slot_in_use)
        off.slot_waited_ms += off.pause_ms;
    off.pause_ms = std::min(2 * off.pause_ms, LONGEST_PAUSE_MS);
    return stop_signal_get() == 0;
}

static outcome run(pgb_bridge &bridge)
{
    back_off off;
    for (;;) {
        const pgs_outcome came = connect_and_follow(bridge);
        if (came == PGS_LOST && stop_signal_get() == 0 && try_again(bridge, off))
            continue;
        if (came != PGS_REFUSED && stop_signal_get() != 0)
            return OUTCOME_STOPPED;
        return came == PGS_OK ? outcome() : OUTCOME_FAILED;
    }
}

// A repair may have cut off what the server was told, and will not send again.
static bool accept_loss(pgb_bridge &bridge)
{
    uint64_t told = 0;
    if (!fwu_writer_lost(bridge.tx.writer, &told))
        return true;
    if (bridge.options.accept_gap)
        return fwu_writer_accept_loss(bridge.tx.writer) == 0;
    fprintf(stderr,
            "fwlog: the log was cut back to %s and lacks what the server was told up to %s, which "
            "it will not send again: begin a new log directory with --create --snapshot, or go on "
            "as it is with --accept-gap\n",
            feed_lsn_text(fwu_writer_last_lsn(bridge.tx.writer)).c_str(),
            feed_lsn_text(told).c_str());
    return false;
}

static void set_options(pgb_bridge &bridge, const fwlog_postgresql_options &options)
{
    bridge.options = {.create = options.create,
                      .snapshot = options.snapshot,
                      .ignore_truncate = options.ignore_truncate,
                      .accept_gap = options.accept_gap,
                      .once = options.once,
                      .verbose = options.verbose};
    bridge.server.conninfo = options.conninfo;
    bridge.server.slot = options.slot;
    bridge.server.publication = options.publication;
    bridge.server.timeout_ms = bridge.server.patience_ms = int64_t{1000} * options.timeout_s;
    bridge.tx.work.settings = {.big_endian = bridge.config.big_endian,
                               .truncate = options.truncate};
    bridge.state.path = options.status != nullptr
                            ? options.status
                            : bridge.config.log_directory + "/postgresql.json";
    bridge.state.slot = options.slot;
    bridge.state.publication = options.publication;
}

outcome fwlog_postgresql(const fwlog_postgresql_options &options)
{
    pgb_bridge bridge;
    if (fwu_config_read(bridge.config, options.cfg) != 0)
        return OUTCOME_FAILED;
    set_options(bridge, options);
    stop_signal_install();
    report_signal_install();
    signal(SIGPIPE, SIG_IGN); // a dead server is an error of the connection
    bridge.relations.tables.config = &bridge.config;
    if (fwu_writer_open(&bridge.tx.writer, bridge.config) != 0)
        return OUTCOME_FAILED;
    pgb_state_read(bridge.state);
    const fwu_commit &last = fwu_writer_last_commit(bridge.tx.writer);
    bridge.state.commit_us = last.time_us;
    if (last.lsn != 0 && bridge.state.snapshot == "begun")
        bridge.state.snapshot = "done"; // cut short behind its commit

    bridge.state.mode = fwu_writer_file_mode(bridge.tx.writer);
    // Written before the server is asked for anything, which may take its time.
    const bool ready = accept_loss(bridge) && pgb_state_write(bridge.state, false);
    outcome done = ready ? run(bridge) : OUTCOME_FAILED;
    if (fwu_writer_close(bridge.tx.writer) != 0)
        done = OUTCOME_FAILED;
    bridge.state.phase = "stopped";
    (void)pgb_state_write(bridge.state, false); // reported
    if (bridge.options.verbose)
        pgb_state_print(bridge.state);
    return done;
}
