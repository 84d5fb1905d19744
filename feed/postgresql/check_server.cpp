// What a start needs of the server, in the order in which one rests on the other; all of it
// is looked at, whatever is missing before.
#include "feed/postgresql/check_report.h"
#include "feed/postgresql/connect.h"
#include "feed/postgresql/create.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/published.h"
#include "feed/postgresql/query.h"
#include "fwutil/fwu_source_name.h"

constexpr int OLDEST_VERSION = 120000;
constexpr int ROOM_FOR_OTHERS = 4;

static bool is_true(const pgs_result &result, int row, int column)
{
    return pgs_value(result, row, column) == "t";
}

// A number of the server's settings that has to be above what is in use.
static void check_room(pgk_report &report, const char *setting, std::string_view room,
                       std::string_view used)
{
    int64_t most = 0;
    int64_t taken = 0;
    if (!pgs_number(most, room) || !pgs_number(taken, used) || taken < most)
        return;
    pgk_stop(report, "setting",
             std::string("all ") + std::to_string(most) + " of " + setting +
                 " are in use: raise it and restart the server",
             {std::string("ALTER SYSTEM SET ") + setting + " = " +
              std::to_string(taken + ROOM_FOR_OTHERS) + ";"});
}

static outcome look_at_settings(pgk_report &report)
{
    pgs_server &server = report.server;
    pgk_server &found = report.found;
    pgs_result result;
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  "SELECT current_setting('server_version'), current_database(), current_user,"
                  " r.rolsuper, pg_is_in_recovery(), current_setting('server_encoding'),"
                  " current_setting('wal_level'), current_setting('max_replication_slots'),"
                  " (SELECT count(*) FROM pg_replication_slots),"
                  " EXISTS (SELECT FROM pg_replication_slots WHERE slot_name = $1)"
                  " FROM pg_roles r WHERE r.rolname = current_user",
                  {server.slot.c_str()});
    if (!asked)
        return asked;
    found.version = pgs_value(result, 0, 0);
    found.database = pgs_value(result, 0, 1);
    found.role = pgs_value(result, 0, 2);
    found.superuser = is_true(result, 0, 3);
    found.standby = is_true(result, 0, 4);
    found.encoding = pgs_value(result, 0, 5);
    found.slot = is_true(result, 0, 9);
    if (PQserverVersion(server.sql.get()) < OLDEST_VERSION)
        pgk_stop(report, "server",
                 "the server is PostgreSQL " + found.version + "; version 12 or later is needed");
    if (found.standby)
        pgk_note(report, "server",
                 "the server is a standby: a run waits until it takes over; name the primary in "
                 "--conninfo");
    const std::string wal_level(pgs_value(result, 0, 6));
    if (wal_level != "logical")
        pgk_stop(report, "setting",
                 "wal_level is " + wal_level +
                     ", it has to be logical: set it and restart the server",
                 {"ALTER SYSTEM SET wal_level = logical;"});
    if (!found.slot)
        check_room(report, "max_replication_slots", pgs_value(result, 0, 7),
                   pgs_value(result, 0, 8));
    return {};
}

// Whether it is the server that the log belongs to.
static outcome look_at_system(pgk_report &report)
{
    pgs_server &server = report.server;
    const pgb_kept &kept = report.kept;
    pgs_result result;
    outcome asked = pgs_command(server, server.replication.get(), result, "IDENTIFY_SYSTEM");
    if (!asked)
        return asked;
    const std::string system(pgs_value(result, 0, 0));
    if (kept.told_lsn != 0 && !kept.system.empty() &&
        (kept.system != system || kept.database != report.found.database))
        pgk_stop(report, "server",
                 "the log belongs to database \"" + kept.database + "\" of server system " +
                     kept.system + ", this is database \"" + report.found.database + "\" of " +
                     system + ": use another log directory for it");
    return {};
}

// What lets the role connect for replication, which the server refused.
static outcome connection_commands(pgk_report &report, const std::string &refusal,
                                   std::vector<std::string> &sql)
{
    pgs_server &server = report.server;
    pgs_result result;
    outcome asked = pgs_query(
        server, server.sql.get(), result,
        "SELECT rolreplication OR rolsuper, current_setting('max_wal_senders')::int + " +
            std::to_string(ROOM_FOR_OTHERS) + " FROM pg_roles WHERE rolname = current_user");
    if (asked && !is_true(result, 0, 0))
        sql.push_back("ALTER ROLE " + pgs_name(report.found.role) + " REPLICATION;");
    if (asked && refusal.find("max_wal_senders") != std::string::npos)
        sql.push_back("ALTER SYSTEM SET max_wal_senders = " + std::string(pgs_value(result, 0, 1)) +
                      "; -- and restart the server");
    return asked;
}

