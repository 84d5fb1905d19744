// The stream tells what was, the catalogue what is: a table may be gone by now, or have other
// columns.  So nothing that is asked here is needed; what there is of it makes the log say more.
#include "feed/postgresql/facts.h"

#include "feed/postgresql/catalogue.h"
#include "fwutil/fwu_clock.h"

#include <algorithm>
#include <set>

// Rows of the query, for tables in "t" and types in "y", in this order: tables ("c"), columns
// of their keys ("k", by place), types ("t").
static const char query_tail[] =
    " SELECT 'c' AS kind, t.oid, 0 AS number, '' AS text FROM t"
    " UNION ALL"
    " SELECT 'k', i.indrelid, k.place::int, a.attname::text FROM t"
    " JOIN pg_index i ON i.indrelid = t.oid"
    " CROSS JOIN LATERAL unnest(i.indkey::int2[]) WITH ORDINALITY AS k (attnum, place)"
    " JOIN pg_attribute a ON a.attrelid = i.indrelid AND a.attnum = k.attnum"
    " WHERE k.place <= i.indnkeyatts AND (i.indisprimary OR i.indisreplident AND NOT EXISTS"
    " (SELECT FROM pg_index p WHERE p.indrelid = i.indrelid AND p.indisprimary))"
    " UNION ALL"
    " SELECT 't', y.type, y.modifier, format_type(y.type, y.modifier) FROM y"
    " ORDER BY 1, 2, 3";

std::string pgf_query_published()
{
    return std::string("WITH t AS (SELECT c.oid FROM pg_publication_tables p"
                       " JOIN pg_namespace n ON n.nspname = p.schemaname"
                       " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = p.tablename"
                       " WHERE p.pubname = $1),"
                       " y AS (SELECT DISTINCT a.atttypid AS type, a.atttypmod AS modifier"
                       " FROM t JOIN pg_attribute a ON a.attrelid = t.oid"
                       " WHERE a.attnum > 0 AND NOT a.attisdropped)") +
           query_tail;
}

static std::string comma(const std::string &list)
{
    return list.empty() ? "" : ",";
}

std::string pgf_query(const std::vector<const pgo_relation *> &tables)
{
    std::string ids;
    std::set<pgf_type> types;
    for (const pgo_relation *table : tables) {
        ids += comma(ids) + std::to_string(table->id);
        for (const pgo_column &column : table->columns)
            if (pgc_type_text(column.type, column.modifier).empty())
                types.insert({column.type, column.modifier});
    }
    std::string oids;
    std::string modifiers;
    for (const auto &[type, modifier] : types) {
        oids += comma(oids) + std::to_string(type);
        modifiers += comma(modifiers) + std::to_string(modifier);
    }
    return "WITH t AS (SELECT unnest('{" + ids +
           "}'::oid[]) AS oid), y AS (SELECT * FROM unnest('{" + oids + "}'::oid[], '{" +
           modifiers + "}'::int[]) AS u (type, modifier))" + query_tail;
}

void pgf_take(pgf_facts &facts, const pgs_result &rows)
{
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        const std::string_view kind = pgs_value(rows, i, 0);
        const std::string text(pgs_value(rows, i, 3));
        uint32_t id = 0;
        int32_t number = 0;
        if (!pgs_number(id, pgs_value(rows, i, 1)) || !pgs_number(number, pgs_value(rows, i, 2)))
            continue;
        if (kind == "c")
            facts.keys[id].clear();
        else if (kind == "k")
            facts.keys[id].push_back(text);
        else
            facts.types[{id, number}] = text.starts_with("???") ? "" : text; // dropped
    }
    facts.again_ms = fwu_monotonic_ms() + facts.pause_ms;
}

static bool has_column(const pgo_relation &table, const std::string &name)
{
    return std::any_of(table.columns.begin(), table.columns.end(),
                       [&](const pgo_column &column) { return column.name == name; });
}

bool pgf_knows(const pgf_facts &facts, const pgo_relation &table)
{
    const auto key = facts.keys.find(table.id);
    if (key == facts.keys.end())
        return false;
    for (const std::string &name : key->second)
        if (!has_column(table, name))
            return false;
    return std::none_of(table.columns.begin(), table.columns.end(), [&](const pgo_column &column) {
        return pgf_type_text(facts, column).empty();
    });
}

bool pgf_refresh(pgf_facts &facts, const std::vector<const pgo_relation *> &tables)
{
    if (facts.ask == nullptr || fwu_monotonic_ms() < facts.retry_ms)
        return false;
    pgs_result rows;
    if (facts.ask(pgf_query(tables), rows)) {
        pgf_take(facts, rows);
        return true;
    }
    facts.retry_ms = facts.again_ms = fwu_monotonic_ms() + facts.pause_ms;
    return false;
}

std::string pgf_type_text(const pgf_facts &facts, const pgo_column &column)
{
    std::string text = pgc_type_text(column.type, column.modifier);
    if (!text.empty())
        return text;
    const auto known = facts.types.find({column.type, column.modifier});
    return known == facts.types.end() ? "" : known->second;
}
