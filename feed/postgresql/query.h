// Queries and commands, and errors told with what to do about them.  No call waits for
// ever: a server that is silent for too long is lost, unless it says that other sessions
// hold it up.
#ifndef FEED_POSTGRESQL_QUERY_H
#define FEED_POSTGRESQL_QUERY_H

#include "feed/postgresql/server.h"
#include "feed/postgresql/server_error.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

// Runs a query whose parameters stand as $1, $2, ...; result has its rows.
outcome pgs_query(pgs_server &server, PGconn *connection, pgs_result &result,
                  const std::string &query, const std::vector<const char *> &parameters = {});

// What the server has refused.
struct pgs_refusal {
    std::string state;   // SQLSTATE; empty: nothing was refused
    std::string message; // its first line
    std::string detail;  // what the server adds, may be empty
};

// The same, where the server may refuse: refusal then says what.  state: only with this SQLSTATE,
// all else is told.
outcome pgs_try(pgs_server &server, PGconn *connection, pgs_result &result,
                const std::string &query, pgs_refusal &refusal, const char *state = nullptr);

// The same without parameters, as the replication connection needs it.
outcome pgs_command(pgs_server &server, PGconn *connection, pgs_result &result,
                    const std::string &command);

// A COPY ... TO STDOUT that the server may refuse, at its beginning or behind any row.
enum pgs_copied {
    PGS_COPY_ROW,   // there is one; of pgs_copy_begins: they come now
    PGS_COPY_END,   // of the rows, or the server has refused
    PGS_COPY_WAITS, // nothing has come in the time given
};

// Sends the command.
outcome pgs_copy_send(pgs_server &server, PGconn *connection, const std::string &command);

// Its answer, and each of its rows, valid until the next call and free to be changed, waited for
// wait_ms at most (negative: as long as for any answer).  rows: those given, 0 before the first;
// the server has to have sent as many.
outcome pgs_copy_begins(pgs_copied &copied, pgs_server &server, PGconn *connection,
                        pgs_refusal &refusal, int wait_ms = -1);
outcome pgs_copy_row(pgs_copied &copied, std::span<char> &row, uint64_t &rows, pgs_server &server,
                     PGconn *connection, pgs_refusal &refusal, int wait_ms = -1);

// The sessions of the processes that a query gives (0: a prepared transaction), asked for over a
// connection beside this one; empty when there are none, or when the server does not tell.
std::string pgs_sessions(const pgs_server &server, const PGconn *connection,
                         const std::string &processes);

// Tells that what is done waits for these.
void pgs_tell_held_up(const std::string &doing, const std::string &sessions);

// The failed result, or that of the connection when result is null: what was done, the
// server's message, the remedy if one is known.  What may pass by itself is OUTCOME_LOST,
// all else is told: OUTCOME_FAILED.  otherwise: what to do where no remedy is known; the server's
// details stand in front of it.
outcome pgs_failed(pgs_server &server, PGconn *connection, const PGresult *result,
                   const std::string &doing, const std::string &otherwise = {});

// Whether the server has answered with an error that does not pass by itself; only, when given,
// is its SQLSTATE.
bool pgs_refused(const PGconn *connection, const PGresult *result, const char *only = nullptr);

// How long this process did not run while it waited for limit_ms at most, having begun at begun_ms
// (fwu_monotonic_ms): it was stopped, or the machine was.  The server was not silent meanwhile.
int64_t pgs_away_ms(int64_t begun_ms, int64_t limit_ms);

// The server was silent for too long while this was waited for: OUTCOME_LOST.  It gets
// more time the next time, since it may have been busy with something huge.
outcome pgs_silent(pgs_server &server, const std::string &doing);

#endif
