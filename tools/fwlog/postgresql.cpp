// fwlog postgresql: command line, and the bridge from one connection to the next.
#include "feed/lsn.h"
#include "feed/postgresql/bridge.h"
#include "feed/postgresql/report_signal.h"
#include "tools/fwlog/fwlog.h"
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

constexpr int64_t TIMEOUT_MAX_S = 3600;

struct word_option {
    const char *name;
    std::string *value;
    bool may_be_empty = false;
};
struct flag_option {
    const char *name;
    bool *value;
};

static int scan_options(pgb_bridge &bridge, std::string &cfg, int argc, char **argv)
{
    pgb_options &options = bridge.options;
    std::string timeout;
    const word_option words[] = {{"-cfg", &cfg},
                                 {"--conninfo", &bridge.server.conninfo, true},
                                 {"--timeout", &timeout},
                                 {"--slot", &bridge.server.slot},
                                 {"--publication", &bridge.server.publication},
                                 {"--status", &bridge.state.path}};
    const flag_option flags[] = {{"--create", &options.create},
                                 {"--snapshot", &options.snapshot},
                                 {"--ignore-truncate", &options.ignore_truncate},
                                 {"--truncate", &bridge.tx.work.settings.truncate},
                                 {"--accept-gap", &options.accept_gap},
                                 {"--once", &options.once},
                                 {"-v", &options.verbose}};
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        const auto *named = std::find_if(std::begin(words), std::end(words), [&](const auto &row) {
            return strcmp(word, row.name) == 0;
        });
        const auto *flag = std::find_if(std::begin(flags), std::end(flags), [&](const auto &row) {
            return strcmp(word, row.name) == 0;
        });
        if (named != std::end(words)) {
            if (++i == argc || (*argv[i] == '\0' && !named->may_be_empty))
                return fwlog_usage_error("option lacks its value", word);
            *named->value = argv[i];
        } else if (flag != std::end(flags)) {
            *flag->value = true;
        } else {
            return fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        }
    }
    int64_t seconds = bridge.server.timeout_ms / 1000;
    if (!timeout.empty() &&
        (!pgs_number(seconds, timeout) || seconds < 1 || seconds > TIMEOUT_MAX_S))
        return fwlog_usage_error("--timeout takes 1 to 3600 seconds", timeout.c_str());
    bridge.server.timeout_ms = bridge.server.patience_ms = seconds * 1000;
    return FWLOG_EXIT_OK;
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

static int run(pgb_bridge &bridge)
{
    back_off off;
    for (;;) {
        const pgs_outcome outcome = connect_and_follow(bridge);
        if (outcome == PGS_LOST && stop_signal_get() == 0 && try_again(bridge, off))
            continue;
        if (outcome != PGS_REFUSED && stop_signal_get() != 0)
            return FWLOG_EXIT_SIGNAL + stop_signal_get();
        return outcome == PGS_OK ? FWLOG_EXIT_OK : FWLOG_EXIT_FAILED;
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

int fwlog_postgresql_main(int argc, char **argv)
{
    pgb_bridge bridge;
    bridge.server.slot = "kestro";
    bridge.server.publication = "kestro";
    std::string cfg;
    const int usage = scan_options(bridge, cfg, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    if (fwu_config_read(bridge.config, cfg.empty() ? nullptr : cfg.c_str()) != 0)
        return FWLOG_EXIT_FAILED;
    stop_signal_install();
    report_signal_install();
    signal(SIGPIPE, SIG_IGN); // a dead server is an error of the connection
    bridge.relations.tables.config = &bridge.config;
    bridge.tx.work.settings.big_endian = bridge.config.big_endian;
    if (bridge.state.path.empty())
        bridge.state.path = bridge.config.log_directory + "/postgresql.json";
    bridge.state.slot = bridge.server.slot;
    bridge.state.publication = bridge.server.publication;
    if (fwu_writer_open(&bridge.tx.writer, bridge.config) != 0)
        return FWLOG_EXIT_FAILED;
    pgb_state_read(bridge.state);
    const fwu_commit &last = fwu_writer_last_commit(bridge.tx.writer);
    bridge.state.commit_us = last.time_us;
    if (last.lsn != 0 && bridge.state.snapshot == "begun")
        bridge.state.snapshot = "done"; // cut short behind its commit

    bridge.state.mode = fwu_writer_file_mode(bridge.tx.writer);
    // Written before the server is asked for anything, which may take its time.
    int status = accept_loss(bridge) && pgb_state_write(bridge.state, false) ? run(bridge)
                                                                             : FWLOG_EXIT_FAILED;
    if (fwu_writer_close(bridge.tx.writer) != 0)
        status = FWLOG_EXIT_FAILED;
    bridge.state.phase = "stopped";
    (void)pgb_state_write(bridge.state, false); // reported
    if (bridge.options.verbose)
        pgb_state_print(bridge.state);
    return status;
}
