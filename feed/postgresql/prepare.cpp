// Before the stream: is it the server that the log belongs to, is there a
// publication, and does the slot go on where the log ends?
#include "feed/lsn.h"
#include "feed/postgresql/bridge.h"
#include "feed/text.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

constexpr int OLDEST_VERSION = 120000;
constexpr int VERSION_WITH_PARTITION_ROOT = 130000;

static pgs_outcome refuse(const std::string &text)
{
    fprintf(stderr, "fwlog: %s\n", text.c_str());
    return PGS_REFUSED;
}

// A server that was set back, or a standby that took over, begins a new timeline; the
// log has to end before the place where it left the one that the log knows.
static pgs_outcome check_timeline(pgb_bridge &bridge, uint32_t timeline)
{
    pgs_server &server = bridge.server;
    pgb_state &state = bridge.state;
    const std::string now = std::to_string(timeline);
    const uint64_t last = fwu_writer_last_lsn(bridge.tx.writer);
    const uint32_t before = last == 0 ? 0 : state.timeline;
    if (before == 0 || before == timeline || bridge.options.accept_gap) {
        state.timeline = timeline;
        return PGS_OK;
    }
    pgs_result result;
    const pgs_outcome outcome =
        pgs_command(server, server.replication.get(), result, "TIMELINE_HISTORY " + now);
    if (outcome != PGS_OK)
        return outcome;
    // Lines "timeline, a tab, where it was left, a tab, why".
    std::istringstream history{std::string(pgs_value(result, 0, 1))};
    for (std::string line; std::getline(history, line);) {
        const size_t tab = line.find('\t');
        uint32_t past = 0;
        if (tab == std::string::npos || !pgs_number(past, line.substr(0, tab)) || past != before)
            continue;
        uint64_t left = 0;
        if (!feed_lsn_parse(left, line.substr(tab + 1, line.find('\t', tab + 1) - tab - 1)) ||
            last >= left)
            break;
        // Beyond that place the old timeline had nothing for the log.
        state.told_lsn = std::min(state.told_lsn, left);
        state.timeline = timeline;
        return PGS_OK;
    }
    return refuse("the server's timeline " + now + " has left timeline " + std::to_string(before) +
                  " before the log's end, " + feed_lsn_text(last) +
                  ": it lacks transactions that the log has; begin a new log directory with "
                  "--create --snapshot, or go on as it is with --accept-gap");
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
    uint64_t number = 0;
    uint32_t timeline = 0;
    if (!pgs_number(number, system) || !feed_lsn_parse(now, pgs_value(result, 0, 2)) ||
        !pgs_number(timeline, pgs_value(result, 0, 1)))
        return refuse("the server's answer to IDENTIFY_SYSTEM holds no system identifier, timeline "
                      "and position: " +
                      feed_quote(system) + ", " + feed_quote(pgs_value(result, 0, 1)) + ", " +
                      feed_quote(pgs_value(result, 0, 2)) + "; is it a PostgreSQL server?");
    const bool log_begun = fwu_writer_last_lsn(bridge.tx.writer) != 0 || state.told_lsn != 0 ||
                           state.snapshot != "none";
    if (log_begun && !state.system.empty() &&
        (state.system != system || state.database != database))
        return refuse("the log belongs to database \"" + state.database + "\" of server system " +
                      state.system + ", this is database \"" + database + "\" of " + system +
                      "; use another log directory for it (" + state.path + " tells)");
    const pgs_outcome checked = check_timeline(bridge, timeline);
    if (checked != PGS_OK)
        return checked;
    const uint64_t last = fwu_writer_last_lsn(bridge.tx.writer);
    const uint64_t known = std::max(last, state.told_lsn);
    if (known > now)
        return refuse("the log goes up to " + feed_lsn_text(known) + ", the server only to " +
                      feed_lsn_text(now) +
                      ": it is another server, or was set back to an older state; begin a new log "
                      "directory with --create --snapshot");
    state.system = system;
    state.database = database;
    state.server_lsn = now;
    if (bridge.options.once && bridge.stop_at == 0)
        bridge.stop_at = now;
    return PGS_OK;
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
        if (feed_is_skipped(bridge.config, std::string(pgs_value(result, i, 0))))
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
    // Updates of a table without identity fail once it is published: it is looked at
    // before that counts.
    outcome = pgs_command(server, server.sql.get(), result, "BEGIN");
    if (outcome == PGS_OK)
        outcome = pgs_command(server, server.sql.get(), result, command);
    if (outcome == PGS_OK)
        outcome = check_identities(bridge, true);
    if (outcome == PGS_OK)
        outcome = pgs_command(server, server.sql.get(), result, "COMMIT");
    if (outcome == PGS_OK)
        fprintf(stderr, "fwlog: publication \"%s\" of all tables created\n",
                server.publication.c_str());
    return outcome;
}

// A snapshot that failed leaves no slot that would keep the server's log; a lost
// connection leaves it to the next attempt.
static pgs_outcome give_up_slot(pgb_bridge &bridge, pgs_outcome why)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    if (why == PGS_LOST || pgs_command(server, server.replication.get(), result,
                                       "DROP_REPLICATION_SLOT " + pgs_name(server.slot)) != PGS_OK)
        return why;
    bridge.state.snapshot = "none";
    bridge.state.told_lsn = 0;
    return why;
}

