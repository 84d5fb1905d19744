// Which tables are taken in, and when their next piece is read.
//
// A transaction is sent once its commit is in the server's log, a moment before others see it, with
// a synchronous standby long before.  Those that came since the tables are taken in are known by
// their numbers.  Of those before, each that others do not see yet holds the lock on its own
// number: they have to end before the first piece, unless it is clear that they have not committed.
#include "feed/postgresql/intake.h"

#include "feed/postgresql/connect.h"
#include "feed/postgresql/query.h"
#include "feed/table.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <cinttypes>

constexpr size_t TABLES_A_PIECE = 100;
constexpr int ANEW_MAX =
    3; // times that the server cannot compare keys; then they are not looked at
constexpr int64_t COMMIT_MS = 2000; // from a commit in the log until others see it, without standby
constexpr int64_t PAUSE_MIN_MS = 100; // between two attempts
constexpr int64_t PAUSE_MAX_MS = 2000;
constexpr int64_t PAUSES = 5; // at least so many times as long as an attempt took

void pgi_open(pgi_intake &intake)
{
    pgi_drop_piece(intake);
    pgi_drop_held(intake);
    intake.piece = {};
    intake.gathered.clear();
    intake.gathered_bytes = 0;
    intake.sides = nullptr;
    intake.passed.clear();
    intake.before.clear();
    intake.seen.clear();
    intake.judged = 0;
    intake.names.clear();
    intake.version = 0;
    intake.again_ms = 0;
}

void pgi_want_all(pgb_relations &relations, uint64_t last_lsn, bool replaces)
{
    for (const auto &[id, table] : relations.facts.tables) {
        if (table.name.empty() ||
            feed_is_skipped(*relations.tables.config, fwu_source_name(table.schema, table.name)))
            continue;
        pga_put(relations.aside, table.schema, table.name,
                {.standing = PGA_TAKING, .at = last_lsn, .replaces = replaces, .why = "snapshot"});
    }
}

// Brings names up to date.  True: some have come.
static bool look(pgi_intake &intake, const pga_registry &registry)
{
    if (intake.version == registry.version)
        return false;
    intake.version = registry.version;
    std::set<std::string> names;
    for (const auto &[name, table] : registry.tables)
        if (const pga_record *const record = pga_find(registry, name);
            record != nullptr && record->standing == PGA_TAKING)
            names.insert(name);
    const bool more =
        !std::includes(intake.names.begin(), intake.names.end(), names.begin(), names.end());
    intake.names = std::move(names);
    return more;
}

bool pgi_busy(pgi_intake &intake, const pga_registry &registry)
{
    // Those that have come are to be seen by pgi_pass.
    if (intake.version == registry.version)
        return !intake.names.empty();
    return std::any_of(registry.tables.begin(), registry.tables.end(), [&](const auto &table) {
        const pga_record *const record = pga_find(registry, table.first);
        return record != nullptr && record->standing == PGA_TAKING;
    });
}

int pgi_due_in(pgi_intake &intake, const pga_registry &registry)
{
    const bool held = pgi_holds(intake);
    if ((intake.in_hand && !held) || !pgi_busy(intake, registry))
        return -1;
    int64_t due = intake.in_hand ? INT64_MAX : intake.again_ms;
    if (held)
        due = std::min(due, intake.held.came == PGP_NOT_YET ? intake.held.again_ms
                                                            : intake.held.go_on_ms);
    return static_cast<int>(std::clamp<int64_t>(due - fwu_monotonic_ms(), 0, PAUSE_MAX_MS));
}

