// The key that orders a table's rows has to be known of every change of it, too: of an old row,
// the server sends what identifies it, and that is another index than the primary key at times, or
// another one in each partition.
#include "feed/postgresql/piece_work.h"

#include "feed/postgresql/key_order.h"
#include "feed/postgresql/published.h"

#include <algorithm>

constexpr int VERSION_WITH_COLUMN_LISTS = 150000;

// Whether column "a" of table "t" is published.
static const char published[] =
    "a.attnum > 0 AND NOT a.attisdropped AND CASE WHEN t.names IS NULL THEN a.attgenerated = ''"
    " ELSE a.attname = ANY (t.names) AND (a.attgenerated = ''"
    " OR current_setting('server_version_num')::int >= 180000) END";

// What is published of tables "t", and the index of the key: unique, of columns that are published
// and not null, which the server sends of each old row.
static std::string tables_query()
{
    return std::string(
               "SELECT t.place, t.oid, t.schema, t.name, t.relkind, t.relreplident, t.filter,"
               " t.names, (SELECT i.indexrelid FROM pg_index i WHERE i.indrelid = t.oid"
               " AND i.indisvalid AND i.indisunique AND i.indimmediate AND i.indpred IS NULL"
               " AND CASE t.relreplident WHEN 'd' THEN i.indisprimary"
               " WHEN 'i' THEN i.indisreplident ELSE true END"
               " AND NOT EXISTS (SELECT FROM generate_series(0, i.indnkeyatts - 1) g"
               " LEFT JOIN pg_attribute a ON a.attrelid = t.oid AND a.attnum = i.indkey[g]"
               " AND a.attnotnull AND ") +
           published +
           " WHERE a.attnum IS NULL)"
           // What was not validated leaves nulls.
           " AND (i.indisprimary OR NOT EXISTS (SELECT FROM pg_constraint o"
           " WHERE o.conrelid = t.oid AND o.contype = 'n' AND NOT o.convalidated))"
           // Of an old row, each partition sends what identifies the rows there.
           " AND (t.relkind <> 'p' OR NOT EXISTS (SELECT FROM pg_partition_tree(t.oid) m"
           " JOIN pg_class l ON l.oid = m.relid WHERE m.isleaf AND l.relreplident <> 'f'"
           " AND NOT EXISTS (SELECT FROM pg_index p CROSS JOIN LATERAL"
           " pg_partition_ancestors(p.indexrelid) AS above (relid)"
           " WHERE p.indrelid = l.oid AND above.relid = i.indexrelid"
           " AND CASE l.relreplident WHEN 'd' THEN p.indisprimary"
           " WHEN 'i' THEN p.indisreplident ELSE true END)))"
           " ORDER BY i.indisprimary DESC, i.indexrelid LIMIT 1),"
           " coalesce(s.estimate, 0), coalesce(s.size, 0) FROM t CROSS JOIN LATERAL"
           " (SELECT CASE WHEN sum(c.relpages) = 0 THEN -1 ELSE sum(greatest(c.reltuples, 0))"
           " END::bigint AS estimate, sum(pg_table_size(c.oid))::bigint AS size"
           " FROM (SELECT t.oid AS id UNION SELECT m.relid FROM pg_partition_tree(t.oid) m"
           " WHERE t.relkind = 'p') l CROSS JOIN LATERAL"
           // Looked up one by one, however many the planner expects.
           " (SELECT * FROM pg_class m WHERE m.oid = l.id AND m.relkind <> 'p' OFFSET 0) c) s"
           " ORDER BY t.place";
}

// "OPERATOR(pg_catalog.<)" of operator class "f", by its strategy.
static std::string operator_column(int strategy, const char *name)
{
    return " max('OPERATOR(' || quote_ident(n.nspname) || '.' || p.oprname || ')')"
           " FILTER (WHERE m.amopstrategy = " +
           std::to_string(strategy) + ") AS " + name;
}

