// Errors of the server: their fields, and what to do about them.
#ifndef FEED_POSTGRESQL_SERVER_ERROR_H
#define FEED_POSTGRESQL_SERVER_ERROR_H

#include "feed/postgresql/server.h"

#include <string>

// A field of an error (PG_DIAG_...), in one line; empty when there is none.
std::string pgs_error_field(const PGresult *result, int field);

// What to do about an error with this SQLSTATE and message; null when that is not known.
const char *pgs_find_remedy(const char *state, const char *message);

// What a role lacks for a table; names as SQL writes them.
struct pgs_lacking {
    std::string schema;
    std::string table; // with its schema, where that is known
    std::string role;
};

// A remedy with these names in the places that it leaves for them.
std::string pgs_name_remedy(std::string remedy, const pgs_lacking &lacking);

// Whether a result is the beginning of a copy, which libpq gives again and again until rows were
// sent or taken: no answer to anything but COPY.
bool pgs_begins_copy(const PGresult *result);

#endif
