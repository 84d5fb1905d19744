// capship pull: from a stream into a forward log.
#include "ship/pull.h"
#include "ship/subject.h"
#include "tools/capship/capship.h"

static ship_pull_options options;

static bool take_durable(const char *word)
{
    options.durable = word;
    return ship_name_ok(word);
}

static constexpr cli_kind CFG = {.word = "FILE",
                                 .lacking = "into which log?",
                                 .again = "more than one file",
                                 .may_be_empty = false};
static constexpr cli_option rows[] = {
    CAPSHIP_SERVER,
    CAPSHIP_STREAM,
    {"--durable", CAPSHIP_NAME, take_durable},
    {"--once", CLI_FLAG, &options.once},
    CAPSHIP_CREDS,
    CAPSHIP_CA,
    CAPSHIP_CERT,
    CAPSHIP_KEY,
    CAPSHIP_SILENCE,
    {"-v", CLI_FLAG, &options.verbose},
    {"FILE", CFG, &options.file},
};

static outcome run()
{
    if (outcome checked = capship_check_server(); !checked)
        return checked;
    if (options.durable == nullptr)
        return cli_usage("which name has the consumer?", "--durable");
    options.server = capship_server;
    return ship_pull(options);
}

static const char help[] =
    "Usage: capship pull --server URL --stream NAME --durable NAME [--once]\n"
    "           [--creds FILE] [--ca FILE] [--cert FILE --key FILE] [--timeout SECONDS]\n"
    "           [-v] FILE\n"
    "\n"
    "Writes what capship push has sent into a stream as a forward log: the same files, byte\n"
    "for byte, transaction by transaction, until SIGINT or SIGTERM.  The log itself tells\n"
    "how far that is: the command can be stopped, killed and started at any time.\n"
    "\n"
    "  --server URL       of the server, as for push\n"
    "  --stream NAME      of the stream\n"
    "  --durable NAME     of this log's consumer of the stream; each log has its own\n"
    "  --once             end when the log has all that the stream has\n"
    "  --creds FILE       credentials (a user's JWT and its seed)\n"
    "  --ca FILE          TLS, with servers whose certificates these authorities sign\n"
    "  --cert FILE        TLS, with this certificate for the server to check\n"
    "  --key FILE         its key\n"
    "  --timeout SECONDS  of silence after which the server is taken for gone (default 60)\n"
    "  -v                 tell what is done\n"
    "  --help             print this (also -h)\n"
    "  FILE               configuration file that names the log directory; nothing else may\n"
    "                     write to that log\n"
    "\n"
    "Exit status: 0 done (--once); 1 error; 2 wrong command line; 128 + signal number\n"
    "after SIGINT or SIGTERM.\n";

constinit const cli_command capship_pull_row = {
    .name = "pull",
    .summary = "writes a stream as a forward log",
    .run = run,
    .options = rows,
    .help = help,
};
