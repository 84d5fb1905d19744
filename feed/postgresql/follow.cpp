// The server forgets what it is told is done, so the order is fixed: transactions are on
// disk in the log, the log's acknowledgement and file "source" say so, and only then is
// the server told.  A restart relies on it: whatever was cut off on the way, the server
// still sends, and what it sends twice is known by its position and passed over.
#include "feed/postgresql/follow.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/connect.h"
#include "feed/postgresql/encoding.h"
#include "feed/postgresql/gap.h"
#include "feed/postgresql/query.h"
#include "feed/postgresql/renamed.h"
#include "feed/postgresql/unpublished.h"
#include "feed/postgresql/unsent.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"
#include "util/report_signal.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <poll.h>

constexpr int VERSION_WITH_MESSAGES = 140000;
constexpr int64_t FEEDBACK_MS = 1000;    // how often the server is told of the progress
constexpr int64_t FEEDBACKS = 4;         // at least so many in the time of silence allowed
constexpr int64_t REPORT_MS = 10'000;    // how often -v tells of it
constexpr size_t DATA_HEADER = 25;       // 'w', start, end and time before the message
constexpr size_t BEGIN_SIZE = 21;        // 'B', commit position, time, number
constexpr size_t KEEPALIVE_SIZE = 18;    // 'k', end, time, whether an answer is wanted
constexpr int MESSAGES_A_LOOK = 256;     // messages between two looks at the clock
constexpr int64_t ASK_AFTER_MS = 20'000; // of silence, whether the server is there
constexpr int64_t GOOD_BYE_MS = 3000;    // for the server to end the stream

// Bytes of a message in UTF-8 that stay for the next one.
constexpr size_t CONVERTED_KEPT = 1 << 20;

struct follow {
    pgs_server &server;
    pgb_state &state;
    feed_transaction &tx;
    pgb_relations &relations;
    pgb_apply &apply;
    const pgb_follow_settings &settings;
    PGconn *connection;
    bool answer = false;    // the server wants to hear something now
    uint64_t acked_lsn = 0; // everything before it is acknowledged: what the server may be told
    int64_t feedback_due_ms = 0;
    int64_t report_due_ms = 0;
    int64_t look_due_ms = fwu_monotonic_ms() + REPORT_MS; // at what the stream does not tell
    pgb_renamed renamed = {};              // that the last look at the catalogue has found
    std::string converted = {};            // a message whose texts the server does not convert
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
    pgb_state &state = f.state;
    const fwu_writer *writer = f.tx.writer;
    if (fwu_writer_logged_lsn(writer) == fwu_writer_last_lsn(writer))
        state.logged_lsn = std::max(state.logged_lsn, f.apply.end);
    state.logged_lsn = std::max(state.logged_lsn, fwu_writer_logged_lsn(writer));
    state.received_lsn = std::max(state.received_lsn, f.apply.end);
    state.server_lsn = std::max(state.server_lsn, state.received_lsn);
    const feed_totals &totals = f.tx.totals;
    state.transactions = totals.transactions;
    state.changes = totals.inserts + totals.updates + totals.deletes;
    state.marked = totals.marked;
}

static outcome lost(follow &f)
{
    return pgs_failed(f.server, f.connection, nullptr, "following the server");
}

static outcome lost(follow &f, const char *why)
{
    return pgs_lost(f.server, why);
}

// Tells the server the positions; asks for an answer when it has been silent.
static outcome send_feedback(follow &f)
{
    const pgb_state &state = f.state;
    const int64_t ask_after = std::min(ASK_AFTER_MS, f.server.timeout_ms / FEEDBACKS);
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
    return {};
}

// It was a question beside the stream that came to a text which the server cannot convert.
static outcome lost_texts(follow &f)
{
    f.server.texts_failed = false;
    std::string why = pge_text(f.server, nullptr);
    pge_begin(f.server);
    return lost(f, why.c_str());
}

// What the server is told stands on disk first, so that the next run can see whether the
// log still has it, and whether somebody else has moved the slot.
static outcome acknowledge(follow &f)
{
    pgb_state &state = f.state;
    const bool moves = state.logged_lsn > state.kept.told_lsn;
    if (fwu_writer_acknowledge(f.tx.writer) != 0)
        return OUTCOME_FAILED;
    state.kept.told_lsn = std::max(state.kept.told_lsn, state.logged_lsn);
    if (outcome written = pgb_kept_write(state.kept, f.settings.durable); !written)
        return written;
    f.acked_lsn = state.logged_lsn;
    (void)pgb_state_tell(state); // told, and tried again soon
    if (moves)
        f.server.patience_ms = f.server.timeout_ms; // it sends what it has
    return {};
}

