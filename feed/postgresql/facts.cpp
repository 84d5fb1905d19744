// The stream tells what was, the catalogue what is: a table may be gone by now, or have other
// columns.  So nothing that is asked here is needed, but for what types are, on which layouts rest;
// all else makes the log say more.
// A transaction is also sent a moment before others see it, with a synchronous standby long before.
#include "feed/postgresql/facts.h"

#include "feed/postgresql/published.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <poll.h>
#include <set>

// Rows of the query, for tables in "t" and types in "y", in this order: tables ("c") with their
// columns (0, and 1 with those that are generated, which a publication may have from version 18
// on), what types are and those that they are made of ("d": kind, category, base type and
// modifier, element, name), columns of keys ("k", by place), names of tables ("n": 0 the schema's,
// 1 the table's), the snapshot that all is seen in ("s"), names of types ("t").
static const char query_tail[] =
    ", z AS (SELECT p.oid, p.typtype, p.typcategory, p.typbasetype, p.typtypmod, p.typelem"
    " FROM pg_type p WHERE p.oid IN (SELECT type FROM y)"
    " UNION SELECT p.oid, p.typtype, p.typcategory, p.typbasetype, p.typtypmod, p.typelem"
    " FROM z JOIN pg_type p ON p.oid IN (z.typbasetype, z.typelem))"
    " SELECT 'c' AS kind, t.oid, 0 AS number, (SELECT string_agg(a.attname || ' ' || a.atttypid"
    " || ' ' || a.atttypmod, ',' ORDER BY a.attnum) FROM pg_attribute a WHERE a.attrelid = t.oid"
    " AND a.attnum > 0 AND NOT a.attisdropped AND a.attgenerated = '') AS text FROM t"
    " UNION ALL"
    " SELECT 'c', t.oid, 1, (SELECT string_agg(a.attname || ' ' || a.atttypid"
    " || ' ' || a.atttypmod, ',' ORDER BY a.attnum) FROM pg_attribute a WHERE a.attrelid = t.oid"
    " AND a.attnum > 0 AND NOT a.attisdropped AND a.attgenerated IN ('', 's')) FROM t"
    " WHERE EXISTS (SELECT FROM pg_attribute g WHERE g.attrelid = t.oid"
    " AND g.attgenerated = 's' AND NOT g.attisdropped)"
    " UNION ALL"
    " SELECT 'd', oid, 0, concat_ws(' ', typtype, typcategory, typbasetype, typtypmod, typelem,"
    " format_type(oid, -1)) FROM z"
    " UNION ALL"
    " SELECT 'k', i.indrelid, k.place::int, a.attname::text FROM t"
    " JOIN pg_index i ON i.indrelid = t.oid"
    " CROSS JOIN LATERAL unnest(i.indkey::int2[]) WITH ORDINALITY AS k (attnum, place)"
    " JOIN pg_attribute a ON a.attrelid = i.indrelid AND a.attnum = k.attnum"
    " WHERE k.place <= i.indnkeyatts AND (i.indisprimary OR i.indisreplident AND NOT EXISTS"
    " (SELECT FROM pg_index p WHERE p.indrelid = i.indrelid AND p.indisprimary))"
    " UNION ALL"
    " SELECT 'n', c.oid, v.number, CASE v.number WHEN 0 THEN n.nspname ELSE c.relname END::text"
    " FROM t JOIN pg_class c ON c.oid = t.oid JOIN pg_namespace n ON n.oid = c.relnamespace"
    " CROSS JOIN (VALUES (0), (1)) AS v (number)"
    " UNION ALL"
    " SELECT 's', 0, 0, txid_current_snapshot()::text"
    " UNION ALL"
    " SELECT 't', y.type, y.modifier, format_type(y.type, y.modifier) FROM y"
    " ORDER BY 1, 2, 3";

std::string pgf_query_published()
{
    return std::string("WITH RECURSIVE t AS (SELECT p.relid AS oid FROM ") + pgb_published +
           " p WHERE p.pubname = $1),"
           " y AS (SELECT DISTINCT a.atttypid AS type, a.atttypmod AS modifier"
           " FROM t JOIN pg_attribute a ON a.attrelid = t.oid"
           " WHERE a.attnum > 0 AND NOT a.attisdropped)" +
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
            if (pgt_text(column.type, column.modifier).empty())
                types.insert({column.type, column.modifier});
    }
    std::string oids;
    std::string modifiers;
    for (const auto &[type, modifier] : types) {
        oids += comma(oids) + std::to_string(type);
        modifiers += comma(modifiers) + std::to_string(modifier);
    }
    return "WITH RECURSIVE t AS (SELECT unnest('{" + ids +
           "}'::oid[]) AS oid), y AS (SELECT * FROM unnest('{" + oids + "}'::oid[], '{" +
           modifiers + "}'::int[]) AS u (type, modifier))" + query_tail;
}

