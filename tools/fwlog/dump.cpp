// fwlog dump: prints a log, or a range of it, entry by entry or its changes as JSON.
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_reader_config.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/json_output.h"
#include "tools/fwlog/position.h"
#include "tools/fwlog/print.h"
#include "tools/fwlog/selection.h"

#include <cstdio>

struct dump_options {
    const char *cfg = nullptr;
    bool hex = false;
};
static dump_options options;

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--hex", CLI_FLAG, &options.hex},
    FWLOG_FROM,
    FWLOG_TO,
    FWLOG_JSON,
    FWLOG_SOURCE_NAMES,
    FWLOG_NUMBERS,
    FWLOG_DSET,
    FWLOG_AFTER,
    FWLOG_STATE,
    FWLOG_ACK,
};

static bool before_range(const fwu_log_file &file, int32_t tag)
{
    return fwlog_position_given(fwlog_selected.from) &&
           fwlog_position_compare(file, tag, fwlog_selected.from) < 0;
}

static bool behind_range(const fwu_log_file &file, int32_t tag)
{
    return fwlog_position_given(fwlog_selected.to) &&
           fwlog_position_compare(file, tag, fwlog_selected.to) > 0;
}

// Layouts before the range are read, for the images inside it, but not printed.
static int visit(fwlog_printer &printer, const fwu_walk_item &item)
{
    const bool is_entry = item.what == FWU_WALK_ENTRY;
    const int32_t first = is_entry ? item.entry.tag : item.what == FWU_WALK_FILE ? 0 : INT32_MAX;
    if (behind_range(*item.file, first))
        return 1;
    std::string &out = printer.out;
    out.clear();
    fwlog_print_item(printer, item);
    if (before_range(*item.file, is_entry ? item.entry.tag : INT32_MAX))
        return 0;
    fwrite(out.data(), 1, out.size(), stdout);
    return ferror(stdout) != 0 ? 1 : 0;
}

// Whether the range begins before the log's oldest file.
static bool begins_before(const std::string &directory)
{
    std::vector<fwu_log_file> files;
    return !fwlog_position_given(fwlog_selected.from) ||
           (fwu_log_list(directory, files) == 0 && !files.empty() &&
            fwlog_position_compare(files.front(), 0, fwlog_selected.from) > 0);
}

static outcome run_text()
{
    fwlog_printer printer;
    printer.hex = options.hex;
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    if (begins_before(config.log_directory))
        fwu_log_warn_begins_late(config.log_directory);
    const int walked = fwu_log_walk(config.log_directory, [&printer](const fwu_walk_item &item) {
        return visit(printer, item);
    });
    return fwlog_told(walked >= 0);
}

static outcome run()
{
    if (outcome checked = fwlog_json_check(options.hex, FWLOG_TEXT_RANGE); !checked)
        return checked;
    return fwlog_json.wanted ? fwlog_json_selected(options.cfg, {}) : run_text();
}

static const char help[] =
    "Usage: fwlog dump [-cfg FILE] [--hex] [--from POSITION] [--to POSITION]\n"
    "                  [--json [--source-names] [--numbers text|json] [--dset PATTERN ...]\n"
    "                  [--after POSITION] [--state FILE [--ack]]]\n"
    "\n"
    "Prints the committed transactions of the forward log entry by entry, or the changes\n"
    "in them as JSON, an object a line.\n"
    "\n"
    "  -cfg FILE            configuration file (else the one named by FWUTIL_CFG, else\n"
    "                       fwutil.cfg), which names the log directory\n"
    "  --hex                print record images as hexadecimal bytes instead of values\n"
    "  --from POSITION      begin with the log file of this number (\"25\", \"1-25\"), or with\n"
    "                       this entry (\"1-25.340\": generation, number, tag)\n"
    "  --to POSITION        end with that log file or entry\n"
    "  --json               print changes as JSON; all below needs it\n"
    "  --source-names       name values by the source's columns instead of items\n"
    "  --numbers text|json  integers and decimals as strings, or as numbers (if not given)\n"
    "  --dset PATTERN       only datasets that match, as with Kestro's -dset; more than one\n"
    "                       may be given\n"
    "  --after POSITION     begin behind this entry\n"
    "  --state FILE         keep in this file how far changes were written, and begin behind\n"
    "                       that\n"
    "  --ack                keep instead how far they were dealt with: read such positions\n"
    "                       from standard input, one a line\n"
    "  --help               print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error or damage, or changes were not acknowledged; 2 wrong\n"
    "command line.\n";

constinit const cli_command fwlog_dump_row = {
    .name = "dump",
    .summary = "prints the entries of a forward log, or its changes as JSON",
    .run = run,
    .options = rows,
    .help = help,
};
