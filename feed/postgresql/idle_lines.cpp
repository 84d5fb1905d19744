// No error: a table may come later, or be one of another server with the same configuration.
#include "feed/postgresql/idle_lines.h"

#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <unordered_map>

using table_map = std::unordered_map<std::string, const pgf_table *>;

static bool is_number(std::string_view text)
{
    const size_t digits = text.starts_with('-') ? 1 : 0;
    return text.size() > digits && text.find_first_not_of("0123456789", digits) == text.npos;
}

// Whether "name type modifier" is among them, which commas separate; names may hold anything.
static bool has_column(const pgf_table &table, const std::string &name)
{
    const std::string all = "," + table.columns;
    const std::string begin = "," + name + " ";
    for (size_t at = all.find(begin); at != all.npos; at = all.find(begin, at + 1)) {
        std::string_view rest = std::string_view(all).substr(at + begin.size());
        rest = rest.substr(0, rest.find(','));
        const size_t blank = rest.find(' ');
        if (blank != rest.npos && is_number(rest.substr(0, blank)) &&
            is_number(rest.substr(blank + 1)))
            return true;
    }
    return false;
}

static bool has_type(const pgf_facts &facts, const std::string &type)
{
    return pgt_has_name(type) ||
           std::any_of(facts.kinds.begin(), facts.kinds.end(),
                       [&](const auto &kind) { return kind.second.name == type; });
}

std::vector<std::string> pgb_idle_lines(const fwu_config &config, const pgf_facts &facts)
{
    table_map tables;
    for (const auto &[id, table] : facts.tables)
        if (!table.name.empty())
            tables.emplace(fwu_source_name(table.schema, table.name), &table);
    std::vector<std::string> notes;
    const auto look = [&](const std::string &line, const std::string &table) {
        if (!tables.contains(table))
            notes.push_back(config.path + ": " + line + ": the publication has no table " + table +
                            "; names are written as the server has them, capitals told apart");
    };
    for (const std::string &table : config.skip_tables)
        look("skip-table " + table, table);
    for (const fwu_table_rule &rule : config.table_rules)
        look("table " + rule.table, rule.table);
    for (const fwu_dataset &dataset : config.datasets)
        if (!dataset.table.empty())
            look("dataset " + dataset.layout.dsetname + " table=" + dataset.table, dataset.table);
    for (const fwu_column &said : config.columns) {
        std::string line = "column " + said.table + ".";
        fwu_source_name_put(line, said.column);
        const auto table = tables.find(said.table);
        if (table == tables.end())
            look(line, said.table);
        else if (!has_column(*table->second, said.column))
            notes.push_back(config.path + ": " + line +
                            ": the server sends no such column of the " +
                            "table; names are written as the server has them, capitals told apart");
    }
    for (const fwu_default_width &width : config.default_widths)
        if (!width.type.empty() && !has_type(facts, width.type))
            notes.push_back(config.path + ": default-width " + width.type +
                            ": no column has a type of this name; types are named as the server "
                            "writes them (\"character varying\", not varchar; numeric, not "
                            "decimal)");
    return notes;
}
