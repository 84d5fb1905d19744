// A piece is read at one go, so that the stream waits for a moment only: what would take longer,
// or would be held in memory, is left open instead, to be read bit by bit (direct).
// Tables are locked before the snapshot is taken: none is truncated, altered or dropped between.
#include "feed/postgresql/piece.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/connect.h"
#include "feed/postgresql/facts.h"
#include "feed/postgresql/piece_work.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <poll.h>

constexpr uint64_t TOO_LONG = 4;     // times the bytes of a piece: it is cut short
constexpr uint64_t FIRST_ROWS = 256; // of a table, before the length of its rows is known
constexpr uint64_t GROWTH = 8;       // of that, from one to the next
constexpr int LOCKED_MAX = 3;        // tables that are waited for in vain
constexpr char LOCK_WAIT[] = "200ms";

// How a table is read.
enum pgp_way {
    BY_KEY, // or as a whole, where it is small and has no key
    REST,   // directly: all that is behind what was reached
    WHOLE,  // directly: all
    SETTLED,
    LOCKED,
    LEFT, // it would have to be read directly, which is not to be
};

struct pgp_reading {
    pgp_piece &piece;
    pgs_server &server;
    const std::vector<pgp_want> &wants;
    const std::vector<uint32_t> &passed;
    std::string &later;
    const pgp_limits &limits;
    std::vector<pgp_way> ways;     // of each table wanted
    std::vector<pgp_part> settled; // refused, or gone
    std::string locked = {};       // table that was waited for in vain
    uint64_t rows = 0;
    uint64_t bytes = 0;
    int64_t begun_ms = 0;
    std::string time_limit = {}; // of a COPY, milliseconds
    bool full = false;           // the piece takes no more
    bool closed = false;         // the transaction was given up behind what was read
    bool again = false;          // it has to be begun once more, with what is known now
};

// ---- the transaction

static outcome run(pgp_reading &r, const std::string &command)
{
    pgs_result result;
    return pgp_ask(r.server, result, command);
}

// A session that waits for the stream is not idle for nothing; a piece ends before the server
// takes the stream for dead.
static outcome connect(pgp_reading &r)
{
    PGconn *const sql = r.server.sql.get();
    outcome done;
    if (sql == nullptr || PQstatus(sql) != CONNECTION_OK ||
        PQtransactionStatus(sql) != PQTRANS_IDLE)
        done = pgs_connect_sql(r.server);
    pgs_result result;
    if (done)
        done = pgp_ask(r.server, result,
                       "SELECT (SELECT least(10000, nullif(w.setting::int / 4, 0)) FROM pg_settings"
                       " w WHERE w.name = 'wal_sender_timeout'), count(set_config(s.name, '0',"
                       " false)) FROM pg_settings s WHERE s.name IN ('transaction_timeout',"
                       " 'idle_in_transaction_session_timeout', 'idle_session_timeout')");
    if (done)
        r.time_limit = pgs_value(result, 0, 0);
    return done;
}

static void settle(pgp_reading &r, size_t want, const pgs_refusal &refusal)
{
    pgp_part part;
    part.want = want;
    part.relation.schema = r.wants[want].schema;
    part.relation.name = r.wants[want].table;
    part.gone = pgp_trouble_of(refusal) == PGP_GONE;
    if (!part.gone)
        part.refused =
            pgp_reason(refusal, r.server.sql.get(), part.relation.schema, part.relation.name);
    r.ways[want] = SETTLED;
    r.settled.push_back(std::move(part));
}

static std::string lock_command(const pgp_reading &r, const std::vector<size_t> &places)
{
    std::string list;
    for (const size_t place : places)
        list += (list.empty() ? "" : ", ") + pgp_sql_name(r.wants[place]);
    return "LOCK TABLE " + list + " IN ACCESS SHARE MODE";
}

