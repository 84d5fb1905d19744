// Reading the configuration file: one statement a line, all checks made where
// the line is at hand.
#include "fwutil/fwu_config.h"

#include "fwutil/fwu_error.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string_view>
#include <unistd.h>

constexpr int64_t LOG_FILE_SIZE_MIN = 4096;
constexpr int64_t LOG_FILE_SIZE_MAX = 64LL * 1024 * 1024 * 1024; // tags stay within 32 bits
constexpr int64_t IMAGE_MAX = 16 * 1024 * 1024;
constexpr size_t CONFIG_MAX = 16 * 1024 * 1024;
constexpr int64_t SYNC_INTERVAL_MAX = 3'600'000; // milliseconds: an hour

// A configuration file being read.
struct reading {
    fwu_config *config = nullptr;
    int line = 0;
    std::string database;
    int database_line = 0; // 0: no database line yet
    bool have_size = false;
    bool have_order = false;
    bool have_sync = false;
    std::set<std::string> databases;
};

using words = std::vector<std::string>;

__attribute__((format(printf, 2, 3))) static int wrong(const reading &r, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char text[1024];
    (void)vsnprintf(text, sizeof text, format, args); // cut when overlong
    va_end(args);
    return fwu_error("%s:%d: %s", r.config->path.c_str(), r.line, text);
}

// Splits a line into words; a double quote that begins a word holds it together
// up to the next one, "#" at the beginning of a word begins a comment.
static int split(const reading &r, std::string_view line, words &out, bool &quoted)
{
    quoted = false;
    size_t at = 0;
    for (;;) {
        at = line.find_first_not_of(" \t\r", at);
        if (at == line.npos || line[at] == '#')
            return 0;
        if (line[at] == '"') {
            const size_t end = line.find('"', at + 1);
            if (end == line.npos)
                return wrong(r, "the closing quote is missing");
            if (end + 1 < line.size() && strchr(" \t\r", line[end + 1]) == nullptr)
                return wrong(r, "text follows directly behind the closing quote");
            out.emplace_back(line.substr(at + 1, end - at - 1));
            quoted = true;
            at = end + 1;
            continue;
        }
        const size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
        const std::string_view word = line.substr(at, end - at);
        if (word.find('"') != word.npos)
            return wrong(r, "a quote stands inside the word %s", std::string(word).c_str());
        out.emplace_back(word);
        at = end;
    }
}

// Decimal digits only, at most max; -1 for anything else.
static int64_t number(std::string_view text, int64_t max)
{
    int64_t value = 0;
    if (text.empty())
        return -1;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
        if (value > max)
            return -1;
    }
    return value;
}

static bool is_letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

static bool name_ok(std::string_view name, size_t max, std::string_view others)
{
    if (name.empty() || name.size() > max || !is_letter(name[0]))
        return false;
    for (const char c : name)
        if (!is_letter(c) && !(c >= '0' && c <= '9') && others.find(c) == others.npos)
            return false;
    return true;
}

constexpr std::string_view DATABASE_OTHERS = "-";
constexpr std::string_view DATASET_OTHERS = "-+*/?'#%&";

bool fwu_database_name_ok(std::string_view name)
{
    return name_ok(name, FWU_NAME_MAX, DATABASE_OTHERS);
}

bool fwu_dataset_name_ok(std::string_view name)
{
    return name_ok(name, FWU_NAME_MAX, DATASET_OTHERS);
}

// "schema.table": one dot with something on both sides.
static bool table_ok(std::string_view table)
{
    const size_t dot = table.find('.');
    return dot != table.npos && dot > 0 && dot + 1 < table.size() &&
           table.find('.', dot + 1) == table.npos;
}

static int take_log_directory(reading &r, const words &w)
{
    if (w.size() != 2 || w[1].empty())
        return wrong(r, "log-directory takes one path (in double quotes when it holds blanks)");
    if (!r.config->log_directory.empty())
        return wrong(r, "log-directory is given twice");
    const std::filesystem::path here = std::filesystem::path(r.config->path).parent_path();
    r.config->log_directory = (here / w[1]).string();
    return 0;
}