// The stream needs a connection of its own kind.
static outcome look_at_replication(pgk_report &report)
{
    pgs_server &server = report.server;
    outcome opened = pgs_connect_replication(server);
    report.found.replication = static_cast<bool>(opened);
    if (opened)
        return look_at_system(report);
    if (opened.kind() != OUTCOME_LOST)
        return opened;
    const std::string refusal = opened.text();
    const std::string remedy = server.remedy == nullptr ? "" : std::string("; ") + server.remedy;
    std::vector<std::string> sql;
    if (outcome asked = connection_commands(report, refusal, sql); !asked)
        return asked;
    pgk_stop(report, "right", "cannot connect for replication: " + refusal + remedy,
             std::move(sql));
    return {};
}

// Commands as they are pasted.
static void put_commands(std::vector<std::string> &sql, const std::vector<std::string> &commands)
{
    for (const std::string &command : commands)
        sql.push_back(command + ";");
}

// All that --create would run, in its order: a publication of all tables alone makes the
// application's own updates fail.
static outcome full_creation(pgk_report &report, std::vector<std::string> &sql)
{
    pgs_server &server = report.server;
    std::vector<std::string> commands;
    outcome done = pgb_later_tables_commands(server, commands);
    if (done)
        done = pgb_identity_commands(server, commands);
    std::string publication;
    if (done)
        done = pgb_publication_command(server, false, publication);
    commands.push_back(publication);
    put_commands(sql, commands);
    return done;
}

// Whether the role may make the publication of --create=minimal.
static outcome look_at_minimal_rights(pgk_report &report, const std::string &missing)
{
    pgs_server &server = report.server;
    pgs_result result;
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  std::string("WITH ") + pgb_all_tables +
                      " SELECT has_database_privilege(current_database(), 'CREATE'),"
                      " (SELECT string_agg(oid::regclass::text, ', ' ORDER BY oid) FROM t"
                      " WHERE NOT is_part AND " +
                      pgb_identified_tables() +
                      " AND EXISTS (SELECT FROM pg_class c WHERE c.oid = t.oid"
                      " AND NOT pg_has_role(c.relowner, 'USAGE')))");
    if (!asked)
        return asked;
    const bool creates = is_true(result, 0, 0);
    const std::string others(pgs_value(result, 0, 1));
    if (creates && others.empty())
        return {};
    std::string command;
    outcome done = pgb_publication_command(server, true, command);
    std::string text = missing + "role " + report.found.role + " may not make it, ";
    if (!creates)
        text += "it lacks the right CREATE on database " + report.found.database;
    if (!others.empty())
        text += std::string(creates ? "" : ", and ") + "it does not own " + others;
    pgk_stop(report, "right", text + ": let a superuser make it", {command + ";"});
    return done;
}

static outcome look_at_unsent(pgk_report &report)
{
    std::vector<std::string> commands;
    outcome asked = pgb_unsent_commands(report.server, commands);
    std::vector<std::string> sql;
    put_commands(sql, commands);
    if (!sql.empty())
        pgk_stop(report, "identity", PGB_UNSENT, std::move(sql));
    return asked;
}

static outcome no_publication(pgk_report &report)
{
    const pgk_server &found = report.found;
    const pgb_options &options = report.options;
    const std::string missing = "publication \"" + report.server.publication + "\" is not there: ";
    if (options.create && options.minimal)
        return look_at_minimal_rights(report, missing);
    if (outcome looked = look_at_unsent(report); !looked)
        return looked;
    if (options.create && found.superuser)
        return {};
    std::vector<std::string> sql;
    outcome done = full_creation(report, sql);
    if (options.create)
        pgk_stop(report, "right",
                 missing + "only a superuser may make one of all tables, which role " + found.role +
                     " is not: let one start fwlog postgresql with --create --once, or run these, "
                     "all and in this order; without the first ones the server refuses updates and "
                     "deletes of tables without a usable identity",
                 std::move(sql));
    else
        pgk_stop(report, "publication",
                 missing + "start with --create, or let a superuser make it with these, all and in "
                           "this order, or name another with --publication",
                 std::move(sql));
    return done;
}

