// Tables that the log has and the publication has no more: taken out of it, or unlogged by now.
// The stream does not tell that, the catalogue does.
#ifndef FEED_POSTGRESQL_LACKING_H
#define FEED_POSTGRESQL_LACKING_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <functional>
#include <vector>

struct pgb_lacked {
    uint32_t id = 0;
    bool unlogged = false;
};

// Whether a table, which the publication lacks, is to be told of.
bool pgb_is_lacked(const pgb_relations &relations, uint32_t id);

// Leaves gap marks for them in the transaction in hand, and tells what to do.
outcome pgb_take_lacked(const std::vector<pgb_lacked> &lacked, const pgs_server &server,
                        feed_transaction &tx, pgb_relations &relations);

// Tells of those that the publication has again: is_published says so of an OID.
void pgb_tell_returned(pgb_relations &relations, const std::function<bool(uint32_t)> &is_published);

#endif
