// A new line is told whole, so that it can be pasted; a change names the words, and how the line
// begins.
#include "feed/remedy.h"

#include "feed/policy.h"
#include "feed/text.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

// A timestamp as the server writes it: "4714-11-24 00:00:00.123456+05:53:28 BC".
static constexpr size_t STAMP_WIDTH = 38;

static const fwu_column *find_line(const feed_table &table, const std::string &column)
{
    for (const fwu_column &said : fwu_columns_of(*table.config, table.name))
        if (said.column == column)
            return &said;
    return nullptr;
}

static std::string column_words(const feed_table &table, const std::string &column)
{
    std::string words = "column " + table.name + ".";
    fwu_source_name_put(words, column);
    return words;
}

static std::string in_line(const feed_table &table, const std::string &words)
{
    return " in the line of " + table.config->path + " that begins with \"" + words + "\"";
}

// Characters that all values of an item have room in as text.
static size_t text_width(const fwu_item &item)
{
    const auto size = static_cast<size_t>(item.size);
    switch (item.type) {
    case 'P':
        return 2 * size - 1 + 3; // digits, "-0."
    case 'Z':
        return size + 3;
    case 'X':
    case 'U':
        return size;
    case 'E':
    case 'R':
        return 24; // "-2.2250738585072014e-308"
    default:
        return 20; // "-9223372036854775808"
    }
}

std::string feed_wider_remedy(const feed_table &table, const fwu_item &item,
                              const feed_column &column, size_t length)
{
    size_t width = length == 0 ? 0 : std::max(length, text_width(item));
    if (column.type.whole == FEED_TIMESTAMP)
        width = std::max(width, STAMP_WIDTH);
    if (width > static_cast<size_t>(FWU_TEXT_SIZE_MAX))
        return "no item is longer than " + std::to_string(FWU_TEXT_SIZE_MAX) + " bytes";
    const std::string words = column_words(table, column.name);
    const std::string option = "width=" + (width == 0 ? "N" : std::to_string(width));
    if (const fwu_column *said = find_line(table, column.name); said != nullptr) {
        if (said->width == 0)
            return "add " + option + in_line(table, words);
        const std::string change = "change width=" + std::to_string(said->width) + " to ";
        return change + (width == 0 ? "a greater one" : option) + in_line(table, words);
    }
    // The first line about a column ends the marks that are the default without one.
    const bool marks =
        table.config->policy == FWU_POLICY_UNSAID && !fwu_writing_describes(*table.config);
    return "put the line \"" + words + " " + option + "\" into the configuration" +
           (marks ? ", and \"values mark\" with it" : "");
}

std::string feed_value_remedy(const feed_table &table, const fwu_item &item,
                              const feed_column &column, const feed_refusal &refusal)
{
    if (table.own == nullptr || !refusal.is_narrow)
        return refusal.remedy;
    return feed_wider_remedy(table, item, column, std::max<size_t>(column.value.size(), 1));
}

std::string feed_null_map_remedy(const feed_table &table)
{
    const fwu_dataset &dataset = *table.dataset;
    if (dataset.null_map >= 0)
        return "";
    return "give dataset " + dataset.layout.dbname + "." + dataset.layout.dsetname + " in " +
           table.config->path + " an item with the word null-map, X " +
           std::to_string(dataset.layout.items.size()) + ", which marks need";
}

std::string feed_mark_remedy(const feed_table &table, const std::string &column)
{
    const std::string words = column_words(table, column);
    const fwu_column *said = find_line(table, column);
    if (said == nullptr)
        return words + " values=mark";
    return (said->policy == FWU_POLICY_UNSAID ? "add values=mark"
                                              : "change values=error to values=mark") +
           in_line(table, words);
}

std::string feed_mark_remedy(const feed_table &table, size_t item)
{
    for (const fwu_column &said : fwu_columns_of(*table.config, table.name))
        if (said.policy != FWU_POLICY_UNSAID &&
            feed_feeds(table, said.column, feed_name(said.column), item))
            return feed_mark_remedy(table, said.column);
    return feed_mark_remedy(table);
}

std::string feed_mark_remedy(const feed_table &table)
{
    const std::string words = "table " + table.name;
    const auto &rules = table.config->table_rules;
    const bool is_said = std::any_of(rules.begin(), rules.end(), [&](const fwu_table_rule &rule) {
        return rule.table == table.name;
    });
    if (is_said)
        return "change values=error to values=mark" + in_line(table, words);
    return words + " values=mark";
}
