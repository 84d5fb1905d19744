// How connections are made, and single values asked for beside those that are at work.
// Nothing may hold these up: not a server that takes no connection, nor one that gives no
// answer.
#include "feed/lsn.h"
#include "feed/postgresql/server.h"
#include "fwutil/fwu_clock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <poll.h>

constexpr int64_t PATIENCE_MS = 2000;
constexpr int64_t CONNECT_MIN_S = 2; // libpq takes less for two seconds
constexpr int64_t CONNECT_MAX_S = 10;

struct options_free {
    void operator()(PQconninfoOption *options) const
    {
        PQconninfoFree(options);
    }
};
using options_list = std::unique_ptr<PQconninfoOption, options_free>;

static const char *find_option(const options_list &options, const char *key)
{
    for (const PQconninfoOption *row = options.get(); row != nullptr && row->keyword != nullptr;
         row++)
        if (strcmp(row->keyword, key) == 0)
            return row->val;
    return nullptr;
}

// What the environment says, and the service file when a service is named.
static options_list settings_around(const pgs_server &server)
{
    const options_list said(PQconninfoParse(server.conninfo.c_str(), nullptr));
    const char *const service = find_option(said, "service");
    // The call that follows knows services by the environment only; the user's connection
    // string names the same one to all calls behind it.
    if (service != nullptr)
        setenv("PGSERVICE", service, 1);
    return options_list(PQconndefaults());
}

void pgs_collect(pgs_parameters &parameters, const pgs_server &server)
{
    const options_list around = settings_around(server);
    const int64_t seconds = std::clamp(server.timeout_ms / 1000, CONNECT_MIN_S, CONNECT_MAX_S);
    // A peer that is gone without a word is found out by the system, too.
    const struct {
        const char *key;
        std::string value;
    } ours[] = {
        {"connect_timeout", std::to_string(seconds)},
        {"keepalives_idle", "20"},
        {"keepalives_interval", "10"},
        {"keepalives_count", "3"},
        {"tcp_user_timeout", std::to_string(server.timeout_ms)},
        {"fallback_application_name", "fwlog"},
    };
    parameters.texts.reserve(std::size(ours)); // so that the texts stay where they are
    for (const auto &row : ours) {
        if (find_option(around, row.key) != nullptr)
            continue;
        parameters.texts.push_back(row.value);
        parameters.keys.push_back(row.key);
        parameters.values.push_back(parameters.texts.back().c_str());
    }
    parameters.keys.insert(parameters.keys.end(), {"dbname", "client_encoding", nullptr});
    parameters.values.insert(parameters.values.end(), {server.conninfo.c_str(), "UTF8", nullptr});
}

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

bool pgs_ask(const pgs_server &server, const PGconn *beside, const std::string &query,
             std::string &value)
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
    while (PQisBusy(connection.get()) != 0)
        if (!wait_for(connection.get(), POLLIN, deadline) || PQconsumeInput(connection.get()) != 1)
            return false;
    const pgs_result result(PQgetResult(connection.get()));
    if (PQresultStatus(result.get()) != PGRES_TUPLES_OK || PQntuples(result.get()) != 1)
        return false;
    value = pgs_value(result, 0, 0);
    return true;
}

void pgs_server_lsn(const pgs_server &server, uint64_t &lsn)
{
    std::string value;
    if (pgs_ask(server, server.replication.get(),
                "SELECT CASE WHEN pg_is_in_recovery() THEN pg_last_wal_replay_lsn() ELSE "
                "pg_current_wal_flush_lsn() END",
                value))
        (void)feed_lsn_parse(lsn, value); // stays
}
