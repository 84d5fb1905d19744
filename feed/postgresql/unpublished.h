// Changes of when the publication did not exist: it was dropped and made anew, or is younger than
// the slot.  The server decodes each change as of its time, and can never send these.
#ifndef FEED_POSTGRESQL_UNPUBLISHED_H
#define FEED_POSTGRESQL_UNPUBLISHED_H

#include "feed/postgresql/apply.h"
#include "feed/postgresql/server.h"

// Whether the server has ended the stream for that reason.
bool pgb_is_unpublished(const PGresult *result);

// Servers from version 18 on pass such changes over, and warn: apply.unpublished is set then,
// before anything behind them is received.
void pgb_watch_unpublished(pgb_apply &apply, PGconn *connection);

// Ends the stream: OUTCOME_LOST where a gap is accepted, else OUTCOME_FAILED, told.
outcome pgb_fail_unpublished(pgb_apply &apply, pgs_server &server);

// Once there is a publication, and before the stream begins again: all that has been committed so
// far is passed over, behind a gap mark for all tables.  Needs server.sql.
outcome pgb_pass_unpublished(pgb_apply &apply, pgs_server &server, feed_transaction &tx,
                             pgb_relations &relations);

#endif
