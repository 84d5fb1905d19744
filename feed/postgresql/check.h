// What a start would make of a database, without starting: nothing is changed, neither on the
// server nor in the log directory.
#ifndef FEED_POSTGRESQL_CHECK_H
#define FEED_POSTGRESQL_CHECK_H

#include "feed/postgresql/options.h"
#include "util/outcome.h"

// Prints what is found on standard output.  OUTCOME_FAILED when a run would not start, or not
// take everything; it is told there.
outcome pgk_check(const pgb_options &options);

#endif
