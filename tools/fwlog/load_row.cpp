// fwlog load: command line and help, in every build.
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/load.h"

static fwlog_load_options options;

static constexpr cli_kind CHANGES = {
    .word = "CHANGES.jsonl", .again = "more than one change stream", .may_be_hyphen = true};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--truncate", CLI_FLAG, &options.truncate},
    {"CHANGES.jsonl", CHANGES, &options.input},
};

static outcome run()
{
    return fwlog_load(options);
}

static const char help[] =
    "Usage: fwlog load [-cfg FILE] [--truncate] [CHANGES.jsonl | -]\n"
    "\n"
    "Reads a change stream, JSON lines of wal2json's format version 2, from the\n"
    "file or from standard input (\"-\" or no file) and appends it to the forward\n"
    "log, transaction by transaction.  Transactions that the log has already are\n"
    "skipped, so that an interrupted load is simply run again.\n"
    "\n"
    "  -cfg FILE    configuration file (else the one named by FWUTIL_CFG, else\n"
    "               fwutil.cfg): log directory, datasets and their items\n"
    "  --truncate   cut texts that are too long for their item and go on\n"
    "  --help       print this (also -h)\n"
    "\n"
    "Exit status: 0 all loaded; 1 error (whole transactions before it are in the\n"
    "log); 2 wrong command line; 128 + signal number when SIGINT or SIGTERM ended\n"
    "it after a whole transaction.\n";

constinit const cli_command fwlog_load_row = {
    .name = "load",
    .summary = "appends a recorded change stream to the forward log",
    .run = run,
    .options = rows,
    .help = help,
};
