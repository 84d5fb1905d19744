// A table is looked up once: by the "table=" of a dataset, else by its own name
// put in upper case.
#include "feed/table.h"

#include "feed/policy.h"
#include "feed/text.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_writer_check.h"

#include <algorithm>
#include <climits>

static std::string dataset_name(const fwu_dataset &dataset)
{
    return dataset.layout.dbname + "." + dataset.layout.dsetname;
}

bool feed_is_skipped(const fwu_config &config, const std::string &name)
{
    return std::find(config.skip_tables.begin(), config.skip_tables.end(), name) !=
           config.skip_tables.end();
}

const fwu_dataset *feed_configured(const fwu_config &config, std::string_view schema,
                                   std::string_view table)
{
    const std::string name = fwu_source_name(schema, table);
    for (const fwu_dataset &dataset : config.datasets) {
        if (dataset.table == name)
            return &dataset;
    }
    const std::string dbname = feed_name(schema);
    const std::string dsetname = feed_name(table);
    for (const fwu_dataset &dataset : config.datasets) {
        if (dataset.table.empty() && dataset.layout.dbname == dbname &&
            dataset.layout.dsetname == dsetname)
            return &dataset;
    }
    return nullptr;
}

outcome feed_check_name(const fwu_config &config, const std::string &name, std::string_view schema,
                        std::string_view table)
{
    const std::string dbname = feed_name(schema);
    const std::string dsetname = feed_name(table);
    if (dbname.size() > FWU_NAME_MAX || dsetname.size() > FWU_NAME_MAX)
        return outcome_bad(
            "table " + name + ": " + (dbname.size() > FWU_NAME_MAX ? dbname : dsetname) +
            " is longer than the " + std::to_string(FWU_NAME_MAX) +
            " characters of a name: give the dataset a short name in " + config.path +
            " with table=" + name + ", or leave the table out with the line skip-table " + name);
    if (fwu_database_name_ok(dbname) && fwu_dataset_name_ok(dsetname))
        return {};
    return outcome_bad("table " + name + ": " + dbname + "." + dsetname +
                       " has characters that names of databases and datasets cannot have: name "
                       "the dataset in " +
                       config.path + " with table=" + name +
                       ", or leave the table out with the line skip-table " + name);
}

static outcome find_dataset(const fwu_dataset *&dataset, const fwu_config &config,
                            const std::string &name, std::string_view schema,
                            std::string_view table)
{
    dataset = feed_configured(config, schema, table);
    if (dataset != nullptr)
        return {};
    if (outcome checked = feed_check_name(config, name, schema, table); !checked)
        return checked;
    return outcome_bad("table " + name + " is not in " + config.path + ": describe dataset " +
                       feed_name(table) + " of database " + feed_name(schema) +
                       " there, or leave the table out with the line skip-table " + name);
}

// Without a null map there is no place for marks.
static void set_policies(feed_table &table, const fwu_config &config, fwu_policy otherwise)
{
    const size_t items = table.dataset->layout.items.size();
    table.marks_told.assign(items, 0);
    table.policies.assign(items, FWU_POLICY_ERROR);
    if (table.dataset->null_map < 0)
        return;
    table.policies.assign(items, feed_policy_of(config, table.name, otherwise));
    for (const fwu_column &said : fwu_columns_of(config, table.name)) {
        if (said.policy == FWU_POLICY_UNSAID)
            continue;
        const std::string name = feed_name(said.column);
        for (size_t i = 0; i < items; i++)
            if (feed_feeds(table, said.column, name, i))
                table.policies[i] = said.policy;
    }
}

// A change that the log has no room for would come too late to be refused.  Where nobody has
// asked for them, images stay so short that a few of them take little memory.
static int64_t image_max(const feed_table &table)
{
    return table.own == nullptr ? int64_t{FWU_IMAGE_MAX} : FEED_IMAGE_MAX;
}

