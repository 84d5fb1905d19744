// The catalogue may be ahead of the stream; what it says is right at the moment at which the
// table's rows are read.
#include "feed/postgresql/resumable.h"

#include "feed/postgresql/published.h"
#include "feed/postgresql/server_error.h"
#include "feed/table.h"
#include "fwutil/fwu_source_name.h"

// A row for each table that there is: schema, name; the name as SQL writes it; whether it is
// published; the published table it is a part of; whether parts of it are; whether it is in the
// server's log; whether all tables are published; rows; whether the role may not use its schema,
// may not read it, and does not see all its rows; schema and role as SQL writes them.
static std::string query_tail()
{
    return std::string(", q AS MATERIALIZED (SELECT p.relid AS oid FROM ") + pgb_published +
           " p WHERE p.pubname = $1)"
           " SELECT w.schema, w.name, c.oid::regclass, c.oid IN (SELECT oid FROM q),"
           " rn.nspname, rc.relname,"
           " c.relkind = 'p' AND EXISTS (SELECT FROM " +
           pgb_partition_tree("c.oid") +
           " m WHERE m.relid IN"
           " (SELECT oid FROM q)), c.relkind IN ('r', 'p') AND c.relpersistence = 'p',"
           " EXISTS (SELECT FROM pg_publication b WHERE b.pubname = $1 AND b.puballtables),"
           " (SELECT CASE WHEN bool_and(l.reltuples > 0 OR l.reltuples = 0 AND"
           " current_setting('server_version_num')::integer >= 140000)" // 0 is "not known" before
           " THEN sum(greatest(l.reltuples, 0))::bigint ELSE -1 END"
           " FROM (SELECT c.oid) AS o LEFT JOIN LATERAL " +
           pgb_partition_tree("o.oid") +
           " m ON m.isleaf"
           " JOIN pg_class l ON l.oid = coalesce(m.relid, o.oid)),"
           " NOT has_schema_privilege(n.oid, 'USAGE'), NOT has_table_privilege(c.oid, 'SELECT'),"
           " row_security_active(c.oid), quote_ident(n.nspname), quote_ident(current_user)"
           " FROM w JOIN pg_namespace n ON n.nspname = w.schema"
           " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = w.name"
           " LEFT JOIN LATERAL (SELECT a.relid FROM pg_partition_ancestors(c.oid) a (relid)"
           " WHERE a.relid <> c.oid AND a.relid IN (SELECT oid FROM q) LIMIT 1) a ON true"
           " LEFT JOIN pg_class rc ON rc.oid = a.relid"
           " LEFT JOIN pg_namespace rn ON rn.oid = rc.relnamespace";
}

std::string pgr_query(std::span<const std::string> names, const std::string &publication)
{
    std::string values;
    for (const std::string &name : names) {
        std::vector<std::string> parts;
        if (fwu_source_name_parts(parts, name) && parts.size() == 2)
            values += (values.empty() ? "(" : ", (") + pgs_literal(parts[0]) + ", " +
                      pgs_literal(parts[1]) + ")";
    }
    std::string tail = query_tail();
    for (size_t at; (at = tail.find("$1")) != tail.npos;)
        tail.replace(at, 2, pgs_literal(publication));
    return "WITH w (schema, name) AS (VALUES " + values + ")" + tail;
}

// Why the role cannot read a table, as the server would say it when its rows are read.
static std::string unreadable(const pgs_result &rows, int row)
{
    const std::string schema(pgs_value(rows, row, 0));
    const std::string table(pgs_value(rows, row, 1));
    const pgs_lacking lacking = {.schema = std::string(pgs_value(rows, row, 13)),
                                 .table = std::string(pgs_value(rows, row, 2)),
                                 .role = std::string(pgs_value(rows, row, 14))};
    const std::string texts[] = {
        "permission denied for schema " + schema, "permission denied for table " + table,
        "query would be affected by row-level security policy for table \"" + table + "\""};
    int column = 10;
    for (const std::string &text : texts)
        if (pgs_value(rows, row, column++) == "t")
            return text + "; " + pgs_name_remedy(pgs_find_remedy("42501", text.c_str()), lacking);
    return {};
}

std::map<std::string, pgr_found> pgr_take_rows(const pgs_result &rows)
{
    std::map<std::string, pgr_found> found;
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        pgr_found &table = found[fwu_source_name(pgs_value(rows, i, 0), pgs_value(rows, i, 1))];
        table.sql = pgs_value(rows, i, 2);
        table.published = pgs_value(rows, i, 3) == "t";
        if (!pgs_value(rows, i, 5).empty())
            table.root = fwu_source_name(pgs_value(rows, i, 4), pgs_value(rows, i, 5));
        table.parts = pgs_value(rows, i, 6) == "t";
        table.logged = pgs_value(rows, i, 7) == "t";
        table.all = pgs_value(rows, i, 8) == "t";
        (void)pgs_number(table.estimate, pgs_value(rows, i, 9)); // stays -1
        table.unreadable = unreadable(rows, i);
    }
    return found;
}

std::string pgr_refusal(const std::string &name, const pgr_found *found,
                        const pgb_relations &relations, const std::string &publication)
{
    const pga_record *record = pga_find(relations.aside, name);
    if (feed_is_skipped(*relations.tables.config, name))
        return "the configuration leaves it out: take \"skip-table " + name + "\" out of " +
               relations.tables.config->path + ", stop the bridge, and start it with --resume";
    if (record != nullptr && record->standing == PGA_TAKING)
        return {};
    if (found == nullptr)
        return record != nullptr && record->standing == PGA_ASIDE
                   ? ""
                   : "the database has no such table (capitals count)";
    if (found->published)
        return found->unreadable;
    if (!found->root.empty())
        return "it is a part of " + found->root + ", which is followed as a whole: name that one";
    if (found->parts)
        return "its partitions are followed, each for itself: name those";
    if (!found->logged)
        return "the server's log does not have it: it is unlogged, temporary, or no table";
    if (found->all)
        return "publication \"" + publication + "\" does not have it";
    return "publication \"" + publication + "\" does not have it: run ALTER PUBLICATION " +
           pgs_name(publication) + " ADD TABLE " + found->sql + ", then resume it";
}

void pgr_put(pga_registry &aside, const std::string &name, uint64_t last_lsn)
{
    const pga_record *before = pga_find(aside, name);
    std::vector<std::string> parts;
    if ((before != nullptr && before->standing == PGA_TAKING) ||
        !fwu_source_name_parts(parts, name) || parts.size() != 2)
        return;
    pga_record record;
    if (before != nullptr && before->standing == PGA_ASIDE) {
        record.since = before->since;
        record.since_us = before->since_us;
        record.reason = before->reason;
    }
    record.standing = PGA_TAKING;
    record.at = last_lsn;
    record.replaces = true;
    record.why = "resume";
    pga_put(aside, parts[0], parts[1], std::move(record));
}
