// Before the stream: is it the server that the log belongs to, is there a
// publication, and does the slot go on where the log ends?
#include "tools/pg_lsn.h"
#include "tools/postgresql/bridge.h"

#include <cstdio>

constexpr int OLDEST_VERSION = 120000;
constexpr int VERSION_WITH_PARTITION_ROOT = 130000;

static pgs_outcome refuse(const std::string &text)
{
    fprintf(stderr, "fwlog: %s\n", text.c_str());
    return PGS_REFUSED;
}

static pgs_outcome check_system(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    pgb_state &state = bridge.state;
    const int version = PQserverVersion(server.sql.get());
    if (version < OLDEST_VERSION)
        return refuse("the server is PostgreSQL " + std::to_string(version / 10000) +
                      "; version 12 or later is needed");
    pgs_result result;
    const pgs_outcome outcome =
        pgs_command(server, server.replication.get(), result, "IDENTIFY_SYSTEM");
    if (outcome != PGS_OK)
        return outcome;
    const std::string system(pgs_value(result, 0, 0));
    const std::string database(pgs_value(result, 0, 3));
    uint64_t now = 0;
    if (!pgl_parse(now, pgs_value(result, 0, 2)))
        return refuse("the server's answer to IDENTIFY_SYSTEM holds no position");
    if (!state.system.empty() && (state.system != system || state.database != database))
        return refuse("the log belongs to database \"" + state.database + "\" of server system " +
                      state.system + ", this is database \"" + database + "\" of " + system +
                      "; use another log directory for it (" + state.path + " tells)");
    const uint64_t last = fwu_writer_last_lsn(bridge.tx.writer);
    if (last > now)
        return refuse("the log goes up to " + pgl_text(last) + ", the server only to " +
                      pgl_text(now) +
                      ": it is another server, or was set back to an older state; begin a new log "
                      "directory with --create --snapshot");
    state.system = system;
    state.database = database;
    state.server_lsn = now;
    if (bridge.options.once && bridge.stop_at == 0)
        bridge.stop_at = now;
    return PGS_OK;
}

static pgs_outcome check_publication(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result,
                  "SELECT 1 FROM pg_publication WHERE pubname = $1", {server.publication.c_str()});
    if (outcome != PGS_OK || PQntuples(result.get()) == 1)
        return outcome;
    if (!bridge.options.create)
        return refuse("publication \"" + server.publication +
                      "\" is not there; make it with --create, or CREATE PUBLICATION ..., or name "
                      "another with --publication");
    std::string command = "CREATE PUBLICATION " + pgs_name(server.publication) + " FOR ALL TABLES";
    if (PQserverVersion(server.sql.get()) >= VERSION_WITH_PARTITION_ROOT)
        command += " WITH (publish_via_partition_root = true)";
    outcome = pgs_command(server, server.sql.get(), result, command);
    if (outcome == PGS_OK)
        fprintf(stderr, "fwlog: publication \"%s\" of all tables created\n",
                server.publication.c_str());
    return outcome;
}

// Tables whose old rows the server would not send.  They are an error as long as
// nothing was logged, and a warning later.
static pgs_outcome check_identities(pgb_bridge &bridge, bool refuses)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    const pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result,
                  "SELECT DISTINCT p.schemaname || '.' || p.tablename, l.oid::regclass::text"
                  " FROM pg_publication b JOIN pg_publication_tables p ON p.pubname = b.pubname"
                  " JOIN pg_namespace n ON n.nspname = p.schemaname"
                  " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = p.tablename"
                  " LEFT JOIN LATERAL pg_partition_tree(c.oid) t ON c.relkind = 'p'"
                  " JOIN pg_class l ON l.oid = coalesce(t.relid, c.oid)"
                  " WHERE b.pubname = $1 AND (b.pubupdate OR b.pubdelete)"
                  " AND l.relkind = 'r' AND l.relreplident <> 'f' ORDER BY 1, 2",
                  {server.publication.c_str()});
    if (outcome != PGS_OK)
        return outcome;
    std::string text;
    for (int i = 0; i < PQntuples(result.get()); i++) {
        if (pgt_is_skipped(bridge.config, std::string(pgs_value(result, i, 0))))
            continue;
        text +=
            "\n  ALTER TABLE " + std::string(pgs_value(result, i, 1)) + " REPLICA IDENTITY FULL;";
    }
    if (text.empty())
        return PGS_OK;
    fprintf(stderr,
            "fwlog: %sthe server does not send the old rows of these tables; let it do so, or "
            "leave the tables out with skip-table:%s\n",
            refuses ? "" : "warning: ", text.c_str());
    return refuses ? PGS_REFUSED : PGS_OK;
}

