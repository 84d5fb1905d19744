// The stream: messages into transactions, positions back to the server.  It is told
// a position only once all transactions before it are logged.
#include "feed/lsn.h"
#include "feed/postgresql/apply.h"
#include "feed/postgresql/report_signal.h"
#include "fwutil/fwu_clock.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <poll.h>

constexpr int VERSION_WITH_MESSAGES = 140000;
constexpr int64_t FEEDBACK_MS = 1000;    // how often the server is told of the progress
constexpr int64_t FEEDBACKS = 4;         // at least so many in the time of silence allowed
constexpr int64_t REPORT_MS = 10'000;    // how often -v tells of it
constexpr size_t DATA_HEADER = 25;       // 'w', start, end and time before the message
constexpr size_t KEEPALIVE_SIZE = 18;    // 'k', end, time, whether an answer is wanted
constexpr int MESSAGES_A_LOOK = 256;     // messages between two looks at the clock
constexpr int64_t ASK_AFTER_MS = 20'000; // of silence, whether the server is there
constexpr int64_t GOOD_BYE_MS = 3000;    // for the server to end the stream

struct follow {
    pgb_bridge &bridge;
    PGconn *connection;
    pgb_apply apply = {};
    bool answer = false;    // the server wants to hear something now
    uint64_t acked_lsn = 0; // everything before it is acknowledged: what the server may be told
    int64_t feedback_due_ms = 0;
    int64_t report_due_ms = 0;
    int64_t heard_ms = fwu_monotonic_ms(); // when the server sent something
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
        state.logged_lsn = std::max(state.logged_lsn, f.apply.end);
    state.logged_lsn = std::max(state.logged_lsn, fwu_writer_logged_lsn(writer));
    state.received_lsn = std::max(state.received_lsn, f.apply.end);
    state.server_lsn = std::max(state.server_lsn, state.received_lsn);
    const feed_totals &totals = f.bridge.tx.totals;
    state.transactions = totals.transactions;
    state.changes = totals.inserts + totals.updates + totals.deletes;
}

static pgs_outcome lost(follow &f)
{
    return pgs_failed(f.bridge.server, f.connection, nullptr, "following the server");
}

static pgs_outcome lost(follow &f, const char *why)
{
    f.bridge.server.lost = why;
    f.bridge.server.slot_in_use = false;
    return PGS_LOST;
}

// Tells the server the positions; asks for an answer when it has been silent.
static pgs_outcome send_feedback(follow &f)
{
    const pgb_state &state = f.bridge.state;
    const int64_t ask_after = std::min(ASK_AFTER_MS, f.bridge.server.timeout_ms / FEEDBACKS);
    const bool asks = fwu_monotonic_ms() - f.heard_ms >= ask_after;
    std::string text = "r";
    put_big_endian(text, state.received_lsn);
    put_big_endian(text, f.acked_lsn);
    put_big_endian(text, f.acked_lsn);
    put_big_endian(text, 0); // our clock says nothing to the server
    text += asks ? '\1' : '\0';
    f.answer = false;
    // What cannot be sent now goes with the next one; the server's silence has a limit.
    if (PQputCopyData(f.connection, text.data(), static_cast<int>(text.size())) < 0 ||
        PQflush(f.connection) < 0)
        return lost(f);
    return PGS_OK;
}

// What the server is told stands on disk first, so that the next run can see whether the
// log still has it, and whether somebody else has moved the slot.
static pgs_outcome acknowledge(follow &f)
{
    pgb_bridge &bridge = f.bridge;
    pgb_state &state = bridge.state;
    const bool moves = state.logged_lsn > state.told_lsn;
    if (fwu_writer_acknowledge(bridge.tx.writer) != 0)
        return PGS_REFUSED;
    state.told_lsn = std::max(state.told_lsn, state.logged_lsn);
    if (!pgb_state_write(state, bridge.config.sync != FWU_SYNC_NONE))
        return PGS_REFUSED;
    f.acked_lsn = state.logged_lsn;
    if (moves)
        bridge.server.patience_ms = bridge.server.timeout_ms; // it sends what it has
    return PGS_OK;
}

// What is due by the clock: progress to the server, the state file, reports.
static pgs_outcome keep_in_touch(follow &f)
{
    pgb_bridge &bridge = f.bridge;
    const int64_t now = fwu_monotonic_ms();
    if (report_signal_taken()) {
        pgs_server_lsn(bridge.server, bridge.state.server_lsn);
        pgb_state_print(bridge.state);
    }
    if (now < f.feedback_due_ms && !f.answer)
        return PGS_OK;
    // A server that asks may be waiting to shut down until it is told everything.
    if (f.answer && fwu_writer_settle_in(bridge.tx.writer) >= 0 &&
        fwu_writer_sync(bridge.tx.writer) != 0)
        return PGS_REFUSED;
    note_progress(f);
    if (now >= f.report_due_ms) {
        f.report_due_ms = now + REPORT_MS;
        pgs_server_lsn(bridge.server, bridge.state.server_lsn);
        if (bridge.options.verbose)
            pgb_state_print(bridge.state);
    }
    if (bridge.state.logged_lsn > f.acked_lsn) {
        const pgs_outcome outcome = acknowledge(f);
        if (outcome != PGS_OK)
            return outcome;
    } else if (now >= f.feedback_due_ms) {
        (void)pgb_state_write(bridge.state, false); // reported
    } else {
        return send_feedback(f); // only since the server asks
    }
    f.feedback_due_ms = now + std::min(FEEDBACK_MS, f.bridge.server.timeout_ms / FEEDBACKS);
    return send_feedback(f);
}

