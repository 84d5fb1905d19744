// The contents that the tables had when the slot was made, as inserts.
#ifndef FEED_POSTGRESQL_SNAPSHOT_H
#define FEED_POSTGRESQL_SNAPSHOT_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/state.h"
#include "feed/transaction.h"

#include <cstdint>
#include <string>

// Takes the contents of the publication's tables, as the exported snapshot shows them,
// into the log as one transaction of inserts before position lsn, where the slot begins.
// The slot is dropped when that fails.
outcome pgb_take_snapshot(pgs_server &server, pgb_state &state, feed_transaction &tx,
                          pgb_relations &relations, const std::string &snapshot, uint64_t lsn,
                          bool verbose);

#endif
