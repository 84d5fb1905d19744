// fwlog tail: the last transactions of a log and, with -f, those that come, entry by entry or
// their changes as JSON.
//
// What it prints ends behind a whole transaction, however it is stopped, as long as somebody
// takes it.
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_wait.h"
#include "tools/fwlog/following.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/json_output.h"
#include "tools/fwlog/print.h"
#include "tools/fwlog/selection.h"
#include "tools/fwlog/tail_start.h"

#include <charconv>
#include <string_view>

struct tail_options {
    const char *cfg = nullptr;
    bool follow = false;
    bool counted = false; // -n was given
    uint64_t transactions = 10;
    bool hex = false;
};
static tail_options options;

static bool take_count(const char *word)
{
    const std::string_view text = word;
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, options.transactions);
    options.counted = true;
    return error == std::errc() && behind == end;
}

static constexpr cli_kind TRANSACTION_COUNT = {
    .word = "N", .lacking = "option lacks its number", .bad = "not a number of transactions"};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"-f", CLI_FLAG, &options.follow},
    {"-n", TRANSACTION_COUNT, take_count},
    {"--hex", CLI_FLAG, &options.hex},
    FWLOG_JSON,
    FWLOG_SOURCE_NAMES,
    FWLOG_NUMBERS,
    FWLOG_DSET,
    FWLOG_FROM,
    FWLOG_TO,
    FWLOG_AFTER,
    FWLOG_STATE,
    FWLOG_ACK,
};

struct tail_state {
    fwlog_printer printer;
    std::string heading; // line of the present file, until it is printed
    fwu_log log;
    fwu_watch watch;
    uint64_t skip = 0;            // transactions to pass over
    uint64_t wanted = UINT64_MAX; // transactions to print behind them
};

// Layouts are learned from transactions that are passed over, too.
static int pass_over(tail_state &state, const fwu_walk_item &item)
{
    if (item.entry.kind == FWU_KIND_LAYOUT) {
        fwlog_print_item(state.printer, item);
        state.printer.out.clear();
    }
    return 0;
}

// Goes through the transaction found.
static outcome take_transaction(tail_state &state)
{
    fwu_cursor &cursor = state.log.cursor;
    std::string &out = state.printer.out;
    fwu_walk_item item;
    item.file = &cursor.file;
    if (cursor.tx_first_tag == 1) {
        item.header = cursor.header;
        fwlog_print_item(state.printer, item);
        state.heading.swap(out);
    }
    const bool skipped = state.skip > 0;
    out.clear();
    if (!skipped)
        out.swap(state.heading);
    outcome written;
    fwu_found found = FWU_FAILED;
    (void)fwu_log_walk_transaction(
        cursor, item,
        [&](const fwu_walk_item &entry) {
            if (skipped)
                return pass_over(state, entry);
            fwlog_print_item(state.printer, entry);
            if (out.size() >= FWLOG_WRITE_AFTER)
                written = fwlog_write_out(out);
            return written ? 0 : 1;
        },
        found);
    if (written)
        written = fwlog_write_out(out);
    if (!written)
        return written;
    if (found == FWU_DAMAGED)
        fwu_log_damage(cursor);
    if (found != FWU_END)
        return OUTCOME_FAILED;
    (skipped ? state.skip : state.wanted)--;
    return {};
}

static outcome tail(tail_state &state)
{
    const fwlog_tail_start last = fwlog_tail_open(state.log, options.transactions);
    if (last.found == FWU_FAILED)
        return OUTCOME_FAILED;
    state.skip = last.skip;
    state.wanted = options.follow ? UINT64_MAX : last.wanted;
    outcome done;
    while (done) {
        if (fwu_stop != 0)
            return fwlog_stopped();
        if (state.wanted == 0)
            break;
        const fwu_found found = fwu_log_next(state.log);
        if (found == FWU_FOUND)
            done = take_transaction(state);
        else if (found == FWU_FAILED)
            done = OUTCOME_FAILED;
        else if (options.follow)
            done = fwlog_wait_for_more(state.log, state.watch);
        else
            break;
    }
    if (!done)
        return done;
    return fwlog_told(last.found != FWU_DAMAGED);
}