// What is due by the clock: progress to the server, the state file, reports.
static outcome keep_in_touch(follow &f)
{
    const int64_t now = fwu_monotonic_ms();
    if (report_signal_taken()) {
        pgs_server_lsn(f.server, f.state.server_lsn);
        pgb_state_print(f.state);
    }
    pgl_look(*f.settings.reload, f.tx.writer);
    const pgr_moment moment = {
        .writer = f.tx.writer, .logged_lsn = f.state.logged_lsn, .between = !f.tx.open};
    if (outcome looked = pgr_look(*f.settings.requests, f.relations, moment); !looked)
        return looked;
    if (now < f.feedback_due_ms && !f.answer)
        return {};
    // A server that asks may be waiting to shut down until it is told everything.
    if (f.answer && fwu_writer_settle_in(f.tx.writer) >= 0 && fwu_writer_sync(f.tx.writer) != 0)
        return OUTCOME_FAILED;
    note_progress(f);
    fwu_writer_tend(f.tx.writer);
    pge_rest(f.server);
    if (f.server.texts_failed)
        return lost_texts(f);
    if (now >= f.report_due_ms) {
        f.report_due_ms = now + REPORT_MS;
        pgs_server_lsn(f.server, f.state.server_lsn);
        pgb_watch_look(f.apply.watch, f.server);
        if (f.settings.verbose)
            pgb_state_print(f.state);
    }
    if (now >= f.look_due_ms && !f.tx.open) {
        f.look_due_ms = now + REPORT_MS;
        if (outcome done = pgb_look_renamed(f.renamed, f.server, f.relations, f.tx.writer); !done)
            return done;
    }
    if (f.state.logged_lsn > f.acked_lsn) {
        if (outcome done = acknowledge(f); !done)
            return done;
    } else if (now >= f.feedback_due_ms) {
        (void)pgb_state_tell(f.state); // told, and tried again soon
    } else {
        return send_feedback(f); // only since the server asks
    }
    f.feedback_due_ms = now + std::min(FEEDBACK_MS, f.server.timeout_ms / FEEDBACKS);
    return send_feedback(f);
}

// While the stream is not read.
static outcome stay_in_touch(follow &f)
{
    if (fwu_monotonic_ms() < f.feedback_due_ms)
        return {};
    f.feedback_due_ms = fwu_monotonic_ms() + std::min(FEEDBACK_MS, f.server.timeout_ms / FEEDBACKS);
    f.state.alive = true;          // rows come
    (void)pgb_state_tell(f.state); // told, and tried again soon
    return send_feedback(f);
}

// Everything before position has come: tables that are taken in may have a piece to log or to
// read.
static outcome pass(follow &f, uint64_t position)
{
    if (!f.apply.expects_sent) // which has to be the log's last one until then
        if (outcome done = pgb_take_renamed(f.renamed, f.server, f.tx, f.relations, position);
            !done)
            return done;
    if (!pgi_busy(f.apply.intake, f.relations.aside) && f.server.sql == nullptr &&
        f.state.kept.snapshot != "taking")
        return {};
    const pgi_place on = {.server = f.server,
                          .state = f.state,
                          .tx = f.tx,
                          .relations = f.relations,
                          .verbose = f.settings.verbose,
                          .touch = [&f] { return stay_in_touch(f); }};
    const int64_t begun_ms = fwu_monotonic_ms();
    outcome done = pgi_pass(f.apply.intake, on, position);
    f.heard_ms += fwu_monotonic_ms() - begun_ms; // nobody has listened
    return done;
}

static outcome take_copy_data(follow &f, std::string_view bytes)
{
    pgb_state &state = f.state;
    if (bytes.size() >= DATA_HEADER && bytes[0] == 'w') {
        state.server_lsn = std::max(state.server_lsn, big_endian(bytes.data() + 9));
        std::string_view message = bytes.substr(DATA_HEADER);
        outcome done;
        if (message.size() >= BEGIN_SIZE && message[0] == 'B' && !f.tx.open)
            done = pass(f, big_endian(message.data() + 1));
        if (done && f.server.texts != nullptr) {
            if (f.converted.capacity() > CONVERTED_KEPT)
                std::string().swap(f.converted);
            f.converted.clear();
            f.converted.reserve(message.size() + message.size() / 2); // three bytes for two
            done = pge_message(f.converted, f.server, message);
            message = f.converted;
        }
        if (done)
            done = pgb_apply_message(f.apply, f.tx, f.relations, message);
        if (f.apply.commit_us != 0)
            state.commit_us = f.apply.commit_us;
        return done;
    }
    if (bytes.size() == KEEPALIVE_SIZE && bytes[0] == 'k') {
        const uint64_t end = big_endian(bytes.data() + 1);
        state.server_lsn = std::max(state.server_lsn, end);
        if (f.apply.expects_sent && end > f.apply.sent.lsn) {
            f.apply.expects_sent = false;
            if (outcome done = pgb_diverged(f.apply, f.tx, f.relations); !done)
                return done;
        }
        // All that was committed before it has been sent.
        if (!f.tx.open) {
            f.apply.end = std::max(f.apply.end, end);
            pgb_skip_pass(f.apply.skips, end);
        }
        f.answer = f.answer || bytes[KEEPALIVE_SIZE - 1] != 0;
        return {};
    }
    return feed_tell_bad(
        f.tx, outcome_bad("the server sent something that is neither data nor a keep-alive"));
}

