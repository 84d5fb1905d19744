// The catalogue may be a moment ahead of the position that it was asked behind.  A change that
// comes under the old name all the same is another renaming to the stream, and so is the next one
// under the new name: the table is taken in once more, and nothing is lost.
#include "feed/postgresql/renamed.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/query.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>

constexpr uint64_t COMMIT_STEP = 8; // positions of the server's commits are multiples of it

static bool has_other_name(const pga_registry &registry, const pgo_relation &table)
{
    const auto known = registry.ids.find(table.id);
    if (known == registry.ids.end())
        return false;
    const pga_name &name = known->second.back();
    return name.lost || name.schema != table.schema || name.table != table.name;
}

// A table that the log has under its own name.
static bool stands_alone(const pga_registry &registry, uint32_t id)
{
    const auto known = registry.ids.find(id);
    return known != registry.ids.end() && !known->second.back().lost;
}

void pgb_look_renamed(pgb_renamed &renamed, const pgs_server &server,
                      const pgb_relations &relations, uint64_t position)
{
    // The tables published, and behind them the leaves of those that are partitioned.
    pgs_result rows;
    if (!pgs_ask_rows(server, server.replication.get(),
                      "WITH t AS (SELECT c.oid, c.relkind, p.schemaname, p.tablename"
                      " FROM pg_catalog.pg_publication_tables p"
                      " JOIN pg_catalog.pg_namespace n ON n.nspname = p.schemaname"
                      " JOIN pg_catalog.pg_class c ON c.relnamespace = n.oid"
                      " AND c.relname = p.tablename WHERE p.pubname = " +
                          pgs_literal(server.publication) +
                          ") SELECT t.oid, t.schemaname, t.tablename, 0 AS part FROM t"
                          " UNION ALL SELECT m.relid, t.schemaname, t.tablename, 1 FROM t"
                          " CROSS JOIN LATERAL pg_catalog.pg_partition_tree(t.oid) m"
                          " WHERE t.relkind = 'p' AND m.isleaf AND m.relid <> t.oid ORDER BY 4, 1",
                      rows))
        return;
    renamed = {.tables = {}, .position = position};
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        pgo_relation table;
        table.schema = pgs_value(rows, i, 1);
        table.name = pgs_value(rows, i, 2);
        table.columns.emplace_back(); // what it has, its first piece says
        if (!pgs_number(table.id, pgs_value(rows, i, 0)))
            continue;
        if (pgs_value(rows, i, 3) == "0") {
            if (has_other_name(relations.aside, table))
                renamed.tables.push_back(std::move(table));
        } else if (stands_alone(relations.aside, table.id)) {
            renamed.attached.push_back(
                {.id = table.id, .schema = table.schema, .table = table.name});
        }
    }
}

static outcome take_attached(const pgb_attached &part, feed_transaction &tx,
                             pgb_relations &relations)
{
    pga_registry &registry = relations.aside;
    std::vector<pga_name> &names = registry.ids.at(part.id);
    pga_name name = names.back();
    const std::string root = fwu_source_name(part.schema, part.table);
    const std::string leaf = fwu_source_name(name.schema, name.table);
    outcome done =
        feed_put_mark(tx, pgb_gap_of(relations, name.schema, name.table, "is a part of " + root));
    if (done)
        done = feed_put_mark(
            tx, pgb_gap_of(relations, part.schema, part.table,
                           "the rows that " + leaf + " had before it became a part are missing"));
    if (!done)
        return done;
    name.at = tx.commit.lsn;
    name.guessed = 0;
    name.lost = true;
    names.push_back(name);
    registry.holders.erase(leaf);
    registry.dirty = true;
    tell("warning: table %s has become a part of %s: the rows that it had before are missing "
         "there, and the log has a gap mark; to have them there, %s",
         leaf.c_str(), root.c_str(), pga_resume_command(root).c_str());
    return {};
}

bool pgb_has_renamed(const pgb_renamed &renamed)
{
    return !renamed.tables.empty() || !renamed.attached.empty();
}

outcome pgb_take_renamed(pgb_renamed &renamed, feed_transaction &tx, pgb_relations &relations,
                         uint64_t passed)
{
    if (!pgb_has_renamed(renamed) || passed < renamed.position)
        return {};
    const pgb_renamed now = std::move(renamed);
    renamed = {};
    // Behind what was said of the old names, and before the next commit.
    const uint64_t last = fwu_writer_last_lsn(tx.writer);
    const uint64_t lsn = std::max(last + 1, now.position - std::min(now.position, COMMIT_STEP - 1));
    if (last == 0 || lsn % COMMIT_STEP == 0)
        return {}; // nothing is in the log; or no position is free, and the next look finds them
    feed_begin(tx, {.time_us = fwu_now_us(), .xid = 0, .lsn = lsn});
    outcome done;
    for (const pgb_attached &part : now.attached)
        if (done && stands_alone(relations.aside, part.id))
            done = take_attached(part, tx, relations);
    for (const pgo_relation &table : now.tables)
        if (done && has_other_name(relations.aside, table)) // the stream has not told it since
            done = pgb_identify_as(tx, relations, table);
    if (done)
        done = pgb_commit(tx, relations);
    return done;
}
