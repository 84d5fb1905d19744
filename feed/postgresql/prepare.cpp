// The checks stand in the order in which they rest on each other: first whether it is the
// server at all, then what it has.  Nothing is made, and nothing noted as known of it,
// before what comes in front of it was found right.
#include "feed/postgresql/prepare.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/create.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/published.h"
#include "feed/postgresql/query.h"
#include "feed/table.h"
#include "feed/text.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <sstream>

constexpr int OLDEST_VERSION = 120000;

// What all the checks look at.
struct checks {
    pgs_server &server;
    pgb_state &state;
    pgb_kept &kept; // as it will be when all is found right
    const fwu_config &config;
    const pgb_options &options;
    const fwu_commit &last; // of the log
    std::string &gap;       // what --accept-gap has allowed; empty: nothing was wrong
};

static outcome refuse(const std::string &text)
{
    return outcome_failed("%s", text.c_str());
}

// Notes what is missing, and allowed to be.
static void accept_gap(const checks &on, const std::string &text)
{
    on.gap += (on.gap.empty() ? "" : "; ") + text;
}

// A server that was set back, or a standby that took over, begins a new timeline; the
// log has to end before the place where it left the one that the log knows.
static outcome check_timeline(const checks &on, uint32_t timeline)
{
    pgs_server &server = on.server;
    pgb_kept &kept = on.kept;
    const std::string now = std::to_string(timeline);
    const uint64_t last = on.last.lsn;
    const uint32_t before = last == 0 ? 0 : kept.timeline;
    if (before == 0 || before == timeline) {
        kept.timeline = timeline;
        return {};
    }
    pgs_result result;
    outcome asked; // the first one has no history, and an older one not this timeline
    if (timeline > before)
        asked = pgs_command(server, server.replication.get(), result, "TIMELINE_HISTORY " + now);
    if (!asked)
        return asked;
    // Lines "timeline, a tab, where it was left, a tab, why".
    std::istringstream history{
        std::string(result == nullptr ? std::string_view() : pgs_value(result, 0, 1))};
    for (std::string line; std::getline(history, line);) {
        const size_t tab = line.find('\t');
        uint32_t past = 0;
        if (tab == std::string::npos || !pgs_number(past, line.substr(0, tab)) || past != before)
            continue;
        uint64_t left = 0;
        if (!fwu_lsn_parse(left, line.substr(tab + 1, line.find('\t', tab + 1) - tab - 1)) ||
            last >= left)
            break;
        // Beyond that place the old timeline had nothing for the log.
        kept.told_lsn = std::min(kept.told_lsn, left);
        kept.timeline = timeline;
        return {};
    }
    const std::string text = "the server's timeline " + now + " has left timeline " +
                             std::to_string(before) + " before the log's end, " +
                             fwu_lsn_text(last);
    if (on.options.accept_gap) {
        accept_gap(on, text);
        kept.timeline = timeline;
        return {};
    }
    return refuse(text + ": it lacks transactions that the log has; begin a new log directory with "
                         "--create --snapshot, or go on as it is with --accept-gap");
}

static outcome check_system(const checks &on, pgb_found &found)
{
    pgs_server &server = on.server;
    pgb_kept &kept = on.kept;
    const int version = PQserverVersion(server.sql.get());
    if (version < OLDEST_VERSION)
        return refuse("the server is PostgreSQL " + std::to_string(version / 10000) +
                      "; version 12 or later is needed");
    pgs_result result;
    if (outcome asked = pgs_command(server, server.replication.get(), result, "IDENTIFY_SYSTEM");
        !asked)
        return asked;
    const std::string system(pgs_value(result, 0, 0));
    const std::string database(pgs_value(result, 0, 3));
    uint64_t now = 0;
    uint64_t number = 0;
    uint32_t timeline = 0;
    if (!pgs_number(number, system) || !fwu_lsn_parse(now, pgs_value(result, 0, 2)) ||
        !pgs_number(timeline, pgs_value(result, 0, 1)) || database.empty())
        return refuse("the server's answer to IDENTIFY_SYSTEM holds no system identifier, "
                      "timeline, position and database: " +
                      feed_quote(system) + ", " + feed_quote(pgs_value(result, 0, 1)) + ", " +
                      feed_quote(pgs_value(result, 0, 2)) + ", " + feed_quote(database) +
                      "; is it a PostgreSQL server?");
    on.state.system = system;
    on.state.database = database;
    const bool log_begun = on.last.lsn != 0 || kept.told_lsn != 0 || kept.snapshot != "none";
    if (log_begun && !kept.system.empty() && (kept.system != system || kept.database != database))
        return refuse("the log belongs to database \"" + kept.database + "\" of server system " +
                      kept.system + ", this is database \"" + database + "\" of " + system +
                      "; use another log directory for it (" + kept.path + " tells)");
    if (outcome checked = check_timeline(on, timeline); !checked)
        return checked;
    const uint64_t known = std::max(on.last.lsn, kept.told_lsn);
    if (known > now)
        return refuse("the log goes up to " + fwu_lsn_text(known) + ", the server only to " +
                      fwu_lsn_text(now) +
                      ": it is another server, or was set back to an older state; begin a new log "
                      "directory with --create --snapshot");
    kept.system = system;
    kept.database = database;
    on.state.server_lsn = now;
    found.server_end = now;
    return {};
}

