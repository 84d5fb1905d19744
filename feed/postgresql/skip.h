// Transactions that are passed over because the user names them: the server cannot send them.
#ifndef FEED_POSTGRESQL_SKIP_H
#define FEED_POSTGRESQL_SKIP_H

#include "feed/postgresql/options.h"
#include "feed/postgresql/relations.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <span>

// Looks which of them the log, which ends here, is beyond already; that is told.
void pgb_skip_open(std::span<pgb_skip> skips, uint64_t last_lsn);

// Tells which of them are behind the end of the server's log.
void pgb_skip_tell_far(std::span<const pgb_skip> skips, uint64_t server_lsn);

// The run is over; tells those that it did not come to.
void pgb_skip_close(std::span<const pgb_skip> skips);

// The stream has come to a transaction that commits here, which is not in hand yet.  For one
// that is named the log gets the gap marks, as a transaction of its own directly behind its
// commit: the log has the position then, so that what comes of it is passed over like all that
// the log has, and the server goes on behind it.  Where tables are named, that waits for its end,
// since others that it changes get marks, too.  That one was never met is told.
outcome pgb_skip_begin(std::span<pgb_skip> skips, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit);

// The transaction in hand, if it is one that waits for its end: it is passed over; it changes a
// table; it has come to its end, and is in hand no more, or the server cannot send the rest.
void pgb_skip_take(std::span<const pgb_skip> skips, feed_transaction &tx);
void pgb_skip_note(std::span<pgb_skip> skips, const feed_transaction &tx,
                   const pgb_relations &relations, uint32_t relation);
outcome pgb_skip_end(std::span<pgb_skip> skips, feed_transaction &tx, pgb_relations &relations);

// All that commits up to here has come: what was never met is told.
void pgb_skip_pass(std::span<pgb_skip> skips, uint64_t lsn);

// The server has failed in this one before it has begun it: the log gets the gap marks.
outcome pgb_skip_unbegun(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations);

// Whether the transaction in hand is one of them.
bool pgb_skip_holds(std::span<const pgb_skip> skips, const feed_transaction &tx);

#endif
