// The order keeps the application going: later tables are seen to first, then those that are
// there, one after the other, so that no two are locked at once, and only then does it count
// that a table without identity takes no updates.  Tables that others were making meanwhile
// are looked for again at the end.  Whatever ends it on the way, the next run begins anew.
//
// A table is altered when nobody else uses it: who waits for that in the server makes all
// others wait behind it, so the wait is short, and begun again.
#include "feed/postgresql/create.h"

#include "feed/backoff.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/query.h"
#include "fwutil/fwu_clock.h"

#include <set>

constexpr int VERSION_WITH_PARTITION_ROOT = 130000;
constexpr int VERSION_WITH_GENERATED_COLUMNS = 180000;
static const char lock_wait[] = "200ms"; // others wait no longer behind an ALTER TABLE
static const char lock_not_available[] = "55P03";

// It runs as whoever makes or changes a table, who owns it, so that it may do no more than that
// user.  What it cannot do must not stop the user either.  Of an index, a key or a column that is
// dropped it is not told whose they were, so that all tables are looked at then, but for a table
// that takes only its own ones along.
static const char identity_function[] =
    "CREATE OR REPLACE FUNCTION kestro.set_replica_identity() RETURNS event_trigger"
    " LANGUAGE plpgsql SECURITY INVOKER SET search_path = pg_catalog, pg_temp AS $$\n"
    "DECLARE\n"
    "  ids oid[];\n"
    "  made record;\n"
    "BEGIN\n"
    "  IF TG_EVENT = 'ddl_command_end' THEN\n"
    "    ids := array(SELECT DISTINCT m.oid FROM pg_event_trigger_ddl_commands() d\n"
    "      CROSS JOIN LATERAL (SELECT d.objid AS oid UNION\n"
    "        SELECT relid FROM pg_partition_tree(d.objid)) m\n"
    "      WHERE d.classid = 'pg_class'::regclass);\n"
    "  ELSIF EXISTS (SELECT FROM pg_event_trigger_dropped_objects() d WHERE NOT d.is_temporary\n"
    "      AND (d.object_type = 'table column'\n"
    "      OR d.object_type = 'index' AND TG_TAG <> 'DROP TABLE')) THEN\n"
    "    ids := array(SELECT oid FROM pg_class WHERE relkind IN ('r', 'p') AND oid >= 16384);\n"
    "  END IF;\n"
    "  FOR made IN\n"
    "    SELECT c.oid FROM unnest(ids) m (oid) JOIN pg_class c ON c.oid = m.oid\n"
    "    WHERE c.relkind IN ('r', 'p')\n"
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

static const struct {
    const char *name;
    const char *statement;
} event_triggers[] = {
    {"kestro_replica_identity",
     "CREATE EVENT TRIGGER kestro_replica_identity ON ddl_command_end"
     " WHEN TAG IN ('CREATE TABLE', 'CREATE TABLE AS', 'SELECT INTO', 'ALTER TABLE',"
     " 'CREATE SCHEMA') EXECUTE FUNCTION kestro.set_replica_identity()"},
    {"kestro_replica_identity_drop", "CREATE EVENT TRIGGER kestro_replica_identity_drop ON sql_drop"
                                     " EXECUTE FUNCTION kestro.set_replica_identity()"},
};

void pgb_tell_statement(const std::string &statement)
{
    std::string text = statement;
    for (size_t at = 0; (at = text.find('\n', at)) != text.npos; at++)
        text.insert(at + 1, "  "); // lines of one message
    tell("%s;", text.c_str());
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
        pgs_query(server, server.sql.get(), found, "SELECT evtname FROM pg_event_trigger");
    if (!asked)
        return asked;
    std::set<std::string_view> names;
    for (int i = 0; i < PQntuples(found.get()); i++)
        names.insert(pgs_value(found, i, 0));
    std::vector<std::string> missing;
    for (const auto &trigger : event_triggers)
        if (!names.contains(trigger.name))
            missing.push_back(trigger.statement);
    if (missing.empty())
        return asked;
    commands = {"BEGIN", "CREATE SCHEMA IF NOT EXISTS kestro", identity_function};
    commands.insert(commands.end(), missing.begin(), missing.end());
    commands.push_back("COMMIT");
    return asked;
}

outcome pgb_identity_commands(pgs_server &server, std::vector<std::string> &commands)
{
    pgs_result tables;
    outcome asked = pgs_query(server, server.sql.get(), tables,
                              std::string("WITH ") + pgb_all_tables +
                                  " SELECT oid::regclass FROM t WHERE NOT identified AND NOT unsent"
                                  " ORDER BY oid");
    for (int i = 0; asked && i < PQntuples(tables.get()); i++)
        commands.push_back(pgb_identity_command(std::string(pgs_value(tables, i, 0))));
    return asked;
}

