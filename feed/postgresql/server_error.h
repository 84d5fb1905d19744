// Errors of the server: their fields, and what to do about them.
#ifndef FEED_POSTGRESQL_SERVER_ERROR_H
#define FEED_POSTGRESQL_SERVER_ERROR_H

#include "feed/postgresql/server.h"

#include <string>

// A field of an error (PG_DIAG_...), in one line; empty when there is none.
std::string pgs_error_field(const PGresult *result, int field);

// What to do about an error with this SQLSTATE and message; null when that is not known.
const char *pgs_find_remedy(const char *state, const char *message);

#endif
