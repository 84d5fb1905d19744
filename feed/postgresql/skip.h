// A transaction that is passed over because the user names it: the server cannot send it.
#ifndef FEED_POSTGRESQL_SKIP_H
#define FEED_POSTGRESQL_SKIP_H

#include "feed/postgresql/relations.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

struct pgb_skip {
    uint64_t lsn = 0;                // position of its commit; 0: none is to be passed over
    std::vector<std::string> tables; // by fwu_source_name, that get the gap mark; empty: all
    bool met = false;                // it came, or a later one, or the log is beyond it
};

// Looks whether the log, which ends here, is beyond it already; that is told.
void pgb_skip_open(pgb_skip &skip, uint64_t last_lsn);

// The stream has come to a transaction that commits here, which is not in hand yet.  For the one
// that is named the log gets the gap marks, as a transaction of its own directly behind its
// commit: the log has the position then, so that what comes of it is passed over like all that
// the log has, and the server goes on behind it.  That it was never met is told.
outcome pgb_skip_begin(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit);

// All that commits up to here has come: it was never met, which is told.
void pgb_skip_pass(pgb_skip &skip, uint64_t lsn);

// The server has failed at a position before it has begun any transaction, which may be the one
// that is named.  Then the log gets the gap marks, and taken is true.
outcome pgb_skip_unbegun(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                         uint64_t failed_at, bool &taken);

// Whether the transaction in hand is the one.
bool pgb_skip_holds(const pgb_skip &skip, const feed_transaction &tx);

#endif
