// SQLite goes on after a statement that failed as if nothing had been, and changes layouts
// whatever else is true.  So the end of a transaction there compares how many rows have changed
// with how many should have, and takes the whole transaction back where they differ.
#include "changes/sql_position.h"

#include "changes/sql_quote.h"

#include <cstdio>

std::string sql_position_text(const fwu_position &position)
{
    char text[40];
    (void)snprintf(text, sizeof text, "%04d-%08d.%010d", position.generation, position.sequence,
                   position.tag); // fits
    return text;
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

void sql_position_create(sql_position &position, std::string &out, const fwu_identity &log)
{
    out += "BEGIN;\nCREATE TABLE IF NOT EXISTS " + position.table +
           " (\"id\" integer PRIMARY KEY CHECK (\"id\" = 1), " +
           position.dialect->position_columns + ");\nINSERT INTO " + position.table +
           " (\"id\", \"log\", \"position\") VALUES (1, '" + fwu_identity_text(log) + "', '" +
           sql_position_text(position.before) + "') ON CONFLICT DO NOTHING;\nCOMMIT;\n";
}

void sql_position_begin(sql_position &position, std::string &out, const fwu_identity &log,
                        const fwu_position &here)
{
    const std::string text = "'" + sql_position_text(here) + "'";
    const std::string identity = "'" + fwu_identity_text(log) + "'";
    out += "UPDATE " + position.table + " SET \"pending\" = CASE WHEN \"log\" <> " + identity +
           " THEN 'another log' WHEN \"position\" < '" + sql_position_text(position.before) +
           "' THEN 'gap' ELSE " + text + " END";
    if (position.dialect->counts_changes)
        out += ", \"changed\" = total_changes() + 1";
    out += " WHERE \"position\" < " + text + " OR \"log\" <> " + identity + ";\n";
    position.condition =
        "EXISTS (SELECT 1 FROM " + position.table + " WHERE \"pending\" = " + text + ")";
    position.statements = 0;
    position.altered = false;
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

void sql_position_end(sql_position &position, std::string &out, const fwu_position &here)
{
    const std::string text = "'" + sql_position_text(here) + "'";
    const std::string pending = "\"pending\" = " + text;
    const std::string set =
        " " + position.table + " SET \"position\" = " + text + ", \"pending\" = ";
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
    position.before = here;
    position.condition.clear();
}