// Tables whose old rows the server would not send although they are needed, of the publication
// or, before that is made, of all that it may have but those that will send them then.  They are
// an error as long as nothing was logged, and a warning later.
static outcome check_identities(const checks &on, bool refuses, bool before_creation = false)
{
    pgs_server &server = on.server;
    pgs_result result;
    const std::string of_all = "SELECT t.schema, t.name, t.oid FROM t WHERE NOT t.is_part AND "
                               "t.identified";
    const std::string of_publication =
        std::string("SELECT q.schemaname, q.tablename, q.relid FROM pg_publication b JOIN ") +
        pgb_published +
        " q ON q.publication = b.oid WHERE b.pubname = " + pgs_literal(server.publication) +
        " AND (b.pubupdate OR b.pubdelete)";
    outcome asked = pgs_query(
        server, server.sql.get(), result,
        std::string("WITH ") + pgb_all_tables + ", w (schema, name, oid) AS (" +
            (before_creation ? of_all : of_publication) +
            ") SELECT DISTINCT w.schema, w.name, l.oid::regclass::text FROM w"
            " LEFT JOIN LATERAL " +
            pgb_partition_tree("w.oid") +
            " m ON true"
            " JOIN t l ON l.oid = coalesce(m.relid, w.oid) JOIN pg_class k ON k.oid = l.oid"
            " WHERE k.relreplident <> 'f'" +
            (before_creation ? " AND l.identified" : "") + " ORDER BY 1, 2, 3");
    if (!asked)
        return asked;
    std::string text;
    for (int i = 0; i < PQntuples(result.get()); i++)
        if (pgb_needs_whole_rows(on.config, std::string(pgs_value(result, i, 0)),
                                 std::string(pgs_value(result, i, 1))))
            text += "\n  " + pgb_identity_command(std::string(pgs_value(result, i, 2))) + ";";
    if (text.empty())
        return {};
    const std::string message =
        "the server does not send the old rows of these tables; let it do so, leave the tables "
        "out with skip-table, or mark what is not known with values mark:" +
        text;
    if (refuses)
        return refuse(message);
    tell("warning: %s", message.c_str());
    return {};
}

static outcome check_publication(const checks &on)
{
    pgs_server &server = on.server;
    pgs_result result;
    outcome done =
        pgs_query(server, server.sql.get(), result,
                  "SELECT 1 FROM pg_publication WHERE pubname = $1", {server.publication.c_str()});
    if (!done || PQntuples(result.get()) == 1)
        return done;
    if (!on.options.create)
        return refuse("publication \"" + server.publication +
                      "\" is not there; make it with --create, or CREATE PUBLICATION ..., or name "
                      "another with --publication");
    done = check_identities(on, true, true);
    if (done)
        done = pgb_create_publication(server, on.options.minimal);
    return done;
}

