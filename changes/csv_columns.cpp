// Which columns a layout has, and what they are called.
#include "changes/csv.h"
#include "changes/csv_about.h"
#include "changes/value.h"

#include <algorithm>
#include <charconv>
#include <set>

constexpr size_t COLUMNS_MAX = 1'000'000; // of a line that anybody can read: as the text says

static constexpr std::string_view BEFORE = "before.";
static constexpr const char *ALWAYS[] = {"_op", "_position"}; // they lead every line

static std::string item_name(const change_dataset &dataset, size_t item)
{
    std::string name;
    change_put_utf8(name, dataset.layout.items[item].name);
    return name;
}

// Empty: it has none.
static std::string column_name(const change_dataset &dataset, size_t item)
{
    const int column = dataset.column[item];
    return column == CHANGE_NO_ITEM
               ? std::string()
               : dataset.layout.source->columns[static_cast<size_t>(column)].name;
}

// The column of an element, from 0, of an item.
static change_csv_column value_of(const change_dataset &dataset, size_t item, int32_t element,
                                  std::string name, bool before)
{
    const fwu_item &of = dataset.layout.items[item];
    return {.name = std::move(name),
            .about = nullptr,
            .before = before,
            .item = item,
            .offset = dataset.offsets[item] + int64_t{of.size} * element};
}

// All elements of an item, under this name.
static void add_item(std::vector<change_csv_column> &columns, const change_dataset &dataset,
                     size_t item, const std::string &name, bool before)
{
    const int32_t count = dataset.layout.items[item].count;
    for (int32_t i = 0; i < count && columns.size() <= COLUMNS_MAX; i++)
        columns.push_back(value_of(dataset, item, i,
                                   count == 1 ? name : name + "[" + std::to_string(i + 1) + "]",
                                   before));
}

static bool is_value(const change_dataset &dataset, size_t item)
{
    return static_cast<int>(item) != dataset.null_map;
}

static void add_all(std::vector<change_csv_column> &columns, const change_dataset &dataset,
                    bool source_names)
{
    for (size_t i = 0; i < dataset.layout.items.size(); i++) {
        if (!is_value(dataset, i))
            continue;
        const std::string column = source_names ? column_name(dataset, i) : std::string();
        add_item(columns, dataset, i, column.empty() ? item_name(dataset, i) : column, false);
    }
}

// The item that a name means; its number of items when there is none.  A name that is both an
// item's and another one's column is what the options prefer.
static size_t find_item(const change_dataset &dataset, const std::string &name, bool source_names)
{
    const size_t n = dataset.layout.items.size();
    for (const bool by_column : {source_names, !source_names})
        for (size_t i = 0; i < n; i++)
            if (is_value(dataset, i) && !name.empty() &&
                name == (by_column ? column_name(dataset, i) : item_name(dataset, i)))
                return i;
    return n;
}

// Adds what a name means; false: nothing does.
static bool add_value(std::vector<change_csv_column> &columns, const change_dataset &dataset,
                      const std::string &name, const std::string &shown, bool source_names,
                      bool before)
{
    const std::vector<fwu_item> &items = dataset.layout.items;
    if (const size_t item = find_item(dataset, name, source_names); item < items.size()) {
        add_item(columns, dataset, item, shown, before);
        return true;
    }
    const size_t bracket = name.rfind('[');
    if (bracket == name.npos || !name.ends_with(']'))
        return false;
    int32_t element = 0;
    const char *const end = name.data() + name.size() - 1;
    const auto [rest, code] = std::from_chars(name.data() + bracket + 1, end, element);
    const size_t item = find_item(dataset, name.substr(0, bracket), source_names);
    if (code != std::errc() || rest != end || item == items.size() || element < 1 ||
        element > items[item].count)
        return false;
    columns.push_back(value_of(dataset, item, element - 1, shown, before));
    return true;
}

static bool add_named(std::vector<change_csv_column> &columns, const change_dataset &dataset,
                      const std::string &name, bool source_names)
{
    if (const change_csv_about *about = change_csv_about_of(name); about != nullptr) {
        columns.push_back({.name = name, .about = about});
        return true;
    }
    if (add_value(columns, dataset, name, name, source_names, false))
        return true;
    return name.starts_with(BEFORE) &&
           add_value(columns, dataset, name.substr(BEFORE.size()), name, source_names, true);
}

static void add_before(std::vector<change_csv_column> &columns)
{
    const size_t n = columns.size();
    for (size_t i = 0; i < n; i++) {
        if (columns[i].about != nullptr || columns[i].before)
            continue;
        change_csv_column old = columns[i];
        old.name.insert(0, BEFORE);
        old.before = true;
        columns.push_back(std::move(old));
    }
}

// What leads every line, where no name has put it elsewhere.
static void add_always(std::vector<change_csv_column> &columns)
{
    auto at = columns.begin();
    for (const char *name : ALWAYS) {
        const change_csv_about *const about = change_csv_about_of(name);
        const auto has = [about](const change_csv_column &column) { return column.about == about; };
        if (std::none_of(columns.begin(), columns.end(), has))
            at = columns.insert(at, {.name = name, .about = about}) + 1;
    }
}

// Makes names that are there twice differ: readers go by them.
static void make_unique(std::vector<change_csv_column> &columns)
{
    std::set<std::string> used;
    for (change_csv_column &column : columns) {
        const std::string name = column.name;
        for (int n = 2; !used.insert(column.name).second; n++)
            column.name = name + "_" + std::to_string(n);
    }
}

// "SALES.ORDERS in its layout of 1-25.3"
static std::string place_of(const change_dataset &dataset)
{
    std::string name;
    change_put_utf8(name, dataset.layout.dbname + "." + dataset.layout.dsetname);
    return name + " in its layout of " + fwu_position_text(dataset.begun);
}

outcome change_csv_make(change_csv &csv, const change_dataset &dataset,
                        const change_csv_options &options)
{
    csv.dataset = &dataset;
    csv.columns.clear();
    csv.header.clear();
    if (options.columns.empty())
        add_all(csv.columns, dataset, options.source_names);
    for (const std::string &name : options.columns)
        if (!add_named(csv.columns, dataset, name, options.source_names))
            return outcome_bad(place_of(dataset) + " has no column " + name +
                               "; about changes there are " + change_csv_about_names());
    if (csv.columns.size() > COLUMNS_MAX)
        return outcome_bad(place_of(dataset) +
                           " has more than 1000000 columns; name those that are wanted");
    add_always(csv.columns);
    make_unique(csv.columns);
    if (options.before) { // the names of old values go by those of the others
        add_before(csv.columns);
        make_unique(csv.columns);
    }
    for (const change_csv_column &column : csv.columns) {
        if (!csv.header.empty())
            csv.header.push_back(',');
        change_csv_put_text(csv.header, column.name);
    }
    csv.header += "\r\n";
    return {};
}

bool change_csv_list(std::vector<std::string> &names, std::string_view list)
{
    for (;;) {
        std::string name;
        const bool quoted = list.starts_with('"');
        size_t at = quoted ? 1 : 0;
        for (; at < list.size() && (quoted || (list[at] != ',' && list[at] != '"')); at++) {
            if (quoted && list[at] == '"' && !list.substr(at + 1).starts_with('"'))
                break;
            at += quoted && list[at] == '"' ? 1 : 0;
            name.push_back(list[at]);
        }
        if (name.empty() || (quoted && at == list.size()))
            return false;
        list.remove_prefix(at + (quoted ? 1 : 0));
        names.push_back(std::move(name));
        if (list.empty())
            return true;
        if (list.front() != ',')
            return false;
        list.remove_prefix(1);
    }
}
