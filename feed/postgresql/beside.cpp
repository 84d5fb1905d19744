// Nothing may hold these connections up: not a server that takes none, nor one that gives no
// answer.
#include "feed/postgresql/beside.h"

#include "feed/postgresql/dial.h"
#include "feed/postgresql/server_error.h"
#include "fwutil/fwu_clock.h"

#include <poll.h>

// Waits for the connection's socket; false when time is up or a signal came.
static bool wait_for(const PGconn *connection, short events, int64_t deadline_ms)
{
    const int64_t left = deadline_ms - fwu_monotonic_ms();
    struct pollfd wanted = {.fd = PQsocket(connection), .events = events, .revents = 0};
    return left > 0 && wanted.fd >= 0 && poll(&wanted, 1, static_cast<int>(left)) > 0;
}

static bool connect(PGconn *connection, int64_t deadline_ms)
{
    pgs_drop_notices(connection);
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

pgs_connection pgs_beside_connect(const pgs_server &server, const PGconn *beside,
                                  int64_t deadline_ms, std::string *why)
{
    const char *const address = PQhostaddr(beside);
    pgs_parameters parameters;
    pgs_collect(parameters, server);
    const bool remote = address != nullptr && *address != '\0';
    parameters.keys.insert(parameters.keys.end() - 1,
                           {"host", "port", remote ? "hostaddr" : nullptr});
    parameters.values.insert(parameters.values.end() - 1,
                             {PQhost(beside), PQport(beside), remote ? address : nullptr});
    pgs_connection connection(
        PQconnectStartParams(parameters.keys.data(), parameters.values.data(), 1));
    if (connection == nullptr || PQstatus(connection.get()) == CONNECTION_BAD ||
        !connect(connection.get(), deadline_ms) || PQsetnonblocking(connection.get(), 1) != 0) {
        if (why != nullptr && connection != nullptr)
            *why = pgs_one_line(PQerrorMessage(connection.get()));
        return nullptr;
    }
    std::string settings;
    for (const char *setting : pgs_settings(PQserverVersion(connection.get())))
        settings += std::string("SET ") + setting + ";";
    pgs_result set;
    if (!pgs_beside_run(connection.get(), settings, deadline_ms, set) ||
        PQresultStatus(set.get()) != PGRES_COMMAND_OK)
        return nullptr;
    return connection;
}

bool pgs_beside_run(PGconn *connection, const std::string &query, int64_t deadline_ms,
                    pgs_result &answer)
{
    if (PQsendQuery(connection, query.c_str()) != 1)
        return false;
    for (int left = 1; left != 0;) {
        left = PQflush(connection);
        if (left < 0 || (left > 0 && !wait_for(connection, POLLOUT, deadline_ms)))
            return false;
    }
    pgs_result next;
    do {
        answer = std::move(next);
        if (!take_result(connection, deadline_ms, next) || pgs_begins_copy(next.get()))
            return false;
    } while (next != nullptr);
    return true;
}
