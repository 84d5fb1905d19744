// The statements for writers, a row each; all checks are made where the line is at hand.
#include "fwutil/fwu_statements.h"

#include "fwutil/fwu_writing_source.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

constexpr int64_t LOG_FILE_SIZE_MIN = 4096;
constexpr int64_t LOG_FILE_SIZE_MAX = 64LL * 1024 * 1024 * 1024; // tags stay within 32 bits
constexpr int64_t IMAGE_MAX = 16 * 1024 * 1024;
constexpr int64_t SYNC_INTERVAL_MAX = 3'600'000; // milliseconds: an hour

static int take_log_file_size(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.have_size)
        return fwu_config_wrong(r.at, "log-file-size is given twice");
    r.have_size = true;
    int64_t value = -1;
    if (w.size() == 2 && !w[1].empty()) {
        std::string_view text = w[1];
        const size_t suffix = std::string_view("KMG").find(text.back());
        int64_t unit = 1;
        if (suffix != std::string_view::npos) {
            unit = int64_t{1} << 10 * (suffix + 1);
            text.remove_suffix(1);
        }
        value = fwu_config_number(text, LOG_FILE_SIZE_MAX / unit);
        value = value < 0 ? -1 : value * unit;
    }
    if (value < LOG_FILE_SIZE_MIN)
        return fwu_config_wrong(
            r.at, "log-file-size takes a number of bytes from 4K to 64G, with K, M or G");
    r.writing.log_file_size = value;
    return 0;
}

static int take_byte_order(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.have_order)
        return fwu_config_wrong(r.at, "byte-order is given twice");
    r.have_order = true;
    if (w.size() != 2 || (w[1] != "little" && w[1] != "big"))
        return fwu_config_wrong(r.at, "byte-order takes the word little or big");
    r.writing.big_endian = w[1] == "big";
    return 0;
}

static int take_text_encoding(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.writing.encoding)
        return fwu_config_wrong(r.at, "text-encoding is given twice");
    if (w.size() != 2 || (w[1] != "utf-8" && w[1] != "iso-8859-1"))
        return fwu_config_wrong(r.at, "text-encoding takes the word utf-8 or iso-8859-1");
    r.writing.encoding = w[1] == "utf-8" ? FWU_UTF8 : FWU_LATIN1;
    return 0;
}

static int take_sync(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.have_sync)
        return fwu_config_wrong(r.at, "sync is given twice");
    r.have_sync = true;
    fwu_writing &writing = r.writing;
    if (w.size() == 2 && w[1] == "commit") {
        writing.sync = FWU_SYNC_COMMIT;
    } else if (w.size() == 2 && w[1] == "none") {
        writing.sync = FWU_SYNC_NONE;
    } else if (w.size() == 3 && w[1] == "interval" &&
               fwu_config_number(w[2], SYNC_INTERVAL_MAX) > 0) {
        writing.sync = FWU_SYNC_INTERVAL;
        writing.sync_interval_ms = fwu_config_number(w[2], SYNC_INTERVAL_MAX);
    } else {
        return fwu_config_wrong(r.at,
                                "sync takes the word commit, none, or interval and 1 to 3600000 "
                                "milliseconds");
    }
    return 0;
}

static int take_log_mode(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.writing.log_mode >= 0)
        return fwu_config_wrong(r.at, "log-mode is given twice");
    int mode = 0;
    bool good = w.size() == 2 && (w[1].size() == 3 || (w[1].size() == 4 && w[1][0] == '0'));
    for (const char c : good ? w[1] : std::string()) {
        good = good && c >= '0' && c <= '7';
        mode = mode * 8 + (c - '0');
    }
    if (!good || (mode & ~0666) != 0 || (mode & 0600) != 0600)
        return fwu_config_wrong(
            r.at, "log-mode takes three octal digits of which the first is 6 and the others "
                  "are 6, 4, 2 or 0, as in 0640");
    r.writing.log_mode = mode;
    return 0;
}

struct keep_unit {
    char letter;
    int64_t size; // in seconds or bytes
    bool time;
};
static constexpr keep_unit KEEP_UNITS[] = {
    {'h', 3600, true},
    {'d', 86400, true},
    {'w', 604800, true},
    {'M', int64_t{1} << 20, false},
    {'G', int64_t{1} << 30, false},
    {'T', int64_t{1} << 40, false},
};
constexpr int64_t KEEP_MAX = 100'000; // of each unit

// Takes "7d", "20G" or "acknowledged"; null, or what is wrong with the word.
static const char *take_keep(fwu_keep &keep, const std::string &word)
{
    static const char again[] = "log-keep is given twice for a time, for a size, or for what is "
                                "acknowledged";
    if (word == "acknowledged") {
        if (keep.acknowledged)
            return again;
        keep.acknowledged = true;
        return nullptr;
    }
    for (const keep_unit &unit : KEEP_UNITS) {
        if (word.empty() || word.back() != unit.letter)
            continue;
        int64_t &kept = unit.time ? keep.seconds : keep.bytes;
        const int64_t count =
            fwu_config_number(std::string_view(word).substr(0, word.size() - 1), KEEP_MAX);
        if (count < 1)
            break;
        if (kept != 0)
            return again;
        kept = count * unit.size;
        return nullptr;
    }
    return "log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or "
           "several of them";
}