// What the log is to begin with is on disk before the slot is there.
static outcome create_slot(const checks &on)
{
    pgs_server &server = on.server;
    pgb_state &state = on.state;
    pgb_kept &kept = on.kept;
    const bool snapshot = on.options.snapshot && on.last.lsn == 0;
    pgs_result result;
    pgs_result end;
    outcome done = check_identities(on, true);
    if (!done)
        return done;
    const pgb_kept before = state.kept;
    kept.slot = server.slot;
    kept.snapshot = snapshot ? "begun" : "none";
    done = pgb_kept_write(kept, true);
    state.kept = kept;
    bool perhaps = false; // the slot is there, even when no answer comes
    if (done) {
        const std::string command = "CREATE_REPLICATION_SLOT " + pgs_name(server.slot) +
                                    " LOGICAL pgoutput NOEXPORT_SNAPSHOT";
        pgb_tell_statement(command);
        server.refused = false;
        done = pgs_command(server, server.replication.get(), result, command);
        perhaps = !server.refused;
    }
    if (done.kind() == OUTCOME_FAILED && !perhaps) {
        state.kept = before;
        (void)pgb_kept_write(before, true); // told
    }
    if (!done)
        return done;
    uint64_t lsn = 0;
    if (!fwu_lsn_parse(lsn, pgs_value(result, 0, 1)))
        return refuse("the server's answer to CREATE_REPLICATION_SLOT holds no position: " +
                      feed_quote(pgs_value(result, 0, 1)));
    // What was written since IDENTIFY_SYSTEM counts, too.
    done = pgs_query(server, server.sql.get(), end, pgs_lsn_query);
    if (!done)
        return done;
    (void)fwu_lsn_parse(state.server_lsn, pgs_value(end, 0, 0)); // else it stays
    if (lsn == 0 || lsn > state.server_lsn)
        return refuse("the server's answer to CREATE_REPLICATION_SLOT holds the position " +
                      fwu_lsn_text(lsn) + ", its log goes from above 0/0 up to " +
                      fwu_lsn_text(state.server_lsn) + "; is it a PostgreSQL server?");
    tell("slot \"%s\" created, it begins at %s", server.slot.c_str(), fwu_lsn_text(lsn).c_str());
    kept.told_lsn = lsn;
    return {};
}

static outcome slot_is_missing(const checks &on)
{
    const std::string slot = "slot \"" + on.server.slot + "\" is not there";
    const pgb_options &options = on.options;
    const uint64_t last = on.last.lsn;
    const uint64_t known = std::max(last, on.kept.told_lsn);
    const bool begins = known == 0 || (last == 0 && options.create && options.snapshot);
    if (!begins && !options.accept_gap)
        return refuse(slot + ", and the log goes up to " + fwu_lsn_text(known) +
                      ": what was changed since cannot be had any more; begin a new log directory "
                      "with --create --snapshot, or go on as it is with --create --accept-gap");
    if (!on.options.create)
        return refuse(slot + "; make it with --create, or name another with --slot");
    if (!begins)
        accept_gap(on, slot);
    return create_slot(on);
}

// Compares the position that the slot has with what the log and its state know.
static outcome check_position(const checks &on, pgb_found &found, uint64_t confirmed)
{
    pgb_kept &kept = on.kept;
    const fwu_commit &last = on.last;
    if (last.lsn == 0 && kept.slot != on.server.slot)
        accept_gap(on, "slot \"" + on.server.slot +
                           "\" was there before the log, and what it gave to others is missing");
    if (last.lsn == 0 && kept.told_lsn == 0)
        kept.told_lsn = confirmed; // the log begins here
    const uint64_t known = std::max(last.lsn, kept.told_lsn);
    if (confirmed > known && !on.options.accept_gap)
        return refuse("slot \"" + on.server.slot + "\" stands at " + fwu_lsn_text(confirmed) +
                      ", the log goes up to " + fwu_lsn_text(known) + " only as far as " +
                      kept.path +
                      " tells: somebody else has used the slot or made it anew, and what was "
                      "changed between is missing; begin a new log directory with --create "
                      "--snapshot, or go on as it is with --accept-gap");
    if (confirmed > known)
        accept_gap(on, "slot \"" + on.server.slot + "\" stands at " + fwu_lsn_text(confirmed) +
                           ", the log goes up to " + fwu_lsn_text(known) + " only");
    kept.told_lsn = std::max(known, confirmed);
    kept.slot = on.server.slot;
    found.expects_sent = confirmed <= found.sent.lsn && found.sent.xid != 0;
    return {};
}

// The slot that the log is to follow no more keeps what the server writes until someone drops it.
static outcome tell_slot_is_left(const checks &on, const std::string &slot)
{
    pgs_server &server = on.server;
    pgs_result result;
    outcome asked = pgs_query(server, server.sql.get(), result,
                              "SELECT FROM pg_replication_slots WHERE slot_name = $1"
                              " AND database = current_database()",
                              {slot.c_str()});
    if (asked && PQntuples(result.get()) != 0)
        tell(
            "warning: the log follows slot \"%s\" no more, which stays on the server and keeps all "
            "that is written there until the disk is full; unless somebody else uses it, drop it: "
            "SELECT pg_drop_replication_slot(%s)",
            slot.c_str(), pgs_literal(slot).c_str());
    return asked;
}

