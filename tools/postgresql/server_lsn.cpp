// The end of the server's log, asked for beside the stream.  Nothing may hold the
// stream up: not a server that takes no connection, nor one that gives no answer.
#include "fwutil/fwu_clock.h"
#include "tools/pg_lsn.h"
#include "tools/postgresql/server.h"

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

void pgs_server_lsn(const pgs_server &server, uint64_t &lsn)
{
    const int64_t deadline = fwu_monotonic_ms() + PATIENCE_MS;
    const PGconn *const followed = server.replication.get();
    const char *const address = PQhostaddr(followed);
    const bool remote = address != nullptr && *address != '\0';
    const char *const keys[] = {"fallback_application_name",   "dbname", "host", "port",
                                remote ? "hostaddr" : nullptr, nullptr};
    const char *const values[] = {
        "fwlog", server.conninfo.c_str(), PQhost(followed), PQport(followed), address, nullptr};
    const pgs_connection connection(PQconnectStartParams(keys, values, 1));
    if (connection == nullptr || PQstatus(connection.get()) == CONNECTION_BAD ||
        !connect(connection.get(), deadline) ||
        PQsendQuery(connection.get(), "SELECT CASE WHEN pg_is_in_recovery() THEN "
                                      "pg_last_wal_replay_lsn() ELSE pg_current_wal_flush_lsn() "
                                      "END") != 1)
        return;
    while (PQisBusy(connection.get()) != 0)
        if (!wait_for(connection.get(), POLLIN, deadline) || PQconsumeInput(connection.get()) != 1)
            return;
    const pgs_result result(PQgetResult(connection.get()));
    if (PQresultStatus(result.get()) == PGRES_TUPLES_OK)
        (void)pgl_parse(lsn, pgs_value(result, 0, 0)); // stays
}
