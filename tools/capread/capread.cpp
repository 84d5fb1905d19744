// capread: the command line, and what it asks for.
#include "tools/capread/capread.h"

#include "capture/dsetpat.h"
#include "util/stop_signal.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

struct capread_options {
    const char *layout = nullptr;
    const char *cfg = nullptr;
    const char *file = nullptr;
    const char *progterm = nullptr; // changes nothing
    bool ascii = false;
    bool follow = false;
    bool remove = false;
    bool csv = false;
    bool before = false;
    bool source_names = false;
    bool numbers = false; // --numbers was given
    bool text_numbers = false;
    std::vector<std::string> columns;
    std::vector<std::string> patterns;
    rec_form form;
};
static capread_options options;

static bool take_info(const char *word)
{
    static constexpr struct {
        const char *name;
        int32_t kind;
    } items[] = {{"prog", HDRKIND_PROG},
                 {"dbname", HDRKIND_DBNAME},
                 {"dbuser", HDRKIND_DBUSER},
                 {"session", HDRKIND_SESSION}};
    for (const auto &item : items)
        if (strcasecmp(word, item.name) == 0)
            options.form.info = item.kind;
    return options.form.info != HDRKIND_NONE;
}

static bool take_dset(const char *word)
{
    if (*word == '\0' || dset_valid(word) != 0)
        return false;
    char *const stored = copy_dset_parm(word);
    options.patterns.emplace_back(stored);
    free(stored);
    return true;
}

static bool take_columns(const char *word)
{
    options.columns.clear();
    return change_csv_list(options.columns, word);
}

static bool take_numbers(const char *word)
{
    const std::string_view form = word;
    options.numbers = true;
    options.text_numbers = form == "text";
    return form == "text" || form == "json";
}

static constexpr cli_kind INFO = {.word = "ITEM",
                                  .lacking = "option lacks its header item",
                                  .bad = "not a header item (DBNAME, DBUSER, PROG or SESSION)"};
static constexpr cli_kind TERM = {.word = "TEXT", .lacking = "option lacks its text"};
static constexpr cli_kind PATTERN = {
    .word = "PATTERN", .lacking = "option lacks its pattern", .bad = "not a dataset pattern"};
static constexpr cli_kind LIST = {.word = "LIST",
                                  .lacking = "option lacks its list of columns",
                                  .bad = "not a list of columns (NO,NET,_record)"};
static constexpr cli_kind NUMBERS = {
    .word = "text|json", .lacking = "option lacks its form", .bad = "neither text nor json"};
static constexpr cli_kind CAPTURE = {.word = "CAPTURE",
                                     .lacking = "which capture file?",
                                     .again = "more than one capture file",
                                     .may_be_empty = false,
                                     .may_be_hyphen = true};

static constexpr cli_option rows[] = {
    {"--layout", CLI_FILE, &options.layout},
    {"-cfg", CLI_FILE, &options.cfg},
    {"-exthdr", CLI_FLAG, &options.form.exthdr},
    {"-yyyy", CLI_FLAG, &options.form.yyyy},
    {"-recnum", CLI_FLAG, &options.form.recnum},
    {"-fga", CLI_FLAG, &options.form.fga},
    {"-progterm", TERM, &options.progterm},
    {"-info", INFO, take_info},
    {"-ascii", CLI_FLAG, &options.ascii},
    {"-asciirev", CLI_FLAG, &options.form.asciirev},
    {"-bwfmt", CLI_FLAG, &options.form.bwfmt},
    {"-dirty", CLI_FLAG, &options.form.dirty},
    {"--dset", PATTERN, take_dset},
    {"--csv", CLI_FLAG, &options.csv},
    {"--columns", LIST, take_columns},
    {"--before", CLI_FLAG, &options.before},
    {"--source-names", CLI_FLAG, &options.source_names},
    {"--numbers", NUMBERS, take_numbers},
    {"--follow", CLI_FLAG, &options.follow},
    {"--remove", CLI_FLAG, &options.remove},
    {"CAPTURE", CAPTURE, &options.file},
};

// What the rows cannot say of options together.
static outcome check_options()
{
    rec_form &form = options.form;
    form.text = options.ascii || form.asciirev;
    if (options.layout != nullptr && options.cfg != nullptr)
        return cli_usage("contradicts --layout", "-cfg");
    if (options.layout == nullptr && options.cfg == nullptr)
        return cli_usage("give the layouts, with one of these", "--layout, -cfg");
    const struct {
        const char *name;
        bool given;
        const char *wrong;
    } rules[] = {
        {"-dirty", form.dirty && !form.text, "only with -ascii or -asciirev"},
        {"-bwfmt", form.bwfmt && !form.text, "only with -ascii or -asciirev"},
        {"--remove", options.remove && form.text, "only records of message files can be removed"},
        {"--remove", options.remove && !options.patterns.empty(),
         "contradicts --dset: what is passed over would be removed, too"},
        {"--columns", !options.columns.empty() && !options.csv, "only with --csv"},
        {"--before", options.before && !options.csv, "only with --csv"},
        {"--numbers", options.numbers && options.csv, "not with --csv"},
    };
    for (const auto &rule : rules)
        if (rule.given)
            return cli_usage(rule.wrong, rule.name);
    return {};
}

