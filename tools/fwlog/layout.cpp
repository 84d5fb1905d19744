// fwlog layout: what stands where in the capture records of the log's datasets.
#include "capture/hdrlayout.h"
#include "changes/dataset.h"
#include "fwutil/fwu_log.h"
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/layout_text.h"
#include "tools/fwlog/position.h"
#include "tools/fwlog/selection.h"

#include <bit>
#include <cstdio>
#include <map>
#include <memory>
#include <string_view>
#include <strings.h>
#include <utility>

enum layout_form { LAYOUT_COLUMNS = 1, LAYOUT_COPYBOOK, LAYOUT_JSON };

struct layout_options {
    const char *cfg = nullptr;
    int form = 0;
    fwu_position at;
    record_options record;
};
static layout_options options;

static bool take_at(const char *word)
{
    return fwu_position_parse(word, options.at);
}

static bool take_info(const char *word)
{
    static constexpr struct {
        const char *name;
        int32_t kind;
    } items[] = {{"prog", HDRKIND_PROG},
                 {"dbname", HDRKIND_DBNAME},
                 {"dbuser", HDRKIND_DBUSER},
                 {"session", HDRKIND_SESSION}};
    for (const auto &item : items) {
        if (strcasecmp(word, item.name) == 0)
            options.record.info = item.kind;
    }
    return options.record.info != HDRKIND_NONE;
}

static constexpr cli_kind FORM = {.again = "another form was asked for before"};
static constexpr cli_kind INFO = {.word = "ITEM",
                                  .lacking = "option lacks its header item",
                                  .bad = "not a header item (DBNAME, DBUSER, PROG or SESSION)"};
static constexpr cli_kind TERM = {.word = "TEXT", .lacking = "option lacks its text"};

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    FWLOG_DSET,
    {"--at", FWLOG_POSITION, take_at},
    {"--columns", FORM, cli_choice{&options.form, LAYOUT_COLUMNS}},
    {"--copybook", FORM, cli_choice{&options.form, LAYOUT_COPYBOOK}},
    {"--json", FORM, cli_choice{&options.form, LAYOUT_JSON}},
    {"-exthdr", CLI_FLAG, &options.record.exthdr},
    {"-yyyy", CLI_FLAG, &options.record.yyyy},
    {"-recnum", CLI_FLAG, &options.record.recnum},
    {"-fga", CLI_FLAG, &options.record.fga},
    {"-progterm", TERM, &options.record.progterm},
    {"-info", INFO, take_info},
    {"-ascii", CLI_FLAG, &options.record.ascii},
    {"-asciirev", CLI_FLAG, &options.record.asciirev},
    {"-bwfmt", CLI_FLAG, &options.record.bwfmt},
    {"-dirty", CLI_FLAG, &options.record.dirty},
};

// A layout as the log has it.
struct found_layout {
    fwu_layout layout;
    bool big_endian = false;
    fwu_encoding encoding = FWU_LATIN1;
    fwu_position begun; // where it stands first, or again behind another one
};
using found_layouts = std::map<std::pair<std::string, std::string>, found_layout>;

// Keeps the newest layout of each dataset.  Each file repeats what it needs.
static void take_layout(found_layouts &layouts, found_layout &&found)
{
    found_layout &known = layouts[{found.layout.dbname, found.layout.dsetname}];
    const bool same = known.begun.sequence != 0 && known.big_endian == found.big_endian &&
                      known.encoding == found.encoding && known.layout.items == found.layout.items;
    if (same)
        found.begun = known.begun;
    known = std::move(found);
}

static void take_source(found_layouts &layouts, fwu_layout_source &&of)
{
    const auto known = layouts.find({of.dbname, of.dsetname});
    if (known != layouts.end() && fwu_source_fits(of.source, known->second.layout.items.size()))
        known->second.layout.source = std::make_shared<const fwu_source>(std::move(of.source));
}

// What is known on the way through the log.
struct layout_walk {
    found_layouts layouts;
    fwu_file_header file; // the one in hand
    bool reached = false; // the position of --at
};

static int visit(layout_walk &walk, const fwu_walk_item &item)
{
    found_layouts &layouts = walk.layouts;
    if (item.what == FWU_WALK_FILE)
        walk.file = item.header;
    const int32_t tag = item.what == FWU_WALK_ENTRY ? item.entry.tag : 0;
    const int order =
        fwlog_position_given(options.at) ? fwlog_position_compare(*item.file, tag, options.at) : -1;
    walk.reached = walk.reached || order == 0;
    if (order > 0)
        return 1;
    if (item.what != FWU_WALK_ENTRY)
        return 0;
    found_layout found;
    fwu_layout_source of;
    if (fwu_entry_layout(item.entry, found.layout)) {
        found.big_endian = walk.file.big_endian;
        found.encoding = walk.file.encoding;
        found.begun = {item.file->generation, item.file->sequence, tag};
        if (fwlog_selects(found.layout.dbname, found.layout.dsetname))
            take_layout(layouts, std::move(found));
    } else if (fwu_entry_source(item.entry, of)) {
        take_source(layouts, std::move(of));
    }
    return 0;
}

