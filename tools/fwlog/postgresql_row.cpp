// fwlog postgresql: command line and help, in every build.
#include "feed/postgresql/bridge.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"
#include "tools/fwlog/fwlog.h"

#include <cstring>

static pgb_options options;

static constexpr char LACKING[] = "option lacks its value";
static constexpr cli_kind VALUE_FILE = {.word = "FILE", .lacking = LACKING, .may_be_empty = false};
static constexpr cli_kind NAME = {.word = "NAME", .lacking = LACKING, .may_be_empty = false};
static constexpr cli_kind CONNINFO = {.word = "\"...\"", .lacking = LACKING};
static constexpr cli_kind TIMEOUT = {.word = "SECONDS",
                                     .lacking = LACKING,
                                     .bad = "--timeout takes 1 to 3600 seconds",
                                     .smallest = 1,
                                     .largest = 3600,
                                     .may_be_empty = false};
static constexpr cli_kind SCAN_TIMEOUT = {.word = "SECONDS",
                                          .lacking = LACKING,
                                          .bad = "--scan-timeout takes 1 to 86400 seconds",
                                          .smallest = 1,
                                          .largest = 86400,
                                          .may_be_empty = false};
static constexpr cli_kind CREATE = {
    .word = "minimal", .bad = "--create takes =minimal or nothing", .may_be_left_out = true};

static constexpr cli_kind TABLE = {.word = "TABLE",
                                   .lacking = LACKING,
                                   .bad = "--resume takes all, or a table with its schema",
                                   .may_be_empty = false};

static bool take_resume(const char *word)
{
    std::vector<std::string> parts;
    options.resume.push_back(word);
    return strcmp(word, "all") == 0 || (fwu_source_name_parts(parts, word) && parts.size() == 2);
}

static bool take_create(const char *word)
{
    options.create = true;
    options.minimal = word != nullptr;
    return word == nullptr || strcmp(word, "minimal") == 0;
}

static constexpr cli_kind SKIP = {
    .word = "LSN[,TABLE...]",
    .lacking = LACKING,
    .bad = "--skip-transaction takes the position of a commit (0/16B3748), and behind commas "
           "tables (sales.orders), a name that holds a comma in double quotes (sales.\"a,b\")",
    .may_be_empty = false};

// Takes what stands in front of the next comma outside of quotes, and the comma.
static std::string_view take_word(std::string_view &rest)
{
    bool quoted = false;
    size_t end = 0;
    for (; end < rest.size() && (quoted || rest[end] != ','); end++)
        quoted = quoted != (rest[end] == '"');
    const std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end == rest.size() ? end : end + 1);
    return word;
}

static bool take_skip(const char *word)
{
    std::string_view rest = word;
    pgb_skip &skip = options.skips.emplace_back();
    if (!fwu_lsn_parse(skip.lsn, take_word(rest)) || skip.lsn == 0 ||
        std::string_view(word).ends_with(','))
        return false;
    while (!rest.empty()) {
        std::vector<std::string> parts;
        if (!fwu_source_name_parts(parts, take_word(rest)) || parts.size() != 2)
            return false;
        skip.tables.push_back(fwu_source_name(parts[0], parts[1]));
    }
    return true;
}

static constexpr cli_option rows[] = {
    {"-cfg", VALUE_FILE, &options.cfg},
    {"--conninfo", CONNINFO, &options.conninfo},
    {"--slot", NAME, &options.slot},
    {"--publication", NAME, &options.publication},
    {"--create", CREATE, &take_create},
    {"--snapshot", CLI_FLAG, &options.snapshot},
    {"--truncate", CLI_FLAG, &options.truncate},
    {"--accept-gap", CLI_FLAG, &options.accept_gap},
    {"--skip-transaction", SKIP, &take_skip},
    {"--resume", TABLE, &take_resume},
    {"--once", CLI_FLAG, &options.once},
    {"--timeout", TIMEOUT, &options.timeout_s},
    {"--status", VALUE_FILE, &options.status},
    {"-v", CLI_FLAG, &options.verbose},
    {"--check", CLI_FLAG, &options.check},
    {"--scan", CLI_FLAG, &options.scan},
    {"--scan-timeout", SCAN_TIMEOUT, &options.scan_timeout_s},
    {"--json", CLI_FLAG, &options.json},
    {"--write-config", VALUE_FILE, &options.write_config},
};

