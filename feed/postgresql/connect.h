// The two connections to the server that is followed: one for queries, one for the stream.
#ifndef FEED_POSTGRESQL_CONNECT_H
#define FEED_POSTGRESQL_CONNECT_H

#include "feed/postgresql/server.h"

// What to do about a connection that cannot be made for a reason that is not known.
constexpr char PGS_CONNECT_REMEDY[] =
    "check --conninfo or the environment (host, port, dbname, user, password), and that the "
    "server runs";

// Opens both connections, with the settings that make values look the same on every
// server.
outcome pgs_connect(pgs_server &server);

// One of them.
outcome pgs_connect_sql(pgs_server &server);
outcome pgs_connect_replication(pgs_server &server);

// A third one, beside a transaction of the first.
outcome pgs_connect_order(pgs_server &server);

void pgs_disconnect(pgs_server &server);

#endif
