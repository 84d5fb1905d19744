// A change of the stream as a change of the log, whole or one side of it.
#ifndef FEED_POSTGRESQL_CHANGE_H
#define FEED_POSTGRESQL_CHANGE_H

#include "feed/postgresql/pgoutput.h"
#include "feed/postgresql/relations.h"
#include "feed/transaction.h"
#include "util/outcome.h"

// Of an update the old side alone is a delete, the new one alone an insert.
struct pgb_sides {
    bool old = true;
    bool fresh = true;
};

// Logs these sides of an insert, an update or a delete, of a relation that pgb_find gave and that
// has a dataset.  OUTCOME_BAD when its rows cannot become images, or lack what they need.
outcome pgb_log_change(feed_transaction &tx, const pgb_relations &relations, pgb_relation &relation,
                       const pgo_message &message, pgb_sides sides = {});

#endif