static int take_log_file_size(reading &r, const words &w)
{
    if (r.have_size)
        return wrong(r, "log-file-size is given twice");
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
        value = number(text, LOG_FILE_SIZE_MAX / unit);
        value = value < 0 ? -1 : value * unit;
    }
    if (value < LOG_FILE_SIZE_MIN)
        return wrong(r, "log-file-size takes a number of bytes from 4K to 64G, with K, M or G");
    r.config->log_file_size = value;
    return 0;
}

static int take_byte_order(reading &r, const words &w)
{
    if (r.have_order)
        return wrong(r, "byte-order is given twice");
    r.have_order = true;
    if (w.size() != 2 || (w[1] != "little" && w[1] != "big"))
        return wrong(r, "byte-order takes the word little or big");
    r.config->big_endian = w[1] == "big";
    return 0;
}

static int take_sync(reading &r, const words &w)
{
    if (r.have_sync)
        return wrong(r, "sync is given twice");
    r.have_sync = true;
    fwu_config &config = *r.config;
    if (w.size() == 2 && w[1] == "commit") {
        config.sync = FWU_SYNC_COMMIT;
    } else if (w.size() == 2 && w[1] == "none") {
        config.sync = FWU_SYNC_NONE;
    } else if (w.size() == 3 && w[1] == "interval" && number(w[2], SYNC_INTERVAL_MAX) > 0) {
        config.sync = FWU_SYNC_INTERVAL;
        config.sync_interval_ms = number(w[2], SYNC_INTERVAL_MAX);
    } else {
        return wrong(r, "sync takes the word commit, none, or interval and 1 to 3600000 "
                        "milliseconds");
    }
    return 0;
}

static int take_log_mode(reading &r, const words &w)
{
    if (r.config->log_mode >= 0)
        return wrong(r, "log-mode is given twice");
    int mode = 0;
    bool good = w.size() == 2 && (w[1].size() == 3 || (w[1].size() == 4 && w[1][0] == '0'));
    for (const char c : good ? w[1] : std::string()) {
        good = good && c >= '0' && c <= '7';
        mode = mode * 8 + (c - '0');
    }
    if (!good || (mode & ~0666) != 0 || (mode & 0600) != 0600)
        return wrong(r, "log-mode takes three octal digits of which the first is 6 and the others "
                        "are 6, 4, 2 or 0, as in 0640");
    r.config->log_mode = mode;
    return 0;
}

static int take_skip_table(reading &r, const words &w)
{
    if (w.size() != 2 || !table_ok(w[1]))
        return wrong(r, "skip-table takes one name of the form schema.table");
    for (const std::string &known : r.config->skip_tables)
        if (known == w[1])
            return wrong(r, "table %s is skipped twice", w[1].c_str());
    for (const fwu_dataset &dataset : r.config->datasets)
        if (dataset.table == w[1])
            return wrong(r, "table %s is skipped here, but feeds the dataset of line %d",
                         w[1].c_str(), dataset.line);
    r.config->skip_tables.push_back(w[1]);
    return 0;
}

static int take_column(reading &r, const words &w)
{
    const size_t dot = w.size() < 2 ? std::string::npos : w[1].rfind('.');
    if (w.size() < 3 || dot == std::string::npos || dot + 1 == w[1].size() ||
        !table_ok(w[1].substr(0, dot)))
        return wrong(r, "column takes one name of the form schema.table.column, then item=NAME, "
                        "width=N or both");
    fwu_column column;
    column.table = w[1].substr(0, dot);
    column.column = w[1].substr(dot + 1);
    for (size_t i = 2; i < w.size(); i++) {
        const std::string &word = w[i];
        if (word.rfind("item=", 0) == 0 && column.item.empty()) {
            column.item = word.substr(5);
            if (column.item.empty() || column.item.size() > FWU_ITEM_NAME_MAX)
                return wrong(r, "%s: an item name has 1 to 17 bytes", word.c_str());
        } else if (word.rfind("width=", 0) == 0 && column.width == 0) {
            column.width = static_cast<int32_t>(number(word.substr(6), FWU_TEXT_SIZE_MAX));
            if (column.width < 1)
                return wrong(r, "%s is not a width from 1 to 32767 bytes", word.c_str());
        } else {
            return wrong(r,
                         "%s is not known or given twice; behind the column's name stand "
                         "item=NAME and width=N",
                         word.c_str());
        }
    }
    for (const fwu_column &known : r.config->columns)
        if (known.table == column.table && known.column == column.column)
            return wrong(r, "column %s is given twice", w[1].c_str());
    r.config->columns.push_back(std::move(column));
    return 0;
}