outcome pgb_unsent_commands(pgs_server &server, std::vector<std::string> &commands)
{
    pgs_result tables;
    outcome asked = pgs_query(server, server.sql.get(), tables,
                              std::string("WITH ") + pgb_all_tables + " SELECT " +
                                  pgb_identity_expression("t") +
                                  " FROM t WHERE NOT identified AND unsent ORDER BY oid");
    for (int i = 0; asked && i < PQntuples(tables.get()); i++)
        commands.emplace_back(pgs_value(tables, i, 0));
    return asked;
}

// The application's updates of a table that cannot be identified would end with the publication.
static outcome refuse_unsent(pgs_server &server)
{
    std::vector<std::string> commands;
    outcome asked = pgb_unsent_commands(server, commands);
    if (!asked || commands.empty())
        return asked;
    std::string text;
    for (const std::string &command : commands)
        text += "\n  " + command + ";";
    return outcome_failed("%s:%s", PGB_UNSENT, text.c_str());
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

// What was told of tables that are to be altered.
struct telling {
    std::set<std::string> statements = {};
    int64_t held_up_ms = 0; // 0: not yet
};

// Tells who uses the table, once in --timeout seconds.
static void tell_in_use(pgs_server &server, telling &told, const std::string &table,
                        const std::string &statement)
{
    const int64_t now = fwu_monotonic_ms();
    if (told.held_up_ms != 0 && now - told.held_up_ms < server.timeout_ms)
        return;
    const std::string sessions = pgs_sessions(
        server, server.sql.get(),
        "SELECT DISTINCT coalesce(pid, 0) FROM pg_locks WHERE granted AND relation = " + table +
            " AND database = (SELECT oid FROM pg_database WHERE datname = current_database())"
            " AND pid IS DISTINCT FROM " +
            std::to_string(PQbackendPID(server.sql.get())));
    if (sessions.empty())
        return; // it was a moment only
    told.held_up_ms = now;
    pgs_tell_held_up(statement, sessions);
}

// Alters the tables that nobody uses just now.  left: there are others.
static outcome alter_tables(pgs_server &server, telling &told, bool &left)
{
    left = false;
    pgs_result tables;
    outcome done =
        pgs_query(server, server.sql.get(), tables,
                  std::string("WITH ") + pgb_all_tables +
                      " SELECT oid::regclass, oid::text AS number FROM t WHERE NOT identified"
                      " AND NOT unsent ORDER BY t.oid");
    for (int i = 0; done && i < PQntuples(tables.get()); i++) {
        const std::string statement = pgb_identity_command(std::string(pgs_value(tables, i, 0)));
        if (told.statements.insert(statement).second)
            pgb_tell_statement(statement);
        pgs_result result;
        pgs_refusal refused;
        done = pgs_try(server, server.sql.get(), result,
                       std::string("SET LOCAL lock_timeout = '") + lock_wait + "'; " + statement,
                       refused, lock_not_available);
        if (refused.state.empty())
            continue;
        left = true;
        tell_in_use(server, told, std::string(pgs_value(tables, i, 1)), statement);
    }
    return done;
}

static outcome see_to_tables(pgs_server &server)
{
    telling told;
    feed_backoff pauses;
    for (bool left = true;;) {
        outcome done = alter_tables(server, told, left);
        if (!done || !left)
            return done;
        if (!feed_backoff_wait(pauses))
            return OUTCOME_STOPPED;
    }
}

// "sales.orders, sales.customers", of tables that are no part of another one.
static outcome list_identified(pgs_server &server, std::string &list)
{
    pgs_result rows;
    outcome done = pgs_query(server, server.sql.get(), rows,
                             std::string("WITH ") + pgb_all_tables +
                                 " SELECT string_agg(oid::regclass::text, ', ' ORDER BY oid) FROM t"
                                 " WHERE NOT is_part AND " +
                                 pgb_identified_tables());
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
    // Without its generated columns a table's whole row is no identity from version 18 on.
    const int version = PQserverVersion(server.sql.get());
    if (version >= VERSION_WITH_GENERATED_COLUMNS)
        what += " WITH (publish_via_partition_root = true, publish_generated_columns = stored)";
    else if (version >= VERSION_WITH_PARTITION_ROOT)
        what += " WITH (publish_via_partition_root = true)";
    command = "CREATE PUBLICATION " + pgs_name(server.publication) + what;
    return done;
}

outcome pgb_create_publication(pgs_server &server, bool minimal)
{
    outcome done;
    if (!minimal) {
        done = refuse_unsent(server);
        if (done)
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
