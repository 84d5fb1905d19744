// Which old rows the server sends: of a partitioned table by the identities of all its
// partitions and of all that stand between; and whether a snapshot may read the rows.
#include "feed/postgresql/check_report.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/query.h"

static bool is_true(const pgs_result &result, int row, int column)
{
    return pgs_value(result, row, column) == "t";
}

// The numbers of the tables that are not left out, as a parameter.
static std::string numbers_of(const pgk_report &report)
{
    std::string list = "{";
    for (const pgk_table &table : report.tables)
        if (!table.skipped)
            list += (list.size() == 1 ? "" : ",") + std::to_string(table.relation.id);
    return list + "}";
}

// The table of a number.
static const pgk_table *table_of(const pgk_report &report, std::string_view number)
{
    uint32_t id = 0;
    if (!pgs_number(id, number))
        return nullptr;
    const auto found = report.table_of_id.find(id);
    return found == report.table_of_id.end() ? nullptr : &report.tables[found->second];
}

outcome pgk_look_at_identities(pgk_report &report)
{
    pgs_server &server = report.server;
    if (!report.found.updates)
        return {};
    const std::string numbers = numbers_of(report);
    pgs_result result;
    outcome asked = pgs_query(
        server, server.sql.get(), result,
        "WITH RECURSIVE t (root, place, id, level) AS (SELECT id, place, id, 0"
        " FROM unnest($1::oid[]) WITH ORDINALITY AS r (id, place)"
        " UNION ALL SELECT t.root, t.place, i.inhrelid, t.level + 1 FROM t"
        " JOIN pg_inherits i ON i.inhparent = t.id"
        " JOIN pg_class c ON c.oid = i.inhrelid AND c.relispartition)"
        " SELECT t.root, format('%I.%I', n.nspname, c.relname),"
        " CASE c.relreplident WHEN 'n' THEN false ELSE EXISTS (SELECT FROM pg_index i"
        " WHERE i.indrelid = c.oid AND i.indimmediate AND i.indisvalid AND"
        " CASE c.relreplident WHEN 'd' THEN i.indisprimary ELSE i.indisreplident END) END"
        " FROM t JOIN pg_class c ON c.oid = t.id JOIN pg_namespace n ON n.oid = c.relnamespace"
        " WHERE c.relreplident <> 'f' AND c.relkind IN ('r', 'p') ORDER BY t.place, t.level, 2",
        {numbers.c_str()});
    if (!asked)
        return asked;
    // One finding for each kind of trouble.
    pgk_finding kinds[] = {
        {.kind = "identity",
         .text = "these tables have no usable identity: once they are published, the server "
                 "refuses their updates and deletes, those of the application, too"},
        {.kind = "identity",
         .text = "of these tables the server sends the keys of old rows only; their other items "
                 "are marked \"?\" (not known); for whole old rows"},
        {.stops = !report.found.slot,
         .aside = report.found.slot,
         .kind = "identity",
         .text = "of these tables the server sends the keys of old rows only, and without marks "
                 "(\"values error\", or a dataset without a null map) whole ones are needed"},
    };
    if (report.found.slot)
        kinds[2].text += "; a change without sets its table aside";
    // A start that makes the publication gives them one.
    if (!report.found.publication && report.options.create)
        kinds[0].text = "these tables have no usable identity, without which the server would "
                        "refuse their updates and deletes: --create gives them one";
    for (int i = 0; i < PQntuples(result.get()); i++) {
        const pgk_table *table = table_of(report, pgs_value(result, i, 0));
        if (table == nullptr)
            continue;
        const bool whole =
            pgb_needs_whole_rows(report.config, table->relation.schema, table->relation.name);
        const size_t kind = !is_true(result, i, 2) ? 0 : whole ? 2 : 1;
        kinds[kind].sql.push_back("ALTER TABLE " + std::string(pgs_value(result, i, 1)) +
                                  " REPLICA IDENTITY FULL;");
    }
    // Where somebody else has to make the publication, these stand before it already.
    if (!report.found.publication && !(report.options.create && report.found.superuser))
        kinds[0].sql.clear();
    for (pgk_finding &finding : kinds)
        if (!finding.sql.empty())
            report.findings.push_back(std::move(finding));
    return {};
}

outcome pgk_look_at_reading(pgk_report &report)
{
    pgs_server &server = report.server;
    const std::string numbers = numbers_of(report);
    pgs_result result;
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  "SELECT r.id, has_schema_privilege(n.oid, 'USAGE'),"
                  " has_table_privilege(c.oid, 'SELECT'), row_security_active(c.oid),"
                  " quote_ident(n.nspname) FROM unnest($1::oid[]) WITH ORDINALITY AS r (id, place)"
                  " JOIN pg_class c ON c.oid = r.id JOIN pg_namespace n ON n.oid = c.relnamespace"
                  " ORDER BY r.place",
                  {numbers.c_str()});
    if (!asked)
        return asked;
    const bool reads = report.options.snapshot && !report.log_begun;
    const std::string role = pgs_name(report.found.role);
    pgk_finding grants = {.aside = reads,
                          .kind = "right",
                          .text = "role " + report.found.role +
                                  " may not read these tables: --snapshot and --resume set them "
                                  "aside; grant it before, else later, and then --resume them",
                          .sql = {},
                          .lines = {}};
    pgk_finding hidden = {.aside = reads,
                          .kind = "right",
                          .text = "row security hides rows from role " + report.found.role +
                                  ", so that --snapshot and --resume set their tables aside; let "
                                  "it see all before, else later, and then --resume them:",
                          .sql = {"ALTER ROLE " + role + " BYPASSRLS;"},
                          .lines = {}};
    std::string schema; // granted last
    bool hides = false;
    for (int i = 0; i < PQntuples(result.get()); i++) {
        const pgk_table *table = table_of(report, pgs_value(result, i, 0));
        if (table == nullptr)
            continue;
        const std::string name(pgs_value(result, i, 4));
        if (!is_true(result, i, 1) && name != schema)
            grants.sql.push_back("GRANT USAGE ON SCHEMA " + name + " TO " + role + ";");
        if (!is_true(result, i, 1))
            schema = name;
        if (!is_true(result, i, 2))
            grants.sql.push_back("GRANT SELECT ON " + table->sql + " TO " + role + ";");
        if (is_true(result, i, 3)) {
            hidden.text += (hides ? ", " : " ") + table->name;
            hides = true;
        }
    }
    if (!grants.sql.empty())
        report.findings.push_back(std::move(grants));
    if (hides)
        report.findings.push_back(std::move(hidden));
    return {};
}