// Columns of tables "t": which identify old rows, as the stream says it, and of those of the key
// their place, the type behind their domains, and whether their texts are compared by bytes that
// are sent as they are.  Behind that, how the server compares them: in SQL that names the operators
// and the collation of the key's index, or nulls where it cannot be asked for that, and what the
// order rests on there.  Names of tables and the like (regclass) stand for others at another time.
static std::string columns_query()
{
    return std::string(
               ", d AS (SELECT getdatabaseencoding() IN ('UTF8', 'SQL_ASCII', 'LATIN1') AS sent,"
               " CASE coalesce(to_jsonb(b) ->> 'datlocprovider', 'c') WHEN 'b' THEN 'C'"
               " WHEN 'c' THEN b.datcollate END AS locale,"
               // This one goes by code points in C libraries that are known to.
               " CASE WHEN getdatabaseencoding() = 'UTF8' AND (version() ~ '(deb|pgdg)1[2-9]'"
               " OR EXISTS (SELECT FROM pg_collation c WHERE c.collprovider = 'c'"
               " AND c.collcollate !~ '^(C|POSIX)($|[.])' AND"
               " pg_collation_actual_version(c.oid) ~ '^2[.](3[5-9]|[4-9][0-9])($|[^0-9])'))"
               " THEN ARRAY['C', 'POSIX', 'C.UTF-8', 'C.utf8'] ELSE ARRAY['C', 'POSIX'] END"
               " AS bytes FROM pg_database b WHERE b.datname = current_database())"
               " SELECT t.place, a.attname, a.atttypid, a.atttypmod,"
               " c.relreplident = 'f' OR EXISTS (SELECT FROM pg_index i WHERE i.indrelid = t.oid"
               " AND i.indisvalid AND i.indisunique AND i.indimmediate AND i.indpred IS NULL"
               " AND CASE c.relreplident WHEN 'd' THEN i.indisprimary"
               " WHEN 'i' THEN i.indisreplident ELSE false END"
               " AND a.attnum = ANY ((i.indkey::int2[])[0:i.indnkeyatts - 1])),"
               " coalesce(k.place, 0), coalesce(y.oid, 0),"
               " d.sent AND k.collation = a.attcollation AND coalesce(CASE o.collprovider"
               " WHEN 'd' THEN d.locale = ANY (d.bytes) WHEN 'b' THEN true"
               " WHEN 'c' THEN o.collcollate = ANY (d.bytes) END, false),"
               " CASE WHEN y.may THEN y.name END,"
               " CASE WHEN o.oid IS NOT NULL THEN ' COLLATE ' || quote_ident(n.nspname) || '.' ||"
               " quote_ident(o.collname) ELSE '' END, x.less, x.at_least, x.greater,"
               " concat(pg_collation_actual_version(o.oid), e.labels)"
               " FROM t CROSS JOIN d JOIN pg_class c ON c.oid = t.oid"
               " JOIN pg_attribute a ON a.attrelid = t.oid AND ") +
           published +
           " LEFT JOIN LATERAL (SELECT n.place, i.indcollation[n.place::int - 1] AS collation,"
           " i.indclass[n.place::int - 1] AS class FROM pg_index i CROSS JOIN LATERAL"
           " unnest(i.indkey::int2[]) WITH ORDINALITY AS n (attnum, place)"
           " WHERE i.indexrelid = t.key AND n.place <= i.indnkeyatts AND n.attnum = a.attnum"
           " LIMIT 1) k ON true LEFT JOIN pg_collation o ON o.oid = k.collation"
           " LEFT JOIN pg_namespace n ON n.oid = o.collnamespace"
           " LEFT JOIN LATERAL (WITH RECURSIVE y AS (SELECT p.oid, p.typtype, p.typbasetype,"
           " p.typname, p.typnamespace FROM pg_type p WHERE p.oid = a.atttypid UNION ALL"
           " SELECT p.oid, p.typtype, p.typbasetype, p.typname, p.typnamespace FROM y"
           " JOIN pg_type p ON y.typtype = 'd' AND p.oid = y.typbasetype)"
           " SELECT y.oid, format_type(y.oid, -1) AS name,"
           " has_schema_privilege(y.typnamespace, 'USAGE') AND (y.typname !~ '^reg'"
           " OR y.typnamespace <> 'pg_catalog'::regnamespace) AS may"
           " FROM y WHERE y.typtype <> 'd') y ON k.place IS NOT NULL"
           " LEFT JOIN LATERAL (SELECT" +
           operator_column(1, "less") + "," + operator_column(4, "at_least") + "," +
           operator_column(5, "greater") +
           " FROM pg_opclass f JOIN pg_amop m ON m.amopfamily = f.opcfamily"
           " AND m.amoplefttype = f.opcintype AND m.amoprighttype = f.opcintype"
           " JOIN pg_operator p ON p.oid = m.amopopr JOIN pg_namespace n"
           " ON n.oid = p.oprnamespace AND has_schema_privilege(n.oid, 'USAGE')"
           " WHERE f.oid = k.class) x ON k.place IS NOT NULL"
           " LEFT JOIN LATERAL (SELECT md5(string_agg(concat(l.enumlabel, '=', l.enumsortorder),"
           " ' ' ORDER BY l.enumsortorder)) AS labels FROM pg_enum l WHERE l.enumtypid = y.oid) e"
           " ON k.place IS NOT NULL ORDER BY t.place, a.attnum";
}

