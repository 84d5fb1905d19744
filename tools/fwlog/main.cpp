// fwlog: writes forward logs from a PostgreSQL change stream and prints them.
// This file has the subcommands and the help texts.
#include "tools/fwlog/fwlog.h"

#include "fwutil/fwu_error.h"
#include "util/outcome.h"
#include "util/standard_files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

static const char help_text[] =
    "Usage: fwlog load [-cfg FILE] [--truncate] [CHANGES.jsonl | -]\n"
    "       fwlog postgresql [-cfg FILE] [--conninfo \"...\"] [--create] [--snapshot] ...\n"
    "       fwlog dump [-cfg FILE] [--hex] [--from POSITION] [--to POSITION]\n"
    "       fwlog tail [-cfg FILE] [-f] [-n N] [--hex]\n"
    "       fwlog verify [-cfg FILE] [--json]\n"
    "       fwlog info [-cfg FILE] [--json]\n"
    "       fwlog repair [-cfg FILE] [--dry-run] [--accept-loss] [--json]\n"
    "       fwlog prune [-cfg FILE] (--keep N | --before POSITION) [--status FILE ...]\n"
    "                   [--dry-run] [--json]\n"
    "       fwlog --help | --version\n"
    "\n"
    "Writes forward logs from PostgreSQL, and tells about them.\n"
    "\n"
    "  load        appends a recorded change stream to the forward log\n"
    "  postgresql  follows a running server and appends its changes\n"
    "  dump        prints the entries of a forward log\n"
    "  tail        prints the last transactions, and those to come\n"
    "  verify      reads every entry of a forward log and says what is damaged\n"
    "  info        tells files, positions, times and datasets of a forward log\n"
    "  repair      cuts a damaged log back to what is whole\n"
    "  prune       removes old files of a forward log\n"
    "\n"
    "\"fwlog load --help\" and so on say more.\n";

static const char load_help_text[] =
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
    "  --help       print this\n"
    "\n"
    "Exit status: 0 all loaded; 1 error (whole transactions before it are in the\n"
    "log); 2 wrong command line; 128 + signal number when SIGINT or SIGTERM ended\n"
    "it after a whole transaction.\n";

static const char postgresql_help_text[] =
    "Usage: fwlog postgresql [-cfg FILE] [--conninfo \"...\"] [--slot NAME]\n"
    "           [--publication NAME] [--create] [--snapshot] [--truncate]\n"
    "           [--ignore-truncate] [--accept-gap] [--once] [--timeout SECONDS]\n"
    "           [--status FILE] [-v]\n"
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
    "  --create             create what is missing of slot and publication (of all tables)\n"
    "  --snapshot           begin a new slot with the tables' contents as inserts\n"
    "  --truncate           cut texts that are too long for their item and go on\n"
    "  --ignore-truncate    go on when a table is truncated, with a warning\n"
    "  --accept-gap         go on with the slot although the log lacks what was changed\n"
    "                       meanwhile, or the server what the log has\n"
    "  --once               end when the log has what the server had at the start\n"
    "  --timeout SECONDS    of silence after which the server is taken for gone (default 60)\n"
    "  --status FILE        JSON file that tells how far it is (default postgresql.json\n"
    "                       in the log directory); SIGUSR1 prints the same\n"
    "  -v                   tell what is done, and every ten seconds how far it is\n"
    "  --help               print this\n"
    "\n"
    "Exit status: 0 done (--once); 1 error (whole transactions before it are in the log);\n"
    "2 wrong command line; 128 + signal number after SIGINT or SIGTERM.\n";

static const char dump_help_text[] =
    "Usage: fwlog dump [-cfg FILE] [--hex] [--from POSITION] [--to POSITION]\n"
    "\n"
    "Prints the committed transactions of the forward log entry by entry.\n"
    "\n"
    "  -cfg FILE        configuration file (else the one named by FWUTIL_CFG, else\n"
    "                   fwutil.cfg), which names the log directory\n"
    "  --hex            print record images as hexadecimal bytes instead of values\n"
    "  --from POSITION  begin with the log file of this number (\"25\"), or with this\n"
    "                   entry (\"1-25.340\": generation, number, tag)\n"
    "  --to POSITION    end with that log file or entry\n"
    "  --help           print this\n"
    "\n"
    "Exit status: 0 done; 1 error or damage; 2 wrong command line.\n";

static const char tail_help_text[] =
    "Usage: fwlog tail [-cfg FILE] [-f] [-n N] [--hex]\n"
    "\n"
    "Prints the entries of the last transactions of the forward log, as dump does.\n"
    "\n"
    "  -cfg FILE  configuration file (else the one named by FWUTIL_CFG, else\n"
    "             fwutil.cfg), which names the log directory\n"
    "  -f         go on with each transaction that is committed, until SIGINT or SIGTERM\n"
    "  -n N       number of transactions (10 when not given; 0 with -f: new ones only)\n"
    "  --hex      print record images as hexadecimal bytes instead of values\n"
    "  --help     print this\n"
    "\n"
    "Exit status: 0 done; 1 error or damage; 2 wrong command line; 128 + signal number\n"
    "when SIGINT or SIGTERM ended it behind a whole transaction.\n";

static const char verify_help_text[] =
    "Usage: fwlog verify [-cfg FILE] [--json]\n"
    "\n"
    "Reads every entry of the forward log, checks all checksums, tags and file names,\n"
    "and prints a line for each log file: what it holds, or what is damaged and at\n"
    "which offset.  What stands behind a damaged place in a file is not looked at; the\n"
    "next file is.  Also compares records with their layouts, and the log's end with what\n"
    "was acknowledged.\n"
    "\n"
    "  -cfg FILE    configuration file (else the one named by FWUTIL_CFG, else\n"
    "               fwutil.cfg), which names the log directory\n"
    "  --json       one JSON object a line for each file\n"
    "  --help       print this\n"
    "\n"
    "Exit status: 0 sound (a transaction being written at the end is); 1 damage, a\n"
    "missing file, or the log could not be read; 2 wrong command line.\n";

