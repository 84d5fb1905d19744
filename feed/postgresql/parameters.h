// How connections are made: ours that the user's settings replace, the user's, ours that
// stand.  Settings of the environment and of a service count like the user's.
#ifndef FEED_POSTGRESQL_PARAMETERS_H
#define FEED_POSTGRESQL_PARAMETERS_H

#include "feed/postgresql/server.h"

#include <memory>
#include <string>
#include <vector>

struct pgs_options_free {
    void operator()(PQconninfoOption *options) const
    {
        PQconninfoFree(options);
    }
};
// The settings that libpq knows; null: none could be had.
using pgs_options = std::unique_ptr<PQconninfoOption, pgs_options_free>;

// A setting's value; null: it has none.
const char *pgs_find_option(const pgs_options &options, const char *key);

constexpr int64_t PGS_CONNECT_MIN_S = 2; // libpq takes less for two seconds

struct pgs_parameters {
    std::vector<const char *> keys; // both end with null
    std::vector<const char *> values;
    std::vector<std::string> texts; // that values point to
};
void pgs_collect(pgs_parameters &parameters, const pgs_server &server);

// What libpq says of a connection that cannot be made, without the passwords of the connection
// string and of what is around it.
std::string pgs_without_secrets(const pgs_server &server, const std::string &why);

// What every session begins with: values that look the same on every server, and none of the
// limits that a database or a role sets for its users.  Terms of SET, for this version.
std::vector<const char *> pgs_settings(int version);

#endif