static int take_log_keep(fwu_writing_lines &r, const fwu_words &w)
{
    fwu_keep &keep = r.writing.keep;
    const fwu_words none = {""};
    for (size_t i = 1; i < std::max<size_t>(w.size(), 2); i++) {
        const std::string &word = w.size() > 1 ? w[i] : none[0];
        if (const char *wrong = take_keep(keep, word); wrong != nullptr)
            return fwu_config_wrong(r.at, "%s", wrong);
        keep.text += (keep.text.empty() ? "" : " ") + word;
    }
    return 0;
}

static int take_truncate(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.writing.truncate != FWU_TRUNCATE_UNSAID)
        return fwu_config_wrong(r.at, "truncate is given twice");
    if (w.size() != 2 || (w[1] != "stop" && w[1] != "mark"))
        return fwu_config_wrong(r.at, "truncate takes the word stop or mark");
    r.writing.truncate = w[1] == "stop" ? FWU_TRUNCATE_STOP : FWU_TRUNCATE_MARK;
    return 0;
}

static int take_database(fwu_writing_lines &r, const fwu_words &w)
{
    if (w.size() != 2 || !fwu_database_name_ok(w[1]))
        return fwu_config_wrong(
            r.at, "database takes one name of at most 16 characters: a letter, then letters, "
                  "digits and \"-\"");
    if (!r.databases.insert(w[1]).second)
        return fwu_config_wrong(r.at, "database %s is given twice", w[1].c_str());
    r.database = w[1];
    r.database_line = r.at.line;
    r.writing.has_database = true;
    return 0;
}

static int take_dataset(fwu_writing_lines &r, const fwu_words &w)
{
    if (w.size() < 2 || w.size() > 3 || !fwu_dataset_name_ok(w[1]))
        return fwu_config_wrong(
            r.at, "dataset takes one name of at most 16 characters: a letter, then letters, "
                  "digits and - + * / ? ' # %% &; table=schema.table may follow");
    if (r.database_line == 0)
        return fwu_config_wrong(r.at, "dataset %s stands before the first database line",
                                w[1].c_str());
    fwu_dataset dataset;
    if (w.size() == 3) {
        if (!w[2].starts_with("table=") ||
            !fwu_writing_table(dataset.table, std::string_view(w[2]).substr(6)))
            return fwu_config_wrong(r.at, "%s is not of the form table=schema.table", w[2].c_str());
        for (const std::string &skipped : r.writing.skip_tables)
            if (skipped == dataset.table)
                return fwu_config_wrong(r.at, "table %s is also named by a skip-table line",
                                        skipped.c_str());
    }
    for (const fwu_dataset &known : r.writing.datasets) {
        if (known.layout.dbname == r.database && known.layout.dsetname == w[1])
            return fwu_config_wrong(r.at, "dataset %s is given twice, first in line %d",
                                    w[1].c_str(), known.line);
        if (!dataset.table.empty() && known.table == dataset.table)
            return fwu_config_wrong(r.at, "table %s feeds the dataset of line %d already",
                                    known.table.c_str(), known.line);
    }
    dataset.layout.dbname = r.database;
    dataset.layout.dsetname = w[1];
    dataset.line = r.at.line;
    r.writing.datasets.push_back(std::move(dataset));
    return 0;
}

static int take_item_options(fwu_writing_lines &r, const fwu_words &w, fwu_item &item,
                             fwu_dataset &dataset)
{
    const auto index = static_cast<int>(dataset.layout.items.size());
    bool have_count = false;
    bool have_scale = false;
    bool is_key = false;
    for (size_t i = 4; i < w.size(); i++) {
        const std::string &word = w[i];
        if (word == "null-map") {
            if (dataset.null_map >= 0)
                return fwu_config_wrong(r.at, "dataset %s has two null-map items",
                                        dataset.layout.dsetname.c_str());
            if (item.type != 'X')
                return fwu_config_wrong(r.at, "the null-map item must have type X");
            dataset.null_map = index;
        } else if (word == "key" && !is_key) {
            is_key = true;
            dataset.key.push_back(index);
        } else if (word[0] == 'x' && !have_count) {
            have_count = true;
            item.count =
                static_cast<int32_t>(fwu_config_number(word.substr(1), FWU_ITEM_COUNT_MAX));
            if (item.count < 1)
                return fwu_config_wrong(r.at, "%s is not a count from x1 to x%" PRId32,
                                        word.c_str(), FWU_ITEM_COUNT_MAX);
        } else if (word.rfind("scale=", 0) == 0 && !have_scale) {
            have_scale = true;
            if (item.type != 'P' && item.type != 'Z')
                return fwu_config_wrong(r.at, "scale is for items of type P and Z only");
            const int32_t digits = fwu_item_digits(item.type, item.size);
            item.item_aux = static_cast<int32_t>(fwu_config_number(word.substr(6), digits));
            if (item.item_aux < 0)
                return fwu_config_wrong(r.at, "%s is not a scale from 0 to the item's %d digits",
                                        word.c_str(), digits);
        } else {
            return fwu_config_wrong(
                r.at,
                "%s is not known or given twice; behind name, type and size stand "
                "xCOUNT, scale=N, key and null-map",
                word.c_str());
        }
    }
    if (is_key && dataset.null_map == index)
        return fwu_config_wrong(r.at, "the null-map item cannot be part of the key");
    return 0;
}

