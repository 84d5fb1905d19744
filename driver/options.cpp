// The option table and its scan.
#include "driver/options.h"

#include "capture/capinfo.h"
#include "capture/header.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"

#include <cstdlib>
#include <cstring>

// What the options act on.
struct opt_scan {
    run_options *run;
    capcfg cfg; // options pending for the next capture file
};

// One option.  A row with a missing text takes the word that follows it.
struct opt_row {
    const char *name;
    bool exact_case = false;       // compared with case
    const char *missing = nullptr; // said when no word follows
    const char *again = nullptr;   // said when the value is already held
    int (*apply)(opt_scan &scan, const opt_row &row, const char *word) = nullptr;
    uint32_t bits = 0; // flags to set, or the run word to keep
};

static int opt_set_flags(opt_scan &, const opt_row &row, const char *)
{
    g_flags |= row.bits;
    return 0;
}

static int opt_verbose(opt_scan &, const opt_row &, const char *)
{
    g_flags |= (g_flags & FLAG_VERBOSE) == 0 ? FLAG_VERBOSE : FLAG_SESSDATA;
    // Kept: the mask is replaced, so a verbose run no longer shows the notices.
    g_loglevel = LOG_VERBOSE;
    return 0;
}

static int opt_showsets(opt_scan &, const opt_row &row, const char *)
{
    g_flags |= row.bits;
    g_needsetinfo = 1;
    return 0;
}

static int keep_word(char *&held, const char *again, const char *word)
{
    if (held != nullptr)
        return set_error(again);
    held = mem_strdup(word);
    return 0;
}

static int opt_keep_word(opt_scan &scan, const opt_row &row, const char *word)
{
    return keep_word(scan.run->words[row.bits], row.again, word);
}

static int opt_progterm(opt_scan &scan, const opt_row &row, const char *word)
{
    return keep_word(scan.cfg.progterm, row.again, word);
}

static int opt_dset(opt_scan &scan, const opt_row &, const char *word)
{
    return add_capcfg_dset(&scan.cfg, word);
}

static int opt_hdropts(opt_scan &scan, const opt_row &row, const char *)
{
    scan.cfg.hdropts |= row.bits;
    return 0;
}

static int opt_ascii_flags(opt_scan &scan, const opt_row &row, const char *)
{
    scan.cfg.ascii_flags |= row.bits;
    return 0;
}

static int opt_ascii(opt_scan &scan, const opt_row &row, const char *)
{
    scan.cfg.ascii_flags |= row.bits;
    g_needsetinfo = 1;
    return 0;
}

static int opt_info(opt_scan &scan, const opt_row &row, const char *word)
{
    static const struct {
        const char *name;
        int32_t kind;
    } items[] = {{"prog", HDRKIND_PROG},
                 {"dbname", HDRKIND_DBNAME},
                 {"dbuser", HDRKIND_DBUSER},
                 {"session", HDRKIND_SESSION}};

    if (scan.cfg.info_item != 0)
        return set_error(row.again);
    for (const auto &item : items) {
        if (istrcmp(word, item.name) == 0) {
            scan.cfg.info_item = item.kind;
            return 0;
        }
    }
    return set_error("Expecting info item: DBNAME, DBUSER, PROG or SESSION.");
}