static int take_database(reading &r, const words &w)
{
    if (w.size() != 2 || !fwu_database_name_ok(w[1]))
        return wrong(r, "database takes one name of at most 16 characters: a letter, then letters, "
                        "digits and \"-\"");
    if (!r.databases.insert(w[1]).second)
        return wrong(r, "database %s is given twice", w[1].c_str());
    r.database = w[1];
    r.database_line = r.line;
    return 0;
}

static int take_dataset(reading &r, const words &w)
{
    if (w.size() < 2 || w.size() > 3 || !fwu_dataset_name_ok(w[1]))
        return wrong(r, "dataset takes one name of at most 16 characters: a letter, then letters, "
                        "digits and - + * / ? ' # %% &; table=schema.table may follow");
    if (r.database_line == 0)
        return wrong(r, "dataset %s stands before the first database line", w[1].c_str());
    fwu_dataset dataset;
    if (w.size() == 3) {
        if (w[2].rfind("table=", 0) != 0 || !table_ok(w[2].substr(6)))
            return wrong(r, "%s is not of the form table=schema.table", w[2].c_str());
        dataset.table = w[2].substr(6);
        for (const std::string &skipped : r.config->skip_tables)
            if (skipped == dataset.table)
                return wrong(r, "table %s is also named by a skip-table line", skipped.c_str());
    }
    for (const fwu_dataset &known : r.config->datasets) {
        if (known.layout.dbname == r.database && known.layout.dsetname == w[1])
            return wrong(r, "dataset %s is given twice, first in line %d", w[1].c_str(),
                         known.line);
        if (!dataset.table.empty() && known.table == dataset.table)
            return wrong(r, "table %s feeds the dataset of line %d already", known.table.c_str(),
                         known.line);
    }
    dataset.layout.dbname = r.database;
    dataset.layout.dsetname = w[1];
    dataset.line = r.line;
    r.config->datasets.push_back(std::move(dataset));
    return 0;
}

static int take_item_options(reading &r, const words &w, fwu_item &item, fwu_dataset &dataset)
{
    bool have_count = false;
    bool have_scale = false;
    for (size_t i = 4; i < w.size(); i++) {
        const std::string &word = w[i];
        if (word == "null-map") {
            if (dataset.null_map >= 0)
                return wrong(r, "dataset %s has two null-map items",
                             dataset.layout.dsetname.c_str());
            if (item.type != 'X')
                return wrong(r, "the null-map item must have type X");
            dataset.null_map = static_cast<int>(dataset.layout.items.size());
        } else if (word[0] == 'x' && !have_count) {
            have_count = true;
            item.count = static_cast<int32_t>(number(word.substr(1), FWU_ITEM_COUNT_MAX));
            if (item.count < 1)
                return wrong(r, "%s is not a count from x1 to x32767", word.c_str());
        } else if (word.rfind("scale=", 0) == 0 && !have_scale) {
            have_scale = true;
            if (item.type != 'P' && item.type != 'Z')
                return wrong(r, "scale is for items of type P and Z only");
            const int32_t digits = fwu_item_digits(item.type, item.size);
            item.item_aux = static_cast<int32_t>(number(word.substr(6), digits));
            if (item.item_aux < 0)
                return wrong(r, "%s is not a scale from 0 to the item's %d digits", word.c_str(),
                             digits);
        } else {
            return wrong(r,
                         "%s is not known or given twice; behind name, type and size stand "
                         "xCOUNT, scale=N and null-map",
                         word.c_str());
        }
    }
    return 0;
}