// Which transactions may have come in the stream, and are not seen by others yet.
static outcome look_before(pgi_intake &intake, pgs_server &server)
{
    pgs_result rows;
    outcome asked;
    if (server.sql == nullptr)
        asked = pgs_connect_sql(server);
    if (asked)
        asked =
            pgs_query(server, server.sql.get(), rows,
                      "SELECT l.transactionid, current_setting('synchronous_standby_names') <> ''"
                      " FROM pg_locks l WHERE l.locktype = 'transactionid' AND l.granted"
                      " AND l.mode = 'ExclusiveLock' AND l.pid IS DISTINCT FROM"
                      " pg_backend_pid() AND NOT EXISTS (SELECT FROM pg_stat_activity a"
                      " WHERE a.pid = l.pid AND a.state LIKE 'idle in transaction%')");
    if (!asked)
        return asked;
    bool standby = false;
    intake.before.clear();
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        uint32_t xid = 0;
        if (!pgs_number(xid, pgs_value(rows, i, 0)))
            return {OUTCOME_LOST, "the server gives \"" + std::string(pgs_value(rows, i, 0)) +
                                      "\" as a transaction's number"};
        intake.before.push_back(xid);
        standby = pgs_value(rows, i, 1) == "t";
    }
    intake.before_until_ms = standby ? 0 : fwu_monotonic_ms() + COMMIT_MS;
    return asked;
}

static std::string name_of(const pgp_want &want)
{
    return fwu_source_name(want.schema, want.table);
}

void pgi_wait_for(pgi_intake &intake, const pgi_place &on, int64_t since_ms, const std::string &why)
{
    const int64_t now = fwu_monotonic_ms();
    intake.again_ms = now + std::clamp(PAUSES * (now - since_ms), PAUSE_MIN_MS, PAUSE_MAX_MS);
    if (!intake.wants.empty())
        intake.turn = name_of(intake.wants.front());
    if (intake.told_ms == 0)
        intake.told_ms = now; // most waits are short
    if (why.empty() || now - intake.told_ms < on.server.timeout_ms)
        return;
    intake.told_ms = now;
    tell("taking in tables waits: %s", why.c_str());
}

static std::vector<pgp_want> next_wants(const pgi_intake &intake, const pga_registry &registry)
{
    std::vector<pgp_want> wants;
    auto name = intake.names.upper_bound(intake.turn);
    if (name == intake.names.end())
        name = intake.names.begin();
    for (size_t n = std::min(intake.names.size(), TABLES_A_PIECE); n > 0; n--) {
        const pga_table &table = registry.tables.at(*name);
        const pga_record &record = *pga_find(registry, *name);
        const auto holder = registry.holders.find(*name);
        const auto anew = intake.anew.find(*name);
        if (!pgi_holds(intake, table.schema, table.table) && !intake.held.waiting.contains(*name))
            wants.push_back({.schema = table.schema,
                             .table = table.table,
                             .key = record.key,
                             .reached = record.reached,
                             .id = holder == registry.holders.end() || record.reached.empty()
                                       ? 0
                                       : holder->second,
                             .shape = record.shape,
                             .whole = anew != intake.anew.end() && anew->second >= ANEW_MAX});
        if (++name == intake.names.end())
            name = intake.names.begin();
    }
    return wants;
}

// Everything in the piece is known not to be passed over any more.
static void take_piece(pgi_intake &intake, const pgi_place &on)
{
    pga_registry &registry = on.relations.aside;
    intake.in_hand = true;
    intake.told_ms = 0;
    intake.seen = intake.piece.snapshot;
    intake.judged = 0;
    intake.passed.clear();
    intake.before.clear();
    for (size_t i = 0; i < intake.piece.parts.size(); i++) {
        const pgp_part &part = intake.piece.parts[i];
        const pgp_want &want = intake.wants[part.want];
        const std::string name = name_of(want);
        if (pga_table *const table = pga_find_table(registry, name))
            table->estimate = part.estimate;
        // What was logged is no measure for what comes meanwhile; a table that was held is begun
        // anew though nothing was reached.
        const bool counts = part.refused.empty() && !part.gone;
        const pga_record *const record = pga_find(registry, name);
        const bool was_held = record != nullptr && record->reached.empty() && record->rows != 0;
        if (part.anew || (counts && was_held))
            pgi_begin_anew(intake, on.tx, registry, name);
        if (counts)
            intake.part_of[part.relation.id] = i;
        if (counts && !part.ends) // a table that does not come to its end holds up no other one
            intake.turn = name;
    }
    if (intake.piece.direct)
        pgi_hold(intake);
}