// Makes the slot, and takes the snapshot that it begins with.
static pgs_outcome create_slot(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    const bool snapshot = bridge.options.snapshot && fwu_writer_last_lsn(bridge.tx.writer) == 0;
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
    if (!feed_lsn_parse(lsn, pgs_value(result, 0, 1)))
        return refuse("the server's answer to CREATE_REPLICATION_SLOT holds no position: " +
                      feed_quote(pgs_value(result, 0, 1)));
    // What was written since IDENTIFY_SYSTEM counts, too.
    pgs_server_lsn(server, bridge.state.server_lsn);
    if (lsn == 0 || lsn > bridge.state.server_lsn)
        return refuse("the server's answer to CREATE_REPLICATION_SLOT holds the position " +
                      feed_lsn_text(lsn) + ", its log goes from above 0/0 up to " +
                      feed_lsn_text(bridge.state.server_lsn) + "; is it a PostgreSQL server?");
    fprintf(stderr, "fwlog: slot \"%s\" created, it begins at %s\n", server.slot.c_str(),
            feed_lsn_text(lsn).c_str());
    bridge.state.told_lsn = lsn;
    if (snapshot) {
        outcome = pgb_take_snapshot(bridge, std::string(pgs_value(result, 0, 2)), lsn);
        if (outcome != PGS_OK)
            return give_up_slot(bridge, outcome);
        bridge.state.snapshot = "done";
    }
    return pgb_state_write(bridge.state, true) ? PGS_OK : PGS_REFUSED;
}

static pgs_outcome slot_is_missing(pgb_bridge &bridge)
{
    const std::string slot = "slot \"" + bridge.server.slot + "\" is not there";
    const pgb_options &options = bridge.options;
    const uint64_t last = fwu_writer_last_lsn(bridge.tx.writer);
    const uint64_t known = std::max(last, bridge.state.told_lsn);
    const bool begins = known == 0 || (last == 0 && options.create && options.snapshot);
    if (!begins && !options.accept_gap)
        return refuse(slot + ", and the log goes up to " + feed_lsn_text(known) +
                      ": what was changed since cannot be had any more; begin a new log directory "
                      "with --create --snapshot, or go on as it is with --create --accept-gap");
    if (!bridge.options.create)
        return refuse(slot + "; make it with --create, or name another with --slot");
    return create_slot(bridge);
}

// Compares the position that the slot has with what the log and its state know.
static pgs_outcome check_position(pgb_bridge &bridge, uint64_t confirmed)
{
    pgb_state &state = bridge.state;
    const fwu_commit &last = fwu_writer_last_commit(bridge.tx.writer);
    if (last.lsn == 0 && state.told_lsn == 0)
        state.told_lsn = confirmed; // the log begins here
    const uint64_t known = std::max(last.lsn, state.told_lsn);
    if (confirmed > known && !bridge.options.accept_gap)
        return refuse("slot \"" + bridge.server.slot + "\" stands at " + feed_lsn_text(confirmed) +
                      ", the log goes up to " + feed_lsn_text(known) + " only as far as " +
                      state.path +
                      " tells: somebody else has used the slot or made it anew, and what was "
                      "changed between is missing; begin a new log directory with --create "
                      "--snapshot, or go on as it is with --accept-gap");
    state.told_lsn = std::max(known, confirmed);
    // What is sent first must then be the last transaction that the log has.
    bridge.expects_last = confirmed <= last.lsn && last.xid != 0 && !bridge.options.accept_gap;
    return PGS_OK;
}

static pgs_outcome check_slot(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result,
                  "SELECT plugin, database, current_database(), confirmed_flush_lsn"
                  " FROM pg_replication_slots"
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
        if (!bridge.options.create || !bridge.options.snapshot)
            return refuse("the snapshot of " + slot +
                          " was cut short; give --create and --snapshot to take it anew");
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
    uint64_t confirmed = 0;
    const std::string_view position = pgs_value(result, 0, 3); // none: it was never used
    if (!position.empty() && !feed_lsn_parse(confirmed, position))
        return refuse(slot + " stands at " + feed_quote(position) + ", which is no position");
    outcome = check_position(bridge, confirmed);
    return outcome == PGS_OK ? check_identities(bridge, false) : outcome;
}

static pgs_outcome check_role(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    pgs_result result;
    const pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result, "SELECT pg_is_in_recovery()");
    if (outcome != PGS_OK || pgs_value(result, 0, 0) != "t")
        return outcome;
    server.lost = "the server is a standby that has not taken over";
    server.slot_in_use = false;
    return PGS_LOST;
}

pgs_outcome pgb_prepare(pgb_bridge &bridge)
{
    pgs_outcome outcome = check_role(bridge);
    if (outcome == PGS_OK)
        outcome = check_system(bridge);
    if (outcome == PGS_OK)
        outcome = check_publication(bridge);
    if (outcome == PGS_OK)
        outcome = check_slot(bridge);
    return outcome;
}
