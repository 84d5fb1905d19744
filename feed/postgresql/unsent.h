// Where a transaction commits that the server fails to send before it has begun to: the server is
// asked to decode the same once more, up to one position after the other, without the slot being
// moved.  What it gives is thrown away on the server.
#ifndef FEED_POSTGRESQL_UNSENT_H
#define FEED_POSTGRESQL_UNSENT_H

#include "feed/postgresql/server.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>

// How the stream has ended.
struct pgb_failure {
    std::string state;       // SQLSTATE
    std::string message;     // its first line
    uint64_t at = 0;         // of the change
    int64_t deadline_ms = 0; // of looking for the commit, fwu_monotonic_ms
    uint64_t block = 0;      // of the server's log, with a header in front of each
    uint64_t segment = 0;
};

// All of these need server.sql; OUTCOME_BAD: it cannot be found out, for this reason.

// Moves the slot to what it has been told, so that nothing in front of it is decoded again.
outcome pgb_peek_begin(pgs_server &server, pgb_failure &failure, uint64_t told_lsn);

// Whether what fails commits at this position: all in front of it can be sent, and not with it.
outcome pgb_peek_commit(bool &commits, pgs_server &server, const pgb_failure &failure,
                        uint64_t lsn);

// Looks for the position.
outcome pgb_peek_find(uint64_t &lsn, pgs_server &server, const pgb_failure &failure);

#endif
