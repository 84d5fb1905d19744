// Where the publication was made is not to be had from the server, so that what was committed
// between then and now is passed over, too: the tables have to be read anew in any case.  A
// transaction that had begun before the publication was made and commits later ends the stream
// once more, in the same way.
#include "feed/postgresql/unpublished.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/gap.h"
#include "feed/postgresql/query.h"
#include "fwutil/fwu_start.h"

// The server's messages may be in any language.
static const char STATE[] = "42704";
static const char FAILS_IN[] = "get_publication_oid";
static const char WARNS_IN[] = "LoadPublications";

bool pgb_is_unpublished(const PGresult *result)
{
    return pgs_error_field(result, PG_DIAG_SQLSTATE) == STATE &&
           pgs_error_field(result, PG_DIAG_SOURCE_FUNCTION) == FAILS_IN;
}

static void take_notice(void *unpublished, const PGresult *notice)
{
    if (pgs_error_field(notice, PG_DIAG_SOURCE_FUNCTION) == WARNS_IN)
        *static_cast<bool *>(unpublished) = true;
}

void pgb_watch_unpublished(pgb_apply &apply, PGconn *connection)
{
    PQsetNoticeReceiver(connection, take_notice, &apply.unpublished);
}

static std::string text_of(const pgs_server &server)
{
    return "publication \"" + server.publication + "\" did not exist";
}

outcome pgb_fail_unpublished(pgb_apply &apply, pgs_server &server)
{
    const std::string text = text_of(server) + " when what comes next was changed";
    if (apply.accepts_gap)
        return pgs_lost(server, text);
    return outcome_failed("following the server: %s; %s", text.c_str(),
                          pgs_find_remedy(STATE, "publication"));
}

outcome pgb_pass_unpublished(pgb_apply &apply, pgs_server &server, feed_transaction &tx,
                             pgb_relations &relations)
{
    pgs_result rows;
    uint64_t now = 0;
    outcome done = pgs_query(server, server.sql.get(), rows, pgs_lsn_query);
    if (!done)
        return done;
    if (!fwu_lsn_parse(now, pgs_value(rows, 0, 0)))
        return pgs_lost(server, "the server does not tell where its log ends");
    done = pgb_log_gap_up_to(tx, relations, now, text_of(server));
    apply.unpublished = !done;
    apply.expects_sent = false; // the log ends with something else
    return done;
}