// The last position that a text names; 0: none.
static uint64_t position_in(std::string_view text)
{
    constexpr std::string_view digits = "0123456789ABCDEFabcdef";
    const size_t slash = text.rfind('/');
    uint64_t position = 0;
    if (slash == text.npos)
        return 0;
    const size_t before = text.find_last_not_of(digits, slash - 1); // npos + 1: from the start
    const size_t end = std::min(text.find_first_not_of(digits, slash + 1), text.size());
    (void)fwu_lsn_parse(position, text.substr(before + 1, end - before - 1)); // stays 0
    return position;
}

// What passes a transaction over.
static std::string skip_remedy(uint64_t lsn)
{
    const std::string position = fwu_lsn_text(lsn);
    return "if that cannot be mended on the server, pass the transaction over with "
           "--skip-transaction " +
           position + ", which leaves a gap mark for all tables in the log (" + position +
           ",TABLE,... for those named)";
}

// The server has failed at a position in a transaction that it has not begun to send.  It is
// passed over only if the server shows that no other one is.
static outcome fail_unbegun(follow &f, const PGresult *result, uint64_t at)
{
    pgb_failure failure = {.state = pgs_error_field(result, PG_DIAG_SQLSTATE),
                           .message = pgs_error_field(result, PG_DIAG_MESSAGE_PRIMARY),
                           .at = at,
                           .deadline_ms = fwu_monotonic_ms() + f.server.timeout_ms};
    if (fwu_writer_sync(f.tx.writer) != 0)
        return OUTCOME_FAILED;
    note_progress(f);
    outcome done = acknowledge(f);
    if (done)
        done = pgs_connect_sql(f.server);
    if (done)
        done = pgb_peek_begin(f.server, failure, f.acked_lsn);
    for (pgb_skip &skip : f.apply.skips) {
        bool commits = false;
        if (done && !skip.met && skip.lsn >= at)
            done = pgb_peek_commit(commits, f.server, failure, skip.lsn);
        if (done && commits)
            done = pgb_skip_unbegun(skip, f.tx, f.relations);
        if (done && commits)
            return lost(f, "the server has failed in the transaction that is skipped");
    }
    uint64_t lsn = 0;
    if (done)
        done = pgb_peek_find(lsn, f.server, failure);
    f.server.sql.reset();
    if (!done && done.kind() != OUTCOME_BAD)
        return done;
    const std::string where = "following the server, at " + fwu_lsn_text(at) +
                              " in a transaction that it has not begun to send";
    if (done)
        return pgs_failed(f.server, f.connection, result,
                          where + ", and that commits at " + fwu_lsn_text(lsn), skip_remedy(lsn));
    return pgs_failed(f.server, f.connection, result, where,
                      "where that commits was not found, so that nothing can be passed over: " +
                          done.text());
}

// The server has ended the stream with an error, or the connection is gone.  An error is about
// the transaction in hand, if there is one: a server of version 15 or later begins one with its
// first change, and may fail before that.
static outcome fail(follow &f, const PGresult *result)
{
    const fwu_commit &commit = f.tx.commit;
    if (!pgs_refused(f.connection, result) || pge_is_failure(f.server, result))
        return pgs_failed(f.server, f.connection, result, "following the server");
    f.apply.unpublished = pgb_is_unpublished(result);
    if (f.apply.unpublished)
        return pgb_fail_unpublished(f.apply, f.server);
    const uint64_t at = position_in(pgs_error_field(result, PG_DIAG_CONTEXT));
    if (pgb_skip_holds(f.apply.skips, f.tx)) {
        outcome done = pgb_skip_end(f.apply.skips, f.tx, f.relations);
        return done ? lost(f, "the server has failed in the transaction that is skipped")
                    : std::move(done);
    }
    if (f.tx.open)
        return pgs_failed(f.server, f.connection, result,
                          "following the server, in transaction " + std::to_string(commit.xid) +
                              " of " + fwu_lsn_text(commit.lsn),
                          skip_remedy(commit.lsn));
    if (at == 0 ||
        pgs_find_remedy(pgs_error_field(result, PG_DIAG_SQLSTATE).c_str(),
                        pgs_error_field(result, PG_DIAG_MESSAGE_PRIMARY).c_str()) != nullptr)
        return pgs_failed(f.server, f.connection, result, "following the server");
    return fail_unbegun(f, result, at);
}

