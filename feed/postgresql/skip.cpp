// The log's own position is all that is kept of it: behind the gap marks a start asks the server
// for what commits later, and the option has nothing more to do.
#include "feed/postgresql/skip.h"

#include "feed/postgresql/gap.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>

// Positions of commits are multiples of eight, so that no transaction is there.
static uint64_t behind(const pgb_skip &skip)
{
    return skip.lsn + 1;
}

static std::string option_text(const pgb_skip &skip)
{
    return "--skip-transaction " + fwu_lsn_text(skip.lsn);
}

void pgb_skip_open(std::span<pgb_skip> skips, uint64_t last_lsn)
{
    for (pgb_skip &skip : skips) {
        skip.met = skip.lsn <= last_lsn;
        if (skip.met)
            tell("warning: %s: the log goes up to %s already, nothing is skipped",
                 option_text(skip).c_str(), fwu_lsn_text(last_lsn).c_str());
    }
}

void pgb_skip_tell_far(std::span<const pgb_skip> skips, uint64_t server_lsn)
{
    for (const pgb_skip &skip : skips)
        if (!skip.met && skip.lsn > server_lsn)
            tell("warning: %s: the server's log goes up to %s only", option_text(skip).c_str(),
                 fwu_lsn_text(server_lsn).c_str());
}

void pgb_skip_close(std::span<const pgb_skip> skips)
{
    for (const pgb_skip &skip : skips)
        if (!skip.met)
            tell("warning: %s: the run has ended before that position came, nothing is skipped",
                 option_text(skip).c_str());
}

void pgb_skip_pass(std::span<pgb_skip> skips, uint64_t lsn)
{
    for (pgb_skip &skip : skips) {
        if (skip.met || lsn <= skip.lsn)
            continue;
        skip.met = true;
        tell("warning: %s: no transaction of the tables that are followed commits there, nothing "
             "is skipped; the position is the one that the server's error is told with",
             option_text(skip).c_str());
    }
}

// A name that is none of the publication's may be one that was mistyped.
static void tell_unknown(const pgb_skip &skip, const pgb_relations &relations)
{
    for (const std::string &name : skip.tables)
        if (std::ranges::none_of(relations.facts.tables, [&name](const auto &known) {
                return fwu_source_name(known.second.schema, known.second.name) == name;
            }))
            tell("warning: %s: the publication has no table %s, whose gap mark says nothing of "
                 "others",
                 option_text(skip).c_str(), name.c_str());
}

// Logs the marks.  what: the transaction, as far as it is known.
static outcome log_gap(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       int64_t time_us, const std::string &what)
{
    skip.met = true;
    tell_unknown(skip, relations);
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

outcome pgb_skip_begin(std::span<pgb_skip> skips, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit)
{
    pgb_skip_pass(skips, commit.lsn);
    for (pgb_skip &skip : skips)
        if (!skip.met && commit.lsn == skip.lsn)
            return log_gap(skip, tx, relations, commit.time_us,
                           "transaction " + std::to_string(commit.xid) + " of " +
                               fwu_lsn_text(commit.lsn));
    return {};
}

outcome pgb_skip_unbegun(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations)
{
    return log_gap(skip, tx, relations, fwu_now_us(),
                   "the transaction of " + fwu_lsn_text(skip.lsn));
}

bool pgb_skip_holds(std::span<const pgb_skip> skips, const feed_transaction &tx)
{
    return tx.open && tx.skipping && std::ranges::any_of(skips, [&tx](const pgb_skip &skip) {
               return tx.commit.lsn == skip.lsn;
           });
}
