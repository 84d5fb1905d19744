// fwlog csv: the changes of a log as CSV.
#include "changes/csv.h"
#include "changes/reader.h"
#include "fwutil/fwu_wait.h"
#include "tools/fwlog/csv_files.h"
#include "tools/fwlog/following.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/selection.h"

#include <cstdio>

struct csv_options {
    const char *cfg = nullptr;
    const char *directory = nullptr;
    bool force = false;
    change_csv_options form;
};
static csv_options options;

static bool take_columns(const char *word)
{
    options.form.columns.clear();
    return change_csv_list(options.form.columns, word);
}

static constexpr cli_kind LIST = {.word = "LIST",
                                  .lacking = "option lacks its list of columns",
                                  .bad = "not a list of columns (NO,NET,_lsn)"};
static constexpr cli_kind DIRECTORY = {
    .word = "DIR", .lacking = "option lacks its directory", .may_be_empty = false};

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    FWLOG_DSET,
    {"--columns", LIST, take_columns},
    {"--source-names", CLI_FLAG, &options.form.source_names},
    {"--before", CLI_FLAG, &options.form.before},
    FWLOG_FROM,
    FWLOG_TO,
    FWLOG_AFTER,
    {"--dir", DIRECTORY, &options.directory},
    {"--force", CLI_FLAG, &options.force},
};

// Goes on to the next change, or what there is instead of it; more: there may be another.
static outcome step(change_reader &reader, csv_files &files, bool &more)
{
    change next;
    switch (change_next(reader, next)) {
    case CHANGE_FOUND:
        return csv_files_put(files, next, reader.transaction);
    case CHANGE_COMMITTED:
        more = fwu_stop == 0;
        return csv_files_commit(files);
    case CHANGE_PASSED:
        more = fwu_stop == 0;
        return {};
    case CHANGE_NO_MORE:
    case CHANGE_RANGE_ENDED:
        more = false;
        return {};
    default:
        return OUTCOME_FAILED;
    }
}

static outcome run()
{
    if (options.force && options.directory == nullptr)
        return cli_usage("option needs --dir", "--force");
    csv_files files;
    files.directory = options.directory == nullptr ? "" : options.directory;
    files.replace = options.force;
    files.options = options.form;
    change_reader reader;
    if (outcome opened = fwlog_open_selected(reader, options.cfg); !opened)
        return opened;
    const fwu_signals signals;
    outcome done;
    for (bool more = true; more && done;)
        done = step(reader, files, more);
    if (!done) {
        csv_files_give_up(files);
        return done;
    }
    done = csv_files_finish(files);
    if (!done)
        csv_files_give_up(files);
    else if (fwu_stop != 0)
        done = fwlog_stopped();
    return done;
}

static const char help[] =
    "Usage: fwlog csv [-cfg FILE] [--dset PATTERN ...] [--columns LIST] [--source-names]\n"
    "           [--before] [--from POSITION] [--to POSITION] [--after POSITION]\n"
    "           [--dir DIR [--force]]\n"
    "\n"
    "Prints the changes of a dataset as CSV (RFC 4180, UTF-8): a header line, then a line for\n"
    "each change with its operation (c insert, u update, d delete, r row of a snapshot,\n"
    "t emptied, g gap), its position and its values: the new row's, of a delete the old one's.\n"
    "\n"
    "  -cfg FILE         configuration file (else the one named by FWUTIL_CFG, else\n"
    "                    fwutil.cfg), which names the log directory\n"
    "  --dset PATTERN    only these datasets, as Kestro's -dset; may be given again\n"
    "  --columns LIST    these columns in this order, by item or source column, of old values\n"
    "                    (before.NAME), about the change (_lsn, _xid, _program, ...)\n"
    "  --source-names    name columns as the source does\n"
    "  --before          the old row's values, too\n"
    "  --from POSITION   begin with the log file of this number (\"25\", \"1-25\"), or with\n"
    "                    this entry (\"1-25.340\": generation, number, tag)\n"
    "  --to POSITION     end with that log file or entry\n"
    "  --after POSITION  begin behind this entry\n"
    "  --dir DIR         write a file there for each dataset and layout,\n"
    "                    DATABASE.DATASET.csv, DATABASE.DATASET.2.csv and so on\n"
    "  --force           replace files that are there\n"
    "  --help            print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error or damage, a second layout without --dir; 2 wrong command\n"
    "line; 128 + n stopped by signal n, behind a whole transaction (or, with a reader that\n"
    "took nothing for a second, inside a line).\n";

constinit const cli_command fwlog_csv_row = {
    .name = "csv",
    .summary = "prints the changes of datasets as CSV",
    .run = run,
    .options = rows,
    .help = help,
};
