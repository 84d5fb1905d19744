// PostgreSQL takes a statement that finds no row for one that is done, so each that has to find
// one is counted, and the transaction fails where it has not.  SQLite goes on after a statement
// that failed as if nothing had been, and changes layouts whatever else is true.  So the end of a
// transaction there compares how many rows have changed with how many should have, and takes the
// whole transaction back where they differ.
#include "changes/sql_position.h"

#include "changes/sql_quote.h"

#include <cinttypes>
#include <cstdio>

std::string sql_position_text(const fwu_position &position)
{
    char text[40];
    (void)snprintf(text, sizeof text, "%04d-%08d.%010d", position.generation, position.sequence,
                   position.tag); // fits
    return text;
}

static std::string lsn_literal(uint64_t lsn)
{
    char text[20];
    (void)snprintf(text, sizeof text, "'%016" PRIX64 "'", lsn); // fits
    return text;
}

static std::string position_literal(const sql_place &place)
{
    return "'" + sql_position_text(place.position) + "'";
}

// Whether the table is not yet there.
static std::string is_before(const sql_place &place)
{
    switch (place.by) {
    case SQL_BY_POSITION:
        return "\"position\" < " + position_literal(place);
    case SQL_BY_LSN:
        return "\"lsn\" < " + lsn_literal(place.lsn);
    default:
        return "(\"lsn\", \"position\") < (" + lsn_literal(place.lsn) + ", " +
               position_literal(place) + ")";
    }
}

// Whether a transaction in front of the one in hand has not been applied, when that has not.
static std::string is_gap(const sql_position &position)
{
    const sql_place &before = position.before;
    const fwu_position &first = before.position;
    std::string gap = is_before(before);
    // Where files were removed, a table that is further on in the log but not in the source
    // stood at what was cut off the log, and what came instead may have been in those files.
    if (before.by == SQL_BY_POSITION && (first.sequence > 1 || first.generation > 1))
        gap += " OR \"position\" >= " + position_literal(position.here);
    return gap;
}

sql_place sql_place_behind(const sql_place &before, const change_transaction &transaction)
{
    const uint64_t lsn = transaction.commit.lsn;
    const bool alone = before.by != SQL_BY_POSITION && before.lsn != lsn;
    return {alone ? SQL_BY_LSN : SQL_BY_BOTH, lsn, transaction.position};
}

void sql_position_name(sql_position &position, const std::string &name)
{
    const size_t point = position.dialect->schemas ? name.find('.') : name.npos;
    position.table.clear();
    if (point != name.npos) {
        sql_put_name(position.table, name.substr(0, point));
        position.table.push_back('.');
    }
    sql_put_name(position.table, point == name.npos ? name : name.substr(point + 1));
}

void sql_position_create(const sql_position &position, std::string &out, const fwu_identity &log)
{
    out += "BEGIN;\nCREATE TABLE IF NOT EXISTS " + position.table +
           " (\"id\" integer PRIMARY KEY CHECK (\"id\" = 1), " +
           position.dialect->position_columns + ");\nINSERT INTO " + position.table +
           " (\"id\", \"log\", \"selection\", \"lsn\", \"position\") VALUES (1, '" +
           fwu_identity_text(log) + "', " + position.selection + ", " +
           lsn_literal(position.before.lsn) + ", " + position_literal(position.before) +
           ") ON CONFLICT DO NOTHING;\nCOMMIT;\n";
}

