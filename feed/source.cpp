// A key counts as a whole or not at all: part of one does not tell rows apart.
#include "feed/source.h"

#include "feed/text.h"
#include "fwutil/fwu_writer_check.h"

#include <algorithm>

using columns = std::vector<fwu_source_column>;

static fwu_source_column *find_column(columns &all, const std::string &name)
{
    const auto found = std::find_if(all.begin(), all.end(), [&](const fwu_source_column &column) {
        return column.name == name;
    });
    return found == all.end() ? nullptr : &*found;
}

static fwu_source_column *find_feeding(columns &all, int item)
{
    const auto found = std::find_if(all.begin(), all.end(), [&](const fwu_source_column &column) {
        return column.item == item;
    });
    return found == all.end() ? nullptr : &*found;
}

// Numbers the columns in their order; false when one of them is not there, or stands twice.
static bool set_key(const std::vector<fwu_source_column *> &key)
{
    int32_t place = 0;
    bool whole = !key.empty();
    for (fwu_source_column *column : key) {
        whole = whole && column != nullptr && column->key == 0;
        if (whole)
            column->key = ++place;
    }
    if (whole)
        return true;
    for (fwu_source_column *column : key)
        if (column != nullptr)
            column->key = 0;
    return false;
}

// Takes the key that the configuration gives; false when it gives none that the table has.
static bool set_configured_key(feed_table &table, const fwu_config &config, columns &all,
                               std::vector<std::string> &notes)
{
    std::vector<fwu_source_column *> key;
    for (const int item : table.dataset->key)
        key.push_back(find_feeding(all, item));
    if (!key.empty())
        return set_key(key); // an item without a column is told where the rows are made
    std::string missing;
    for (const fwu_column &said : fwu_columns_of(config, table.name)) {
        if (!said.key)
            continue;
        key.push_back(find_column(all, said.column));
        if (key.back() == nullptr && missing.empty())
            missing = said.column;
    }
    if (!missing.empty() && !table.key_told) {
        table.key_told = true;
        notes.push_back("table " + table.name + ": column " + missing + ", which " + config.path +
                        " makes part of its key, is not there: the key is what the source says");
    }
    return set_key(key);
}

// Whether the log can hold a name or a type.
static bool fits_log(const std::string &text)
{
    return text.size() <= FWU_SOURCE_TEXT_MAX && text.find('\0') == text.npos;
}

static fwu_source make_source(feed_table &table, const fwu_config &config, const feed_told &told,
                              std::vector<std::string> &notes)
{
    fwu_source source;
    source.schema = told.schema;
    source.table = told.table;
    source.null_map = table.dataset->null_map;
    std::vector<bool> fed(table.layout.items.size());
    for (const feed_told_column &column : told.columns) {
        if (column.name.empty() || !fits_log(column.name))
            continue; // no server's
        fwu_source_column &made = source.columns.emplace_back();
        made.name = column.name;
        made.type = fits_log(column.type) ? column.type : "";
        const std::string name = feed_name(column.name);
        for (size_t i = 0; i < fed.size() && made.item < 0; i++) {
            if (!fed[i] && feed_feeds(table, column.name, name, i)) {
                made.item = static_cast<int32_t>(i);
                fed[i] = true;
            }
        }
    }
    if (!set_configured_key(table, config, source.columns, notes)) {
        std::vector<fwu_source_column *> key;
        for (const std::string &name : told.key)
            key.push_back(find_column(source.columns, name));
        (void)set_key(key); // the table may have none
    }
    return source;
}

void feed_describe(feed_table &table, const fwu_config &config, feed_told told,
                   std::vector<std::string> &notes)
{
    if (table.layout.source != nullptr && table.told == told)
        return;
    fwu_source source = make_source(table, config, told, notes);
    table.told = std::move(told);
    if (table.layout.source == nullptr || *table.layout.source != source)
        table.layout.source = std::make_shared<const fwu_source>(std::move(source));
    if (const std::string problem = fwu_source_problem(table.layout); !problem.empty()) {
        notes.push_back(problem + ": the log does not say where its records come from");
        table.layout.source = nullptr;
    }
}
