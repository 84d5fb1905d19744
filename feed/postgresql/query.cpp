// Every call is sent and its answer waited for in slices, so that a stop signal and a
// silent server are noticed.
#include "feed/postgresql/query.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/encoding.h"
#include "fwutil/fwu_clock.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cstring>

constexpr int64_t LOOK_MS = 10'000; // between two looks at what holds an answer up
constexpr int64_t PATIENCE_MAX_MS = 3'600'000;
constexpr size_t QUERY_TOLD_MAX = 200; // what is longer says nothing to people

static constexpr char SLOT_PLACE[] = "'...'"; // for its name, in a remedy

// Whether a failure may pass by itself: no connection, or the server starts or stops.
static bool passes(const PGconn *connection, const char *state)
{
    return PQstatus(connection) != CONNECTION_OK || strncmp(state, "08", 2) == 0 ||
           strncmp(state, "57P", 3) == 0;
}

bool pgs_refused(const PGconn *connection, const PGresult *result, const char *only)
{
    const char *state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    return state != nullptr && PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY) != nullptr &&
           !passes(connection, state) && (only == nullptr || strcmp(state, only) == 0);
}

outcome pgs_failed(pgs_server &server, PGconn *connection, const PGresult *result,
                   const std::string &doing, const std::string &otherwise)
{
    const char *state = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
    if (state == nullptr)
        state = "";
    const char *primary =
        result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    const std::string message =
        pgs_one_line(primary != nullptr ? primary : PQerrorMessage(connection));
    server.slot_in_use = strcmp(state, "55006") == 0;
    server.refused = pgs_refused(connection, result);
    if (server.slot_in_use || passes(connection, state))
        return {OUTCOME_LOST, message};
    if (pge_is_failure(server, result)) {
        std::string why = pge_text(server, result);
        pge_begin(server);
        return pgs_lost(server, std::move(why));
    }
    std::string all = message; // newer servers have the reason apart
    for (const char field : {PG_DIAG_MESSAGE_DETAIL, PG_DIAG_MESSAGE_HINT})
        if (const char *more = result == nullptr ? nullptr : PQresultErrorField(result, field))
            all += std::string(" ") + more;
    const char *const found = pgs_find_remedy(state, all.c_str());
    std::string remedy = found == nullptr ? "" : std::string("; ") + found;
    if (const size_t at = remedy.find(SLOT_PLACE); at != remedy.npos)
        remedy.replace(at, strlen(SLOT_PLACE), pgs_literal(server.slot));
    const bool known = found != nullptr || otherwise.empty();
    if (!known)
        remedy = "; " + otherwise;
    return outcome_failed("%s: %s%s", doing.c_str(), known ? message.c_str() : all.c_str(),
                          remedy.c_str());
}

// A query in a message.
static std::string brief(const std::string &doing)
{
    constexpr size_t longest = 80;
    return doing.size() <= longest ? doing : doing.substr(0, longest) + " ...";
}

int64_t pgs_away_ms(int64_t begun_ms, int64_t limit_ms)
{
    constexpr int64_t busy_ms = 2000; // a machine that has much to do lets nobody wait longer
    const int64_t away = fwu_monotonic_ms() - begun_ms - limit_ms;
    return away > busy_ms ? away : 0;
}

outcome pgs_silent(pgs_server &server, const std::string &doing)
{
    std::string why =
        "the server has been silent for " + std::to_string(server.patience_ms / 1000) +
        (server.patience_ms == 1000 ? " second (" : " seconds (") + brief(doing) + ")";
    server.remedy = "see whether the server is overloaded or frozen, or give it more time with "
                    "--timeout";
    server.patience_ms = std::min(2 * server.patience_ms, PATIENCE_MAX_MS);
    return pgs_lost(server, std::move(why));
}

std::string pgs_sessions(const pgs_server &server, const PGconn *connection,
                         const std::string &processes)
{
    std::string sessions;
    (void)pgs_ask(
        server, connection,
        "SELECT string_agg(CASE WHEN b.pid = 0 THEN 'a prepared transaction' ELSE 'process '"
        " || b.pid || coalesce(' of user ' || a.usename, '') || coalesce(', in a transaction since "
        "'"
        " || to_char(a.xact_start AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS') || ' UTC', '') END,"
        " '; ') FROM (" +
            processes + ") AS b (pid) LEFT JOIN pg_stat_activity a ON a.pid = b.pid",
        sessions); // nothing: stays empty
    return sessions;
}

// The sessions that the connection's command waits for.
static std::string held_up_by(const pgs_server &server, const PGconn *connection)
{
    return pgs_sessions(server, connection,
                        "SELECT unnest(pg_blocking_pids(" +
                            std::to_string(PQbackendPID(connection)) + "))");
}

void pgs_tell_held_up(const std::string &doing, const std::string &sessions)
{
    tell("%s waits until others have ended their transactions: %s", brief(doing).c_str(),
         sessions.c_str());
}