outcome sql_position_begin(sql_position &position, std::string &out,
                           const change_transaction &transaction)
{
    const sql_place &before = position.before;
    position.here = sql_place_behind(before, transaction);
    if (position.here.lsn < before.lsn)
        return outcome_bad("the source's positions go back here, from " + fwu_lsn_text(before.lsn) +
                           " to " + fwu_lsn_text(position.here.lsn) +
                           ", so that no table can tell what was applied: go on behind the "
                           "transaction before with --after, without --position-table");
    const std::string text = position_literal(position.here);
    const std::string other_log = "\"log\" <> '" + fwu_identity_text(transaction.identity) + "'";
    const std::string other_selection = "\"selection\" <> " + position.selection;
    out += "UPDATE " + position.table + " SET \"pending\" = CASE WHEN " + other_log +
           " THEN 'another log' WHEN " + other_selection + " THEN 'another selection' WHEN " +
           is_gap(position) + " THEN 'gap' ELSE " + text + " END";
    if (position.dialect->counts_changes)
        out += ", \"changed\" = total_changes() + 1";
    out += " WHERE " + is_before(position.here) + " OR " + other_log + " OR " + other_selection +
           ";\n";
    position.condition =
        "EXISTS (SELECT 1 FROM " + position.table + " WHERE \"pending\" = " + text + ")";
    position.statements = 0;
    position.altered = false;
    return {};
}

static bool asks_each(const sql_position &position)
{
    return !position.table.empty() && !position.dialect->counts_changes;
}

void sql_position_begin_row(const sql_position &position, std::string &out)
{
    if (asks_each(position))
        out += "WITH \"fwlog rows\" AS (";
}

// A table with a foreign key that acts may have been changed by the database itself, when the
// row that the key names was.
void sql_position_end_row(const sql_position &position, std::string &out, const std::string &table)
{
    if (!asks_each(position))
        return;
    out += " RETURNING 1) UPDATE " + position.table + " SET \"pending\" = ";
    position.dialect->put_text(out, "not one row of " + table);
    out += " WHERE \"pending\" = " + position_literal(position.here) +
           " AND (SELECT count(*) <> 1 AND (count(*) > 1 OR NOT EXISTS (SELECT 1 FROM "
           "pg_catalog.pg_constraint WHERE conrelid = ";
    position.dialect->put_text(out, table);
    out += "::regclass AND (confdeltype IN ('c', 'n', 'd') OR confupdtype IN ('c', 'n', 'd')))) "
           "FROM \"fwlog rows\")";
}

// Whether all statements of the transaction have changed their row.
static std::string all_changed(const sql_position &position)
{
    return "total_changes() = \"changed\" + " + std::to_string(position.statements);
}

void sql_position_put_emptying(sql_position &position, std::string &out, const std::string &table)
{
    const std::string statement = "DELETE FROM " + table + " WHERE " + position.condition + ";\n";
    if (!position.dialect->counts_changes) {
        out += statement;
        return;
    }
    // Counting begins anew behind it.  A value that no count has stands for "all well so far".
    const std::string well = "-9000000000000000000";
    const std::string update = "UPDATE " + position.table + " SET \"changed\" = CASE WHEN ";
    out += update + all_changed(position) + " THEN " + well + " END WHERE " + position.condition +
           ";\n" + statement + update + "\"changed\" = " + well +
           " AND NOT EXISTS (SELECT 1 FROM " + table + ") THEN total_changes() + 1 END WHERE " +
           position.condition + ";\n";
    position.statements = 0;
}

void sql_position_end(sql_position &position, std::string &out)
{
    const std::string text = position_literal(position.here);
    const std::string pending = "\"pending\" = " + text;
    const std::string set = " " + position.table +
                            " SET \"lsn\" = " + lsn_literal(position.here.lsn) +
                            ", \"position\" = " + text + ", \"pending\" = ";
    if (!position.dialect->counts_changes)
        out += "UPDATE" + set + "NULL WHERE " + pending + ";\n";
    else if (position.altered)
        out += "UPDATE OR ROLLBACK" + set + "CASE WHEN " + pending + " AND " +
               all_changed(position) +
               " THEN NULL WHEN \"pending\" IS NULL THEN 'applied' "
               "ELSE 'failed' END;\n";
    else
        out += "UPDATE OR ROLLBACK" + set + "CASE WHEN " + all_changed(position) +
               " THEN NULL ELSE 'failed' END WHERE " + pending + ";\n";
    position.before = position.here;
    position.condition.clear();
}