static outcome run_text(const std::string &directory)
{
    tail_state state;
    state.printer.hex = options.hex;
    state.log.directory = directory;
    if (options.follow)
        fwu_watch_open(state.watch, state.log.directory);
    outcome done = tail(state);
    fwu_watch_close(state.watch);
    fwu_cursor_close(state.log.cursor);
    return done;
}

// Begins the range where the last transactions begin.
static fwlog_tail_start begin_range(const std::string &directory)
{
    fwu_log log;
    log.directory = directory;
    fwlog_tail_start last = fwlog_tail_open(log, options.transactions);
    fwu_cursor &cursor = log.cursor;
    for (uint64_t i = 0; i < last.skip && last.found != FWU_FAILED; i++)
        if (fwu_cursor_next(cursor) != FWU_FOUND)
            last.found = FWU_FAILED; // it was there a moment ago
    const fwu_log_file &file = cursor.file;
    if (last.skip > 0)
        fwlog_selected.after = {file.generation, file.sequence, cursor.tx_last_tag};
    else
        fwlog_selected.from = {file.generation, file.sequence, 0};
    fwu_cursor_close(cursor);
    return last;
}

static outcome run_json(const std::string &directory)
{
    const fwlog_selection &selected = fwlog_selected;
    const bool begun = selected.after.sequence != 0 || selected.from.sequence != 0;
    if (begun && options.counted)
        return cli_usage("give only one of -n, --after and --from", "-n");
    const bool stated = fwlog_state.file != nullptr;
    if (stated && options.counted)
        return cli_usage("option does not go with --state", "-n");
    fwlog_json_run how;
    how.follow = options.follow;
    fwlog_tail_start last;
    if (!begun && !stated) {
        last = begin_range(directory);
        if (last.found == FWU_FAILED)
            return OUTCOME_FAILED;
        if (!options.follow)
            how.transactions = last.wanted;
    }
    outcome done = fwlog_json_selected(options.cfg, how);
    if (!done)
        return done;
    return fwlog_told(last.found != FWU_DAMAGED);
}

static outcome run()
{
    if (outcome checked = fwlog_json_check(options.hex, FWLOG_TEXT_WHOLE); !checked)
        return checked;
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    const fwu_signals signals;
    return fwlog_json.wanted ? run_json(config.log_directory) : run_text(config.log_directory);
}

static const char help[] =
    "Usage: fwlog tail [-cfg FILE] [-f] [-n N] [--hex]\n"
    "                  [--json [--source-names] [--numbers text|json] [--dset PATTERN ...]\n"
    "                  [--from POSITION] [--to POSITION] [--after POSITION]\n"
    "                  [--state FILE [--ack]]]\n"
    "\n"
    "Prints the entries of the last transactions of the forward log, as dump does, or the\n"
    "changes in them as JSON, an object a line.\n"
    "\n"
    "  -cfg FILE            configuration file (else the one named by FWUTIL_CFG, else\n"
    "                       fwutil.cfg), which names the log directory\n"
    "  -f                   go on with each transaction that is committed, until SIGINT or\n"
    "                       SIGTERM\n"
    "  -n N                 number of transactions (10 when not given; 0 with -f: new ones\n"
    "                       only)\n"
    "  --hex                print record images as hexadecimal bytes instead of values\n"
    "  --json               print changes as JSON; all below needs it\n"
    "  --source-names       name values by the source's columns instead of items\n"
    "  --numbers text|json  integers and decimals as strings, or as numbers (if not given)\n"
    "  --dset PATTERN       only datasets that match, as with Kestro's -dset; more than one\n"
    "                       may be given\n"
    "  --from POSITION      instead of -n: begin with this log file or entry (\"25\",\n"
    "                       \"1-25.340\")\n"
    "  --to POSITION        end with that log file or entry\n"
    "  --after POSITION     instead of -n: begin behind this entry\n"
    "  --state FILE         instead of -n: keep in this file how far changes were written,\n"
    "                       and begin behind that; with the oldest when it is new\n"
    "  --ack                keep instead how far they were dealt with: read such positions\n"
    "                       from standard input, one a line\n"
    "  --help               print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error or damage, or changes were not acknowledged; 2 wrong\n"
    "command line; 128 + signal number when SIGINT or SIGTERM ended it behind a whole\n"
    "transaction.\n";

constinit const cli_command fwlog_tail_row = {
    .name = "tail",
    .summary = "prints the last transactions, and those to come",
    .run = run,
    .options = rows,
    .help = help,
};