static std::string image_too_long_text(const feed_table &table, const std::string &where)
{
    const std::string what =
        ": the record image is longer than " + std::to_string(image_max(table)) + " bytes";
    if (table.own == nullptr)
        return where + what + ", of which the log has room for two";
    return "table " + table.name + what + ", " +
           std::to_string(fwu_layout_image_length(table.dataset->layout)) +
           ": give its columns less with lines column " + table.name + ".COLUMN width=N in " +
           table.config->path + ", or leave the table out with the line skip-table " + table.name;
}

static outcome measure(feed_table &table, const feed_tables &tables)
{
    const fwu_config &config = *tables.config;
    const fwu_dataset &dataset = *table.dataset;
    const std::vector<fwu_item> &items = dataset.layout.items;
    const std::string where =
        config.path + ":" + std::to_string(dataset.line) + ": dataset " + dataset_name(dataset);
    int64_t offset = 0;
    for (const fwu_item &item : items) {
        const fwu_item_type *type = fwu_item_type_of(item.type);
        if (type == nullptr || !fwu_item_size_ok(*type, item.size) || item.count < 1)
            return outcome_bad(where + ": item " + item.name +
                               " has a type and size that cannot be loaded");
        table.offsets.push_back(offset);
        offset += int64_t{item.size} * item.count;
        if (offset > image_max(table))
            return outcome_bad(image_too_long_text(table, where));
    }
    table.image_length = static_cast<int32_t>(offset);
    table.layout = dataset.layout;

    if (dataset.null_map >= 0 && !fwu_null_map_ok(items, static_cast<size_t>(dataset.null_map)))
        return outcome_bad(
            where + ": the null map must be an X item with a character for each other item, " +
            std::to_string(items.size() - 1));
    if (std::string problem = fwu_items_problem(dataset.layout); !problem.empty())
        return outcome_bad(std::move(problem));
    set_policies(table, config, tables.default_policy);
    return {};
}

// Two tables whose names differ in case or in "_" and "-" only come to one dataset.
static outcome check_feeds_alone(feed_tables &tables, const feed_table &table)
{
    const std::string dataset = dataset_name(*table.dataset);
    std::string &feeder = tables.feeders[dataset];
    const auto other = tables.known.find(feeder);
    // What is said of a table that was forgotten, or feeds another dataset by now, is past.
    if (feeder != table.name && other != tables.known.end() && other->second->dataset != nullptr &&
        dataset_name(*other->second->dataset) == dataset)
        return outcome_bad("table " + table.name + " goes into dataset " + dataset +
                           " like table " + feeder + ": describe a dataset of its own in " +
                           tables.config->path + " with table=" + table.name);
    feeder = table.name;
    return {};
}

static std::unique_ptr<feed_table> make_table(const feed_tables &tables, const std::string &name)
{
    auto made = std::make_unique<feed_table>();
    made->name = name;
    made->config = tables.config;
    made->old_row_remedy = tables.old_row_remedy;
    const size_t place = made->old_row_remedy.find('%');
    if (place != std::string::npos)
        made->old_row_remedy.replace(place, 1, name);
    return made;
}

outcome feed_find_table(feed_table *&table, feed_tables &tables, std::string_view schema,
                        std::string_view name)
{
    tables.key.clear();
    fwu_source_name_put(tables.key, schema);
    tables.key.push_back('.');
    fwu_source_name_put(tables.key, name);
    const auto found = tables.known.find(tables.key);
    if (found != tables.known.end()) {
        table = found->second.get();
        return {};
    }

    std::unique_ptr<feed_table> made = make_table(tables, tables.key);
    if (!feed_is_skipped(*tables.config, made->name)) {
        outcome done = find_dataset(made->dataset, *tables.config, made->name, schema, name);
        if (done)
            done = measure(*made, tables);
        if (done)
            done = check_feeds_alone(tables, *made);
        if (!done)
            return done;
    }
    table = tables.known.emplace(tables.key, std::move(made)).first->second.get();
    return {};
}

