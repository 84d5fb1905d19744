// fwlog tail: the last transactions of a log and, with -f, those that come.
//
// It counts backwards, file by file, until there are enough, and reads on from there.  What it
// prints ends behind a whole transaction, however it is stopped, as long as somebody takes it.
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_reader_config.h"
#include "tools/fwlog/following.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/print.h"

#include <algorithm>

struct tail_options {
    const char *cfg = nullptr;
    bool follow = false;
    uint64_t transactions = 10;
    bool hex = false;
};
static tail_options options;

static constexpr cli_kind TRANSACTION_COUNT = {
    .word = "N", .lacking = "option lacks its number", .bad = "not a number of transactions"};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"-f", CLI_FLAG, &options.follow},
    {"-n", TRANSACTION_COUNT, &options.transactions},
    {"--hex", CLI_FLAG, &options.hex},
};

struct tail_state {
    fwlog_printer printer;
    std::string heading; // line of the present file, until it is printed
    fwu_log log;
    fwu_watch watch;
    uint64_t skip = 0;            // transactions to pass over
    uint64_t wanted = UINT64_MAX; // transactions to print behind them
};

// Counts the transactions of one file; FWU_END when it was read to its end.
static fwu_found count_file(fwu_cursor &cursor, const fwu_log_file &file, uint64_t &transactions)
{
    transactions = 0;
    fwu_found found = fwu_log_open(cursor, file);
    while (found == FWU_FOUND && fwu_stop == 0) {
        found = fwu_cursor_next(cursor);
        transactions += found == FWU_FOUND ? 1 : 0;
    }
    return found;
}

// Opens the file in which the transactions asked for begin and counts those before
// them.  FWU_FOUND; FWU_END: the log has no files; FWU_DAMAGED: begun behind damage,
// which was reported; FWU_GONE: look again; FWU_FAILED: reported.
static fwu_found find_start(tail_state &state)
{
    const uint64_t asked = options.transactions;
    std::vector<fwu_log_file> files;
    if (fwu_log_list(state.log.directory, files) != 0)
        return FWU_FAILED;
    fwu_found result = files.empty() ? FWU_END : FWU_FOUND;
    fwu_cursor &cursor = state.log.cursor;
    uint64_t counted = 0;
    bool damaged = false;
    size_t first = files.size();
    do {
        if (first == 0)
            break;
        uint64_t transactions = 0;
        const fwu_found found = count_file(cursor, files[--first], transactions);
        if (found == FWU_FAILED || found == FWU_GONE)
            return found;
        const bool newest = first + 1 == files.size();
        if (found == FWU_DAMAGED && !newest) {
            fwu_log_damage(cursor);
            result = FWU_DAMAGED;
            first++;
            break;
        }
        counted += transactions;
        damaged = damaged || found == FWU_DAMAGED;
    } while (counted < asked);
    state.skip = counted - std::min(asked, counted);
    // What is damaged in the newest file is reported when reading gets there.
    state.wanted = damaged ? UINT64_MAX : counted - state.skip;
    if (first == files.size())
        return result;
    const fwu_found opened = fwu_log_open(cursor, files[first]);
    return opened == FWU_FOUND ? result : opened;
}

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
    fwu_found start = FWU_GONE;
    while (start == FWU_GONE)
        start = find_start(state);
    if (start == FWU_FAILED)
        return OUTCOME_FAILED;
    if (options.follow)
        state.wanted = UINT64_MAX;
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
    return fwlog_told(start != FWU_DAMAGED);
}

static outcome run()
{
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    tail_state state;
    state.printer.hex = options.hex;
    state.log.directory = config.log_directory;
    const fwu_signals signals;
    if (options.follow)
        fwu_watch_open(state.watch, state.log.directory);
    outcome done = tail(state);
    fwu_watch_close(state.watch);
    fwu_cursor_close(state.log.cursor);
    return done;
}

static const char help[] =
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

constinit const cli_command fwlog_tail_row = {
    .name = "tail",
    .summary = "prints the last transactions, and those to come",
    .run = run,
    .options = rows,
    .help = help,
};