// Those that can be locked stay in places.
static outcome lock_each(pgp_reading &r, std::vector<size_t> &places)
{
    std::vector<size_t> had;
    int in_vain = 0;
    for (size_t i = 0; i < places.size() && in_vain < LOCKED_MAX; i++) {
        pgs_result result;
        pgs_refusal refusal;
        outcome done =
            pgs_try(r.server, r.server.sql.get(), result,
                    "SAVEPOINT lock; " + lock_command(r, {places[i]}) + "; RELEASE lock", refusal);
        if (done && refusal.state.empty()) {
            had.push_back(places[i]);
            continue;
        }
        if (done)
            done = run(r, "ROLLBACK TO lock; RELEASE lock");
        if (!done)
            return done;
        const pgp_trouble trouble = pgp_trouble_of(refusal);
        if (trouble == PGP_REFUSED || trouble == PGP_GONE) {
            settle(r, places[i], refusal);
            continue;
        }
        r.ways[places[i]] = LOCKED;
        r.locked = r.locked.empty() ? pgp_sql_name(r.wants[places[i]]) : r.locked;
        r.later = "table " + r.locked + " cannot be read now: " + pgp_reason(refusal);
        // No room for more locks: those that were had make a piece.
        in_vain = refusal.state == "55P03" ? in_vain + 1 : LOCKED_MAX;
    }
    places = std::move(had);
    return {};
}

