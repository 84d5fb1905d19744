// The two connections to the server that is followed: one for queries, one for the stream.
#ifndef FEED_POSTGRESQL_CONNECT_H
#define FEED_POSTGRESQL_CONNECT_H

#include "feed/postgresql/server.h"

// Opens both connections, with the settings that make values look the same on every
// server.
outcome pgs_connect(pgs_server &server);

void pgs_disconnect(pgs_server &server);

#endif
