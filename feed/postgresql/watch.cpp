// A table that appears again is told again, so only what the last look found is kept.
#include "feed/postgresql/watch.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/published.h"
#include "feed/table.h"
#include "fwutil/fwu_source_name.h"

// Rows: "u" for a table that is not followed, "i" for one whose updates the server refuses; schema,
// name; the name as SQL writes it; the commands, each on a line, that identify its rows and those
// of its partitions, as far as nothing does.
std::string pgb_watch_query()
{
    const std::string command = "E'\\n  ' || " + pgb_identity_expression("l") + " || ';'";
    return std::string("WITH ") + pgb_all_tables + ", " + pgb_listed_tables() +
           ", b AS (SELECT puballtables, pubupdate OR pubdelete AS changes,"
           " coalesce(to_jsonb(q) ->> 'pubgencols', 's') <> 's' AS lacks_generated"
           " FROM pg_publication q WHERE pubname = $1)"
           " SELECT 'u' AS problem, schema, name, oid::regclass, CASE WHEN kind = 'r'"
           " THEN (SELECT " +
           command +
           " FROM (SELECT t.oid, t.unsent) l WHERE NOT t.identified) ELSE (SELECT string_agg(" +
           command + ", '' ORDER BY m.level, l.oid) FROM " + pgb_partition_tree("t.oid") +
           " m JOIN t l"
           " ON l.oid = m.relid WHERE NOT l.identified) END FROM t"
           " WHERE NOT is_part AND EXISTS (SELECT FROM b WHERE NOT puballtables)"
           " AND oid NOT IN (SELECT oid FROM p) AND NOT (kind = 'p' AND EXISTS (SELECT FROM"
           " " +
           pgb_partition_tree("t.oid") +
           " m WHERE m.relid IN (SELECT oid FROM p)))"
           " UNION ALL"
           " SELECT 'i', schema, name, oid::regclass, CASE WHEN identified"
           " THEN E'\\n  ALTER PUBLICATION ' || quote_ident($1) ||"
           " ' SET (publish_generated_columns = stored);' ELSE (SELECT " +
           command +
           " FROM (SELECT t.oid, t.unsent) l) END FROM t"
           " WHERE kind = 'r' AND EXISTS (SELECT FROM b WHERE changes"
           " AND (NOT identified OR needs_generated AND lacks_generated))"
           " AND (EXISTS (SELECT FROM b WHERE puballtables) OR oid IN (SELECT oid FROM p)"
           " OR is_part AND EXISTS (SELECT FROM pg_partition_ancestors(t.oid) m (relid)"
           " WHERE m.relid IN (SELECT oid FROM p)))"
           " ORDER BY 1, 2, 3";
}

std::string pgb_watch_text(pgb_watch &watch, const std::string &publication, const pgs_result &rows)
{
    std::set<std::string> found;
    std::string left_out;
    std::string refused;
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        const bool is_left_out = pgs_value(rows, i, 0) == "u";
        const std::string name =
            fwu_source_name(std::string(pgs_value(rows, i, 1)), std::string(pgs_value(rows, i, 2)));
        if (is_left_out && feed_is_skipped(*watch.config, name))
            continue;
        const std::string key = (is_left_out ? "u " : "i ") + name;
        found.insert(key);
        if (watch.told.contains(key))
            continue;
        const std::string sql_name(pgs_value(rows, i, 3));
        std::string &commands = is_left_out ? left_out : refused;
        const std::string_view command = pgs_value(rows, i, 4);
        if (commands.find(command) == commands.npos) // one may mend several tables
            commands += command;
        if (is_left_out)
            commands +=
                "\n  ALTER PUBLICATION " + pgs_name(publication) + " ADD TABLE " + sql_name + ";";
    }
    watch.told = std::move(found);
    std::string text;
    if (!left_out.empty())
        text = "warning: publication \"" + publication +
               "\" lacks tables, which are not followed; add them, or leave them out with "
               "skip-table:" +
               left_out;
    if (!refused.empty())
        text += (text.empty() ? "" : "\n") +
                std::string("warning: the server refuses updates and deletes of these tables, "
                            "since they are published and nothing identifies their rows; let it "
                            "send their old rows:") +
                refused;
    return text;
}

void pgb_watch_look(pgb_watch &watch, const pgs_server &server)
{
    std::string query = pgb_watch_query();
    for (size_t at; (at = query.find("$1")) != query.npos;)
        query.replace(at, 2, pgs_literal(server.publication));
    pgs_result rows;
    if (!pgs_ask_rows(server, server.replication.get(), "SET search_path = pg_catalog; " + query,
                      rows, "which tables are not followed"))
        return;
    const std::string text = pgb_watch_text(watch, server.publication, rows);
    if (!text.empty())
        tell("%s", text.c_str());
}
