// Messages of the stream to transactions of the log.
#ifndef FEED_POSTGRESQL_APPLY_H
#define FEED_POSTGRESQL_APPLY_H

#include "feed/postgresql/intake.h"
#include "feed/postgresql/pgoutput.h"
#include "feed/postgresql/relations.h"
#include "feed/postgresql/skip.h"
#include "feed/postgresql/watch.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <string_view>

// What is kept from message to message, and from one connection to the next.
struct pgb_apply {
    fwu_commit sent;             // the last transaction of the server's that the log has
    bool expects_sent = false;   // the server has to send it first
    bool accepts_gap = false;    // ... or else the log gets a gap mark
    bool unpublished = false;    // what comes next is of when there was no such publication
    bool session_told = false;   // that a session message is too long
    uint64_t end = 0;            // behind the last whole transaction
    int64_t commit_us = 0;       // commit time of the transaction logged last, 0 for none
    std::vector<pgb_skip> skips; // transactions that the user wants passed over
    pgo_message message;
    pgb_watch watch;
    pgi_intake intake; // of tables whose rows are read meanwhile
};

// Takes the next message of the output plugin.
outcome pgb_apply_message(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations,
                          std::string_view bytes);

// The server lacks the last transaction of the log: OUTCOME_FAILED, told, unless that is accepted.
outcome pgb_diverged(const pgb_apply &apply, feed_transaction &tx, pgb_relations &relations);

#endif
