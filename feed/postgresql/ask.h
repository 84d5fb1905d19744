// Values asked for beside the connections that are at work.
#ifndef FEED_POSTGRESQL_ASK_H
#define FEED_POSTGRESQL_ASK_H

#include "feed/postgresql/server.h"

#include <cstdint>
#include <string>

// Asks for rows over a connection of its own, to the host that connection goes to; the last of
// several commands gives them.  False when they cannot be had within two seconds.  about: what they
// are, where a refusal is to be told, once for each cause, and kept in server.untold as long as it
// lasts ("where its log ends").
bool pgs_ask_rows(const pgs_server &server, const PGconn *connection, const std::string &query,
                  pgs_result &rows, const char *about = nullptr);

// The same for one value.
bool pgs_ask(const pgs_server &server, const PGconn *connection, const std::string &query,
             std::string &value, const char *about = nullptr);

// Gives the end of the server's log; of a standby, what it has applied.
extern const char pgs_lsn_query[];

// Gets the end of the log of the server that is followed; lsn stays as it is when that
// cannot be had.
void pgs_server_lsn(const pgs_server &server, uint64_t &lsn);

#endif