// clang-format off
static const opt_row options[] = {
    {.name = "-pause", .exact_case = true, .apply = opt_set_flags, .bits = FLAG_PAUSE},
    {.name = "-version", .apply = opt_set_flags, .bits = FLAG_VERSION},
    {.name = "-versnum", .apply = opt_set_flags, .bits = FLAG_VERSNUM},
    {.name = "-verbose", .apply = opt_verbose},
    {.name = "-showsets", .apply = opt_showsets, .bits = FLAG_SHOWSETS},
    {.name = "-showstat", .apply = opt_set_flags, .bits = FLAG_SHOWSTAT},
    {.name = "-synconly", .apply = opt_set_flags, .bits = FLAG_SYNCONLY},
    {.name = "-bg", .apply = opt_set_flags, .bits = FLAG_BG},
    {.name = "-rollover", .apply = opt_set_flags, .bits = FLAG_ROLLOVER},
    {.name = "-help", .apply = opt_set_flags, .bits = FLAG_HELP},
    {.name = "-?", .apply = opt_set_flags, .bits = FLAG_HELP},
    {.name = "-capstats", .apply = opt_set_flags, .bits = FLAG_CAPSTATS},
    {.name = "-dumprecs", .apply = opt_set_flags, .bits = FLAG_DUMPRECS},
    {.name = "-showskip", .apply = opt_set_flags, .bits = FLAG_SHOWSKIP},
    {.name = "-pidfile", .missing = "Expecting PID file name.",
     .again = "PID file name specified more than once.", .apply = opt_keep_word, .bits = RUN_PIDFILE},
    {.name = "-start", .missing = "Expecting start specification.",
     .again = "-start specified more than once.", .apply = opt_keep_word, .bits = RUN_START},
    {.name = "-cfg", .missing = "Expecting Vostrel config file name.",
     .again = "Vostrel config specified more than once.", .apply = opt_keep_word, .bits = RUN_CFG},
    {.name = "-stat", .missing = "Expecting Vostrel status file name.",
     .again = "Status file specified more than once.", .apply = opt_keep_word, .bits = RUN_STAT},
    {.name = "-dset", .missing = "Expecting Vostrel dataset name.", .apply = opt_dset},
    {.name = "-progterm", .missing = "Expecting programe name terminator.",
     .again = "Only one programe name terminator may be specified.", .apply = opt_progterm},
    {.name = "-exthdr", .apply = opt_hdropts, .bits = HDR_EXTHDR},
    {.name = "-yyyy", .apply = opt_hdropts, .bits = HDR_YYYY},
    {.name = "-recnum", .apply = opt_hdropts, .bits = HDR_RECNUM},
    {.name = "-fga", .apply = opt_hdropts, .bits = HDR_FGA},
    {.name = "-ascii", .apply = opt_ascii, .bits = ASCII_ON},
    {.name = "-asciirev", .apply = opt_ascii, .bits = ASCII_ON | ASCII_REVERSE},
    {.name = "-dirty", .apply = opt_ascii_flags, .bits = ASCII_DIRTY},
    {.name = "-bwfmt", .apply = opt_ascii_flags, .bits = ASCII_BWFMT},
    {.name = "-info", .missing = "Expecting info item.",
     .again = "Only one -info option may be specified for a capture file.", .apply = opt_info},
};
// clang-format on

static const opt_row *find_option(const char *arg)
{
    for (const opt_row &row : options) {
        if ((row.exact_case ? strcmp(arg, row.name) : istrcmp(arg, row.name)) == 0)
            return &row;
    }
    return nullptr;
}

// Turns the pending options into a capture file.
static int take_capture_file(opt_scan &scan, const char *name)
{
    int rc = 0;
    // Kept: both texts read DIRTY; -bwfmt has no message of its own.
    if ((scan.cfg.ascii_flags & (ASCII_DIRTY | ASCII_ON)) == ASCII_DIRTY)
        rc = set_error("DIRTY must only be specified with ASCII.");
    if ((scan.cfg.ascii_flags & (ASCII_BWFMT | ASCII_ON)) == ASCII_BWFMT)
        rc = set_error("DIRTY must only be specified with ASCII.");
    if (rc != 0)
        return rc;
    add_capfile(g_ci, name, &scan.cfg);
    free_capcfg_data(&scan.cfg);
    init_capcfg(&scan.cfg);
    return 0;
}

int scan_options(int argc, char **argv, run_options *run)
{
    opt_scan scan = {.run = run, .cfg = {}};
    init_capcfg(&scan.cfg);

    int rc = 0;
    for (int i = 1; i < argc && rc == 0; i++) {
        const char *arg = argv[i];
        if (arg[0] != '-') {
            rc = take_capture_file(scan, arg);
            continue;
        }
        const opt_row *row = find_option(arg);
        if (row == nullptr) {
            rc = set_error_f("Unrecognized option %s", arg);
        } else if (row->missing != nullptr && i + 1 >= argc) {
            rc = set_error(row->missing);
        } else {
            const char *word = row->missing != nullptr ? argv[++i] : nullptr;
            rc = row->apply(scan, *row, word);
        }
    }
    // Options behind the last capture file belong to none.
    free_capcfg_data(&scan.cfg);
    return rc;
}

void free_run_options(run_options *run)
{
    for (char *&word : run->words) {
        free(word);
        word = nullptr;
    }
}

// Lower case of A to Z, as a signed character.
static int lower(char c)
{
    return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : static_cast<signed char>(c);
}

int istrcmp(const char *a, const char *b)
{
    for (; *a != '\0'; a++, b++) {
        if (lower(*a) < lower(*b))
            return -1;
        if (lower(*a) > lower(*b))
            return 1;
    }
    return *b == '\0' ? 0 : -1;
}
