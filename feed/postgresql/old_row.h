// Old rows: how much of them the server has sent, and what is to be done to get all.
//
// It sends whole ones of tables with REPLICA IDENTITY FULL, else the columns that identify a
// row, and those only where they have changed.  What is not known of a row is left out of it.
#ifndef FEED_POSTGRESQL_OLD_ROW_H
#define FEED_POSTGRESQL_OLD_ROW_H

#include "feed/postgresql/relations.h"

#include <string>

// Notes that a table was described, and what comes behind its description: a change of it, or
// a truncate of several.
void pgb_note_described(pgb_relations &relations, uint32_t id);
void pgb_note_change(pgb_relations &relations, uint32_t id);
void pgb_note_truncate(pgb_relations &relations, const std::vector<uint32_t> &ids);

// The old row of an update or a delete, valid until the next one of this relation.  The new row
// of an update was taken before.  OUTCOME_BAD when it does not fit the description.
outcome pgb_old_row(const feed_row *&row, pgb_relation &relation, const pgb_relations &relations,
                    const pgo_message &message);

// Whether a column is the same in the old row of an update that came without one: part of an
// identity that has not changed.
bool pgb_stays(const pgb_relation &relation, const pgb_relations &relations, size_t column);

// Whether old rows have a column, if any is sent: it is part of what identifies the rows.
bool pgb_is_brought(const pgb_relation &relation, const pgb_relations &relations, size_t column);

// Whether an old row lacks what must not be marked as not known.
bool pgb_lacks_needed(const pgb_relation &relation, const feed_row &old);

// What is wrong with a change whose old row lacks columns, with the commands that let the server
// send whole ones.
std::string pgb_no_old_row_text(const pgb_relation &relation, const pgb_relations &relations);

// Where an old row lacks something, and rows are partitions': their commands become the table's
// remedy, once.
void pgb_find_remedy(pgb_relation &relation, const pgb_relations &relations, const feed_row &old);

#endif