static int take_item(reading &r, const words &w)
{
    if (r.config->datasets.empty() || r.config->datasets.back().line < r.database_line)
        return wrong(r, "item stands before the first dataset line of its database");
    fwu_dataset &dataset = r.config->datasets.back();
    if (w.size() < 4)
        return wrong(r, "item takes name, type and size");
    if (w[1].size() > FWU_ITEM_NAME_MAX)
        return wrong(r, "the item name %s has more than 17 bytes", w[1].c_str());
    for (const fwu_item &known : dataset.layout.items)
        if (known.name == w[1])
            return wrong(r, "item %s is given twice", w[1].c_str());
    const fwu_item_type *type = w[2].size() == 1 ? fwu_item_type_of(w[2][0]) : nullptr;
    if (type == nullptr)
        return wrong(r, "%s is not an item type: E R I J K P Z X U", w[2].c_str());
    const int64_t size = number(w[3], FWU_TEXT_SIZE_MAX);
    if (!fwu_item_size_ok(*type, size))
        return wrong(r, "an item of type %c has a size of %s bytes, not %s", type->letter,
                     type->sizes, w[3].c_str());
    fwu_item item;
    item.name = w[1];
    item.type = static_cast<unsigned char>(type->letter);
    item.size = static_cast<int32_t>(size);
    if (take_item_options(r, w, item, dataset) != 0)
        return -1;
    dataset.layout.items.push_back(std::move(item));
    if (fwu_layout_image_length(dataset.layout) > IMAGE_MAX)
        return wrong(r, "the record of dataset %s is longer than 16777216 bytes",
                     dataset.layout.dsetname.c_str());
    return 0;
}

struct statement_row {
    const char *word;
    int (*take)(reading &r, const words &w);
};
static constexpr statement_row STATEMENTS[] = {
    {"log-directory", take_log_directory},
    {"log-file-size", take_log_file_size},
    {"byte-order", take_byte_order},
    {"sync", take_sync},
    {"log-mode", take_log_mode},
    {"skip-table", take_skip_table},
    {"column", take_column},
    {"database", take_database},
    {"dataset", take_dataset},
    {"item", take_item},
};

static int take_line(reading &r, std::string_view line)
{
    words w;
    bool quoted = false;
    for (const char c : line)
        if ((c >= 0 && c < ' ' && c != '\t' && c != '\r') || c == 127)
            return wrong(r, "the line holds a control character");
    if (split(r, line, w, quoted) != 0)
        return -1;
    if (w.empty())
        return 0;
    for (const statement_row &row : STATEMENTS) {
        if (w[0] != row.word)
            continue;
        if (quoted && row.take != take_log_directory)
            return wrong(r, "only a path is written in quotes");
        return row.take(r, w);
    }
    return wrong(r,
                 "%s is not known here; a line begins with log-directory, log-file-size, "
                 "byte-order, sync, log-mode, skip-table, column, database, dataset or item",
                 w[0].c_str());
}

// What only the end of the file shows.
static int check_whole(reading &r)
{
    if (r.config->log_directory.empty())
        return wrong(r, "the log-directory line is missing");
    for (const fwu_dataset &dataset : r.config->datasets) {
        r.line = dataset.line;
        const std::vector<fwu_item> &items = dataset.layout.items;
        if (dataset.null_map < 0)
            continue;
        const auto map = static_cast<size_t>(dataset.null_map);
        if (!fwu_null_map_ok(items, map))
            return wrong(r,
                         "the null-map item %s must have one byte for each other item: type X, "
                         "size %zu, no count",
                         items[map].name.c_str(), items.size() - 1);
    }
    return 0;
}

static int read_text(const std::string &path, std::string &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fwu_error("%s: cannot open the configuration file: %s; name it with the cfg "
                         "argument or in FWUTIL_CFG",
                         path.c_str(), strerror(errno));
    char buffer[16384];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 && text.size() <= CONFIG_MAX)
        text.append(buffer, static_cast<size_t>(n));
    const int read_errno = errno;
    close(fd);
    if (n < 0)
        return fwu_error("%s: cannot read the configuration file: %s", path.c_str(),
                         strerror(read_errno));
    if (text.size() > CONFIG_MAX)
        return fwu_error("%s: the configuration file is larger than 16 MiB", path.c_str());
    return 0;
}

int fwu_config_read(fwu_config &config, const char *path)
{
    if (path == nullptr)
        path = getenv("FWUTIL_CFG");
    config = fwu_config();
    config.path = path != nullptr && *path != '\0' ? path : "fwutil.cfg";
    config.big_endian = std::endian::native == std::endian::big;
    std::string text;
    if (read_text(config.path, text) != 0)
        return -1;
    reading r;
    r.config = &config;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        r.line++;
        if (take_line(r, std::string_view(text).substr(at, end - at)) != 0)
            return -1;
        at = end + 1;
    }
    return check_whole(r);
}
