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
                 option_text(skip).c_str(), pga_option_name(name).c_str());
}

// Tables that are named, and those that the transaction changes all the same.
static std::string tables_text(const pgb_skip &skip)
{
    if (skip.tables.empty())
        return "all tables";
    std::string text = "the tables that were named";
    for (const std::string &name : skip.others)
        text += ", and for " + pga_option_name(name) + ", which it changed, too";
    return text;
}

// Logs the marks.  what: the transaction, as far as it is known.
static outcome log_gap(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       int64_t time_us, const std::string &what)
{
    skip.met = true;
    skip.in_hand = false;
    tell_unknown(skip, relations);
    std::vector<std::string> tables = skip.tables;
    tables.insert(tables.end(), skip.others.begin(), skip.others.end());
    feed_begin(tx, {.time_us = time_us, .xid = 0, .lsn = behind(skip)});
    outcome done = pgb_put_gaps(tx, relations, tables, what + " was skipped");
    if (done)
        done = pgb_commit(tx, relations);
    if (done)
        tell("%s is skipped; the log has a gap mark at %s for %s", what.c_str(),
             fwu_lsn_text(behind(skip)).c_str(), tables_text(skip).c_str());
    return done;
}

static outcome log_gap(pgb_skip &skip, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit)
{
    return log_gap(skip, tx, relations, commit.time_us,
                   "transaction " + std::to_string(commit.xid) + " of " + fwu_lsn_text(commit.lsn));
}

outcome pgb_skip_begin(std::span<pgb_skip> skips, feed_transaction &tx, pgb_relations &relations,
                       const fwu_commit &commit)
{
    pgb_skip_pass(skips, commit.lsn);
    for (pgb_skip &skip : skips) {
        if (skip.met || commit.lsn != skip.lsn)
            continue;
        skip.others.clear(); // of a connection that was lost
        skip.in_hand = !skip.tables.empty();
        return skip.in_hand ? outcome() : log_gap(skip, tx, relations, commit);
    }
    return {};
}

static bool is_in_hand(const pgb_skip &skip, const feed_transaction &tx)
{
    return tx.open && skip.in_hand && skip.lsn == tx.commit.lsn;
}

void pgb_skip_take(std::span<const pgb_skip> skips, feed_transaction &tx)
{
    for (const pgb_skip &skip : skips)
        tx.skipping = tx.skipping || is_in_hand(skip, tx);
}

void pgb_skip_note(std::span<pgb_skip> skips, const feed_transaction &tx,
                   const pgb_relations &relations, uint32_t relation)
{
    const auto known = relations.known.find(relation);
    for (pgb_skip &skip : skips) {
        if (!is_in_hand(skip, tx) || known == relations.known.end())
            continue;
        const pgo_relation &told = known->second.told;
        const std::string name = fwu_source_name(told.schema, told.name);
        const pga_record *const record = pga_find(relations.aside, name);
        const bool aside = record != nullptr && record->standing == PGA_ASIDE;
        if (!aside && !feed_is_skipped(*relations.tables.config, name) &&
            std::ranges::find(skip.tables, name) == skip.tables.end())
            skip.others.insert(name);
    }
}

outcome pgb_skip_end(std::span<pgb_skip> skips, feed_transaction &tx, pgb_relations &relations)
{
    const fwu_commit commit = tx.commit;
    for (pgb_skip &skip : skips) {
        if (!skip.in_hand || skip.lsn != commit.lsn)
            continue;
        feed_abandon(tx);
        return log_gap(skip, tx, relations, commit);
    }
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