static std::string comma(const std::string &list)
{
    return list.empty() ? "" : ", ";
}

std::string pgp_sql_name(const pgp_want &want)
{
    return pgs_name(want.schema) + "." + pgs_name(want.table);
}

// "t": tables wanted that are there and published.
static std::string named_tables(pgs_server &server, const std::vector<pgp_want> &wants,
                                const std::vector<size_t> &places)
{
    const bool lists = PQserverVersion(server.sql.get()) >= VERSION_WITH_COLUMN_LISTS;
    std::string values;
    for (const size_t place : places)
        values += comma(values) + "(" + std::to_string(place) + ", " +
                  pgp_literal(server, wants[place].schema) + ", " +
                  pgp_literal(server, wants[place].table) + ")";
    // All that is published is looked at once.
    return "WITH p AS MATERIALIZED (SELECT * FROM " + std::string(pgb_published) +
           " p WHERE p.pubname = " + pgp_literal(server, server.publication) +
           "), t AS MATERIALIZED (SELECT v.place, c.oid, p.schemaname AS schema, c.relname AS name,"
           " c.relkind, c.relreplident, " +
           (lists ? pgb_published_filter : "NULL") + " AS filter, " +
           (lists ? pgb_published_names : "NULL::name[]") + " AS names FROM (VALUES " + values +
           ") AS v (place, schema, name) JOIN p ON p.schemaname = v.schema::name"
           " AND p.tablename = v.name::name JOIN pg_class c ON c.oid = p.relid" +
           (lists ? pgb_published_lists : "") + ") ";
}

// "t": the tables that were found.
static std::string known_tables(pgs_server &server, const pgs_result &found)
{
    std::string values;
    for (int i = 0; i < PQntuples(found.get()); i++) {
        const auto value = [&](int column) { return std::string(pgs_value(found, i, column)); };
        const std::string key = value(8);
        const bool all = PQgetisnull(found.get(), i, 7) == 1;
        values += comma(values) + "(" + value(0) + ", " + value(1) + "::oid, " +
                  (key.empty() ? "NULL" : key) + "::oid, " +
                  (all ? "NULL" : pgp_literal(server, value(7))) + "::name[])";
    }
    return "WITH t (place, oid, key, names) AS (VALUES " + values + ")";
}

static outcome not_read(const char *what, std::string_view text)
{
    return {OUTCOME_LOST, std::string("the server gives \"") + std::string(text) + "\" as " + what};
}

static outcome take_table(pgp_table &table, const pgs_result &result, int row)
{
    table.relation.schema = pgs_value(result, row, 2);
    table.relation.name = pgs_value(result, row, 3);
    const std::string_view identity = pgs_value(result, row, 5);
    table.relation.identity = identity.empty() ? '\0' : identity.front();
    table.filter = pgs_value(result, row, 6);
    if (!pgs_number(table.want, pgs_value(result, row, 0)))
        return not_read("a table's place", pgs_value(result, row, 0));
    if (!pgs_number(table.relation.id, pgs_value(result, row, 1)))
        return not_read("a table's number", pgs_value(result, row, 1));
    if (!pgs_number(table.estimate, pgs_value(result, row, 9)) ||
        !pgs_number(table.size, pgs_value(result, row, 10)))
        return not_read("a table's size", pgs_value(result, row, 10));
    // Rows of tables that inherit from this one are published as their own.
    table.rows = std::string(pgs_value(result, row, 4) == "p" ? "" : "ONLY ") +
                 pgs_name(table.relation.schema) + "." + pgs_name(table.relation.name);
    return {};
}

// A column of a key; place 0: it is none.
struct key_column {
    size_t place = 0;
    uint32_t type = 0; // behind its domains
    bool by_bytes = false;
    pgp_operand operand; // members are empty where the server cannot be asked
};

