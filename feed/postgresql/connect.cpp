// A connection that cannot be made may be made later: OUTCOME_LOST, with a remedy in case
// it never could.
#include "feed/postgresql/connect.h"

#include "feed/postgresql/dial.h"
#include "feed/postgresql/encoding.h"
#include "feed/postgresql/parameters.h"
#include "feed/postgresql/query.h"

#include <cstring>

// A refused connection has no SQLSTATE, only its text.
static const char *find_connection_remedy(const char *message)
{
    static constexpr struct {
        const char *text;
        const char *state;
        const char *message = "replication";
    } rows[] = {
        {"replication role", "42501"}, {"WAL sender", "42501"},
        {"max_wal_senders", "53300"},  {"too many clients", "53300"},
        {"connection slots", "53300"}, {"authentication failed", "28"},
        {"pg_hba.conf", "28"},         {"role \"", "28", "does not exist"},
        {"database \"", "3D000"},
    };
    for (const auto &row : rows)
        if (strstr(message, row.text) != nullptr)
            return pgs_find_remedy(row.state, row.message);
    return nullptr;
}

static outcome open_connection(pgs_connection &connection, const pgs_server &server,
                               bool replication, std::string &why)
{
    pgs_parameters parameters;
    pgs_collect(parameters, server);
    if (replication) {
        parameters.keys.insert(parameters.keys.end() - 1, "replication");
        parameters.values.insert(parameters.values.end() - 1, "database");
    }
    why.clear();
    outcome done = pgs_dial(connection, parameters, why);
    if (!done)
        connection.reset();
    return done;
}

// A database without an encoding holds any bytes, of which the server would make UTF-8 only
// where they are that: they are taken as they are.
static outcome set_encoding(pgs_server &server, PGconn *connection)
{
    const char *const encoding = PQparameterStatus(connection, "server_encoding");
    const bool any_bytes = encoding != nullptr && strcmp(encoding, "SQL_ASCII") == 0;
    pgs_result result;
    server.encoding = encoding == nullptr ? "" : encoding;
    if (any_bytes == server.any_bytes) // as the connection was asked for
        return {};
    server.any_bytes = any_bytes;
    return pgs_command(server, connection, result,
                       any_bytes ? "SET client_encoding = 'SQL_ASCII'"
                                 : "SET client_encoding = 'UTF8'");
}

static outcome open_one(pgs_server &server, pgs_connection &connection, bool replication)
{
    std::string why;
    outcome done = open_connection(connection, server, replication, why);
    server.remedy = nullptr;
    // Of this encoding it converts nothing, and takes no connection that wants UTF-8.
    const bool refused = done && PQstatus(connection.get()) != CONNECTION_OK &&
                         server.texts == nullptr && why.find("MULE_INTERNAL") != why.npos;
    if (refused) {
        pge_begin(server);
        done = open_connection(connection, server, replication, why);
    }
    if (!done)
        return done;
    // Sending never waits: what is not sent goes along with what is sent next.
    if (PQstatus(connection.get()) != CONNECTION_OK || PQsetnonblocking(connection.get(), 1) != 0) {
        connection.reset();
        why = pgs_one_line(why.c_str());
        server.remedy = find_connection_remedy(why.c_str());
        return pgs_lost(server, pgs_without_secrets(server, why));
    }
    pgs_result result;
    for (const char *setting : pgs_settings(PQserverVersion(connection.get())))
        if (outcome set =
                pgs_command(server, connection.get(), result, std::string("SET ") + setting);
            !set)
            return set;
    return set_encoding(server, connection.get());
}

outcome pgs_connect_sql(pgs_server &server)
{
    return open_one(server, server.sql, false);
}

outcome pgs_connect_replication(pgs_server &server)
{
    return open_one(server, server.replication, true);
}

outcome pgs_connect_order(pgs_server &server)
{
    return open_one(server, server.order, false);
}

outcome pgs_connect(pgs_server &server)
{
    outcome done = pgs_connect_sql(server);
    if (done)
        done = pgs_connect_replication(server);
    return done;
}

void pgs_disconnect(pgs_server &server)
{
    server.sql.reset();
    server.order.reset();
    server.replication.reset();
}