static outcome find_layouts(const fwu_config &config, found_layouts &layouts)
{
    std::vector<fwu_log_file> files;
    const fwu_log_file *file = nullptr;
    if (fwlog_position_given(options.at) &&
        (fwu_log_list(config.log_directory, files) != 0 ||
         fwu_start_find(files, options.at, "--at " + fwu_position_text(options.at), file) != 0))
        return OUTCOME_FAILED;
    layout_walk walk;
    const int walked = fwu_log_walk(
        config.log_directory, [&walk](const fwu_walk_item &item) { return visit(walk, item); });
    if (walked < 0)
        return OUTCOME_FAILED;
    if (options.at.tag != 0 && !walk.reached)
        return outcome_failed("--at %s: its log file ends before it; give a position that the log "
                              "has",
                              fwu_position_text(options.at).c_str());
    layouts = std::move(walk.layouts);
    if (!layouts.empty())
        return {};
    const char *const directory = config.log_directory.c_str();
    if (!fwlog_selected.patterns.empty())
        return outcome_failed("%s: no layout of a dataset that --dset selects", directory);
    return outcome_failed("%s: no layout of any dataset; it comes with the first change",
                          directory);
}

static outcome check_options()
{
    record_options &record = options.record;
    record.ascii = record.ascii || record.asciirev;
    if (options.form == 0)
        return cli_usage("give one of --columns, --copybook and --json", "layout");
    if (!record.ascii && (record.dirty || record.bwfmt))
        return cli_usage("only with -ascii or -asciirev", record.dirty ? "-dirty" : "-bwfmt");
    return {};
}

// A length that no record can have would not even be counted.
static outcome check_possible(const found_layout &found)
{
    if (fwu_layout_image_length(found.layout) < FWU_IMAGE_LENGTH_MAX)
        return {};
    std::string name;
    dump_name(name, found.layout.dbname);
    name += ".";
    dump_name(name, found.layout.dsetname);
    return outcome_failed("%s: the layout of %s describes no record that there can be; leave it "
                          "out with --dset",
                          name.c_str(), fwu_position_text(found.begun).c_str());
}

// Kestro takes numbers as this machine has them, or turned about.
static void tell_wrong_order(const record_layout &record)
{
    const bool big_endian = record.dataset->big_endian;
    const bool turned = big_endian != (std::endian::native == std::endian::big);
    if (!record.options.ascii || record.options.asciirev == turned)
        return;
    for (const record_item &item : record.items)
        if (std::string_view("IJKER").find(static_cast<char>(item.item->type)) !=
            std::string_view::npos)
            return tell("warning: %s: its binary numbers are %s-endian, and Kestro takes them for "
                        "others with %s on this machine: give %s",
                        record.name.c_str(), record.order, turned ? "-ascii" : "-asciirev",
                        turned ? "-asciirev" : "-ascii");
}

static outcome put_layouts(std::string &out, const fwu_config &config, const found_layouts &layouts)
{
    std::set<std::string> names;
    for (const auto &[name, found] : layouts) {
        if (outcome done = check_possible(found); !done)
            return done;
        change_dataset dataset;
        dataset.layout = found.layout;
        dataset.big_endian = found.big_endian;
        dataset.encoding = found.encoding;
        dataset.begun = found.begun;
        change_dataset_complete(dataset, config);
        record_layout record;
        if (outcome done = record_layout_make(record, dataset, options.record); !done)
            return done;
        tell_wrong_order(record);
        if (options.form == LAYOUT_COLUMNS) {
            out += out.empty() ? "" : "\n";
            layout_put_columns(out, record);
        } else if (options.form == LAYOUT_COPYBOOK) {
            layout_put_copybook(out, record, names);
        } else {
            layout_put_json(out, record);
        }
    }
    return {};
}

static outcome run()
{
    if (outcome done = check_options(); !done)
        return done;
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    found_layouts layouts;
    if (outcome done = find_layouts(config, layouts); !done)
        return done;
    std::string out;
    if (outcome done = put_layouts(out, config, layouts); !done)
        return done;
    fwrite(out.data(), 1, out.size(), stdout);
    return {};
}

static const char help[] =
    "Usage: fwlog layout [-cfg FILE] [--dset PATTERN ...] [--at POSITION]\n"
    "           (--columns | --copybook | --json)\n"
    "           [-exthdr] [-yyyy] [-recnum] [-fga] [-progterm TEXT] [-info ITEM]\n"
    "           [-ascii] [-asciirev] [-bwfmt] [-dirty]\n"
    "\n"
    "Tells what stands where in the capture records that Kestro makes of the log with these\n"
    "options: the header's items and the columns of each dataset in its newest layout.\n"
    "\n"
    "  -cfg FILE        configuration file (else the one named by FWUTIL_CFG, else\n"
    "                   fwutil.cfg), which names the log directory\n"
    "  --dset PATTERN   only these datasets, as Kestro's -dset; may be given again\n"
    "  --at POSITION    the layouts that hold at this entry, or the end of this log file\n"
    "  --columns        a table: first and last position (from 1), width, picture, scale\n"
    "  --copybook       a COBOL copybook\n"
    "  --json           one JSON object a line for each dataset\n"
    "\n"
    "Kestro's options of the capture file:\n"
    "\n"
    "  -exthdr          the header's session items\n"
    "  -yyyy            years of four digits\n"
    "  -recnum          the number of the log record\n"
    "  -fga             database names in three parts\n"
    "  -progterm TEXT   changes no position\n"
    "  -info ITEM       session's info text in place of DBNAME, DBUSER, PROG or SESSION\n"
    "  -ascii           text columns; without it records of message files\n"
    "  -asciirev        the same, numbers of the other byte order\n"
    "  -bwfmt           numbers without leading zeros and plus signs\n"
    "  -dirty           changes no position\n"
    "  --help           print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error or damage, no such dataset; 2 wrong command line.\n";

constinit const cli_command fwlog_layout_row = {
    .name = "layout",
    .summary = "tells the columns of capture records: table, COBOL copybook, JSON",
    .run = run,
    .options = rows,
    .help = help,
};