static outcome read_piece(pgi_intake &intake, const pgi_place &on)
{
    const int64_t now = fwu_monotonic_ms();
    if (intake.before_until_ms != 0 && now >= intake.before_until_ms)
        intake.before.clear();
    std::vector<uint32_t> passed = intake.passed;
    passed.insert(passed.end(), intake.before.begin(), intake.before.end());
    std::string later;
    intake.wants = next_wants(intake, on.relations.aside);
    if (intake.wants.empty()) { // all that is left waits for the table that is held
        intake.again_ms = now + PAUSE_MIN_MS;
        return {};
    }
    const bool converts = on.server.texts == nullptr;
    outcome done = pgp_read(intake.piece, on.server, intake.wants, passed, later,
                            {.direct = !pgi_holds(intake)});
    if (done && converts && on.server.texts != nullptr)
        return pgs_lost(on.server, later); // the stream's texts, too, are to come as they are
    if (!done)
        return done;
    for (const size_t left : intake.piece.left)
        intake.held.waiting.insert(name_of(intake.wants[left]));
    // Positions have to differ: nothing was written since the piece before.
    const bool stands = intake.piece.high <= fwu_writer_last_lsn(on.tx.writer) + PGI_BELOW_HIGH;
    if (intake.piece.parts.empty() || stands) {
        intake.piece = {};
        pgi_wait_for(intake, on, now, later);
        return {};
    }
    take_piece(intake, on);
    return {};
}

// Nothing is left: the connection would only keep the server from shutting down.
static outcome finish(pgi_intake &intake, const pgi_place &on)
{
    on.server.sql.reset();
    on.server.order.reset();
    pgb_kept &kept = on.state.kept;
    if (kept.snapshot != "taking")
        return {};
    kept.snapshot = "done";
    tell("snapshot at %s: %" PRIu64 " rows",
         fwu_lsn_text(fwu_writer_last_lsn(on.tx.writer)).c_str(), intake.rows);
    return pgb_kept_write(kept, true);
}

// A mark of the bridge's own may have come to the piece's place, or behind it, since it was read:
// then it is read again.
static outcome end_piece(pgi_intake &intake, const pgi_place &on)
{
    if (intake.piece.high > fwu_writer_last_lsn(on.tx.writer) + PGI_BELOW_HIGH)
        return pgi_log_piece(intake, on);
    pgi_drop_piece(intake);
    intake.piece = {};
    return {};
}

outcome pgi_pass(pgi_intake &intake, const pgi_place &on, uint64_t position)
{
    if (intake.in_hand && position >= intake.piece.high)
        if (outcome done = end_piece(intake, on); !done)
            return done;
    if (pgi_holds(intake))
        if (outcome done = pgi_pass_held(intake, on, position); !done)
            return done;
    if (intake.in_hand || fwu_monotonic_ms() < intake.again_ms)
        return {};
    const bool more = look(intake, on.relations.aside);
    if (intake.names.empty())
        return on.server.sql == nullptr && on.state.kept.snapshot != "taking" ? outcome()
                                                                              : finish(intake, on);
    if (more) {
        const int64_t now = fwu_monotonic_ms();
        outcome looked = look_before(intake, on.server);
        if (looked.kind() == OUTCOME_LOST) {
            on.server.sql.reset();
            intake.version = 0; // they have come all the same
            intake.names.clear();
            pgi_wait_for(intake, on, now, looked.text());
            return {};
        }
        if (!looked)
            return looked;
    }
    return read_piece(intake, on);
}
