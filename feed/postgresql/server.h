// Connections to a PostgreSQL server: owned handles, queries, and errors told with
// what to do about them.  No call waits for ever: a server that is silent for too long is
// lost, unless it says that other sessions hold it up.
#ifndef FEED_POSTGRESQL_SERVER_H
#define FEED_POSTGRESQL_SERVER_H

#include <charconv>
#include <cstdint>
#include <libpq-fe.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct pgs_close {
    void operator()(PGconn *connection) const
    {
        PQfinish(connection);
    }
    void operator()(PGresult *result) const
    {
        PQclear(result);
    }
    void operator()(char *bytes) const
    {
        PQfreemem(bytes);
    }
};
using pgs_connection = std::unique_ptr<PGconn, pgs_close>;
using pgs_result = std::unique_ptr<PGresult, pgs_close>;
using pgs_memory = std::unique_ptr<char, pgs_close>;

enum pgs_outcome {
    PGS_OK,
    PGS_LOST,    // the connection could not be made or is gone: it may come back
    PGS_REFUSED, // the server refuses, or something is not as it has to be: reported
    PGS_STOPPED, // a signal asks to stop
};

struct pgs_server {
    std::string conninfo; // may be empty: the environment's settings count
    std::string slot;
    std::string publication;
    pgs_connection sql;           // for queries
    pgs_connection replication;   // for the stream
    pgs_memory row;               // that pgs_row gave last
    std::string lost;             // after PGS_LOST: what the server or the system said
    const char *remedy = nullptr; // after PGS_LOST: what to do about it, if that is known
    bool slot_in_use = false;     // after PGS_LOST: it was that another process has the slot
    int64_t timeout_ms = 60'000;  // of silence after which the server is taken for gone
    int64_t patience_ms = 60'000; // the same, longer after each time
};

// Opens both connections, with the settings that make values look the same on every
// server.
pgs_outcome pgs_connect(pgs_server &server);

void pgs_disconnect(pgs_server &server);

// Runs a query whose parameters stand as $1, $2, ...; result has its rows.
pgs_outcome pgs_query(pgs_server &server, PGconn *connection, pgs_result &result,
                      const std::string &query, const std::vector<const char *> &parameters = {});

// The same without parameters, as the replication connection needs it.
pgs_outcome pgs_command(pgs_server &server, PGconn *connection, pgs_result &result,
                        const std::string &command);

// The next row of a COPY ... TO STDOUT on the sql connection, valid until the next
// call; empty at the end.
pgs_outcome pgs_row(pgs_server &server, std::string_view &row);

// Reports the failed result, or that of the connection when result is null: what was
// done, the server's message, the remedy if one is known.  PGS_LOST is not reported,
// but left in server.lost.
pgs_outcome pgs_failed(pgs_server &server, PGconn *connection, const PGresult *result,
                       const std::string &doing);

// The server was silent for too long: PGS_LOST, with what was waited for in server.lost.
// It gets more time the next time, since it may have been busy with something huge.
pgs_outcome pgs_silent(pgs_server &server, const std::string &doing);

// How connections are made: ours that the user's settings replace, the user's, ours that
// stand.  Settings of the environment and of a service count like the user's.
struct pgs_parameters {
    std::vector<const char *> keys; // both end with null
    std::vector<const char *> values;
    std::vector<std::string> texts; // that values point to
};
void pgs_collect(pgs_parameters &parameters, const pgs_server &server);

// Asks for one value over a connection of its own, to the host that connection goes to.
// False when it cannot be had within two seconds.
bool pgs_ask(const pgs_server &server, const PGconn *connection, const std::string &query,
             std::string &value);

// Gets the end of the log of the server that is followed; lsn stays as it is when that
// cannot be had.
void pgs_server_lsn(const pgs_server &server, uint64_t &lsn);

// A value of a result; nulls are empty.
std::string_view pgs_value(const pgs_result &result, int row, int column);

// A number that the server wrote.  False, number stays: it is none, or out of range.
template <typename Number> bool pgs_number(Number &number, std::string_view text)
{
    Number found = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, code] = std::from_chars(text.data(), end, found);
    if (code != std::errc() || rest != end)
        return false;
    number = found;
    return true;
}

// A name or a text as SQL writes them.
std::string pgs_name(std::string_view name);
std::string pgs_literal(std::string_view text);

#endif