// Tables that the publication does not have.
static outcome look_at_others(pgk_report &report, bool via_root)
{
    pgs_server &server = report.server;
    pgs_result result;
    const std::string kinds =
        via_root ? "c.relkind IN ('r', 'p') AND NOT c.relispartition" : "c.relkind = 'r'";
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  "SELECT n.nspname, c.relname, format('%I.%I', n.nspname, c.relname)"
                  " FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace WHERE " +
                      kinds +
                      " AND c.relpersistence = 'p' AND c.oid >= 16384"
                      " AND (n.nspname, c.relname) NOT IN (SELECT schemaname, tablename"
                      " FROM " +
                      pgb_published + " p WHERE pubname = $1) ORDER BY 1, 2",
                  {server.publication.c_str()});
    std::vector<std::string> sql;
    for (int i = 0; asked && i < PQntuples(result.get()); i++)
        if (!feed_is_skipped(report.config,
                             fwu_source_name(pgs_value(result, i, 0), pgs_value(result, i, 1))))
            sql.push_back("ALTER PUBLICATION " + pgs_name(server.publication) + " ADD TABLE " +
                          std::string(pgs_value(result, i, 2)) + ";");
    if (!sql.empty())
        pgk_note(report, "publication",
                 "publication \"" + server.publication +
                     "\" does not have these tables, they are not followed:",
                 std::move(sql));
    return asked;
}

// Tables that --create=minimal leaves out.
static outcome look_at_unidentified(pgk_report &report)
{
    pgs_server &server = report.server;
    pgs_result result;
    outcome asked = pgs_query(
        server, server.sql.get(), result,
        std::string("WITH ") + pgb_all_tables +
            ", r AS (SELECT oid FROM t WHERE NOT is_part AND NOT " + pgb_identified_tables() +
            ") SELECT DISTINCT l.oid::regclass::text, " + pgb_identity_expression("l") +
            " FROM r"
            " LEFT JOIN LATERAL " +
            pgb_partition_tree("r.oid") +
            " m ON true"
            " JOIN t l ON l.oid = coalesce(m.relid, r.oid)"
            " WHERE NOT l.identified ORDER BY 1");
    std::vector<std::string> sql;
    for (int i = 0; asked && i < PQntuples(result.get()); i++)
        sql.push_back(std::string(pgs_value(result, i, 1)) + ";");
    if (!sql.empty())
        pgk_note(report, "identity",
                 "these tables have no usable identity, --create=minimal leaves them out; to have "
                 "them followed",
                 std::move(sql));
    return asked;
}

// A publication of all tables that was made without what --create makes before it.
static outcome look_at_later_tables(pgk_report &report)
{
    std::vector<std::string> commands;
    outcome asked = pgb_later_tables_commands(report.server, commands);
    std::vector<std::string> sql;
    put_commands(sql, commands);
    if (!sql.empty())
        pgk_note(
            report, "identity",
            "publication \"" + report.server.publication +
                "\" has all tables, also later ones, and nothing gives those without a "
                "primary key an identity: the server will refuse their updates and deletes, "
                "those of the application, too; a superuser makes what sees to them with these",
            std::move(sql));
    return asked;
}