// Takes the next word of a text, up to a blank.
static std::string_view take_word(std::string_view &text)
{
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

static void take_kind(pgf_facts &facts, uint32_t id, std::string_view text)
{
    const std::string_view kind = take_word(text);
    const std::string_view category = take_word(text);
    pgt_fact fact;
    if (kind.size() != 1 || category.size() != 1 || !pgs_number(fact.base, take_word(text)) ||
        !pgs_number(fact.modifier, take_word(text)) || !pgs_number(fact.element, take_word(text)))
        return;
    fact.kind = kind.front();
    fact.category = category.front();
    fact.name = text;
    facts.kinds[id] = std::move(fact);
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
        if (kind == "c" && number == 1)
            facts.tables[id].with_generated = text;
        else if (kind == "c")
            facts.tables[id] = {.columns = text};
        else if (kind == "d")
            take_kind(facts, id, text);
        else if (kind == "k")
            facts.tables[id].key.push_back(text);
        else if (kind == "n")
            (number == 0 ? facts.tables[id].schema : facts.tables[id].name) = text;
        else if (kind == "s")
            facts.snapshot = text;
        else
            facts.types[{id, number}] = text.starts_with("???") ? "" : text; // dropped
    }
    facts.again_ms = fwu_monotonic_ms() + facts.pause_ms;
}

static std::string columns_of(const pgo_relation &table)
{
    std::string columns;
    for (const pgo_column &column : table.columns)
        columns += comma(columns) + column.name + " " + std::to_string(column.type) + " " +
                   std::to_string(column.modifier);
    return columns;
}

bool pgf_knows(const pgf_facts &facts, const pgo_relation &table)
{
    const auto known = facts.tables.find(table.id);
    if (known == facts.tables.end())
        return false;
    const std::string columns = columns_of(table);
    return (known->second.columns == columns || known->second.with_generated == columns) &&
           std::none_of(table.columns.begin(), table.columns.end(), [&](const pgo_column &column) {
               return pgf_type_text(facts, column).empty();
           });
}

// The next number of a text, which is cut off it.
static uint64_t take_number(std::string_view &text)
{
    uint64_t number = 0;
    const size_t end = std::min(text.find_first_of(":,"), text.size());
    (void)pgs_number(number, text.substr(0, end)); // else 0, which no transaction has
    text.remove_prefix(std::min(end + 1, text.size()));
    return number;
}

bool pgf_is_snapshot(std::string_view text)
{
    if (std::count(text.begin(), text.end(), ':') != 2)
        return false;
    const bool in_progress = text.back() != ':';
    const uint64_t xmin = take_number(text);
    const uint64_t xmax = take_number(text);
    bool whole = xmin != 0 && xmin <= xmax;
    while (in_progress && whole && !text.empty())
        whole = take_number(text) != 0;
    return whole;
}

bool pgf_has_transaction(std::string_view snapshot, uint32_t xid)
{
    const uint64_t xmin = take_number(snapshot);
    const uint64_t xmax = take_number(snapshot);
    // Numbers there have 64 bits: the one that is nearest to the newest is meant.
    const uint64_t full =
        xmax + static_cast<uint64_t>(static_cast<int32_t>(xid - static_cast<uint32_t>(xmax)));
    if (full < xmin || full >= xmax)
        return full < xmin;
    while (!snapshot.empty())
        if (take_number(snapshot) == full)
            return false;
    return true;
}

pgf_answer pgf_refresh(pgf_facts &facts, const std::vector<const pgo_relation *> &tables)
{
    if (facts.ask == nullptr || fwu_monotonic_ms() < facts.retry_ms)
        return PGF_NO_ANSWER;
    const std::string query = pgf_query(tables);
    // Mostly there is nothing between its arrival and its being seen.
    for (const int pause_ms : {5, 20, 50, 0}) {
        pgs_result rows;
        if (!facts.ask(query, rows)) {
            facts.retry_ms = facts.again_ms = fwu_monotonic_ms() + facts.pause_ms;
            return PGF_NO_ANSWER;
        }
        pgf_take(facts, rows);
        if (facts.xid == 0 || pgf_has_transaction(facts.snapshot, facts.xid))
            return PGF_ANSWER;
        if (pause_ms != 0)
            (void)poll(nullptr, 0, pause_ms); // a signal may cut it short
    }
    return PGF_OLDER;
}

outcome pgf_need_types(pgf_facts &facts, const pgo_relation &table)
{
    const bool known =
        std::all_of(table.columns.begin(), table.columns.end(), [&](const pgo_column &column) {
            return pgt_resolve(column.type, column.modifier, facts.kinds).known;
        });
    if (known || facts.ask == nullptr)
        return {};
    facts.retry_ms = 0; // however short ago there was no answer
    if (pgf_refresh(facts, {&table}) == PGF_ANSWER)
        return {};
    return {OUTCOME_LOST, "the server does not tell yet what the types of table " +
                              fwu_source_name(table.schema, table.name) + " are"};
}

std::string pgf_type_text(const pgf_facts &facts, const pgo_column &column)
{
    std::string text = pgt_text(column.type, column.modifier);
    if (!text.empty())
        return text;
    const auto known = facts.types.find({column.type, column.modifier});
    return known == facts.types.end() ? "" : known->second;
}