// Makes the slot, and takes the snapshot that it begins with.
static pgs_outcome create_slot(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    const bool snapshot = bridge.options.snapshot;
    pgs_outcome outcome = check_identities(bridge, true);
    if (outcome != PGS_OK)
        return outcome;
    bridge.state.snapshot = snapshot ? "begun" : "none";
    if (!pgb_state_write(bridge.state, true))
        return PGS_REFUSED;
    pgs_result result;
    outcome =
        pgs_command(server, server.replication.get(), result,
                    "CREATE_REPLICATION_SLOT " + pgs_name(server.slot) + " LOGICAL pgoutput " +
                        (snapshot ? "EXPORT_SNAPSHOT" : "NOEXPORT_SNAPSHOT"));
    if (outcome != PGS_OK)
        return outcome;
    uint64_t lsn = 0;
    if (!pgl_parse(lsn, pgs_value(result, 0, 1)))
        return refuse("the server's answer to CREATE_REPLICATION_SLOT holds no position");
    fprintf(stderr, "fwlog: slot \"%s\" created, it begins at %s\n", server.slot.c_str(),
            pgl_text(lsn).c_str());
    if (!snapshot)
        return PGS_OK;
    outcome = pgb_take_snapshot(bridge, std::string(pgs_value(result, 0, 2)), lsn);
    if (outcome != PGS_OK)
        return outcome;
    bridge.state.snapshot = "done";
    return pgb_state_write(bridge.state, true) ? PGS_OK : PGS_REFUSED;
}

static pgs_outcome slot_is_missing(pgb_bridge &bridge)
{
    const std::string slot = "slot \"" + bridge.server.slot + "\" is not there";
    const uint64_t last = fwu_writer_last_lsn(bridge.tx.writer);
    if (last != 0)
        return refuse(slot + ", and the log goes up to " + pgl_text(last) +
                      ": what was changed since cannot be had any more; begin a new log directory "
                      "with --create --snapshot");
    if (!bridge.options.create)
        return refuse(slot + "; make it with --create, or name another with --slot");
    return create_slot(bridge);
}

static pgs_outcome check_slot(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result,
                  "SELECT plugin, database, current_database() FROM pg_replication_slots"
                  " WHERE slot_name = $1",
                  {server.slot.c_str()});
    if (outcome != PGS_OK)
        return outcome;
    if (PQntuples(result.get()) == 0)
        return slot_is_missing(bridge);
    const std::string slot = "slot \"" + server.slot + "\"";
    if (pgs_value(result, 0, 0) != "pgoutput" || pgs_value(result, 0, 1) != pgs_value(result, 0, 2))
        return refuse(slot + " is one of plugin \"" + std::string(pgs_value(result, 0, 0)) +
                      "\" and database \"" + std::string(pgs_value(result, 0, 1)) +
                      "\", not of pgoutput and this database; name another with --slot");
    const bool nothing_logged = fwu_writer_last_lsn(bridge.tx.writer) == 0;
    if (nothing_logged && bridge.state.snapshot == "begun") {
        fprintf(stderr, "fwlog: the snapshot of %s was cut short: it is taken anew\n",
                slot.c_str());
        outcome = pgs_query(server, server.sql.get(), result, "SELECT pg_drop_replication_slot($1)",
                            {server.slot.c_str()});
        return outcome == PGS_OK ? slot_is_missing(bridge) : outcome;
    }
    if (nothing_logged && bridge.options.snapshot && bridge.state.snapshot != "done")
        return refuse(slot +
                      " is there already, and a snapshot can only be taken when the slot is "
                      "made; drop it (SELECT pg_drop_replication_slot('" +
                      server.slot + "')), or leave --snapshot out");
    return check_identities(bridge, false);
}

pgs_outcome pgb_prepare(pgb_bridge &bridge)
{
    pgs_outcome outcome = check_system(bridge);
    if (outcome == PGS_OK)
        outcome = check_publication(bridge);
    if (outcome == PGS_OK)
        outcome = check_slot(bridge);
    return outcome;
}
