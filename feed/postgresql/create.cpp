// The order keeps the application going: later tables are seen to first, then those that are
// there, one after the other, so that no two are locked at once, and only then does it count
// that a table without identity takes no updates.  Tables that others were making meanwhile
// are looked for again at the end.  Whatever ends it on the way, the next run begins anew.
#include "feed/postgresql/create.h"

#include "feed/postgresql/identity.h"
#include "feed/postgresql/query.h"

constexpr int VERSION_WITH_PARTITION_ROOT = 130000;

// It runs as whoever makes or changes a table, who owns it, so that it may do no more than that
// user.  What it cannot do must not stop the user either.
static const char identity_function[] =
    "CREATE OR REPLACE FUNCTION kestro.set_replica_identity() RETURNS event_trigger"
    " LANGUAGE plpgsql SECURITY INVOKER SET search_path = pg_catalog, pg_temp AS $$\n"
    "DECLARE\n"
    "  made record;\n"
    "BEGIN\n"
    "  FOR made IN\n"
    "    SELECT DISTINCT c.oid FROM pg_event_trigger_ddl_commands() d\n"
    "    CROSS JOIN LATERAL (SELECT d.objid AS oid UNION\n"
    "      SELECT relid FROM pg_partition_tree(d.objid)) m\n"
    "    JOIN pg_class c ON c.oid = m.oid\n"
    "    WHERE d.classid = 'pg_class'::regclass AND c.relkind IN ('r', 'p')\n"
    "    AND c.relpersistence = 'p' AND c.relreplident <> 'f'\n"
    "    AND NOT EXISTS (SELECT FROM pg_index i WHERE i.indrelid = c.oid AND i.indisvalid\n"
    "      AND i.indimmediate AND (c.relreplident = 'd' AND i.indisprimary\n"
    "      OR c.relreplident = 'i' AND i.indisreplident))\n"
    "  LOOP\n"
    "    BEGIN\n"
    "      EXECUTE format('ALTER TABLE %s REPLICA IDENTITY FULL', made.oid::regclass);\n"
    "    EXCEPTION WHEN OTHERS THEN\n"
    "      RAISE WARNING 'table % has no replica identity: %', made.oid::regclass, SQLERRM;\n"
    "    END;\n"
    "  END LOOP;\n"
    "END $$";

static const char event_trigger[] =
    "CREATE EVENT TRIGGER kestro_replica_identity ON ddl_command_end"
    " WHEN TAG IN ('CREATE TABLE', 'CREATE TABLE AS', 'SELECT INTO', 'ALTER TABLE',"
    " 'CREATE SCHEMA') EXECUTE FUNCTION kestro.set_replica_identity()";

void pgb_tell_statement(const std::string &statement)
{
    tell("%s;", statement.c_str());
}

static outcome run(pgs_server &server, const std::string &statement)
{
    pgb_tell_statement(statement);
    pgs_result result;
    return pgs_command(server, server.sql.get(), result, statement);
}

outcome pgb_later_tables_commands(pgs_server &server, std::vector<std::string> &commands)
{
    pgs_result found;
    outcome asked =
        pgs_query(server, server.sql.get(), found,
                  "SELECT FROM pg_event_trigger WHERE evtname = 'kestro_replica_identity'");
    if (asked && PQntuples(found.get()) == 0)
        commands = {"BEGIN", "CREATE SCHEMA IF NOT EXISTS kestro", identity_function, event_trigger,
                    "COMMIT"};
    return asked;
}

outcome pgb_identity_commands(pgs_server &server, std::vector<std::string> &commands)
{
    pgs_result tables;
    outcome asked = pgs_query(server, server.sql.get(), tables,
                              std::string("WITH ") + pgb_all_tables +
                                  " SELECT oid::regclass FROM t WHERE NOT identified ORDER BY oid");
    for (int i = 0; asked && i < PQntuples(tables.get()); i++)
        commands.push_back(pgb_identity_command(std::string(pgs_value(tables, i, 0))));
    return asked;
}

static outcome see_to_later_tables(pgs_server &server)
{
    std::vector<std::string> commands;
    outcome done = pgb_later_tables_commands(server, commands);
    for (const std::string &command : commands)
        if (done)
            done = run(server, command);
    return done;
}

static outcome see_to_tables(pgs_server &server)
{
    std::vector<std::string> commands;
    outcome done = pgb_identity_commands(server, commands);
    for (const std::string &command : commands)
        if (done)
            done = run(server, command);
    return done;
}

// "sales.orders, sales.customers", of tables that are no part of another one.
static outcome list_identified(pgs_server &server, std::string &list)
{
    pgs_result rows;
    outcome done = pgs_query(server, server.sql.get(), rows,
                             std::string("WITH ") + pgb_all_tables +
                                 " SELECT string_agg(oid::regclass::text, ', ' ORDER BY oid) FROM t"
                                 " WHERE NOT is_part AND " +
                                 pgb_identified_tables);
    if (done)
        list = pgs_value(rows, 0, 0);
    return done;
}

outcome pgb_publication_command(pgs_server &server, bool minimal, std::string &command)
{
    std::string what = " FOR ALL TABLES";
    outcome done;
    if (minimal) {
        done = list_identified(server, what);
        what = what.empty() ? "" : " FOR TABLE " + what;
    }
    if (PQserverVersion(server.sql.get()) >= VERSION_WITH_PARTITION_ROOT)
        what += " WITH (publish_via_partition_root = true)";
    command = "CREATE PUBLICATION " + pgs_name(server.publication) + what;
    return done;
}

outcome pgb_create_publication(pgs_server &server, bool minimal)
{
    outcome done;
    if (!minimal) {
        done = see_to_later_tables(server);
        if (done)
            done = see_to_tables(server);
    }
    std::string command;
    if (done)
        done = pgb_publication_command(server, minimal, command);
    if (done)
        done = run(server, command);
    if (done && !minimal)
        done = see_to_tables(server);
    return done;
}