static const char info_help_text[] =
    "Usage: fwlog info [-cfg FILE] [--json]\n"
    "\n"
    "Tells of each file of the forward log its size, its transactions with the times of\n"
    "the first and the last commit, and the position of the last one in the log and in\n"
    "the source; then the log's identity, how far it was acknowledged, and the changes of\n"
    "each dataset.\n"
    "\n"
    "  -cfg FILE    configuration file (else the one named by FWUTIL_CFG, else\n"
    "               fwutil.cfg), which names the log directory\n"
    "  --json       one JSON object\n"
    "  --help       print this\n"
    "\n"
    "Exit status: 0 done; 1 damage, or the log could not be read; 2 wrong command line.\n";

static const char repair_help_text[] =
    "Usage: fwlog repair [-cfg FILE] [--dry-run] [--accept-loss] [--json]\n"
    "\n"
    "Cuts a damaged log back to its last whole transaction before the first damage, and\n"
    "says what is lost by that.  What is cut off is kept in the log directory: the end of\n"
    "the damaged file as a copy, later files under other names.  A sound log stays as it\n"
    "is.  No writer may run; readers may.\n"
    "\n"
    "  -cfg FILE      configuration file (else the one named by FWUTIL_CFG, else\n"
    "                 fwutil.cfg), which names the log directory\n"
    "  --dry-run      only say what would be done\n"
    "  --accept-loss  also cut off what was acknowledged, which its source does not send\n"
    "                 again; better restore the log from a copy\n"
    "  --json         one JSON object\n"
    "  --help         print this\n"
    "\n"
    "Exit status: 0 sound, repaired, or (--dry-run) to be repaired; 1 error, or refused\n"
    "without --accept-loss; 2 wrong command line.\n";

static const char prune_help_text[] =
    "Usage: fwlog prune [-cfg FILE] (--keep N | --before POSITION) [--status FILE ...]\n"
    "                   [--dry-run] [--json]\n"
    "\n"
    "Removes the oldest files of the forward log, oldest first, also beside a writer\n"
    "and readers.  The newest file and the one with the last transaction always stay.\n"
    "\n"
    "  -cfg FILE          configuration file (else the one named by FWUTIL_CFG, else\n"
    "                     fwutil.cfg), which names the log directory\n"
    "  --keep N           keep the newest N files\n"
    "  --before POSITION  keep the file of this position (\"25\", \"1-25\", \"1-25.340\")\n"
    "                     and all behind it\n"
    "  --status FILE      remove nothing if the run with this status file needs one of\n"
    "                     the files; may be repeated\n"
    "  --dry-run          only say what would be removed\n"
    "  --json             one JSON object\n"
    "  --help             print this\n"
    "\n"
    "Exit status: 0 done, also when nothing was old enough; 1 error, or a status file\n"
    "forbids it; 2 wrong command line.\n";

struct subcommand {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *help;
};

static const subcommand subcommands[] = {
    {"load", fwlog_load_main, load_help_text},
    {"postgresql", fwlog_postgresql_main, postgresql_help_text},
    {"dump", fwlog_dump_main, dump_help_text},
    {"tail", fwlog_tail_main, tail_help_text},
    {"verify", fwlog_verify_main, verify_help_text},
    {"info", fwlog_info_main, info_help_text},
    {"repair", fwlog_repair_main, repair_help_text},
    {"prune", fwlog_prune_main, prune_help_text},
};

int fwlog_scan_log_options(fwlog_log_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        if (strcmp(word, "-cfg") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its file name", word);
            options.cfg = argv[i];
        } else if (strcmp(word, "--json") == 0) {
            options.json = true;
        } else {
            return fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        }
    }
    return FWLOG_EXIT_OK;
}

int fwlog_usage_error(const char *text, const char *word)
{
    fprintf(stderr, "fwlog: %s: %s\nTry \"fwlog --help\".\n", text, word);
    return FWLOG_EXIT_USAGE;
}

int fwlog_flush_output(int status)
{
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return status;
    return fwlog_output_error();
}

int fwlog_output_error()
{
    fprintf(stderr, "fwlog: writing standard output: %s\n", strerror(errno));
    return FWLOG_EXIT_FAILED;
}

static bool asks_help(int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0)
            return true;
    }
    return false;
}

int main(int argc, char **argv)
{
    fill_standard_files();
    fwu_set_program("fwlog");
    tell_as("fwlog");
    // A file size limit is an error of a write like a full disk.
    signal(SIGXFSZ, SIG_IGN);
    if (argc < 2) {
        fputs(help_text, stderr);
        return FWLOG_EXIT_USAGE;
    }
    for (const subcommand &command : subcommands) {
        if (strcmp(argv[1], command.name) != 0)
            continue;
        if (!asks_help(argc - 2, argv + 2))
            return command.run(argc - 2, argv + 2);
        fputs(command.help, stdout);
        return fwlog_flush_output(FWLOG_EXIT_OK);
    }
    if (strcmp(argv[1], "--help") == 0) {
        fputs(help_text, stdout);
        return fwlog_flush_output(FWLOG_EXIT_OK);
    }
    if (strcmp(argv[1], "--version") == 0) {
        puts("fwlog " KESTRO_VERSION);
        return fwlog_flush_output(FWLOG_EXIT_OK);
    }
    return fwlog_usage_error(argv[1][0] == '-' ? "unknown option" : "unknown subcommand", argv[1]);
}
