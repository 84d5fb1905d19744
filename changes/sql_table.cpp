// Names are those of the source where the log has them, else database, dataset and items as
// they are.
#include "changes/sql_table.h"

#include "changes/sql_dialect.h"
#include "changes/sql_quote.h"
#include "changes/value.h"

#include <algorithm>
#include <strings.h>
#include <unordered_map>

static std::string utf8(const std::string &latin1)
{
    std::string out;
    change_put_utf8(out, latin1);
    return out;
}

std::string sql_table_name(const sql_dialect &dialect, const std::string &schema,
                           const std::string &table)
{
    std::string name;
    if (schema.empty() || !dialect.schemas) {
        sql_put_name(name, schema.empty() ? table : schema + "_" + table);
        return name;
    }
    sql_put_name(name, schema);
    name.push_back('.');
    sql_put_name(name, table);
    return name;
}

static void name_table(sql_table &table)
{
    const fwu_layout &layout = table.dataset->layout;
    const bool known = layout.source != nullptr && !layout.source->table.empty();
    const std::string schema = known ? layout.source->schema : utf8(layout.dbname);
    const std::string name = known ? layout.source->table : utf8(layout.dsetname);
    table.origin = change_table_name(schema, name);
    table.name = sql_table_name(*table.dialect, schema, name);
    if (table.dialect->schemas && !schema.empty())
        sql_put_name(table.schema, schema);
}

static void add_columns(sql_table &table)
{
    const change_dataset &dataset = *table.dataset;
    for (size_t i = 0; i < dataset.layout.items.size(); i++) {
        if (static_cast<int>(i) == dataset.null_map)
            continue;
        const fwu_item &item = dataset.layout.items[i];
        sql_column column;
        column.item = i;
        column.name = utf8(item.name);
        if (const int from = dataset.column[i]; from != CHANGE_NO_ITEM) {
            const fwu_source_column &source =
                dataset.layout.source->columns[static_cast<size_t>(from)];
            column.name = source.name;
            column.type = source.type;
        }
        sql_put_name(column.quoted, column.name);
        // An array in one text is that text.
        column.boolean = sql_type_is(column.type, "boolean bool") &&
                         column.type.ends_with("[]") == (item.count > 1);
        column.compared = table.dialect->compared(column, item);
        column.around = table.dialect->around(column);
        table.columns.push_back(std::move(column));
    }
}

// Each column has a name of its own.
static outcome look_at_names(const sql_table &table)
{
    std::unordered_map<std::string, const sql_column *> names;
    for (const sql_column &column : table.columns) {
        const auto [taken, fresh] =
            names.try_emplace(sql_same_name(*table.dialect, column.name), &column);
        if (!fresh)
            return outcome_bad(table.origin + " has columns " + taken->second->name + " and " +
                               column.name +
                               ", which would be one: leave it out with --dset, or begin a new "
                               "log with one of them left out of the dataset or with another name");
    }
    return {};
}

static bool is_dataset(const std::string &name, const fwu_layout &layout)
{
    return strcasecmp(name.c_str(), layout.dsetname.c_str()) == 0 ||
           strcasecmp(name.c_str(), (layout.dbname + ":" + layout.dsetname).c_str()) == 0;
}

static outcome set_key(sql_table &table, const std::vector<sql_key> &keys)
{
    const fwu_layout &layout = table.dataset->layout;
    const auto given = std::find_if(keys.begin(), keys.end(), [&layout](const sql_key &key) {
        return is_dataset(key.dataset, layout);
    });
    const auto add = [&table](const auto &is_it) {
        const auto found = std::find_if(table.columns.begin(), table.columns.end(), is_it);
        if (found != table.columns.end())
            table.key.push_back(static_cast<size_t>(found - table.columns.begin()));
        return found != table.columns.end();
    };
    if (given == keys.end()) {
        for (const int item : table.dataset->key)
            add([item](const sql_column &column) {
                return column.item == static_cast<size_t>(item);
            });
        return {};
    }
    for (const std::string &name : given->columns)
        if (!add([&](const sql_column &column) {
                return column.name == name || layout.items[column.item].name == name;
            }))
            return outcome_bad(table.origin + " has no item or column " + name +
                               ", which --key names: take one that it has");
    return {};
}

std::string sql_insert_into(const sql_table &table, const std::string &columns)
{
    return "INSERT INTO " + table.name + " (" + columns + ")" + table.dialect->overriding;
}

static void prepare(sql_table &table)
{
    std::string names;
    for (const sql_column &column : table.columns)
        names += (names.empty() ? "" : ", ") + column.quoted;
    table.insert = sql_insert_into(table, names);
    for (const char *const row : table.dialect->rows) {
        const auto has_name = [row](const sql_column &column) {
            return strcasecmp(column.name.c_str(), row) == 0;
        };
        if (row != nullptr && table.row.empty() &&
            std::none_of(table.columns.begin(), table.columns.end(), has_name))
            table.row = row;
    }
}

outcome sql_table_make(sql_table &table, const sql_dialect &dialect,
                       const std::vector<sql_key> &keys, const change_dataset &dataset)
{
    table = sql_table();
    table.dialect = &dialect;
    table.dataset = &dataset;
    name_table(table);
    add_columns(table);
    if (table.columns.empty())
        return outcome_bad(table.origin + " has no columns; leave it out with --dset");
    if (outcome done = look_at_names(table); !done)
        return done;
    if (outcome done = set_key(table, keys); !done)
        return done;
    prepare(table);
    if (table.key.empty() && table.row.empty())
        return outcome_bad(table.origin + " has columns of all names that tell rows apart (" +
                           dialect.rows[0] + "), and no key: give it one with --key");
    return {};
}
