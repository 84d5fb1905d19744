// The stream: messages into transactions, positions back to the server.  It is told
// a position only once all transactions before it are logged.
#include "tools/pg_lsn.h"
#include "tools/postgresql/bridge.h"
#include "tools/postgresql/report_signal.h"
#include "tools/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

constexpr int VERSION_WITH_MESSAGES = 140000;
constexpr int64_t FEEDBACK_MS = 1000;        // how often the server is told of the progress
constexpr int64_t REPORT_MS = 10'000;        // how often -v tells of it
constexpr size_t DATA_HEADER = 25;           // 'w', start, end and time before the message
constexpr size_t KEEPALIVE_SIZE = 18;        // 'k', end, time, whether an answer is wanted
constexpr int MESSAGES_A_LOOK = 256;         // messages between two looks at the clock
constexpr int64_t ASK_AFTER_MS = 20'000;     // of silence, whether the server is there
constexpr int64_t GIVE_UP_AFTER_MS = 60'000; // of silence

static int64_t monotonic_ms()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail with this clock
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
}

struct follow {
    pgb_bridge &bridge;
    PGconn *connection;
    pgo_message message = {};
    uint64_t received_end = 0; // behind the last whole transaction, or the idle server's position
    bool answer = false;       // the server wants to hear something now
    bool late_session_told = false;
    int64_t feedback_due_ms = 0;
    int64_t report_due_ms = 0;
    int64_t heard_ms = monotonic_ms(); // when the server sent something
};

