// Nothing may hold these questions up: not a server that takes no connection, nor one
// that gives no answer.
#include "feed/postgresql/ask.h"

#include "feed/postgresql/parameters.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

#include <poll.h>

constexpr int64_t PATIENCE_MS = 2000;

// Waits for the connection's socket; false when time is up or a signal came.
static bool wait_for(const PGconn *connection, short events, int64_t deadline_ms)
{
    const int64_t left = deadline_ms - fwu_monotonic_ms();
    struct pollfd wanted = {.fd = PQsocket(connection), .events = events, .revents = 0};
    return left > 0 && wanted.fd >= 0 && poll(&wanted, 1, static_cast<int>(left)) > 0;
}

static bool connect(PGconn *connection, int64_t deadline_ms)
{
    PostgresPollingStatusType status = PGRES_POLLING_WRITING;
    while (status == PGRES_POLLING_READING || status == PGRES_POLLING_WRITING) {
        const short events = status == PGRES_POLLING_READING ? POLLIN : POLLOUT;
        if (!wait_for(connection, events, deadline_ms))
            return false;
        status = PQconnectPoll(connection);
    }
    return status == PGRES_POLLING_OK;
}

// Waits for the next result, which is null behind the last one; false when time is up.
static bool take_result(PGconn *connection, int64_t deadline_ms, pgs_result &result)
{
    while (PQisBusy(connection) != 0)
        if (!wait_for(connection, POLLIN, deadline_ms) || PQconsumeInput(connection) != 1)
            return false;
    result.reset(PQgetResult(connection));
    return true;
}

bool pgs_ask_rows(const pgs_server &server, const PGconn *beside, const std::string &query,
                  pgs_result &rows)
{
    const int64_t deadline = fwu_monotonic_ms() + PATIENCE_MS;
    const char *const address = PQhostaddr(beside);
    pgs_parameters parameters;
    pgs_collect(parameters, server);
    const bool remote = address != nullptr && *address != '\0';
    parameters.keys.insert(parameters.keys.end() - 1,
                           {"host", "port", remote ? "hostaddr" : nullptr});
    parameters.values.insert(parameters.values.end() - 1,
                             {PQhost(beside), PQport(beside), remote ? address : nullptr});
    const pgs_connection connection(
        PQconnectStartParams(parameters.keys.data(), parameters.values.data(), 1));
    if (connection == nullptr || PQstatus(connection.get()) == CONNECTION_BAD ||
        !connect(connection.get(), deadline) || PQsetnonblocking(connection.get(), 1) != 0 ||
        PQsendQuery(connection.get(), query.c_str()) != 1 || PQflush(connection.get()) != 0)
        return false;
    pgs_result next;
    do {
        rows = std::move(next);
        if (!take_result(connection.get(), deadline, next))
            return false;
    } while (next != nullptr);
    return PQresultStatus(rows.get()) == PGRES_TUPLES_OK;
}

bool pgs_ask(const pgs_server &server, const PGconn *beside, const std::string &query,
             std::string &value)
{
    pgs_result result;
    if (!pgs_ask_rows(server, beside, query, result) || PQntuples(result.get()) != 1)
        return false;
    value = pgs_value(result, 0, 0);
    return true;
}

const char pgs_lsn_query[] = "SELECT CASE WHEN pg_is_in_recovery() THEN pg_last_wal_replay_lsn() "
                             "ELSE pg_current_wal_flush_lsn() END";

void pgs_server_lsn(const pgs_server &server, uint64_t &lsn)
{
    std::string value;
    if (pgs_ask(server, server.replication.get(), pgs_lsn_query, value))
        (void)fwu_lsn_parse(lsn, value); // stays
}
