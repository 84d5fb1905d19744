// The log's own position is all that is kept of it: behind the gap marks a start asks the server
// for what commits later, and the option has nothing more to do.
#include "feed/postgresql/skip.h"

#include "feed/postgresql/gap.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

#include <cinttypes>

// Positions of commits are multiples of eight, so that no transaction is there.
static uint64_t behind(const pgb_skip &skip)
{
    return skip.lsn + 1;
}

static std::string option_text(const pgb_skip &skip)
{
    return "--skip-transaction " + fwu_lsn_text(skip.lsn);
}

void pgb_skip_open(pgb_skip &skip, uint64_t last_lsn)
{
    skip.met = skip.lsn == 0 || skip.lsn <= last_lsn;
    if (skip.lsn != 0 && skip.met)
        tell("warning: %s: the log goes up to %s already, nothing is skipped",
             option_text(skip).c_str(), fwu_lsn_text(last_lsn).c_str());
}

void pgb_skip_pass(pgb_skip &skip, uint64_t lsn)
{
    if (skip.met || lsn <= skip.lsn)
        return;
    skip.met = true;
    tell("warning: %s: no transaction of the tables that are followed commits there, nothing is "
         "skipped; the position is the one that the server's error is told with",
         option_text(skip).c_str());
}

// Logs the marks.  what: the transaction, as far as it is known.
static outcome log_gap(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       int64_t time_us, const std::string &what)
{
    skip.met = true;
    feed_begin(tx, {.time_us = time_us, .xid = 0, .lsn = behind(skip)});
    outcome done = pgb_put_gaps(tx, relations, skip.tables, what + " was skipped");
    if (done)
        done = pgb_commit(tx, relations);
    if (done)
        tell("%s is skipped; the log has a gap mark at %s for %s", what.c_str(),
             fwu_lsn_text(behind(skip)).c_str(),
             skip.tables.empty() ? "all tables" : "the tables that were named");
    return done;
}

outcome pgb_skip_begin(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit)
{
    pgb_skip_pass(skip, commit.lsn);
    if (skip.met || commit.lsn != skip.lsn)
        return {};
    return log_gap(skip, tx, relations, commit.time_us,
                   "transaction " + std::to_string(commit.xid) + " of " + fwu_lsn_text(commit.lsn));
}

outcome pgb_skip_unbegun(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                         uint64_t failed_at, bool &taken)
{
    taken = !skip.met && failed_at < skip.lsn;
    if (!taken)
        return {};
    return log_gap(skip, tx, relations, fwu_now_us(),
                   "the transaction of " + fwu_lsn_text(skip.lsn));
}

bool pgb_skip_holds(const pgb_skip &skip, const feed_transaction &tx)
{
    return tx.open && tx.skipping && skip.lsn != 0 && tx.commit.lsn == skip.lsn;
}