static int take_item(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.writing.datasets.empty() || r.writing.datasets.back().line < r.database_line)
        return fwu_config_wrong(r.at, "item stands before the first dataset line of its database");
    fwu_dataset &dataset = r.writing.datasets.back();
    if (w.size() < 4)
        return fwu_config_wrong(r.at, "item takes name, type and size");
    if (w[1].size() > FWU_ITEM_NAME_MAX)
        return fwu_config_wrong(r.at, "the item name %s has more than %d bytes", w[1].c_str(),
                                FWU_ITEM_NAME_MAX);
    for (const fwu_item &known : dataset.layout.items)
        if (known.name == w[1])
            return fwu_config_wrong(r.at, "item %s is given twice", w[1].c_str());
    const fwu_item_type *type = w[2].size() == 1 ? fwu_item_type_of(w[2][0]) : nullptr;
    if (type == nullptr)
        return fwu_config_wrong(r.at, "%s is not an item type: E R I J K P Z X U", w[2].c_str());
    const int64_t size = fwu_config_number(w[3], FWU_TEXT_SIZE_MAX);
    if (!fwu_item_size_ok(*type, size))
        return fwu_config_wrong(r.at, "an item of type %c has a size of %s bytes, not %s",
                                type->letter, type->sizes, w[3].c_str());
    fwu_item item;
    item.name = w[1];
    item.type = static_cast<unsigned char>(type->letter);
    item.size = static_cast<int32_t>(size);
    if (take_item_options(r, w, item, dataset) != 0)
        return -1;
    dataset.layout.items.push_back(std::move(item));
    if (fwu_layout_image_length(dataset.layout) > IMAGE_MAX)
        return fwu_config_wrong(r.at, "the record of dataset %s is longer than 16777216 bytes",
                                dataset.layout.dsetname.c_str());
    return 0;
}

struct statement_row {
    std::string_view word;
    int (*take)(fwu_writing_lines &r, const fwu_words &w);
    bool has_names = false;
};
static constexpr statement_row STATEMENTS[] = {
    {"log-file-size", take_log_file_size},
    {"byte-order", take_byte_order},
    {"text-encoding", take_text_encoding},
    {"sync", take_sync},
    {"log-mode", take_log_mode},
    {"log-keep", take_log_keep},
    {"values", fwu_writing_take_values},
    {"truncate", take_truncate},
    {"default-width", fwu_writing_take_default_width, true},
    {"skip-table", fwu_writing_take_skip_table, true},
    {"table", fwu_writing_take_table, true},
    {"column", fwu_writing_take_column, true},
    {"database", take_database},
    {"dataset", take_dataset, true},
    {"item", take_item},
};

static const statement_row *find_statement(std::string_view word)
{
    for (const statement_row &row : STATEMENTS)
        if (row.word == word)
            return &row;
    return nullptr;
}

bool fwu_writing_knows(std::string_view word)
{
    return find_statement(word) != nullptr;
}

bool fwu_writing_has_names(std::string_view word)
{
    const statement_row *row = find_statement(word);
    return row != nullptr && row->has_names;
}

int fwu_writing_take(fwu_writing_lines &lines, const fwu_words &words)
{
    return find_statement(words[0])->take(lines, words);
}

int fwu_writing_check(fwu_writing_lines &r)
{
    std::stable_sort(r.writing.columns.begin(), r.writing.columns.end(),
                     [](const fwu_column &a, const fwu_column &b) { return a.table < b.table; });
    for (const fwu_dataset &dataset : r.writing.datasets) {
        r.at.line = dataset.line;
        const std::vector<fwu_item> &items = dataset.layout.items;
        if (dataset.null_map < 0)
            continue;
        const auto map = static_cast<size_t>(dataset.null_map);
        if (!fwu_null_map_ok(items, map))
            return fwu_config_wrong(
                r.at,
                "the null-map item %s must have one byte for each other item: type X, "
                "size %zu, no count",
                items[map].name.c_str(), items.size() - 1);
    }
    return 0;
}
