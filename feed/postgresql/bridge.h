// The bridge from a PostgreSQL server to the log, from one connection to the next.
#ifndef FEED_POSTGRESQL_BRIDGE_H
#define FEED_POSTGRESQL_BRIDGE_H

#include "feed/postgresql/options.h"
#include "util/outcome.h"

// Follows the server until something ends it: all went well with --once only,
// OUTCOME_STOPPED is a signal.
outcome pgb_run(const pgb_options &options);

#endif