// What was asked for, in the message that tells its failure.
static std::string told(const std::string &query)
{
    const bool asks = query.starts_with("SELECT ") || query.starts_with("WITH ");
    return query.size() > QUERY_TOLD_MAX && asks ? "asking the server's catalogue" : query;
}

// How long an answer is waited for.
struct wait_state {
    int64_t heard_ms = fwu_monotonic_ms(); // the server sent something, or is held up
    int64_t told_ms = 0;                   // that it is held up; 0: not yet
};

// Told now and then, since it may take hours.
static void tell_held_up(const pgs_server &server, wait_state &wait, const std::string &doing,
                         const std::string &sessions)
{
    const int64_t now = fwu_monotonic_ms();
    wait.heard_ms = now;
    if (wait.told_ms != 0 && now - wait.told_ms < server.timeout_ms)
        return;
    wait.told_ms = now;
    pgs_tell_held_up(doing, sessions);
}

// A wait that neither the server nor the time has ended.
static outcome wait_ended(stop_wait waited)
{
    if (waited == STOP_ERROR)
        return pgs_wait_failed();
    return OUTCOME_STOPPED;
}

// Receives something of the answer to what was sent.  A signal to stop ends the wait.
static outcome receive(pgs_server &server, PGconn *connection, wait_state &wait,
                       const std::string &doing)
{
    for (;;) {
        if (PQflush(connection) < 0)
            return pgs_failed(server, connection, nullptr, doing);
        const int64_t look = std::min(LOOK_MS, server.patience_ms / 4);
        const int64_t begun_ms = fwu_monotonic_ms();
        const stop_wait waited = stop_signal_wait(PQsocket(connection), static_cast<int>(look));
        switch (waited) {
        case STOP_READABLE:
            wait.heard_ms = fwu_monotonic_ms();
            if (PQconsumeInput(connection) == 1)
                return {};
            return pgs_failed(server, connection, nullptr, doing);
        case STOP_TIMEOUT:
            wait.heard_ms += pgs_away_ms(begun_ms, look);
            break;
        default:
            return wait_ended(waited);
        }
        const std::string sessions = held_up_by(server, connection);
        if (!sessions.empty())
            tell_held_up(server, wait, doing, sessions);
        else if (fwu_monotonic_ms() - wait.heard_ms >= server.patience_ms)
            return pgs_silent(server, doing);
    }
}

// Waits until the answer to what was sent is there.
static outcome await(pgs_server &server, PGconn *connection, const std::string &query)
{
    wait_state wait;
    outcome done;
    while (done && PQisBusy(connection) != 0)
        done = receive(server, connection, wait, query);
    return done;
}

// What the server refuses is told, unless the caller wants to know it.
static outcome finish(pgs_server &server, PGconn *connection, bool sent, pgs_result &result,
                      const std::string &query, pgs_refusal *refused = nullptr,
                      const char *only = nullptr)
{
    result.reset();
    if (!sent)
        return pgs_failed(server, connection, nullptr, query);
    for (;;) {
        if (outcome waited = await(server, connection, query); !waited)
            return waited;
        pgs_result next(PQgetResult(connection));
        if (next == nullptr && result == nullptr) // not the same as one without rows
            return pgs_lost(server,
                            "the server's answer holds no result; is it a PostgreSQL server?");
        if (next == nullptr)
            return {};
        switch (PQresultStatus(next.get())) {
        case PGRES_COMMAND_OK:
        case PGRES_TUPLES_OK:
            result = std::move(next);
            if (outcome converted = pge_answer(server, result); !converted)
                return converted;
            break;
        case PGRES_COPY_OUT:
        case PGRES_COPY_BOTH:
            result = std::move(next);
            return {};
        case PGRES_COPY_IN:
            return pgs_lost(server,
                            "the server's answer holds no result, it wants to be sent rows; "
                            "is it a PostgreSQL server?");
        default: {
            outcome failure;
            if (refused != nullptr && pgs_refused(connection, next.get(), only) &&
                !pge_is_failure(server, next.get()))
                *refused = {.state = pgs_error_field(next.get(), PG_DIAG_SQLSTATE),
                            .message = pgs_error_field(next.get(), PG_DIAG_MESSAGE_PRIMARY),
                            .detail = pgs_error_field(next.get(), PG_DIAG_MESSAGE_DETAIL)};
            else
                failure = pgs_failed(server, connection, next.get(), query);
            while (!pgs_begins_copy(next.get()) && await(server, connection, query) &&
                   (next.reset(PQgetResult(connection)), next != nullptr)) {
            }
            return failure;
        }
        }
    }
}

outcome pgs_query(pgs_server &server, PGconn *connection, pgs_result &result,
                  const std::string &query, const std::vector<const char *> &parameters)
{
    std::string text;
    std::vector<std::string> texts(parameters.size());
    std::vector<const char *> words;
    outcome done = pge_query(text, server, query);
    for (size_t i = 0; done && i < parameters.size(); i++) {
        done = pge_query(texts[i], server, parameters[i]);
        words.push_back(texts[i].c_str());
    }
    if (!done)
        return done;
    const bool sent = PQsendQueryParams(connection, text.c_str(), static_cast<int>(words.size()),
                                        nullptr, words.data(), nullptr, nullptr, 0) == 1;
    return finish(server, connection, sent, result, told(query));
}