static uint64_t big_endian(const char *bytes)
{
    uint64_t value = 0;
    for (int i = 0; i < 8; i++)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

static void put_big_endian(std::string &out, uint64_t value)
{
    for (int shift = 56; shift >= 0; shift -= 8)
        out += static_cast<char>(value >> shift & 0xFF);
}

// Everything that was received is logged when the log holds its last commit.
static void note_progress(follow &f)
{
    pgb_state &state = f.bridge.state;
    const fwu_writer *writer = f.bridge.tx.writer;
    if (fwu_writer_logged_lsn(writer) == fwu_writer_last_lsn(writer))
        state.logged_lsn = std::max(state.logged_lsn, f.received_end);
    state.received_lsn = std::max(state.received_lsn, f.received_end);
    state.server_lsn = std::max(state.server_lsn, state.received_lsn);
    const fwlog_totals &totals = f.bridge.tx.totals;
    state.transactions = totals.transactions;
    state.changes = totals.inserts + totals.updates + totals.deletes;
}

static pgs_outcome lost(follow &f)
{
    return pgs_failed(f.bridge.server, f.connection, nullptr, "following the server");
}

// Tells the server the positions; asks for an answer when it has been silent.
static pgs_outcome send_feedback(follow &f)
{
    const pgb_state &state = f.bridge.state;
    const bool asks = monotonic_ms() - f.heard_ms > ASK_AFTER_MS;
    std::string text = "r";
    put_big_endian(text, state.received_lsn);
    put_big_endian(text, state.logged_lsn);
    put_big_endian(text, state.logged_lsn);
    put_big_endian(text, 0); // our clock says nothing to the server
    text += asks ? '\1' : '\0';
    f.answer = false;
    if (PQputCopyData(f.connection, text.data(), static_cast<int>(text.size())) != 1 ||
        PQflush(f.connection) < 0)
        return lost(f);
    return PGS_OK;
}

// What is due by the clock: progress to the server, the state file, reports.
static pgs_outcome keep_in_touch(follow &f)
{
    pgb_bridge &bridge = f.bridge;
    const int64_t now = monotonic_ms();
    if (report_signal_taken())
        pgb_state_print(bridge.state);
    if (now - f.heard_ms > GIVE_UP_AFTER_MS) {
        f.bridge.server.lost = "the server has been silent for a minute";
        f.bridge.server.slot_in_use = false;
        return PGS_LOST;
    }
    if (now < f.feedback_due_ms && !f.answer)
        return PGS_OK;
    note_progress(f);
    const bool due = now >= f.feedback_due_ms;
    if (due) {
        f.feedback_due_ms = now + FEEDBACK_MS;
        (void)pgb_state_write(bridge.state, false); // reported; following goes on
    }
    if (bridge.options.verbose && now >= f.report_due_ms) {
        f.report_due_ms = now + REPORT_MS;
        pgb_state_print(bridge.state);
    }
    return send_feedback(f);
}

static pgs_outcome take_result(follow &f, fwlog_result result, const std::string &error)
{
    if (result == FWLOG_BAD)
        return pgb_bad(f.bridge, error);
    return result == FWLOG_OK ? PGS_OK : PGS_REFUSED;
}

static pgs_outcome take_begin(follow &f)
{
    fwu_commit commit;
    commit.lsn = f.message.lsn;
    commit.time_us = f.message.time_us;
    commit.xid = f.message.xid;
    fwlog_begin(f.bridge.tx, commit);
    return PGS_OK;
}

static pgs_outcome take_commit(follow &f)
{
    fwlog_transaction &tx = f.bridge.tx;
    const bool logs = tx.begun;
    const pgs_outcome outcome = take_result(f, fwlog_commit(tx), {});
    if (outcome != PGS_OK)
        return outcome;
    if (logs)
        f.bridge.state.commit_us = tx.commit.time_us;
    f.received_end = f.message.end_lsn;
    note_progress(f);
    return PGS_OK;
}

static pgs_outcome take_session(follow &f)
{
    fwlog_transaction &tx = f.bridge.tx;
    if (!f.message.transactional || f.message.prefix != "session" || !tx.open)
        return PGS_OK;
    std::string content(f.message.content);
    content.resize(strlen(content.c_str())); // a zero byte ends it
    if (fwlog_set_session(tx, content) || f.late_session_told)
        return PGS_OK;
    f.late_session_told = true;
    fprintf(stderr,
            "fwlog: warning: transaction %" PRIu64
            ": a session message comes behind the first change and is not taken; it must be the "
            "first thing that a transaction does (this is told once)\n",
            tx.commit.xid);
    return PGS_OK;
}

static pgs_outcome take_change(follow &f)
{
    const pgo_message &message = f.message;
    fwlog_transaction &tx = f.bridge.tx;
    std::string error;
    if (!tx.open)
        return pgb_bad(f.bridge, "a change came outside a transaction");
    if (tx.skipping)
        return PGS_OK;
    pgb_relation *relation = pgb_find(f.bridge.relations, message.relation_id, error);
    if (relation == nullptr)
        return pgb_bad(f.bridge, error);
    pgt_table &table = *relation->table;
    if (table.dataset == nullptr)
        return PGS_OK;
    if (message.kind != 'I' && message.old_row.kind != 'O')
        return pgb_bad(f.bridge, pgt_no_old_row_text(table));
    const pgr_row *fresh = nullptr;
    const pgr_row *old = nullptr;
    if (message.kind != 'D' && (fresh = pgb_row(*relation, message.new_row, error)) == nullptr)
        return pgb_bad(f.bridge, error);
    if (message.kind != 'I' && (old = pgb_row(*relation, message.old_row, error)) == nullptr)
        return pgb_bad(f.bridge, error);
    return take_result(f, fwlog_change(tx, table, fresh, old, error), error);
}

static pgs_outcome take_truncate(follow &f)
{
    if (f.bridge.tx.skipping)
        return PGS_OK;
    for (const uint32_t id : f.message.truncated) {
        std::string error;
        const pgb_relation *relation = pgb_find(f.bridge.relations, id, error);
        if (relation == nullptr)
            return pgb_bad(f.bridge, error);
        if (relation->table->dataset == nullptr)
            continue;
        if (!f.bridge.options.ignore_truncate)
            return pgb_bad(f.bridge, pgt_truncated_text(*relation->table) +
                                         ", or pass over truncates with --ignore-truncate");
        fprintf(stderr,
                "fwlog: warning: table %s was truncated in transaction %" PRIu64
                ", which the log does not tell\n",
                relation->table->name.c_str(), f.bridge.tx.commit.xid);
    }
    return PGS_OK;
}

static pgs_outcome take_message(follow &f, std::string_view bytes)
{
    std::string error;
    if (!pgo_decode(f.message, bytes, error))
        return pgb_bad(f.bridge, error);
    switch (f.message.kind) {
    case 'B':
        return take_begin(f);
    case 'C':
        return take_commit(f);
    case 'M':
        return take_session(f);
    case 'O':
        f.bridge.tx.data.push_back("origin=" + std::string(f.message.origin));
        return PGS_OK;
    case 'R':
        pgb_describe(f.bridge.relations, f.message.relation);
        return PGS_OK;
    case 'I':
    case 'U':
    case 'D':
        return take_change(f);
    case 'T':
        return take_truncate(f);
    default:
        return PGS_OK;
    }
}

static pgs_outcome take_copy_data(follow &f, std::string_view bytes)
{
    pgb_state &state = f.bridge.state;
    if (bytes.size() >= DATA_HEADER && bytes[0] == 'w') {
        state.server_lsn = std::max(state.server_lsn, big_endian(bytes.data() + 9));
        return take_message(f, bytes.substr(DATA_HEADER));
    }
    if (bytes.size() == KEEPALIVE_SIZE && bytes[0] == 'k') {
        const uint64_t end = big_endian(bytes.data() + 1);
        state.server_lsn = std::max(state.server_lsn, end);
        // All that was committed before it has been sent.
        if (!f.bridge.tx.open)
            f.received_end = std::max(f.received_end, end);
        f.answer = f.answer || bytes[KEEPALIVE_SIZE - 1] != 0;
        return PGS_OK;
    }
    return pgb_bad(f.bridge, "the server sent something that is neither data nor a keep-alive");
}

// Takes messages as long as there are some at hand.
static pgs_outcome take_waiting(follow &f)
{
    pgs_outcome outcome = PGS_OK;
    for (int n = 1; outcome == PGS_OK; n++) {
        char *bytes = nullptr;
        const int length = PQgetCopyData(f.connection, &bytes, 1);
        const pgs_memory owned(bytes);
        if (length == 0)
            return PGS_OK;
        if (length < 0) {
            const pgs_result result(length == -1 ? PQgetResult(f.connection) : nullptr);
            return pgs_failed(f.bridge.server, f.connection, result.get(), "following the server");
        }
        outcome = take_copy_data(f, {bytes, static_cast<size_t>(length)});
        if (outcome == PGS_OK && (n % MESSAGES_A_LOOK == 0 || f.answer))
            outcome = keep_in_touch(f);
        if (stop_signal_get() != 0) // what is in hand will be sent again
            return outcome;
    }
    return outcome;
}

static bool is_done(const follow &f)
{
    return stop_signal_get() != 0 ||
           (f.bridge.options.once && f.bridge.state.logged_lsn >= f.bridge.stop_at);
}

// Waits limit_ms at most for the server to send something, and receives it.
static pgs_outcome receive(follow &f, int limit_ms, bool &received)
{
    const stop_wait waited = stop_signal_wait(PQsocket(f.connection), limit_ms);
    received = waited == STOP_READABLE;
    if (waited == STOP_ERROR) {
        fprintf(stderr, "fwlog: waiting for the server: %s\n", strerror(errno));
        return PGS_REFUSED;
    }
    if (!received)
        return PGS_OK;
    f.heard_ms = monotonic_ms();
    return PQconsumeInput(f.connection) == 1 ? PGS_OK : lost(f);
}

// Until something is due by the clock.
static int patience_ms(const follow &f)
{
    int64_t limit = std::max<int64_t>(f.feedback_due_ms - monotonic_ms(), 0);
    const int settle_in = fwu_writer_settle_in(f.bridge.tx.writer);
    if (settle_in >= 0)
        limit = std::min<int64_t>(limit, settle_in);
    return static_cast<int>(limit);
}

static pgs_outcome run(follow &f)
{
    for (;;) {
        pgs_outcome outcome = take_waiting(f);
        bool received = false;
        if (outcome == PGS_OK)
            outcome = keep_in_touch(f);
        // One sync for all that is on its way.
        if (outcome == PGS_OK && stop_signal_get() == 0)
            outcome = receive(f, 0, received);
        if (outcome == PGS_OK && !received) {
            if (fwu_writer_settle(f.bridge.tx.writer, false) != 0)
                return PGS_REFUSED;
            note_progress(f);
            if (is_done(f))
                return PGS_OK;
            outcome = receive(f, patience_ms(f), received);
        }
        if (outcome != PGS_OK)
            return outcome;
    }
}

// Tells the server the last position and ends the stream, so that the slot is free
// when this returns.
static void say_good_bye(follow &f)
{
    if (send_feedback(f) == PGS_OK && PQputCopyEnd(f.connection, nullptr) == 1)
        (void)PQflush(f.connection); // the connection is closed next
}

pgs_outcome pgb_follow(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    PGconn *const connection = server.replication.get();
    std::string publications;
    pgs_result result;
    const std::string start =
        "START_REPLICATION SLOT " + pgs_name(server.slot) + " LOGICAL " +
        pgl_text(fwu_writer_last_lsn(bridge.tx.writer)) +
        " (proto_version '1', publication_names " + pgs_literal(pgs_name(server.publication)) +
        (PQserverVersion(connection) >= VERSION_WITH_MESSAGES ? ", messages 'true')" : ")");
    pgs_outcome outcome = pgs_command(server, connection, result, start);
    if (outcome != PGS_OK)
        return outcome;
    bridge.state.phase = "streaming";
    follow f = {.bridge = bridge, .connection = connection};
    f.received_end = fwu_writer_last_lsn(bridge.tx.writer);
    if (fwu_writer_settle(bridge.tx.writer, false) != 0)
        return PGS_REFUSED;
    note_progress(f);
    outcome = run(f);
    fwlog_abandon(bridge.tx);
    if (outcome == PGS_OK) {
        note_progress(f);
        say_good_bye(f);
    }
    return outcome;
}
