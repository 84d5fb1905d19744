// Old rows are looked at behind the new one of the same update, which says what of them stays.
#include "feed/postgresql/change.h"

#include "feed/postgresql/old_row.h"

outcome pgb_log_change(feed_transaction &tx, const pgb_relations &relations, pgb_relation &relation,
                       const pgo_message &message, pgb_sides sides)
{
    const feed_row *fresh = nullptr;
    const feed_row *old = nullptr;
    outcome done;
    if (message.kind != 'D')
        done = pgb_row(fresh, relation, message.new_row);
    if (done && message.kind != 'I')
        done = pgb_old_row(old, relation, relations, message);
    if (done && old != nullptr && pgb_lacks_needed(relation, *old))
        done = outcome_bad(pgb_no_old_row_text(relation, relations));
    if (done && old != nullptr)
        pgb_find_remedy(relation, relations, *old);
    if (!done)
        return done;
    return feed_change(tx, *relation.table, sides.fresh ? fresh : nullptr,
                       sides.old ? old : nullptr);
}
