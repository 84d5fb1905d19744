// Connections to a PostgreSQL server: owned handles, queries, and errors told with
// what to do about them.
#ifndef TOOLS_POSTGRESQL_SERVER_H
#define TOOLS_POSTGRESQL_SERVER_H

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
    std::string conninfo;
    std::string slot;
    std::string publication;
    pgs_connection sql;           // for queries
    pgs_connection replication;   // for the stream
    pgs_memory row;               // that pgs_row gave last
    std::string lost;             // after PGS_LOST: what the server or the system said
    const char *remedy = nullptr; // after PGS_LOST: what to do about it, if that is known
    bool slot_in_use = false;     // after PGS_LOST: it was that another process has the slot
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

// Gets the end of the log of the server that is followed, over a connection of its
// own; lsn stays as it is when that cannot be had within two seconds.
void pgs_server_lsn(const pgs_server &server, uint64_t &lsn);

// A value of a result; nulls are empty.
std::string_view pgs_value(const pgs_result &result, int row, int column);

// A name or a text as SQL writes them.
std::string pgs_name(std::string_view name);
std::string pgs_literal(std::string_view text);

#endif