static outcome look_at_publication(pgk_report &report)
{
    pgs_server &server = report.server;
    pgs_result result;
    // Members of later versions are asked for by name.
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  std::string("WITH t AS (SELECT c.* FROM ") + pgb_published +
                      " p JOIN pg_class c ON c.oid = p.relid WHERE p.pubname = $1)"
                      " SELECT p.puballtables, p.pubinsert, p.pubupdate, p.pubdelete,"
                      " (to_jsonb(p) ->> 'pubviaroot')::bool,"
                      " EXISTS (SELECT FROM t WHERE t.relispartition),"
                      " to_jsonb(p) ->> 'pubgencols' = 'n' AND EXISTS (SELECT FROM t"
                      " JOIN pg_attribute a ON a.attrelid = t.oid AND a.attgenerated = 's'"
                      " WHERE t.relreplident = 'f')"
                      " FROM pg_publication p WHERE p.pubname = $1",
                  {server.publication.c_str()});
    if (!asked)
        return asked;
    pgk_server &found = report.found;
    found.publication = PQntuples(result.get()) == 1;
    if (!found.publication) {
        outcome done = no_publication(report);
        if (done && report.options.create && report.options.minimal)
            done = look_at_unidentified(report);
        return done;
    }
    const std::string name = "publication \"" + server.publication + "\" ";
    const std::string alter = "ALTER PUBLICATION " + pgs_name(server.publication) + " SET (";
    found.updates = is_true(result, 0, 2) || is_true(result, 0, 3);
    if (!is_true(result, 0, 1) || !is_true(result, 0, 2) || !is_true(result, 0, 3))
        pgk_note(report, "publication", name + "leaves inserts, updates or deletes out",
                 {alter + "publish = 'insert, update, delete, truncate');"});
    if (pgs_value(result, 0, 4) == "f" && is_true(result, 0, 5))
        pgk_note(report, "publication",
                 name + "gives each partition as a table of its own; with this they come as their "
                        "parent's rows",
                 {alter + "publish_via_partition_root = true);"});
    if (is_true(result, 0, 6) && found.updates)
        pgk_note(report, "publication",
                 name + "lacks generated columns, and the server refuses updates and deletes of "
                        "tables that have some and whose whole rows are their identity",
                 {alter + "publish_generated_columns = stored);"});
    if (!is_true(result, 0, 0))
        return look_at_others(report, is_true(result, 0, 4));
    return found.updates ? look_at_later_tables(report) : outcome();
}

static outcome look_at_slot(pgk_report &report)
{
    pgs_server &server = report.server;
    const std::string name = "slot \"" + server.slot + "\" ";
    const std::string drop = "SELECT pg_drop_replication_slot(" + pgs_literal(server.slot) + ");";
    const pgb_options &options = report.options;
    const pgb_kept &kept = report.kept;
    if (kept.told_lsn != 0 && !kept.slot.empty() && kept.slot != server.slot && !options.accept_gap)
        pgk_stop(report, "slot",
                 "the log follows slot \"" + kept.slot + "\", not \"" + server.slot +
                     "\": name that one with --slot, or use another log directory");
    if (!report.found.slot) {
        if (kept.slot == server.slot && kept.told_lsn != 0 && !options.accept_gap)
            pgk_stop(report, "slot",
                     name + "is not there, and the log goes on from it: begin a new log directory "
                            "with --create --snapshot, or go on as it is with --create "
                            "--accept-gap");
        else if (!options.create)
            pgk_stop(report, "slot", name + "is not there: start with --create");
        return {};
    }
    pgs_result result;
    // Members of later versions are asked for by name.
    outcome asked = pgs_query(
        server, server.sql.get(), result,
        "SELECT s.plugin = 'pgoutput' AND s.database = current_database(), s.plugin, s.database,"
        " s.active_pid, to_jsonb(s) ->> 'wal_status' FROM pg_replication_slots s"
        " WHERE s.slot_name = $1",
        {server.slot.c_str()});
    if (!asked || PQntuples(result.get()) == 0)
        return asked;
    if (!is_true(result, 0, 0))
        pgk_stop(report, "slot",
                 name + "is one of plugin \"" + std::string(pgs_value(result, 0, 1)) +
                     "\" and database \"" + std::string(pgs_value(result, 0, 2)) +
                     "\", not of pgoutput and this database: name another with --slot");
    else if (!report.log_begun && kept.slot != server.slot && !options.accept_gap)
        pgk_stop(report, "slot",
                 name + "is there already, and the log directory knows nothing of it: drop it and "
                        "begin with --create --snapshot, name another with --slot, or go on from "
                        "where it stands with --accept-gap",
                 {drop});
    if (pgs_value(result, 0, 4) == "lost")
        pgk_stop(report, "slot",
                 name +
                     "is lost, the server has removed what it needs: drop it, and begin a new log "
                     "directory with --create --snapshot",
                 {drop});
    else if (!pgs_value(result, 0, 3).empty())
        pgk_stop(report, "slot",
                 name + "is used by process " + std::string(pgs_value(result, 0, 3)) +
                     ": end that one first, or name another slot with --slot");
    return {};
}

outcome pgk_look_at_server(pgk_report &report)
{
    outcome done = look_at_settings(report);
    if (done)
        done = look_at_replication(report);
    if (done)
        done = look_at_publication(report);
    if (done)
        done = look_at_slot(report);
    return done;
}
