// Items are named anew from their columns each time, so only the names that the rule had to
// shorten are kept, and only those that another item was the reason for need it; tables come and
// go while others keep their datasets, so all of theirs are kept.
#include "feed/names.h"

#include "feed/table.h"
#include "feed/text.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_source_name.h"
#include "util/utf8.h"

#include <algorithm>
#include <tuple>

constexpr int CHECKSUM_DIGITS = 5; // of base 32

static bool is_upper(char c)
{
    return c >= 'A' && c <= 'Z';
}

// Letters, digits and hyphens of a name, "-" for each other character, from the first letter on.
static std::string usable_part(std::string_view name)
{
    std::string out;
    for (const char c : feed_name(name)) {
        if (utf8_continues(c))
            continue;
        const bool usable = is_upper(c) || (!out.empty() && c >= '0' && c <= '9');
        if (usable || !out.empty())
            out += usable ? c : '-';
    }
    return out.empty() ? "X" : out;
}

static std::string checksum(std::string_view whole)
{
    uint32_t sum = fwu_crc32c(0, whole.data(), whole.size());
    std::string digits(CHECKSUM_DIGITS, '0');
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        *digit = "0123456789ABCDEFGHIJKLMNOPQRSTUV"[sum % 32];
        sum /= 32;
    }
    return digits;
}

// The shortened name of so many characters; count: the how manieth of this checksum, from 1.
static std::string short_name(std::string_view name, const std::string &whole, size_t max,
                              int count)
{
    std::string out = usable_part(name).substr(0, max - CHECKSUM_DIGITS - 1);
    out.erase(out.find_last_not_of('-') + 1);
    return out + "-" + checksum(count == 1 ? whole : whole + " " + std::to_string(count));
}

static std::string key_of(const feed_dataset_name &name)
{
    return name.dbname + "." + name.dsetname;
}

// Why a schema or table cannot give its name to a database or dataset; null: it can.
static const char *wrong_name(const std::string &name, bool (*good)(std::string_view))
{
    if (good(name))
        return nullptr;
    return good(name.substr(0, FWU_NAME_MAX))
               ? "a name has at most 16 characters"
               : "a name begins with a letter and cannot have all these characters";
}

// Who else has the dataset; empty: nobody.
static std::string owner_of(const feed_names &names, const fwu_config &config,
                            const feed_dataset_name &name)
{
    for (const fwu_dataset &dataset : config.datasets)
        if (dataset.layout.dbname == name.dbname && dataset.layout.dsetname == name.dsetname)
            return config.path + ":" + std::to_string(dataset.line);
    const auto found = names.owners.find(key_of(name));
    return found == names.owners.end() ? "" : "table " + found->second;
}

// Finds a name for a table that has none yet; why: empty when it is the source's.
static feed_dataset_name name_dataset(std::string &why, const feed_names &names,
                                      const fwu_config &config, std::string_view schema,
                                      std::string_view table)
{
    const std::string whole = fwu_source_name(schema, table);
    feed_dataset_name name = {.dbname = feed_name(schema), .dsetname = feed_name(table)};
    if (const char *wrong = wrong_name(name.dbname, fwu_database_name_ok); wrong != nullptr) {
        std::string whole_schema;
        fwu_source_name_put(whole_schema, schema);
        why = wrong;
        name.dbname = short_name(schema, whole_schema, FWU_NAME_MAX, 1);
    }
    if (const char *wrong = wrong_name(name.dsetname, fwu_dataset_name_ok); wrong != nullptr) {
        why = wrong;
    } else {
        const std::string owner = owner_of(names, config, name);
        if (owner.empty())
            return name;
        why = key_of(name) + " is that of " + owner;
    }
    for (int count = 1;; count++) {
        name.dsetname = short_name(table, whole, FWU_NAME_MAX, count);
        if (owner_of(names, config, name).empty())
            return name;
    }
}

void feed_names_table(std::string &dbname, std::string &dsetname, feed_names &names,
                      const fwu_config &config, std::string_view schema, std::string_view table,
                      std::vector<std::string> &notes)
{
    if (const fwu_dataset *said = feed_configured(config, schema, table); said != nullptr) {
        dbname = said->layout.dbname;
        dsetname = said->layout.dsetname;
        return;
    }
    const std::string whole = fwu_source_name(schema, table);
    auto found = names.tables.find(whole);
    if (found == names.tables.end()) {
        std::string why;
        feed_dataset_name name = name_dataset(why, names, config, schema, table);
        if (!why.empty())
            notes.push_back("table " + whole + ": its dataset is named " + key_of(name) +
                            ", since " + why);
        names.owners.emplace(key_of(name), whole);
        found = names.tables.emplace(whole, std::move(name)).first;
        names.is_new = names.must_keep = true;
    }
    dbname = found->second.dbname;
    dsetname = found->second.dsetname;
}

// Whether nothing of the name is lost in upper case with "-": of two tables that come to one name
// it is the one that has it.
static bool is_usual(const feed_table_name &name)
{
    const auto unusual = [](char c) { return is_upper(c) || c == '-'; };
    return std::none_of(name.schema.begin(), name.schema.end(), unusual) &&
           std::none_of(name.table.begin(), name.table.end(), unusual);
}

void feed_names_tables(feed_names &names, const fwu_config &config,
                       std::vector<feed_table_name> tables, std::vector<std::string> &notes)
{
    std::sort(tables.begin(), tables.end(), [](const auto &a, const auto &b) {
        const bool usual = is_usual(a);
        return usual != is_usual(b) ? usual
                                    : std::tie(a.schema, a.table) < std::tie(b.schema, b.table);
    });
    std::string dbname;
    std::string dsetname;
    for (const feed_table_name &name : tables)
        feed_names_table(dbname, dsetname, names, config, name.schema, name.table, notes);
}

static bool is_free(const fwu_layout &layout, const std::string &name)
{
    return name != FEED_NULL_MAP && std::none_of(layout.items.begin(), layout.items.end(),
                                                 [&](const fwu_item &i) { return i.name == name; });
}

// What is wrong with a name for an item; null: nothing.
static const char *wrong_item(const std::string &name)
{
    if (!std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; }))
        return "an item name has no blanks and no characters outside ASCII";
    if (name.empty() || name.size() > FWU_ITEM_NAME_MAX)
        return "an item name has 1 to 17 characters";
    return nullptr;
}

void feed_names_item(std::string &item, feed_names &names, const fwu_layout &so_far,
                     std::string_view schema, std::string_view table, std::string_view column,
                     std::vector<std::string> &notes)
{
    const std::string whole = fwu_source_name(schema, table, column);
    const auto kept = names.items.find(whole);
    if (kept != names.items.end() && is_free(so_far, kept->second)) {
        item = kept->second;
        return;
    }
    item = feed_name(column);
    const char *wrong = wrong_item(item);
    if (wrong == nullptr && is_free(so_far, item))
        return;
    const std::string why = wrong != nullptr ? wrong : item + " is another item of this dataset";
    bool is_taken = wrong == nullptr && item != FEED_NULL_MAP;
    item = short_name(column, whole, FWU_ITEM_NAME_MAX, 1);
    for (int count = 2; !is_free(so_far, item); count++) {
        item = short_name(column, whole, FWU_ITEM_NAME_MAX, count);
        is_taken = true;
    }
    notes.push_back("column " + whole + ": its item is named " + item + ", since " + why);
    names.items[whole] = item;
    names.is_new = true;
    names.must_keep = names.must_keep || is_taken;
}
