// Names of tables are kept in their canonical form, so that whoever compares one has to make it
// only once.
#include "fwutil/fwu_writing_source.h"

#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

bool fwu_writing_table(std::string &table, std::string_view text)
{
    std::vector<std::string> parts;
    if (!fwu_source_name_parts(parts, text) || parts.size() != 2)
        return false;
    table = fwu_source_name(parts[0], parts[1]);
    return true;
}

struct policy_row {
    std::string_view word;
    fwu_policy policy;
};
static constexpr policy_row POLICIES[] = {{"error", FWU_POLICY_ERROR}, {"mark", FWU_POLICY_MARK}};

// FWU_POLICY_UNSAID: it is none.
static fwu_policy policy_of(std::string_view word)
{
    for (const policy_row &row : POLICIES)
        if (row.word == word)
            return row.policy;
    return FWU_POLICY_UNSAID;
}

// The same of "values=mark".
static fwu_policy policy_of_option(std::string_view word)
{
    constexpr std::string_view name = "values=";
    return word.starts_with(name) ? policy_of(word.substr(name.size())) : FWU_POLICY_UNSAID;
}

static int32_t width_of(std::string_view text)
{
    return static_cast<int32_t>(fwu_config_number(text, FWU_TEXT_SIZE_MAX));
}

int fwu_writing_take_values(fwu_writing_lines &r, const fwu_words &w)
{
    if (r.writing.policy != FWU_POLICY_UNSAID)
        return fwu_config_wrong(r.at, "values is given twice");
    r.writing.policy = w.size() == 2 ? policy_of(w[1]) : FWU_POLICY_UNSAID;
    if (r.writing.policy == FWU_POLICY_UNSAID)
        return fwu_config_wrong(r.at, "values takes the word error or mark");
    return 0;
}

// A type that stands in quotes as a whole is what is between them; quotes elsewhere are its own.
static std::string type_of(const std::string &word)
{
    std::vector<std::string> parts;
    const bool whole =
        word.starts_with('"') && fwu_source_name_parts(parts, word) && parts.size() == 1;
    return whole ? parts[0] : word;
}

int fwu_writing_take_default_width(fwu_writing_lines &r, const fwu_words &w)
{
    fwu_default_width made;
    if (w.size() == 2 || w.size() == 3)
        made.width = width_of(w.back());
    if (w.size() == 3)
        made.type = type_of(w[1]);
    if (made.width < 1 || (w.size() == 3 && made.type.empty()))
        return fwu_config_wrong(r.at,
                                "default-width takes a width from 1 to %" PRId32
                                " bytes; in front of it may stand "
                                "a type (in double quotes when it holds blanks)",
                                FWU_TEXT_SIZE_MAX);
    for (const fwu_default_width &known : r.writing.default_widths)
        if (known.type == made.type)
            return fwu_config_wrong(r.at, "the default width%s%s is given twice",
                                    made.type.empty() ? "" : " of type ", made.type.c_str());
    r.writing.default_widths.push_back(std::move(made));
    return 0;
}

int fwu_writing_take_skip_table(fwu_writing_lines &r, const fwu_words &w)
{
    std::string table;
    if (w.size() != 2 || !fwu_writing_table(table, w[1]))
        return fwu_config_wrong(r.at, "skip-table takes one name of the form schema.table");
    for (const std::string &known : r.writing.skip_tables)
        if (known == table)
            return fwu_config_wrong(r.at, "table %s is skipped twice", table.c_str());
    for (const fwu_dataset &dataset : r.writing.datasets)
        if (dataset.table == table)
            return fwu_config_wrong(r.at,
                                    "table %s is skipped here, but feeds the dataset of line %d",
                                    table.c_str(), dataset.line);
    r.writing.skip_tables.push_back(std::move(table));
    return 0;
}

int fwu_writing_take_table(fwu_writing_lines &r, const fwu_words &w)
{
    fwu_table_rule rule;
    if (w.size() == 3)
        rule.policy = policy_of_option(w[2]);
    if (rule.policy == FWU_POLICY_UNSAID || !fwu_writing_table(rule.table, w[1]))
        return fwu_config_wrong(r.at, "table takes one name of the form schema.table, then "
                                      "values=error or values=mark");
    for (const fwu_table_rule &known : r.writing.table_rules)
        if (known.table == rule.table)
            return fwu_config_wrong(r.at, "table %s is given twice", rule.table.c_str());
    r.writing.table_rules.push_back(std::move(rule));
    return 0;
}

static int take_column_option(const fwu_writing_lines &r, fwu_column &column,
                              const std::string &word)
{
    const std::string_view text = word;
    if (text.find('"') != text.npos)
        return fwu_config_wrong(r.at, "a quote stands inside the word %s", word.c_str());
    if (text.starts_with("item=") && column.item.empty()) {
        column.item = text.substr(5);
        if (column.item.empty() || column.item.size() > FWU_ITEM_NAME_MAX)
            return fwu_config_wrong(r.at, "%s: an item name has 1 to %d bytes", word.c_str(),
                                    FWU_ITEM_NAME_MAX);
        if (std::any_of(column.item.begin(), column.item.end(),
                        [](char c) { return c <= ' ' || c > '~'; }))
            return fwu_config_wrong(r.at, "%s: an item name has no characters outside ASCII",
                                    word.c_str());
    } else if (text.starts_with("width=") && column.width == 0) {
        column.width = width_of(text.substr(6));
        if (column.width < 1)
            return fwu_config_wrong(r.at, "%s is not a width from 1 to %" PRId32 " bytes",
                                    word.c_str(), FWU_TEXT_SIZE_MAX);
    } else if (text == "key" && !column.key) {
        column.key = true;
    } else if (column.policy == FWU_POLICY_UNSAID && policy_of_option(text) != FWU_POLICY_UNSAID) {
        column.policy = policy_of_option(text);
    } else {
        return fwu_config_wrong(r.at,
                                "%s is not known or given twice; behind the column's name stand "
                                "item=NAME, width=N, key and values=error or values=mark",
                                word.c_str());
    }
    return 0;
}

int fwu_writing_take_column(fwu_writing_lines &r, const fwu_words &w)
{
    std::vector<std::string> parts;
    if (w.size() < 3 || !fwu_source_name_parts(parts, w[1]) || parts.size() != 3)
        return fwu_config_wrong(
            r.at, "column takes one name of the form schema.table.column, then item=NAME, "
                  "width=N, key, values=error or values=mark, or several of them");
    fwu_column column;
    column.table = fwu_source_name(parts[0], parts[1]);
    column.column = parts[2];
    for (size_t i = 2; i < w.size(); i++)
        if (take_column_option(r, column, w[i]) != 0)
            return -1;
    if (!r.columns.insert(fwu_source_name(parts[0], parts[1], parts[2])).second)
        return fwu_config_wrong(r.at, "column %s is given twice", w[1].c_str());
    r.writing.columns.push_back(std::move(column));
    return 0;
}