static outcome open_layouts(rec_layouts &layouts)
{
    return options.layout != nullptr ? rec_layouts_read(layouts, options.layout)
                                     : rec_layouts_log(layouts, options.cfg);
}

static void open_output(capread_output &output)
{
    output.csv_wanted = options.csv;
    output.csv_options = {
        .columns = options.columns, .source_names = options.source_names, .before = options.before};
    output.json.emplace(change_json_options{.source_names = options.source_names,
                                            .text_numbers = options.text_numbers});
    output.patterns = options.patterns;
}

// What the patterns cannot take needs no layout.
static void choose_datasets(capread_run &run)
{
    if (!options.patterns.empty())
        run.record.wants = [&output = run.output](const rec_header_names &names) {
            return capread_wants(output, names);
        };
}

// What is written would be read again.
static bool is_output(const char *file)
{
    struct stat a;
    struct stat b;
    const bool is_input = options.form.text && strcmp(file, "-") == 0;
    return fstat(STDOUT_FILENO, &a) == 0 &&
           (is_input ? fstat(STDIN_FILENO, &b) : stat(file, &b)) == 0 && S_ISREG(b.st_mode) &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

static outcome run()
{
    if (outcome done = check_options(); !done)
        return done;
    capread_run run;
    run.file = options.file;
    run.follow = options.follow;
    run.remove = options.remove;
    if (is_output(run.file))
        return outcome_failed("%s: is standard output, too", run.file);
    rec_record_open(run.record, options.form);
    if (outcome done = open_layouts(run.record.layouts); !done)
        return done;
    open_output(run.output);
    choose_datasets(run);
    stop_signal_install();
    outcome done = options.form.text ? capread_text(run) : capread_messages(run);
    // Behind a failure, too, the lines before it are written.
    outcome written = capread_flush(run.output);
    return done ? std::move(written) : std::move(done);
}

static const char help[] =
    "Usage: capread (--layout FILE | -cfg FILE) [-exthdr] [-yyyy] [-recnum] [-fga]\n"
    "           [-progterm TEXT] [-info ITEM] [-ascii] [-asciirev] [-bwfmt] [-dirty]\n"
    "           [--dset PATTERN ...] [--csv] [--columns LIST] [--before] [--source-names]\n"
    "           [--numbers text|json] [--follow] [--remove] CAPTURE\n"
    "\n"
    "Prints the records of a capture file as data: JSON, an object a line, or CSV, as fwlog\n"
    "prints the changes of the forward log.  CAPTURE is a message file, or, with -ascii or\n"
    "-asciirev, a text file (\"-\": standard input).\n"
    "\n"
    "  --layout FILE    the layouts, as \"fwlog layout --json\" prints them\n"
    "  -cfg FILE        configuration file of the forward log, which has the layouts: with\n"
    "                   -recnum that of the record's number, else the newest\n"
    "\n"
    "Kestro's options of the capture file, which its records must fit:\n"
    "\n"
    "  -exthdr          the header's session items\n"
    "  -yyyy            years of four digits\n"
    "  -recnum          the number of the log record\n"
    "  -fga             database names in three parts\n"
    "  -progterm TEXT   changes nothing\n"
    "  -info ITEM       session's info text in place of DBNAME, DBUSER, PROG or SESSION\n"
    "  -ascii           text columns; without it records of message files\n"
    "  -asciirev        the same, numbers of the other byte order\n"
    "  -bwfmt           numbers without leading zeros and plus signs\n"
    "  -dirty           bytes as they are\n"
    "\n"
    "What is printed:\n"
    "\n"
    "  --dset PATTERN   only these datasets, as Kestro's -dset; may be given again\n"
    "  --csv            CSV, of one dataset in one layout\n"
    "  --columns LIST   of CSV: these columns in this order, by item or source column, of old\n"
    "                   values (before.NAME), about the change (_record, _time, ...)\n"
    "  --before         of CSV: the old row's values, too\n"
    "  --source-names   name values as the source does\n"
    "  --numbers text|json  of JSON: integers and decimals as strings, or as numbers\n"
    "  --follow         go on with what comes, until a signal\n"
    "  --remove         remove each record of a message file when its line is written\n"
    "  --help           print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error, a record that does not fit, a torn last line; 2 wrong\n"
    "command line; 128 + n stopped by signal n, behind a whole line (or, with a reader that\n"
    "took nothing for a second, inside one).\n";

constinit const cli_command capread_row = {
    .name = "capread",
    .summary = "prints capture records as data",
    .run = run,
    .options = rows,
    .help = help,
};
