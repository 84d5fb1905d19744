// fwlog health: one line and an exit status for monitors, as their plugins have them.
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_readers.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/health_look.h"
#include "tools/fwlog/log_directory.h"
#include "util/json_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

constexpr uint64_t NO_LAG_LIMIT = UINT64_MAX;
constexpr uint64_t MAX_LAG_S = 1'000'000'000;

struct health_options {
    const char *cfg = nullptr;
    std::vector<const char *> states;
    uint64_t max_lag = NO_LAG_LIMIT;
    bool json = false;
};
static health_options options;
static health_verdict found = HEALTH_OK; // the worst

static constexpr cli_kind STATE_FILE = {.word = "FILE", .lacking = "option lacks its state file"};
static constexpr cli_kind SECONDS = {.word = "S",
                                     .lacking = "option lacks its number of seconds",
                                     .bad = "not a number of seconds",
                                     .largest = MAX_LAG_S};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--state", STATE_FILE, &options.states},
    {"--max-lag", SECONDS, &options.max_lag},
    {"--json", CLI_FLAG, &options.json},
};

static const char *const VERDICTS[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

// The worse one: what is known to be bad is worse than what is not known.
static health_verdict worse(health_verdict a, health_verdict b)
{
    static constexpr int rank[] = {0, 1, 3, 2};
    return rank[a] >= rank[b] ? a : b;
}

// What the log itself knows of: its readers, and the bridge's file.
static outcome find_files(std::vector<std::string> &paths)
{
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    std::string directory;
    if (outcome named = fwlog_log_directory(config, directory); !named)
        return named;
    if (fwu_readers_read(directory, paths) == FWU_FAILED)
        return OUTCOME_FAILED;
    struct stat st = {};
    const std::string bridge = directory + "/postgresql.json";
    if (stat(bridge.c_str(), &st) == 0)
        paths.push_back(bridge);
    if (paths.empty())
        return outcome_failed("nothing is registered with the log in %s: name files with --state, "
                              "or register its readers with fwlog readers",
                              directory.c_str());
    return {};
}

static std::string item_json(const health_item &item)
{
    char lag[128] = "\"records\":null,\"bytes\":null,\"seconds\":null";
    if (item.measured)
        snprintf(lag, sizeof lag, "\"records\":%s,\"bytes\":%lld,\"seconds\":%.3f",
                 item.records < 0 ? "null" : std::to_string(item.records).c_str(),
                 static_cast<long long>(item.bytes), item.seconds);
    return "{\"file\":" + json_text(item.path) + ",\"kind\":\"" + item.kind + "\",\"verdict\":\"" +
           VERDICTS[item.verdict] + "\",\"state\":\"" + item.state +
           "\",\"pid\":" + (item.pid > 0 ? std::to_string(item.pid) : "null") +
           ",\"position\":" + (item.position.empty() ? "null" : json_text(item.position)) + "," +
           lag + ",\"detail\":" + json_text(item.detail) + "}";
}

// Names and messages are one line, and say nothing to a terminal.
static std::string one_line(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, ' ');
    return text;
}

static outcome run()
{
    std::vector<std::string> paths(options.states.begin(), options.states.end());
    if (paths.empty())
        if (outcome done = find_files(paths); !done)
            return done;
    const double max_lag =
        options.max_lag == NO_LAG_LIMIT ? -1 : static_cast<double>(options.max_lag);
    std::string line;
    std::string items;
    found = HEALTH_OK;
    for (const std::string &path : paths) {
        const health_item item = fwlog_health_look(path, max_lag);
        found = worse(found, item.verdict);
        line += (line.empty() ? "" : "; ") + path + ": " + item.detail;
        items += (items.empty() ? "" : ",") + item_json(item);
    }
    if (options.json)
        printf("{\"verdict\":\"%s\",\"items\":[%s]}\n", VERDICTS[found], items.c_str());
    else
        printf("%s: %s\n", VERDICTS[found], one_line(line).c_str());
    return {};
}

// Whatever kept it from looking is not known to be bad.
static int status(const outcome &done)
{
    const int ended = outcome_exit_status(done); // tells what is to be told
    return ended == EXIT_STATUS_OK ? found : HEALTH_UNKNOWN;
}

static const char help[] =
    "Usage: fwlog health [-cfg FILE] [--state FILE ...] [--max-lag S] [--json]\n"
    "\n"
    "Says in one line for a monitor how the programs around a forward log are doing:\n"
    "whether they run, go on, stand still or have failed, and how far readers are from\n"
    "the log's end in records, bytes and seconds.\n"
    "\n"
    "  -cfg FILE      configuration file (else the one named by FWUTIL_CFG, else\n"
    "                 fwutil.cfg), which names the log directory; not read with --state\n"
    "  --state FILE   what to look at: a file of KESTRO_STATUS, a reader's status file\n"
    "                 (-stat of Kestro, --state of fwlog tail) or postgresql.json; else\n"
    "                 the readers registered with the log, and its postgresql.json\n"
    "  --max-lag S    a warning when the oldest change that has still to be read was\n"
    "                 committed more than so many seconds ago\n"
    "  --json         one JSON object\n"
    "  --help         print this (also -h)\n"
    "\n"
    "Exit status: 0 OK; 1 WARNING: too far behind, a bridge that was stopped, tables set\n"
    "aside; 2 CRITICAL: stalled, failed, dead, no server, nobody reads what waits;\n"
    "3 UNKNOWN: a file cannot be read, or the command line is wrong.\n";

constinit const cli_command fwlog_health_row = {
    .name = "health",
    .summary = "tells a monitor how readers and bridge are doing",
    .run = run,
    .options = rows,
    .help = help,
    .status = status,
};
