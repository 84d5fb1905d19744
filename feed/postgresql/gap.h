// Gap marks that no transaction of the server's brings: what was left out so far, or cannot be had
// any more, is told the log's readers before the stream goes on.
#ifndef FEED_POSTGRESQL_GAP_H
#define FEED_POSTGRESQL_GAP_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/standing.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <span>
#include <string>

// Adds a gap mark for each of these tables, by their fwu_source_names, or one for all tables where
// none is named, to the transaction in hand.
outcome pgb_put_gaps(feed_transaction &tx, const pgb_relations &relations,
                     std::span<const std::string> tables, const std::string &reason);

// The same in a transaction of its own directly behind the log's last one, with number 0, on disk
// when this returns: commits of the server have positions that are multiples of 8, so that none is
// there.  A log that has nothing lacks nothing, and gets none.
outcome pgb_log_gaps(feed_transaction &tx, pgb_relations &relations,
                     std::span<const std::string> tables, const std::string &reason,
                     pgb_own own = PGB_OWN_BREAKS);

// The same for all tables, in front of a position up to which nothing is asked of the server any
// more, behind all that commits there; a log that has nothing gets one, too.
outcome pgb_log_gap_up_to(feed_transaction &tx, pgb_relations &relations, uint64_t position,
                          const std::string &reason);

// Takes what the catalogue has told of the tables, before the stream begins: which OID each has,
// and which are left out with skip-table.  One that is not any more gets a gap mark.  server_lsn:
// a position of the server before it was asked.
outcome pgb_take_stock(feed_transaction &tx, pgb_relations &relations, uint64_t server_lsn);

#endif