static pgs_outcome take_copy_data(follow &f, std::string_view bytes)
{
    pgb_state &state = f.bridge.state;
    if (bytes.size() >= DATA_HEADER && bytes[0] == 'w') {
        state.server_lsn = std::max(state.server_lsn, big_endian(bytes.data() + 9));
        return pgb_apply_message(f.bridge, f.apply, bytes.substr(DATA_HEADER));
    }
    if (bytes.size() == KEEPALIVE_SIZE && bytes[0] == 'k') {
        const uint64_t end = big_endian(bytes.data() + 1);
        state.server_lsn = std::max(state.server_lsn, end);
        if (f.bridge.expects_last && end > fwu_writer_last_lsn(f.bridge.tx.writer))
            return pgb_diverged(f.bridge);
        // All that was committed before it has been sent.
        if (!f.bridge.tx.open)
            f.apply.end = std::max(f.apply.end, end);
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
            if (length == -1 && PQresultStatus(result.get()) != PGRES_FATAL_ERROR)
                return lost(f, "the server has ended the stream");
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
    if (received)
        f.heard_ms = fwu_monotonic_ms();
    if (fwu_monotonic_ms() - f.heard_ms > f.bridge.server.patience_ms)
        return pgs_silent(f.bridge.server, "following the stream");
    // Encrypted connections may hold bytes that the socket does not show.
    return PQconsumeInput(f.connection) == 1 ? PGS_OK : lost(f);
}

// Until something is due by the clock.
static int patience_ms(const follow &f)
{
    int64_t limit = std::max<int64_t>(f.feedback_due_ms - fwu_monotonic_ms(), 0);
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

// Receives what the server still sends; false when time is up or it is gone.
static bool receive_until(PGconn *connection, int64_t deadline_ms)
{
    const int64_t left = deadline_ms - fwu_monotonic_ms();
    struct pollfd wanted = {.fd = PQsocket(connection), .events = POLLIN, .revents = 0};
    return left > 0 && poll(&wanted, 1, static_cast<int>(left)) > 0 &&
           PQconsumeInput(connection) == 1;
}

// Tells the server the last position and ends the stream.  The server answers once it
// has let the slot go, so that the slot is free for others when this returns.
// PGS_REFUSED: what is logged could not be acknowledged.
static pgs_outcome say_good_bye(follow &f)
{
    const pgs_outcome outcome = keep_in_touch(f);
    if (outcome == PGS_REFUSED)
        return outcome;
    // Otherwise all is done: the connection is closed next in any case.
    if (outcome != PGS_OK || PQputCopyEnd(f.connection, nullptr) != 1 || PQflush(f.connection) < 0)
        return PGS_OK;
    const int64_t deadline = fwu_monotonic_ms() + GOOD_BYE_MS;
    int length = 0;
    while (length >= 0) {
        char *bytes = nullptr;
        length = PQgetCopyData(f.connection, &bytes, 1);
        const pgs_memory passed_over(bytes);
        if (length == 0 && !receive_until(f.connection, deadline))
            return PGS_OK;
    }
    while (PQisBusy(f.connection) != 0)
        if (!receive_until(f.connection, deadline))
            return PGS_OK;
    const pgs_result answer(PQgetResult(f.connection));
    return PGS_OK;
}

pgs_outcome pgb_follow(pgb_bridge &bridge)
{
    pgs_server &server = bridge.server;
    PGconn *const connection = server.replication.get();
    std::string publications;
    pgs_result result;
    const std::string start =
        "START_REPLICATION SLOT " + pgs_name(server.slot) + " LOGICAL " +
        feed_lsn_text(fwu_writer_last_lsn(bridge.tx.writer)) +
        " (proto_version '1', publication_names " + pgs_literal(pgs_name(server.publication)) +
        (PQserverVersion(connection) >= VERSION_WITH_MESSAGES ? ", messages 'true')" : ")");
    pgs_outcome outcome = pgs_command(server, connection, result, start);
    if (outcome != PGS_OK)
        return outcome;
    server.sql.reset(); // an idle session would keep the server from shutting down
    pgb_state &state = bridge.state;
    state.phase = "streaming";
    follow f = {.bridge = bridge, .connection = connection};
    f.apply.end = fwu_writer_last_lsn(bridge.tx.writer);
    state.received_lsn = f.apply.end;
    state.logged_lsn = 0;
    // A run before may have left commits that are neither on disk nor acknowledged.
    if (fwu_writer_sync(bridge.tx.writer) != 0)
        return PGS_REFUSED;
    note_progress(f);
    outcome = acknowledge(f);
    if (outcome == PGS_OK)
        outcome = run(f);
    feed_abandon(bridge.tx);
    if (outcome == PGS_OK) {
        note_progress(f);
        f.feedback_due_ms = 0;
        outcome = say_good_bye(f);
    }
    return outcome;
}