outcome pgs_try(pgs_server &server, PGconn *connection, pgs_result &result,
                const std::string &query, pgs_refusal &refusal, const char *state)
{
    refusal = {};
    std::string text;
    if (outcome done = pge_query(text, server, query); !done)
        return done;
    const bool sent = PQsendQuery(connection, text.c_str()) == 1;
    return finish(server, connection, sent, result, told(query), &refusal, state);
}

outcome pgs_command(pgs_server &server, PGconn *connection, pgs_result &result,
                    const std::string &command)
{
    std::string text;
    if (outcome done = pge_query(text, server, command); !done)
        return done;
    const bool sent = PQsendQuery(connection, text.c_str()) == 1;
    return finish(server, connection, sent, result, told(command));
}

// Receives something, or nothing in the time that the caller has.
static outcome receive_some(pgs_server &server, PGconn *connection, wait_state &wait, int wait_ms,
                            bool &came)
{
    came = true;
    if (wait_ms < 0)
        return receive(server, connection, wait, "COPY");
    if (PQflush(connection) < 0)
        return pgs_failed(server, connection, nullptr, "COPY");
    const stop_wait waited = stop_signal_wait(PQsocket(connection), wait_ms);
    switch (waited) {
    case STOP_READABLE:
        break;
    case STOP_TIMEOUT:
        came = false;
        return {};
    default:
        return wait_ended(waited);
    }
    if (PQconsumeInput(connection) != 1)
        return pgs_failed(server, connection, nullptr, "COPY");
    return {};
}

outcome pgs_copy_send(pgs_server &server, PGconn *connection, const std::string &command)
{
    std::string text;
    outcome done = pge_query(text, server, command);
    if (done && PQsendQuery(connection, text.c_str()) != 1)
        done = pgs_failed(server, connection, nullptr, "COPY");
    return done;
}

outcome pgs_copy_begins(pgs_copied &copied, pgs_server &server, PGconn *connection,
                        pgs_refusal &refusal, int wait_ms)
{
    wait_state wait;
    refusal = {};
    copied = PGS_COPY_WAITS;
    while (PQisBusy(connection) != 0) {
        bool came = false;
        if (outcome done = receive_some(server, connection, wait, wait_ms, came); !done)
            return done;
        if (!came)
            return {};
    }
    pgs_result result;
    outcome done = finish(server, connection, true, result, "COPY", &refusal);
    copied = PQresultStatus(result.get()) == PGRES_COPY_OUT ? PGS_COPY_ROW : PGS_COPY_END;
    if (done && copied == PGS_COPY_END &&
        refusal.state.empty()) // an empty table begins a copy, too
        return pgs_lost(server,
                        "the server's answer to COPY begins none; is it a PostgreSQL server?");
    return done;
}

static outcome convert_row(pgs_server &server, std::span<char> &row)
{
    server.row_text.clear();
    outcome done = pge_from_server(server.row_text, server, {row.data(), row.size()});
    row = server.row_text;
    return done;
}

outcome pgs_copy_row(pgs_copied &copied, std::span<char> &row, uint64_t &rows, pgs_server &server,
                     PGconn *connection, pgs_refusal &refusal, int wait_ms)
{
    wait_state wait;
    refusal = {};
    copied = PGS_COPY_WAITS;
    int length = 0;
    for (;;) {
        char *bytes = nullptr;
        server.row.reset(); // before the next one is made
        length = PQgetCopyData(connection, &bytes, 1);
        server.row.reset(bytes);
        row = {bytes, static_cast<size_t>(std::max(length, 0))};
        if (length != 0)
            break;
        bool came = false;
        if (outcome done = receive_some(server, connection, wait, wait_ms, came); !done)
            return done;
        if (!came)
            return {};
    }
    copied = length > 0 ? PGS_COPY_ROW : PGS_COPY_END;
    if (length > 0) {
        rows++;
        return server.texts == nullptr ? outcome() : convert_row(server, row);
    }
    pgs_result result;
    outcome done;
    if (length == -1)
        done = finish(server, connection, true, result, "COPY", &refusal);
    const bool ended = PQresultStatus(result.get()) == PGRES_COMMAND_OK;
    if (done && !ended && refusal.state.empty())
        return pgs_failed(server, connection, nullptr, "COPY");
    const char *const sent = ended ? PQcmdTuples(result.get()) : "";
    if (done && *sent != '\0' && std::to_string(rows) != sent)
        return pgs_lost(server, "the server says that its COPY gave " + pgs_one_line(sent) +
                                    " rows, of which " + std::to_string(rows) + " came");
    return done;
}