outcome feed_put_table(feed_table *&table, feed_tables &tables, const std::string &name,
                       fwu_dataset dataset, std::vector<std::string> columns)
{
    std::unique_ptr<feed_table> made = make_table(tables, name);
    made->own_columns = std::move(columns);
    made->own = std::make_unique<fwu_dataset>(std::move(dataset));
    made->dataset = made->own.get();
    outcome done = measure(*made, tables);
    if (done)
        done = check_feeds_alone(tables, *made);
    if (!done)
        return done;
    std::unique_ptr<feed_table> &place = tables.known[name];
    place = std::move(made);
    table = place.get();
    return {};
}

feed_table *feed_pass_over(feed_tables &tables, const std::string &name)
{
    std::unique_ptr<feed_table> &place = tables.known[name];
    place = make_table(tables, name);
    return place.get();
}

std::string feed_no_old_row_text(const feed_table &table)
{
    return table.name + ": the change comes without the old row" +
           (table.old_row_remedy.empty() ? "" : ": " + table.old_row_remedy);
}

static bool same_columns(const feed_map &map, const feed_row &row)
{
    if (map.column_of_item.empty() || map.names.size() != row.count)
        return false;
    for (size_t i = 0; i < row.count; i++) {
        if (map.names[i] != row.columns[i].name)
            return false;
    }
    return true;
}

bool feed_feeds(const feed_table &table, const std::string &column, const std::string &name,
                size_t item)
{
    if (static_cast<int>(item) == table.dataset->null_map)
        return false;
    return table.own == nullptr ? table.dataset->layout.items[item].name == name
                                : table.own_columns[item] == column;
}

static outcome map_column(feed_map &map, const feed_table &table, const feed_row &row,
                          size_t column, bool &fed)
{
    fed = false;
    const std::vector<fwu_item> &items = table.dataset->layout.items;
    const std::string name = feed_name(row.columns[column].name);
    for (size_t i = 0; i < items.size(); i++) {
        if (!feed_feeds(table, row.columns[column].name, name, i))
            continue;
        if (map.column_of_item[i] != FEED_NO_COLUMN)
            return outcome_bad(feed_column_name(table, row.columns[column]) + ": item " + name +
                               " is already fed by column " +
                               row.columns[static_cast<size_t>(map.column_of_item[i])].name);
        map.column_of_item[i] = static_cast<int>(column);
        fed = true;
    }
    return {};
}

static std::string left_out_text(const feed_table &table, const std::vector<std::string> &columns)
{
    std::string names;
    for (const std::string &name : columns)
        names += (names.empty() ? "" : ", ") + name;
    const bool one = columns.size() == 1;
    return "table " + table.name + ": " + (one ? "column " : "columns ") + names +
           (one ? " has no item" : " have no items") + " in dataset " +
           dataset_name(*table.dataset) + " and " + (one ? "is" : "are") + " left out of the log";
}

outcome feed_map_columns(feed_map &map, feed_table &table, const feed_row &row,
                         std::vector<std::string> &notes)
{
    if (same_columns(map, row))
        return {};
    map.names.clear();
    map.column_of_item.assign(table.dataset->layout.items.size(), FEED_NO_COLUMN);
    std::vector<std::string> without;
    for (size_t i = 0; i < row.count; i++) {
        bool fed = false;
        if (outcome mapped = map_column(map, table, row, i, fed); !mapped) {
            map.column_of_item.clear(); // not taken for a finished map by the next row
            return mapped;
        }
        const std::string &name = row.columns[i].name;
        map.names.push_back(name);
        if (!fed &&
            std::find(table.left_out.begin(), table.left_out.end(), name) == table.left_out.end())
            without.push_back(name);
    }
    if (!without.empty()) {
        notes.push_back(left_out_text(table, without));
        table.left_out.insert(table.left_out.end(), without.begin(), without.end());
    }
    return {};
}

std::string feed_column_name(const feed_table &table, const feed_column &column)
{
    std::string name = table.name + ".";
    fwu_source_name_put(name, column.name);
    return name;
}
