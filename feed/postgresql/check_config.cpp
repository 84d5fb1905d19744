// A configuration that says in lines what the catalogue gives by itself: names and widths stay
// as they are then whatever tables and columns there will be.  What only the type decides is
// left to it, so that a column that changes its type gets another item.
#include "feed/postgresql/check_report.h"

#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <filesystem>
#include <map>

// What is behind a "#".
static std::string comment(std::string text)
{
    for (char &c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 127)
            c = '?';
    return text;
}

static void put_path(std::string &out, const pgk_report &report, const std::string &path)
{
    namespace fs = std::filesystem;
    // A path is relative to the file's directory.
    const fs::path directory = report.config.log_directory;
    const fs::path here = fs::absolute(path).lexically_normal().parent_path();
    const fs::path there = fs::absolute(directory).lexically_normal();
    const bool beside = there.parent_path() == here;
    out += "log-directory \"" + (beside ? there.filename() : there).string() + "\"\n";
}

static void put_settings(std::string &out, const pgk_report &report, const std::string &path)
{
    const fwu_config &config = report.config;
    put_path(out, report, path);
    if (config.log_file_size != FWU_LOG_FILE_SIZE_DEFAULT)
        out += "log-file-size " + std::to_string(config.log_file_size) + "\n";
    out += std::string("byte-order ") + (config.big_endian ? "big" : "little") + "\n";
    if (config.log_mode >= 0) {
        char digits[16];
        snprintf(digits, sizeof digits, "%04o", static_cast<unsigned>(config.log_mode));
        out += std::string("log-mode ") + digits + "\n";
    }
    if (!config.keep.text.empty())
        out += "log-keep " + config.keep.text + "\n";
    if (config.sync == FWU_SYNC_INTERVAL)
        out += "sync interval " + std::to_string(config.sync_interval_ms) + "\n";
    else if (config.sync == FWU_SYNC_NONE)
        out += "sync none\n";
    out += std::string("text-encoding ") + pgk_encoding_word(report.encoding) + "\n";
    out += std::string("values ") + pgk_policy_word(pgk_policy(report)) +
           "   # what becomes of values that do not fit: mark, or error\n";
    out += std::string("truncate ") + (fwu_writing_stops_at_truncate(config) ? "stop" : "mark") +
           "   # what whoever follows the log does where a table was truncated: mark, or stop\n";
    for (const fwu_default_width &width : config.default_widths) {
        out += "default-width ";
        if (!width.type.empty()) {
            fwu_source_name_put(out, width.type); // quoted where it has to be
            out += " ";
        }
        out += std::to_string(width.width) + "\n";
    }
    for (const std::string &table : config.skip_tables)
        out += "skip-table " + table + "\n";
    for (const fwu_table_rule &rule : config.table_rules)
        out += "table " + rule.table + " values=" + pgk_policy_word(rule.policy) + "\n";
}

// What the configuration says of a column, as it says it.
static void put_said(std::string &out, const fwu_column &said)
{
    if (said.policy != FWU_POLICY_UNSAID)
        out += std::string(" values=") + pgk_policy_word(said.policy);
    if (said.key)
        out += " key";
}

static std::string column_name(const pgk_table &table, const pgk_column &column)
{
    return fwu_source_name(table.relation.schema, table.relation.name, column.name);
}

static const fwu_column *find_said(const fwu_config &config, const std::string &table,
                                   const std::string &column)
{
    for (const fwu_column &said : fwu_columns_of(config, table))
        if (said.column == column)
            return &said;
    return nullptr;
}

static void put_column(std::string &out, const pgk_report &report, const pgk_table &table,
                       const pgk_column &column)
{
    const fwu_item &item = table.fed->layout.items[static_cast<size_t>(column.item)];
    const fwu_column *said = find_said(report.config, table.name, column.name);
    const int32_t width = said != nullptr && said->width != 0 ? said->width : column.width;
    std::string options;
    // A name with a quote is the column's own, and cannot be written.
    if (item.name.find('"') == std::string::npos)
        options += " item=" + item.name;
    if (width != 0)
        options += " width=" + std::to_string(width);
    if (said != nullptr)
        put_said(options, *said);
    out += (options.empty() ? "# column " : "column ") + column_name(table, column) + options +
           comment("   # " + pgk_item_text(item) + ", " + column.why) + "\n";
}

