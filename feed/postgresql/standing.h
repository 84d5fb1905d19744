// Setting tables aside, and what else a table of the stream may turn out to be.
//
// A table that cannot be taken is set aside from the transaction in hand on: the log gets a gap
// mark, what the transaction had of the table before stays, its further changes are passed over
// and counted, and the others go on.
#ifndef FEED_POSTGRESQL_STANDING_H
#define FEED_POSTGRESQL_STANDING_H

#include "feed/postgresql/relations.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <string>

// Where a relation stands.
pga_standing pgb_standing(pgb_relation &relation, pgb_relations &relations);

// Takes that a change of a described relation has come, or a truncate: the first one shows which
// table it is.  One that was renamed is taken in under its new name, and the old name's dataset
// gets a gap mark; one that was dropped and made anew begins with a truncate mark.
outcome pgb_identify(feed_transaction &tx, pgb_relations &relations, pgb_relation &relation);

// The same for a table as it is told of.
outcome pgb_identify_as(feed_transaction &tx, pgb_relations &relations, const pgo_relation &told);

// Sets a table aside, in the transaction in hand, for this reason.
outcome pgb_set_aside(feed_transaction &tx, pgb_relations &relations, const std::string &schema,
                      const std::string &table, const std::string &reason);

// The same for what was wrong with a relation: OUTCOME_BAD.  Any other outcome stays.
outcome pgb_or_set_aside(outcome done, feed_transaction &tx, pgb_relations &relations,
                         const pgb_relation &relation);

// The dataset of a table as far as it is known; else both names are empty.
feed_dataset_name pgb_dataset_of(const pgb_relations &relations, const std::string &schema,
                                 const std::string &table);

// A gap mark of a table.
fwu_mark pgb_gap_of(const pgb_relations &relations, const std::string &schema,
                    const std::string &table, const std::string &reason);

enum pgb_own {
    PGB_OWN_BREAKS, // of our own: the server does not give what was in front of it
    PGB_OWN_JOINS,  // ... the server still gives it when it is asked
};

// Hands the transaction in hand to the log, standings first.
outcome pgb_commit(feed_transaction &tx, pgb_relations &relations, pgb_own own = PGB_OWN_BREAKS);

// The last transaction of the server's that the log has, which the server still has to have; its
// xid is 0 where that is not known.
fwu_commit pgb_last_sent(const feed_transaction &tx, const pgb_relations &relations);

#endif