static outcome begin(pgp_reading &r, std::vector<size_t> &places)
{
    outcome done = run(r, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    if (done)
        done = run(r, std::string("SET LOCAL lock_timeout = '") + LOCK_WAIT + "'");
    if (done)
        done = run(r, "SAVEPOINT locks");
    if (!done)
        return done;
    pgs_result result;
    pgs_refusal refusal;
    done = pgs_try(r.server, r.server.sql.get(), result, lock_command(r, places), refusal);
    if (!done || refusal.state.empty())
        return done;
    done = run(r, "ROLLBACK TO locks");
    return done ? lock_each(r, places) : std::move(done);
}

// Takes the snapshot; the first of those passed that it lacks goes to missing.
static outcome take_snapshot(pgp_reading &r, uint32_t &missing)
{
    pgs_result result;
    outcome done = pgp_ask(r.server, result,
                           "SELECT txid_current_snapshot(), pg_current_wal_insert_lsn(),"
                           " (extract(epoch FROM clock_timestamp()) * 1000000)::bigint");
    if (!done)
        return done;
    pgp_piece &piece = r.piece;
    piece.snapshot = pgs_value(result, 0, 0);
    if (!pgf_is_snapshot(piece.snapshot) || !fwu_lsn_parse(piece.high, pgs_value(result, 0, 1)) ||
        !pgs_number(piece.time_us, pgs_value(result, 0, 2)))
        return {OUTCOME_LOST, "the server gives no snapshot, position and time of its log: \"" +
                                  piece.snapshot + "\", \"" + std::string(pgs_value(result, 0, 1)) +
                                  "\", \"" + std::string(pgs_value(result, 0, 2)) + "\""};
    for (const uint32_t xid : r.passed)
        if (!pgf_has_transaction(piece.snapshot, xid))
            missing = xid;
    return {};
}

// A transaction is sent a moment before others see it, with a synchronous standby long before.
// Tables that are refused or gone have their place in the log like others.
static outcome begin_behind_passed(pgp_reading &r, std::vector<size_t> &places)
{
    const std::vector<size_t> wanted = places;
    uint32_t missing = 0;
    for (const int pause_ms : {5, 20, 50, 0}) {
        missing = 0;
        places = wanted;
        std::erase_if(places, [&](size_t place) { return r.ways[place] >= SETTLED; });
        outcome done = places.empty() ? run(r, "BEGIN") : begin(r, places);
        if (done)
            done = take_snapshot(r, missing);
        if (!done || missing == 0)
            return done;
        done = run(r, "ROLLBACK");
        if (!done)
            return done;
        if (pause_ms != 0)
            (void)poll(nullptr, 0, pause_ms); // a signal may cut it short
    }
    return {OUTCOME_LOST, "others do not see transaction " + std::to_string(missing) +
                              " yet, which the stream has sent"};
}

// ---- rows

struct pgp_read_rows {
    uint64_t rows = 0;
    pgs_refusal refusal = {};
    bool cut = false; // there may be more of them, but they are too long
};

// Reads what a command gives to the end of lines.
static outcome copy(pgp_reading &r, const std::string &command, std::string &lines,
                    pgp_read_rows &read)
{
    pgs_copied copied = PGS_COPY_WAITS;
    uint64_t given = 0;
    const size_t before = lines.size();
    outcome done = pgs_copy_send(r.server, r.server.sql.get(), command);
    if (done)
        done = pgs_copy_begins(copied, r.server, r.server.sql.get(), read.refusal);
    while (done && copied == PGS_COPY_ROW) {
        std::span<char> row;
        done = pgs_copy_row(copied, row, given, r.server, r.server.sql.get(), read.refusal);
        if (!done || copied != PGS_COPY_ROW)
            break;
        lines.append(row.data(), row.size());
        read.rows++;
        read.cut = lines.size() - before > TOO_LONG * r.limits.bytes;
        if (read.cut)
            break;
    }
    if (!read.refusal.state.empty()) {
        lines.resize(before);
        read.rows = 0;
    }
    r.server.row.reset();
    if (read.cut) {
        r.server.sql.reset();
        r.closed = true;
    }
    r.rows += read.rows;
    r.bytes += lines.size() - before;
    return done;
}

// Takes the key of the last row.  False: the order here is not the server's.
static bool take_last(pgp_part &part)
{
    const size_t begin = part.lines.find_last_of('\n', part.lines.size() - 2) + 1;
    std::string line = part.lines.substr(begin);
    pgo_tuple row;
    std::vector<std::string_view> key;
    pgp_split(row, line.data(), line.size());
    const bool whole = pgp_key_of(key, part.order, row);
    if (!part.order.operands.empty()) { // nobody knows it better
        part.to.assign(key.begin(), key.end());
        return whole;
    }
    const bool behind =
        pgp_side_of(part.order, part.to.empty() ? part.from : part.to, key) == PGP_LATER;
    part.to.assign(key.begin(), key.end());
    return whole && behind && pgp_side_of(part.order, part.to, key) == PGP_TAKEN;
}

static pgp_part make_part(const pgp_reading &r, pgp_table &table)
{
    const pgp_want &want = r.wants[table.want];
    const bool by_key = r.ways[table.want] != WHOLE;
    pgp_part part;
    part.want = table.want;
    part.estimate = table.estimate;
    part.relation = table.relation;
    part.shape = pgo_shape(part.relation);
    if (by_key) {
        part.key = table.key;
        part.order = table.order;
    }
    const bool goes_on = want.key == part.key && want.reached.size() == part.key.size() &&
                         (want.id == 0 || want.id == table.relation.id) &&
                         (want.shape == 0 || want.shape == part.shape);
    part.anew = !want.reached.empty() && !goes_on;
    if (goes_on)
        part.from = want.reached;
    return part;
}

// The table has to be read another way: now, if that may be and nothing has been read yet.
static void read_otherwise(pgp_reading &r, size_t want, pgp_way way)
{
    r.ways[want] = r.limits.direct ? way : LEFT;
    r.full = true;
    r.again = r.piece.parts.empty();
    if (!r.limits.direct)
        r.piece.left.push_back(want);
}

static void keep(pgp_reading &r, pgp_part &&part)
{
    r.piece.parts.push_back(std::move(part));
}

// The server has refused to go on with a table's rows.
static outcome take_refusal(pgp_reading &r, pgp_part &&part, const pgs_refusal &refusal)
{
    outcome done = run(r, "ROLLBACK TO rows");
    const pgp_trouble trouble = pgp_trouble_of(refusal);
    const bool settled = trouble == PGP_REFUSED || trouble == PGP_GONE;
    if (settled && !part.order.operands.empty()) { // it may be its order that is refused
        read_otherwise(r, part.want, WHOLE);
        return done;
    }
    if (settled) {
        settle(r, part.want, refusal);
        return done;
    }
    r.full = true;
    if (part.rows != 0)
        keep(r, std::move(part));
    else if (trouble == PGP_SLOW)
        read_otherwise(r, part.want, part.key.empty() ? WHOLE : REST);
    else
        r.later = "table " + pgp_sql_name(r.wants[part.want]) +
                  " cannot be read now: " + pgp_reason(refusal);
    return done;
}

// All rows of a small table.
static outcome read_whole(pgp_reading &r, pgp_part &&part, const pgp_table &table)
{
    pgp_read_rows read;
    outcome done = copy(r, pgp_command(table, r.server, {}, 0), part.lines, read);
    if (!done)
        return done;
    if (read.cut) {
        read_otherwise(r, part.want, WHOLE);
        return done;
    }
    if (!read.refusal.state.empty())
        return take_refusal(r, std::move(part), read.refusal);
    part.rows = read.rows;
    part.ends = true;
    keep(r, std::move(part));
    return done;
}

// How many rows to ask for next: as many as there is room for, should they be like those before.
static uint64_t next_limit(const pgp_reading &r, const pgp_part &part, uint64_t limit)
{
    const uint64_t room = r.limits.bytes - r.bytes;
    const uint64_t length = std::max<uint64_t>(part.lines.size() / part.rows, 1);
    return std::max<uint64_t>(std::min({limit * GROWTH, r.limits.rows - r.rows, room / length}), 1);
}

// Rows by the key, up to the table's or the piece's end.
static outcome read_by_key(pgp_reading &r, pgp_part &&part, const pgp_table &table)
{
    uint64_t limit = std::min(FIRST_ROWS, r.limits.rows - r.rows);
    while (!part.ends && !r.full) {
        pgp_read_rows read;
        const std::vector<std::string> &behind = part.to.empty() ? part.from : part.to;
        outcome done = copy(r, pgp_command(table, r.server, behind, limit), part.lines, read);
        if (!done)
            return done;
        if (!read.refusal.state.empty()) {
            return take_refusal(r, std::move(part), read.refusal);
        }
        part.rows += read.rows;
        part.ends = read.rows < limit && !read.cut;
        if (read.rows != 0 && !take_last(part)) {
            read_otherwise(r, part.want, WHOLE);
            return done;
        }
        r.full = r.full || read.cut || r.rows >= r.limits.rows || r.bytes >= r.limits.bytes;
        if (!part.ends && !r.full)
            limit = next_limit(r, part, limit);
    }
    keep(r, std::move(part));
    return {};
}

// The rows come later.
static outcome leave_open(pgp_reading &r, pgp_part &&part, const pgp_table &table)
{
    r.piece.direct = r.full = true;
    r.piece.command = pgp_command(table, r.server, part.from, 0);
    part.ends = true;
    keep(r, std::move(part));
    return run(r, "SET LOCAL statement_timeout = 0");
}

static outcome read_table(pgp_reading &r, pgp_table &table)
{
    pgp_part part = make_part(r, table);
    if (r.ways[table.want] != BY_KEY)
        return leave_open(r, std::move(part), table);
    if (!part.key.empty())
        return read_by_key(r, std::move(part), table);
    if (part.relation.columns.empty()) {
        part.ends = true;
        keep(r, std::move(part));
        return {};
    }
    if (table.size <= static_cast<int64_t>(r.limits.bytes))
        return read_whole(r, std::move(part), table);
    read_otherwise(r, table.want, WHOLE);
    return {};
}

static bool has_room(const pgp_reading &r)
{
    return r.piece.parts.empty() || (r.rows < r.limits.rows && r.bytes < r.limits.bytes &&
                                     fwu_monotonic_ms() - r.begun_ms < r.limits.time_ms);
}

static outcome read_tables(pgp_reading &r, const std::vector<size_t> &places)
{
    std::vector<pgp_table> tables;
    outcome done = pgp_describe(tables, r.server, r.wants, places);
    if (done)
        done = run(r, "SET LOCAL statement_timeout = " + r.time_limit + "; SAVEPOINT rows");
    size_t next = 0;
    r.begun_ms = fwu_monotonic_ms();
    for (const size_t place : places) {
        if (!done || r.full || !has_room(r))
            return done;
        if (next < tables.size() && tables[next].want == place)
            done = read_table(r, tables[next++]);
        else
            settle(r, place, {.state = "42P01", .message = {}, .detail = {}});
    }
    return done;
}

// ---- the piece

// The tables to begin with; one that is read directly comes alone.
static std::vector<size_t> first_tables(const pgp_reading &r)
{
    std::vector<size_t> places;
    for (size_t i = 0; i < r.wants.size() && places.size() < r.limits.tables; i++) {
        if (r.ways[i] >= SETTLED)
            continue;
        if (r.ways[i] != BY_KEY && !places.empty())
            break;
        places.push_back(i);
        if (r.ways[i] != BY_KEY)
            break;
    }
    return places;
}

static const char go_on[] =
    "synchronous_commit = local; SELECT pg_catalog.pg_logical_emit_message(true, 'kestro', '')";

outcome pgp_go_on(pgs_server &server)
{
    pgs_result result;
    pgs_refusal refusal;
    outcome done = server.sql == nullptr ? pgs_connect_sql(server) : outcome();
    if (done)
        done =
            pgs_try(server, server.sql.get(), result, std::string("SET LOCAL ") + go_on, refusal);
    if (done.kind() != OUTCOME_LOST)
        return done;
    server.sql.reset();
    return {};
}

// Makes the server's log go on behind the piece, which the stream shows then: should that not
// work, it goes on some time.
static void pass_high(const pgp_reading &r)
{
    pgs_result result;
    pgs_refusal refusal;
    PGconn *const sql = r.server.sql.get();
    if (r.piece.direct)
        (void)pgs_ask_rows(r.server, sql, std::string("SET ") + go_on, result);
    else
        (void)pgs_try(r.server, sql, result, std::string("SET LOCAL ") + go_on, refusal);
}

static outcome end_piece(pgp_reading &r)
{
    if (r.piece.parts.empty()) {
        outcome ended = r.closed ? outcome() : run(r, "ROLLBACK");
        if (ended && !r.closed && !r.settled.empty())
            pass_high(r);
        return ended;
    }
    outcome done = r.closed ? connect(r) : outcome();
    if (done)
        done = pgp_check_names(r.piece, r.server, r.server.sql.get());
    if (done && !r.closed && !r.piece.direct)
        done = run(r, "COMMIT");
    if (done)
        pass_high(r);
    if (done && r.piece.direct)
        r.piece.reader = std::move(r.server.sql);
    return done;
}

static outcome read_piece(pgp_reading &r)
{
    do {
        const std::vector<pgp_want> &wants = r.wants;
        std::vector<size_t> places = first_tables(r);
        r.piece.parts.clear();
        r.rows = r.bytes = 0;
        r.full = r.closed = r.again = false;
        if (places.empty() || wants.empty())
            return {};
        outcome done = connect(r);
        if (done)
            done = begin_behind_passed(r, places);
        if (done && !places.empty())
            done = read_tables(r, places);
        if (done)
            done = end_piece(r);
        if (!done)
            return done;
    } while (r.again);
    return {};
}

static void tell_what_locks(pgp_reading &r)
{
    const std::string sessions = pgs_sessions(
        r.server, r.server.sql.get(),
        "SELECT DISTINCT coalesce(l.pid, 0) FROM pg_locks l WHERE l.locktype = 'relation'"
        " AND l.mode = 'AccessExclusiveLock' AND l.relation = to_regclass(" +
            pgp_literal(r.server, r.locked) +
            ") AND l.database = (SELECT d.oid FROM pg_database d"
            " WHERE d.datname = current_database())");
    if (!sessions.empty())
        r.later += ": " + sessions;
}

outcome pgp_read(pgp_piece &piece, pgs_server &server, const std::vector<pgp_want> &wants,
                 const std::vector<uint32_t> &passed, std::string &later, const pgp_limits &limits)
{
    piece = {};
    later.clear();
    pgp_reading r = {.piece = piece,
                     .server = server,
                     .wants = wants,
                     .passed = passed,
                     .later = later,
                     .limits = limits,
                     .ways = std::vector<pgp_way>(wants.size(), BY_KEY),
                     .settled = {}};
    for (size_t i = 0; i < wants.size(); i++) {
        if (!wants[i].whole)
            continue;
        r.ways[i] = limits.direct ? WHOLE : LEFT;
        if (!limits.direct)
            piece.left.push_back(i);
    }
    const bool converts = server.texts == nullptr;
    outcome done = read_piece(r);
    if (done.kind() == OUTCOME_LOST && converts != (server.texts == nullptr))
        return done;
    if (done.kind() == OUTCOME_LOST) {
        later = done.text();
        piece = {};
        server.sql.reset();
        done = {};
    }
    if (piece.parts.empty() && !r.locked.empty() && server.sql != nullptr)
        tell_what_locks(r);
    for (pgp_part &part : r.settled)
        piece.parts.push_back(std::move(part));
    return done;
}
