// Tables that the catalogue has under another name than the log, or with other parts: the stream
// shows a table that is renamed with its next change only, which may never come, and does not show
// at all that the rows of one belong to another by now, or that the publication has it no more.
#ifndef FEED_POSTGRESQL_RENAMED_H
#define FEED_POSTGRESQL_RENAMED_H

#include "feed/postgresql/lacking.h"
#include "feed/postgresql/parts.h"
#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

// A table that was followed by itself and has become a partition of one that is.
struct pgb_attached {
    uint32_t id = 0;
    std::string schema; // of the table that it is a part of
    std::string table;
};

struct pgb_renamed {
    std::vector<pgo_relation> tables; // as the catalogue has them
    std::vector<pgb_attached> attached = {};
    std::vector<pgb_part_change> parts = {};
    std::vector<uint32_t> dropped = {}; // OIDs of tables that are there no more
    std::vector<pgb_lacked> lacked = {};
    uint64_t position = 0; // of the server when it was asked
};

bool pgb_has_renamed(const pgb_renamed &renamed);

// Looks over a connection of its own; finds nothing when it gets no answer.  Fails only where file
// "aside" cannot be written.
outcome pgb_look_renamed(pgb_renamed &renamed, const pgs_server &server, pgb_relations &relations,
                         const fwu_writer *writer);

// Takes those renamed as pgb_identify would, in a transaction of its own, once everything before
// that position has come; a table that got a part gets a gap mark.  No transaction is open.
outcome pgb_take_renamed(pgb_renamed &renamed, const pgs_server &server, feed_transaction &tx,
                         pgb_relations &relations, uint64_t passed);

#endif