// The log follows one slot; what another one gives may have a gap, and belongs to others.
static outcome check_slot_is_the_logs(const checks &on)
{
    pgb_kept &kept = on.kept;
    const std::string &slot = on.server.slot;
    if (kept.slot == slot)
        return {};
    const bool log_begun = on.last.lsn != 0 || kept.told_lsn != 0;
    if (log_begun && !kept.slot.empty() && !on.options.accept_gap)
        return refuse("the log follows slot \"" + kept.slot + "\", not \"" + slot +
                      "\": name that one with --slot " + kept.slot +
                      ", use another log directory for this one, or go on as it is with "
                      "--accept-gap (" +
                      kept.path + " tells)");
    kept.snapshot = "none";
    kept.told_lsn = 0;
    return {};
}

// Of a slot that the log has never heard of nobody knows what it gave before, and to whom.
static outcome check_slot_is_known(const checks &on)
{
    const std::string &slot = on.server.slot;
    if (on.last.lsn != 0 || on.kept.slot == slot || on.options.accept_gap)
        return {};
    return refuse("slot \"" + slot +
                  "\" is there already, and the log directory knows nothing of it: what it gave "
                  "to others is missing here; drop it (SELECT pg_drop_replication_slot(" +
                  pgs_literal(slot) +
                  ")) and begin with --create --snapshot, name another with --slot, or go on from "
                  "where it stands with --accept-gap");
}

static outcome ask_slot(const checks &on, pgs_result &result)
{
    pgs_server &server = on.server;
    return pgs_query(server, server.sql.get(), result,
                     "SELECT plugin, database, current_database(), confirmed_flush_lsn"
                     " FROM pg_replication_slots WHERE slot_name = $1",
                     {server.slot.c_str()});
}

// Before anything is made: whether it could be followed at all.
static outcome check_slot_may_be_used(const checks &on)
{
    if (outcome checked = check_slot_is_the_logs(on); !checked)
        return checked;
    pgs_result result;
    outcome done = ask_slot(on, result);
    if (!done || PQntuples(result.get()) == 0)
        return done;
    const std::string slot = "slot \"" + on.server.slot + "\"";
    if (pgs_value(result, 0, 0) != "pgoutput" || pgs_value(result, 0, 1) != pgs_value(result, 0, 2))
        return refuse(slot + " is one of plugin \"" + std::string(pgs_value(result, 0, 0)) +
                      "\" and database \"" + std::string(pgs_value(result, 0, 1)) +
                      "\", not of pgoutput and this database; name another with --slot");
    return check_slot_is_known(on);
}

static outcome check_slot(const checks &on, pgb_found &found)
{
    pgs_result result;
    outcome done = ask_slot(on, result);
    if (!done)
        return done;
    if (PQntuples(result.get()) == 0)
        return slot_is_missing(on);
    if (on.last.lsn == 0 && on.options.snapshot && on.kept.snapshot == "none")
        on.kept.snapshot = "begun";
    uint64_t confirmed = 0;
    const std::string_view position = pgs_value(result, 0, 3); // none: it was never used
    if (!position.empty() && !fwu_lsn_parse(confirmed, position))
        return refuse("slot \"" + on.server.slot + "\" stands at " + feed_quote(position) +
                      ", which is no position");
    done = check_position(on, found, confirmed);
    if (done)
        done = check_identities(on, false);
    return done;
}

static outcome check_slot_and_leave(const checks &on, pgb_found &found)
{
    const std::string before = on.kept.slot;
    outcome done = check_slot(on, found);
    if (done && !before.empty() && before != on.server.slot)
        done = tell_slot_is_left(on, before);
    return done;
}

static outcome check_role(pgs_server &server)
{
    pgs_result result;
    outcome asked = pgs_query(server, server.sql.get(), result, "SELECT pg_is_in_recovery()");
    if (!asked || pgs_value(result, 0, 0) != "t")
        return asked;
    return pgs_lost(server, "the server is a standby that has not taken over");
}

outcome pgb_prepare(pgb_found &found, pgs_server &server, pgb_state &state,
                    const fwu_config &config, const pgb_options &options, const fwu_commit &last)
{
    pgb_kept kept = state.kept;
    std::string gap;
    const checks on = {.server = server,
                       .state = state,
                       .kept = kept,
                       .config = config,
                       .options = options,
                       .last = last,
                       .gap = gap};
    outcome done = check_role(server);
    if (done)
        done = check_system(on, found);
    if (done)
        done = check_slot_may_be_used(on);
    if (done)
        done = check_publication(on);
    if (done)
        done = check_slot_and_leave(on, found);
    if (done && !gap.empty()) {
        found.expects_sent = false; // the log ends with something else
        done = found.log_gap(gap, last.lsn == 0 && kept.snapshot != "begun" ? kept.told_lsn : 0);
    }
    if (done)
        done = pgb_kept_write(kept, true);
    if (done)
        state.kept = std::move(kept);
    return done;
}