// Takes messages as long as there are some at hand.
static outcome take_waiting(follow &f)
{
    outcome done;
    for (int n = 1; done; n++) {
        char *bytes = nullptr;
        const int length = PQgetCopyData(f.connection, &bytes, 1);
        const pgs_memory owned(bytes);
        if (f.apply.unpublished)
            return pgb_fail_unpublished(f.apply, f.server);
        if (length == 0)
            return {};
        if (length < 0) {
            const pgs_result result(length == -1 ? PQgetResult(f.connection) : nullptr);
            if (length == -1 && PQresultStatus(result.get()) != PGRES_FATAL_ERROR)
                return lost(f, "the server has ended the stream");
            return fail(f, result.get());
        }
        done = take_copy_data(f, {bytes, static_cast<size_t>(length)});
        if (done && (n % MESSAGES_A_LOOK == 0 || f.answer))
            done = keep_in_touch(f);
        if (stop_signal_get() != 0) // what is in hand will be sent again
            return done;
    }
    return done;
}

static bool is_done(const follow &f)
{
    return stop_signal_get() != 0 ||
           (f.settings.once && f.state.logged_lsn >= f.settings.stop_at &&
            !pgb_has_renamed(f.renamed) && !pgr_waits(*f.settings.requests) &&
            !pgi_busy(f.apply.intake, f.relations.aside));
}

// Waits limit_ms at most for the server to send something, and receives it.
static outcome receive(follow &f, int limit_ms, bool &received)
{
    const int64_t begun_ms = fwu_monotonic_ms();
    const stop_wait waited = stop_signal_wait(PQsocket(f.connection), limit_ms);
    const int64_t away_ms = pgs_away_ms(begun_ms, limit_ms);
    f.heard_ms += away_ms;
    received = waited == STOP_READABLE;
    if (waited == STOP_ERROR)
        return pgs_wait_failed();
    if (received) {
        f.heard_ms = fwu_monotonic_ms();
        f.state.alive = true;
    }
    if (fwu_monotonic_ms() - f.heard_ms > f.server.patience_ms)
        return pgs_silent(f.server, "following the stream");
    // Encrypted connections may hold bytes that the socket does not show.
    if (PQconsumeInput(f.connection) == 1)
        return {};
    if (away_ms == 0)
        return lost(f);
    return lost(f, ("this process did not run for " + std::to_string(away_ms / 1000) +
                    " seconds, and the connection is gone")
                       .c_str());
}

// Until something is due by the clock.
static int patience_ms(const follow &f)
{
    int64_t limit = std::max<int64_t>(f.feedback_due_ms - fwu_monotonic_ms(), 0);
    limit = std::clamp<int64_t>(f.settings.requests->look_ms - fwu_monotonic_ms(), 0, limit);
    const int settle_in = fwu_writer_settle_in(f.tx.writer);
    const int read_in = pgi_due_in(f.apply.intake, f.relations.aside);
    if (read_in >= 0)
        limit = std::min<int64_t>(limit, read_in);
    if (settle_in >= 0)
        limit = std::min<int64_t>(limit, settle_in);
    return static_cast<int>(limit);
}

