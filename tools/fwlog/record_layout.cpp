// Widths and order are Kestro's own: capture/hdrlayout.h and ascii/ascii_width.h.
#include "tools/fwlog/record_layout.h"

#include "ascii/ascii_width.h"
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/record_picture.h"

// What the header item of a kind is called.
struct kind_row {
    const char *name;
    const char *content;
    bool digits;
};

static constexpr kind_row kinds[HDRKINDS] = {
    // clang-format off
    /* HDRKIND_NONE     */ {"info",            "the session's info text", false},
    /* HDRKIND_SEQUENCE */ {"sequence",        "records of the file before this one", true},
    /* HDRKIND_DBNAME   */ {"database",        "database", false},
    /* HDRKIND_DBFGA    */ {"database",        "database: file, group and account of 8 each", false},
    /* HDRKIND_DSETNAME */ {"dataset",         "dataset", false},
    /* HDRKIND_DATE4    */ {"date_time",       "local commit time, YYYYMMDDhh:mm:ss", false},
    /* HDRKIND_DATE2    */ {"date_time",       "local commit time, YYMMDDhh:mm:ss", false},
    /* HDRKIND_OP       */ {"operation",       "IP insert, IU update, ID delete", false},
    /* HDRKIND_PROG     */ {"program",         "program", false},
    /* HDRKIND_SESSION  */ {"session",         "user", false},
    /* HDRKIND_DBUSER   */ {"db_user",         "login", false},
    /* HDRKIND_PID      */ {"process_id",      "process id", false},
    /* HDRKIND_RECNUM   */ {"record_number",   "number of the log record", true},
    // clang-format on
};

static std::string options_text(const record_options &options)
{
    static constexpr struct {
        int32_t kind;
        const char *word;
    } infos[] = {{HDRKIND_PROG, "PROG"},
                 {HDRKIND_DBNAME, "DBNAME"},
                 {HDRKIND_DBUSER, "DBUSER"},
                 {HDRKIND_SESSION, "SESSION"}};
    const struct {
        bool given;
        const char *word;
    } rows[] = {{options.exthdr, "-exthdr"},
                {options.yyyy, "-yyyy"},
                {options.recnum, "-recnum"},
                {options.fga, "-fga"},
                {options.ascii && !options.asciirev, "-ascii"},
                {options.asciirev, "-asciirev"},
                {options.dirty, "-dirty"},
                {options.bwfmt, "-bwfmt"}};
    std::string text;
    const auto add = [&text](const std::string &word) { text += (text.empty() ? "" : " ") + word; };
    for (const auto &row : rows)
        if (row.given)
            add(row.word);
    if (options.progterm != nullptr) {
        std::string word;
        dump_text(word, options.progterm);
        add("-progterm " + word);
    }
    for (const auto &row : infos)
        if (row.kind == options.info)
            add(std::string("-info ") + row.word);
    return text;
}

static void make_header(record_layout &record)
{
    const record_options &options = record.options;
    const hdrkinds_of of =
        cap_header_kinds((options.exthdr ? HDR_EXTHDR : 0) | (options.yyyy ? HDR_YYYY : 0) |
                         (options.recnum ? HDR_RECNUM : 0) | (options.fga ? HDR_FGA : 0));
    record.header_length = 0;
    for (size_t i = 0; i < of.n; i++) {
        const hdrkind kind = of.kind[i];
        const kind_row &row = kinds[kind == options.info ? HDRKIND_NONE : kind];
        const int64_t width = cap_header_item_size(kind);
        record.header.push_back({row.name, row.content, row.digits, record.header_length, width});
        record.header_length += width;
    }
}

static const fwu_source_column *column_of(const change_dataset &dataset, size_t item)
{
    const int column = dataset.column[item];
    return column == CHANGE_NO_ITEM ? nullptr
                                    : &dataset.layout.source->columns[static_cast<size_t>(column)];
}

static outcome make_items(record_layout &record)
{
    const change_dataset &dataset = *record.dataset;
    const bool text = record.options.ascii;
    int64_t offset = record.header_length;
    for (size_t i = 0; i < dataset.layout.items.size(); i++) {
        const fwu_item &item = dataset.layout.items[i];
        const int64_t width =
            text ? ascii_column_width(static_cast<uint32_t>(item.type), item.size) : item.size;
        if (width == ASCII_NO_COLUMN) {
            std::string name;
            dump_name(name, item.name);
            return outcome_failed("%s: item %s: a text capture file has no column for a number of "
                                  "%d bytes; leave out -ascii",
                                  record.name.c_str(), name.c_str(), static_cast<int>(item.size));
        }
        record_picture as = text ? record_picture_text(item, width, record.options.bwfmt)
                                 : record_picture_raw(item, dataset.big_endian);
        record.items.push_back({&item, column_of(dataset, i), i, dataset.offsets[i], offset, width,
                                std::move(as.picture), std::move(as.usage)});
        offset += width * item.count;
    }
    record.row_length = offset - record.header_length;
    return {};
}

outcome record_layout_make(record_layout &record, const change_dataset &dataset,
                           const record_options &options)
{
    record.dataset = &dataset;
    record.options = options;
    record.options_text = options_text(options);
    record.order = dataset.big_endian ? "big" : "little";
    record.name.clear();
    dump_name(record.name, dataset.layout.dbname);
    record.name += ".";
    dump_name(record.name, dataset.layout.dsetname);
    record.header.clear();
    record.items.clear();
    make_header(record);
    if (outcome done = make_items(record); !done)
        return done;
    record.one_length = record.header_length + record.row_length;
    record.two_length = record.one_length + record.row_length;
    return {};
}