static outcome take_column(pgp_table &table, std::vector<key_column> &keys,
                           const pgs_result &result, int row)
{
    pgo_column column;
    key_column key;
    column.name = pgs_value(result, row, 1);
    column.identity = pgs_value(result, row, 4) == "t";
    key.by_bytes = pgs_value(result, row, 7) == "t";
    if (!pgs_number(column.type, pgs_value(result, row, 2)) ||
        !pgs_number(column.modifier, pgs_value(result, row, 3)))
        return not_read("a column's type", pgs_value(result, row, 2));
    if (!pgs_number(key.place, pgs_value(result, row, 5)) ||
        !pgs_number(key.type, pgs_value(result, row, 6)))
        return not_read("a column of a key", pgs_value(result, row, 5));
    key.operand = {.type = std::string(pgs_value(result, row, 8)),
                   .collate = std::string(pgs_value(result, row, 9)),
                   .less = std::string(pgs_value(result, row, 10)),
                   .at_least = std::string(pgs_value(result, row, 11)),
                   .greater = std::string(pgs_value(result, row, 12)),
                   .version = std::string(pgs_value(result, row, 13))};
    table.relation.columns.push_back(std::move(column));
    keys.push_back(std::move(key));
    return {};
}

// Compared here if all of the key can be, else by the server.
static void set_key(pgp_table &table, const std::vector<key_column> &keys)
{
    std::vector<size_t> columns;
    for (size_t place = 1; place <= keys.size(); place++)
        for (size_t i = 0; i < keys.size(); i++)
            if (keys[i].place == place)
                columns.push_back(i);
    const bool here = std::all_of(columns.begin(), columns.end(), [&](size_t i) {
        return pgy_comparable(keys[i].type, keys[i].by_bytes);
    });
    for (const size_t i : columns) {
        const pgp_operand &operand = keys[i].operand;
        if (!here && (operand.type.empty() || operand.less.empty() || operand.at_least.empty() ||
                      operand.greater.empty())) {
            table.key.clear();
            table.order = {};
            return;
        }
        const uint32_t compared_as = here ? keys[i].type : 0;
        table.key.push_back(
            pgp_key_text(table.relation.columns[i], compared_as, here ? nullptr : &operand));
        table.order.columns.push_back(i);
        table.order.types.push_back(compared_as);
        if (!here)
            table.order.operands.push_back(operand);
    }
}

static void set_rows(pgp_table &table)
{
    std::string list;
    for (const pgo_column &column : table.relation.columns)
        list += comma(list) + pgs_name(column.name);
    table.rows = "SELECT " + list + " FROM " + table.rows;
}

outcome pgp_describe(std::vector<pgp_table> &tables, pgs_server &server,
                     const std::vector<pgp_want> &wants, const std::vector<size_t> &places)
{
    tables.clear();
    pgs_result found;
    outcome done = pgp_ask(server, found, named_tables(server, wants, places) + tables_query());
    const int count = done ? PQntuples(found.get()) : 0;
    if (count == 0)
        return done;
    tables.resize(static_cast<size_t>(count));
    for (int i = 0; done && i < count; i++)
        done = take_table(tables[static_cast<size_t>(i)], found, i);
    pgs_result columns;
    if (done)
        done = pgp_ask(server, columns, known_tables(server, found) + columns_query());
    int row = 0;
    for (int i = 0; i < count; i++) {
        pgp_table &table = tables[static_cast<size_t>(i)];
        std::vector<key_column> keys;
        const std::string place = std::to_string(table.want);
        for (; done && row < PQntuples(columns.get()) && pgs_value(columns, row, 0) == place; row++)
            done = take_column(table, keys, columns, row);
        // Else its rows would have nothing in them, and none would be taken.
        const std::string_view names = pgs_value(found, i, 7);
        if (done && keys.empty() && !names.empty() && names != "{}")
            done = not_read("the columns of a table that has some", "");
        set_key(table, keys);
        set_rows(table);
    }
    if (done && row < PQntuples(columns.get()))
        return not_read("a column's table", pgs_value(columns, row, 0));
    return done;
}

std::string pgp_command(const pgp_table &table, pgs_server &server,
                        const std::vector<std::string> &behind, uint64_t limit)
{
    std::vector<std::string> columns;
    columns.reserve(table.order.columns.size());
    for (const size_t column : table.order.columns)
        columns.push_back(pgs_name(table.relation.columns[column].name));
    std::string command = "COPY (" + table.rows;
    if (!table.filter.empty())
        command += " WHERE (" + table.filter + ")";
    if (!behind.empty())
        command += (table.filter.empty() ? " WHERE " : " AND ") +
                   pgp_is_behind(table.order, server.sql.get(), columns, behind);
    if (limit != 0)
        command +=
            " ORDER BY " + pgp_order_by(table.order, columns) + " LIMIT " + std::to_string(limit);
    return command + ") TO STDOUT";
}
