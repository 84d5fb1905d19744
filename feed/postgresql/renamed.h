// Tables that the catalogue has under another name than the log: a table that is renamed shows in
// the stream with its next change only, which may never come.
#ifndef FEED_POSTGRESQL_RENAMED_H
#define FEED_POSTGRESQL_RENAMED_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <vector>

struct pgb_renamed {
    std::vector<pgo_relation> tables; // as the catalogue has them
    uint64_t position = 0;            // of the server when it was asked
};

// Looks over a connection of its own, position being the server's; finds nothing when it gets no
// answer.
void pgb_look_renamed(pgb_renamed &renamed, const pgs_server &server,
                      const pgb_relations &relations, uint64_t position);

// Takes them as pgb_identify would, in a transaction of its own, once everything before that
// position has come.  No transaction is open.
outcome pgb_take_renamed(pgb_renamed &renamed, feed_transaction &tx, pgb_relations &relations,
                         uint64_t passed);

#endif
