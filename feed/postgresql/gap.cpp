// The mark is in the log before anything says that it need not be: a kill between the two leaves
// it there twice.
#include "feed/postgresql/gap.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <set>
#include <vector>

constexpr uint64_t COMMIT_STEP = 8; // positions of the server's commits are multiples of it

outcome pgb_put_gaps(feed_transaction &tx, const pgb_relations &relations,
                     std::span<const std::string> tables, const std::string &reason)
{
    outcome done;
    if (tables.empty())
        done = feed_put_mark(tx, {.kind = FWU_MARK_GAP, .reason = reason});
    for (const std::string &name : tables) {
        std::vector<std::string> parts;
        (void)fwu_source_name_parts(parts, name); // whoever made the name took it with it
        if (done)
            done = feed_put_mark(tx, pgb_gap_of(relations, parts.front(), parts.back(), reason));
    }
    return done;
}

static const char *name_of(std::span<const std::string> tables)
{
    return tables.empty() ? "all tables" : tables.front().c_str();
}

static outcome log_at(feed_transaction &tx, pgb_relations &relations, uint64_t lsn,
                      std::span<const std::string> tables, const std::string &reason,
                      pgb_own own = PGB_OWN_BREAKS)
{
    feed_begin(tx, {.time_us = fwu_now_us(), .xid = 0, .lsn = lsn});
    outcome done = pgb_put_gaps(tx, relations, tables, reason);
    if (done)
        done = pgb_commit(tx, relations, own);
    if (!done) {
        feed_abandon(tx);
        return done;
    }
    if (fwu_writer_sync(tx.writer) != 0)
        return OUTCOME_FAILED;
    tell("the log has a gap mark at %s for %s: %s", fwu_lsn_text(lsn).c_str(), name_of(tables),
         reason.c_str());
    return {};
}

outcome pgb_log_gaps(feed_transaction &tx, pgb_relations &relations,
                     std::span<const std::string> tables, const std::string &reason, pgb_own own)
{
    const uint64_t last = fwu_writer_last_lsn(tx.writer);
    if (last == 0)
        return {};
    if ((last + 1) % COMMIT_STEP != 0)
        return log_at(tx, relations, last + 1, tables, reason, own);
    tell("warning: the log has no position left behind %s for a gap mark for %s: %s",
         fwu_lsn_text(last).c_str(), name_of(tables), reason.c_str());
    return {};
}

outcome pgb_log_gap_up_to(feed_transaction &tx, pgb_relations &relations, uint64_t position,
                          const std::string &reason)
{
    const uint64_t behind_commits = position - std::min(position, COMMIT_STEP - 1);
    return log_at(tx, relations, std::max(fwu_writer_last_lsn(tx.writer) + 1, behind_commits), {},
                  reason);
}

// Tables that were left out until now.
static outcome follow_skipped(feed_transaction &tx, pgb_relations &relations)
{
    pga_registry &registry = relations.aside;
    const std::set<std::string> skipped = registry.skipped;
    for (const std::string &name : skipped) {
        if (feed_is_skipped(*relations.tables.config, name))
            continue;
        if (outcome done =
                pgb_log_gaps(tx, relations, {&name, 1}, "skip-table was taken out", PGB_OWN_JOINS);
            !done)
            return done;
        registry.skipped.erase(name);
        registry.dirty = true;
    }
    return {};
}

// What is left out needs no standing.
static void leave_out(pgb_relations &relations, const std::string &schema, const std::string &table,
                      uint64_t last_lsn)
{
    pga_registry &registry = relations.aside;
    const std::string name = fwu_source_name(schema, table);
    if (registry.skipped.insert(name).second)
        registry.dirty = true;
    const pga_record *const record = pga_find(registry, name);
    if (record != nullptr && record->standing != PGA_FOLLOWED)
        pga_put(registry, schema, table, {.at = last_lsn});
}

outcome pgb_take_stock(feed_transaction &tx, pgb_relations &relations, uint64_t server_lsn)
{
    if (outcome done = follow_skipped(tx, relations); !done)
        return done;
    const uint64_t last = fwu_writer_last_lsn(tx.writer);
    for (const auto &[id, table] : relations.facts.tables) {
        if (table.name.empty())
            continue;
        pga_guess(relations.aside, id, table.schema, table.name, server_lsn);
        if (feed_is_skipped(*relations.tables.config, fwu_source_name(table.schema, table.name)))
            leave_out(relations, table.schema, table.name, last);
    }
    return pga_keep(relations.aside, fwu_writer_durable_lsn(tx.writer));
}
