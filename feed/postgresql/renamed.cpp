// The catalogue may be a moment ahead of the position that it was asked behind.  A change that
// comes under the old name all the same is another renaming to the stream, and so is the next one
// under the new name: the table is taken in once more, and nothing is lost.
#include "feed/postgresql/renamed.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/query.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"

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

void pgb_look_renamed(pgb_renamed &renamed, const pgs_server &server,
                      const pgb_relations &relations, uint64_t position)
{
    pgs_result rows;
    if (!pgs_ask_rows(server, server.replication.get(),
                      "SELECT c.oid, n.nspname, c.relname FROM pg_catalog.pg_publication_tables p"
                      " JOIN pg_catalog.pg_namespace n ON n.nspname = p.schemaname"
                      " JOIN pg_catalog.pg_class c ON c.relnamespace = n.oid"
                      " AND c.relname = p.tablename WHERE p.pubname = " +
                          pgs_literal(server.publication) + " ORDER BY 1",
                      rows))
        return;
    renamed = {.tables = {}, .position = position};
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        pgo_relation table;
        table.schema = pgs_value(rows, i, 1);
        table.name = pgs_value(rows, i, 2);
        table.columns.emplace_back(); // what it has, its first piece says
        if (pgs_number(table.id, pgs_value(rows, i, 0)) && has_other_name(relations.aside, table))
            renamed.tables.push_back(std::move(table));
    }
}

outcome pgb_take_renamed(pgb_renamed &renamed, feed_transaction &tx, pgb_relations &relations,
                         uint64_t passed)
{
    if (renamed.tables.empty() || passed < renamed.position)
        return {};
    const std::vector<pgo_relation> tables = std::move(renamed.tables);
    renamed.tables.clear();
    // Behind what was said of the old names, and before the next commit.
    const uint64_t last = fwu_writer_last_lsn(tx.writer);
    const uint64_t lsn =
        std::max(last + 1, renamed.position - std::min(renamed.position, COMMIT_STEP - 1));
    if (last == 0 || lsn % COMMIT_STEP == 0)
        return {}; // nothing is in the log; or no position is free, and the next look finds them
    feed_begin(tx, {.time_us = fwu_now_us(), .xid = 0, .lsn = lsn});
    outcome done;
    for (const pgo_relation &table : tables)
        if (done && has_other_name(relations.aside, table)) // the stream has not told it since
            done = pgb_identify_as(tx, relations, table);
    if (done)
        done = pgb_commit(tx, relations);
    return done;
}