static outcome run()
{
    const struct {
        const char *name;
        bool given;
    } of_check[] = {{"--scan", options.scan},
                    {"--json", options.json},
                    {"--write-config", options.write_config != nullptr}};
    for (const auto &row : of_check)
        if (row.given && !options.check)
            return cli_usage("option needs --check", row.name);
    return pgb_run(options);
}

static const char help[] =
    "Usage: fwlog postgresql [-cfg FILE] [--conninfo \"...\"] [--slot NAME]\n"
    "           [--publication NAME] [--create[=minimal]] [--snapshot] [--truncate]\n"
    "           [--accept-gap] [--skip-transaction LSN[,TABLE...]]\n"
    "           [--resume TABLE ...] [--once] [--timeout SECONDS] [--status FILE] [-v]\n"
    "           [--check [--scan [--scan-timeout SECONDS]]\n"
    "           [--json] [--write-config FILE]]\n"
    "\n"
    "Follows a PostgreSQL server (12 or later) by logical replication and appends every\n"
    "transaction to the forward log, until SIGINT or SIGTERM.  The server keeps what is\n"
    "not in the log yet, so the command can be stopped and started at any time.\n"
    "\n"
    "  -cfg FILE            configuration file (else the one named by FWUTIL_CFG, else\n"
    "                       fwutil.cfg); tables that it does not describe become\n"
    "                       datasets by the server's catalogue\n"
    "  --conninfo \"...\"     how to connect, as libpq takes it\n"
    "                       (\"host=db1 dbname=shop user=capture\"); the role needs\n"
    "                       LOGIN and REPLICATION; what it leaves out comes from the\n"
    "                       environment (PGHOST, PGSERVICE, ...), a password better\n"
    "                       from a password file, since others see the command line\n"
    "  --slot NAME          replication slot (default kestro)\n"
    "  --publication NAME   publication (default kestro)\n"
    "  --create[=minimal]   create what is missing of slot and publication: of all tables,\n"
    "                       and REPLICA IDENTITY FULL for those, also later ones, whose\n"
    "                       rows nothing else identifies; minimal: of the tables that\n"
    "                       something identifies, and no table is touched\n"
    "  --snapshot           begin a new slot with the tables' contents as inserts\n"
    "  --truncate           cut texts that are too long for their item and go on\n"
    "  --accept-gap         go on with the slot although the log lacks what was changed\n"
    "                       meanwhile, or the server what the log has\n"
    "  --skip-transaction LSN[,TABLE...]\n"
    "                       pass over the transaction that commits at LSN, which the\n"
    "                       server cannot send; the log gets a gap mark for these\n"
    "                       tables (a name with a comma in double quotes: s.\"a,b\"), else\n"
    "                       for all; may be given several times\n"
    "  --resume TABLE       take a table in that is set aside, or came later, with all that it\n"
    "                       holds; all: every one that is set aside; where fwlog postgresql\n"
    "                       runs already, it is asked to, and this command ends when it has\n"
    "  --once               end when the log has what the server had at the start\n"
    "  --timeout SECONDS    of silence after which the server is taken for gone (default 60)\n"
    "  --status FILE        JSON file that tells how far it is (default postgresql.json\n"
    "                       in the log directory); SIGUSR1 prints the same\n"
    "  -v                   tell what is done, and every ten seconds how far it is\n"
    "  --check              change nothing, and tell what a start with these options\n"
    "                       would find: each table and column with its dataset, item,\n"
    "                       type and width; what is missing, with the SQL to paste\n"
    "  --scan               with --check: read the tables, too, and count the values that\n"
    "                       would be cut, replaced or left out\n"
    "  --scan-timeout SECONDS\n"
    "                       for each query that reads a table (default 60)\n"
    "  --json               with --check: print one JSON object\n"
    "  --write-config FILE  with --check: write it as a configuration, to be edited\n"
    "  --help               print this (also -h)\n"
    "\n"
    "Exit status: 0 done (--once, --resume), or nothing is in a start's way (--check);\n"
    "1 error (whole transactions before it are in the log), a table that is not taken in\n"
    "(--resume), or something is in its way (--check); 2 wrong command line; 128 + signal\n"
    "number after SIGINT or SIGTERM.\n";

constinit const cli_command fwlog_postgresql_row = {
    .name = "postgresql",
    .summary = "follows a running server and appends its changes",
    .run = run,
    .options = rows,
    .help = help,
};