// The lines of a table whose items come from the server.  The order of the words "key" is that
// of the key's columns.
static void put_columns(std::string &out, const pgk_report &report, const pgk_table &table)
{
    const fwu_config &config = report.config;
    out += "\n" +
           comment("# " + table.name + ": image of " + std::to_string(table.fed->image_length) +
                   " bytes, the record of an update up to " +
                   std::to_string(pgk_record_length(table))) +
           "\n";
    std::vector<const pgk_column *> columns;
    for (const pgk_column &column : table.columns)
        if (column.item >= 0)
            columns.push_back(&column);
    const auto place = [&](const pgk_column *column) {
        const fwu_column *said = find_said(config, table.name, column->name);
        return said == nullptr || !said->key ? config.columns.data() + config.columns.size() : said;
    };
    std::stable_sort(columns.begin(), columns.end(),
                     [&](const pgk_column *a, const pgk_column *b) { return place(a) < place(b); });
    for (const pgk_column *column : columns)
        put_column(out, report, table, *column);
}

// What the configuration says of columns that are not there, or of tables that it describes.
static void put_other_columns(std::string &out, const pgk_report &report)
{
    for (const fwu_column &said : report.config.columns) {
        const bool written =
            std::any_of(report.tables.begin(), report.tables.end(), [&](const pgk_table &table) {
                return table.name == said.table && table.fed != nullptr && !table.skipped &&
                       !table.described &&
                       std::any_of(table.columns.begin(), table.columns.end(),
                                   [&](const pgk_column &c) {
                                       return c.item >= 0 && c.name == said.column;
                                   });
            });
        if (written)
            continue;
        out += "column " + said.table + ".";
        fwu_source_name_put(out, said.column);
        if (!said.item.empty())
            out += " item=" + said.item;
        if (said.width != 0)
            out += " width=" + std::to_string(said.width);
        put_said(out, said);
        out += "\n";
    }
}

static std::string item_line(const fwu_dataset &dataset, size_t index)
{
    const fwu_item &item = dataset.layout.items[index];
    const auto &key = dataset.key;
    std::string line = "item " + item.name + " " + pgk_item_text(item);
    if (item.count > 1)
        line += " x" + std::to_string(item.count);
    if (std::find(key.begin(), key.end(), static_cast<int>(index)) != key.end())
        line += " key";
    if (static_cast<int>(index) == dataset.null_map)
        line += " null-map";
    return line + "\n";
}

static std::string dataset_lines(const fwu_dataset &dataset, const std::string &table)
{
    std::string lines = "dataset " + dataset.layout.dsetname;
    if (!table.empty())
        lines += " table=" + table;
    lines += "\n";
    for (size_t i = 0; i < dataset.layout.items.size(); i++)
        lines += item_line(dataset, i);
    return lines;
}

std::string pgk_config(const pgk_report &report, const std::string &path)
{
    const fwu_config &config = report.config;
    std::string out =
        comment("# Written by fwlog postgresql --check for database " + report.found.database +
                " of PostgreSQL " + report.found.version + ", to be edited.") +
        "\n# A line that is taken out leaves its table or column to the default.\n\n";
    put_settings(out, report, path);
    put_other_columns(out, report);
    // A database stands once, with all its datasets.
    std::map<std::string, std::string> databases;
    for (const fwu_dataset &dataset : config.datasets)
        if (!dataset.layout.items.empty())
            databases[dataset.layout.dbname] += dataset_lines(dataset, dataset.table);
    for (const pgk_table &table : report.tables) {
        if (table.skipped || table.described)
            continue;
        if (table.fed == nullptr) {
            out +=
                "\n" + comment("# " + table.name + " will be set aside: " + table.refused) + "\n";
            continue;
        }
        put_columns(out, report, table);
        databases[table.fed->layout.dbname] +=
            "dataset " + table.fed->layout.dsetname + " table=" + table.name + "\n";
    }
    for (const auto &[database, lines] : databases)
        out += "\ndatabase " + database + "\n" + lines;
    return out;
}