static outcome run(follow &f)
{
    for (;;) {
        outcome done = take_waiting(f);
        bool received = false;
        if (done)
            done = keep_in_touch(f);
        if (done && !f.tx.open && stop_signal_get() == 0)
            done = pass(f, f.apply.end);
        // One sync for all that is on its way.
        if (done && stop_signal_get() == 0)
            done = receive(f, 0, received);
        if (done && !received) {
            if (fwu_writer_settle(f.tx.writer, false) != 0)
                return OUTCOME_FAILED;
            note_progress(f);
            if (is_done(f))
                return {};
            done = receive(f, patience_ms(f), received);
        }
        if (!done)
            return done;
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
// OUTCOME_FAILED: what is logged could not be acknowledged.
static outcome say_good_bye(follow &f)
{
    outcome done = keep_in_touch(f);
    if (done.kind() == OUTCOME_FAILED)
        return done;
    // Otherwise all is done: the connection is closed next in any case.
    if (!done || PQputCopyEnd(f.connection, nullptr) != 1 || PQflush(f.connection) < 0)
        return {};
    const int64_t deadline = fwu_monotonic_ms() + GOOD_BYE_MS;
    int length = 0;
    while (length >= 0) {
        char *bytes = nullptr;
        length = PQgetCopyData(f.connection, &bytes, 1);
        const pgs_memory passed_over(bytes);
        if (length == 0 && !receive_until(f.connection, deadline))
            return {};
    }
    while (PQisBusy(f.connection) != 0)
        if (!receive_until(f.connection, deadline))
            return {};
    const pgs_result answer(PQgetResult(f.connection));
    return {};
}

static outcome start(const follow &f)
{
    pgs_server &server = f.server;
    pgs_result result;
    const uint64_t from =
        f.apply.expects_sent ? f.apply.sent.lsn : fwu_writer_last_lsn(f.tx.writer);
    return pgs_command(
        server, f.connection, result,
        "START_REPLICATION SLOT " + pgs_name(server.slot) + " LOGICAL " + fwu_lsn_text(from) +
            " (proto_version '1', publication_names " + pgs_literal(pgs_name(server.publication)) +
            (PQserverVersion(f.connection) >= VERSION_WITH_MESSAGES ? ", messages 'true')" : ")"));
}

// What the tables hold is taken in beside the stream; file "aside" has all of them before anything
// rests on that.  Where that is gone nobody knows how far it had come: it begins anew.
static outcome begin_snapshot(const follow &f)
{
    pgb_kept &kept = f.state.kept;
    pga_registry &aside = f.relations.aside;
    const uint64_t last = fwu_writer_last_lsn(f.tx.writer);
    const bool again = kept.snapshot == "taking" && aside.anew;
    aside.dirty = aside.dirty || aside.damaged;
    if (!again && (kept.snapshot != "begun" || last != 0))
        return {};
    if (again)
        tell("warning: %s does not say how far the snapshot had come: it is taken anew, each table "
             "behind a truncate mark",
             aside.path.c_str());
    // What it is taken in behind is on disk.
    if (fwu_writer_sync(f.tx.writer) != 0)
        return OUTCOME_FAILED;
    pgi_want_all(f.relations, last, last != 0);
    aside.dirty = true; // also without tables: the next run finds the file
    if (outcome done = pga_keep(f.relations.aside, fwu_writer_durable_lsn(f.tx.writer)); !done)
        return done;
    kept.snapshot = "taking";
    return pgb_kept_write(kept, true);
}

outcome pgb_follow(pgs_server &server, pgb_state &state, feed_transaction &tx,
                   pgb_relations &relations, pgb_apply &apply, const pgb_follow_settings &settings)
{
    follow f = {.server = server,
                .state = state,
                .tx = tx,
                .relations = relations,
                .apply = apply,
                .settings = settings,
                .connection = server.replication.get()};
    outcome done = pgb_get_facts(server, relations);
    if (done)
        done = begin_snapshot(f);
    if (done)
        done = pgb_take_stock(tx, relations, state.server_lsn);
    if (done && apply.unpublished)
        done = pgb_pass_unpublished(apply, server, tx, relations);
    if (done) {
        pgb_watch_unpublished(apply, f.connection);
        done = pgb_look_renamed(f.renamed, server, relations, tx.writer);
    }
    if (done)
        done = start(f);
    if (!done)
        return done;
    f.heard_ms = fwu_monotonic_ms();
    server.sql.reset(); // an idle session would keep the server from shutting down
    pgi_open(apply.intake);
    apply.intake.server = &server;
    pgb_skip_tell_far(apply.skips, state.server_lsn);
    pgb_state_enter(state, "streaming");
    apply.end = fwu_writer_last_lsn(tx.writer);
    state.received_lsn = apply.end;
    state.logged_lsn = 0;
    // A run before may have left commits that are neither on disk nor acknowledged.
    if (fwu_writer_sync(tx.writer) != 0)
        return OUTCOME_FAILED;
    note_progress(f);
    done = acknowledge(f);
    if (done)
        done = run(f);
    feed_abandon(tx);
    pga_withdraw(relations.aside, fwu_writer_last_lsn(tx.writer));
    if (done) {
        note_progress(f);
        f.feedback_due_ms = 0;
        done = say_good_bye(f);
    }
    return done;
}
