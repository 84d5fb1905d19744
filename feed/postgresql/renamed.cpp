// The catalogue may be a moment ahead of the position that it was asked behind.  A change that
// comes under the old name all the same is another renaming to the stream, and so is the next one
// under the new name: the table is taken in once more, and nothing is lost.
#include "feed/postgresql/renamed.h"

#include "feed/postgresql/ask.h"
#include "feed/postgresql/published.h"
#include "feed/postgresql/query.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <set>

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

// All in one snapshot, of which everything has been committed before the position: whoever gives
// the rows of a table a new file waits for the server's disk before others see it.  Columns: what
// it is of (0: a table that is published, 1: a part of one), the part's OID, schema and name, the
// table's OID (0: it has no parts), the part's file, whether it was attached, and since when; the
// position and the oldest transaction.
static std::string look_query(const std::string &publication)
{
    return std::string("WITH t AS (SELECT c.oid, c.relkind, p.schemaname, p.tablename FROM ") +
           pgb_published + " p JOIN pg_catalog.pg_class c ON c.oid = p.relid WHERE p.pubname = " +
           pgs_literal(publication) +
           "), r AS (SELECT 0 AS part, t.oid, t.schemaname, t.tablename,"
           " CASE WHEN t.relkind = 'p' THEN t.oid ELSE 0::oid END AS root, 0::oid AS node,"
           " false AS attached, '0'::xid AS since FROM t UNION ALL SELECT 1, s.* FROM (" +
           pgb_parts_query +
           ") s) SELECT r.*, pg_catalog.pg_current_wal_flush_lsn(),"
           " pg_catalog.txid_snapshot_xmin(pg_catalog.txid_current_snapshot())"
           " FROM (SELECT) one LEFT JOIN r ON true ORDER BY 1, 2";
}

static void take_table(pgb_renamed &renamed, pgb_parts &found, const pga_registry &registry,
                       pgo_relation table, bool has_parts)
{
    if (has_parts)
        found.roots[table.id] = {.schema = table.schema, .table = table.name};
    else
        found.alone.insert(table.id);
    if (has_other_name(registry, table))
        renamed.tables.push_back(std::move(table));
}

static void take_part(pgb_renamed &renamed, pgb_parts &found, const pga_registry &registry,
                      pgb_part part)
{
    const auto root = found.roots.find(part.leaf.root); // tables come first
    if (root == found.roots.end())
        return;
    found.below.insert(part.id);
    if (stands_alone(registry, part.id))
        renamed.attached.push_back(
            {.id = part.id, .schema = root->second.schema, .table = root->second.table});
    found.parts.push_back(std::move(part));
}

static void take_rows(pgb_renamed &renamed, pgb_parts &found, const pga_registry &registry,
                      const pgs_result &rows)
{
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        uint32_t id = 0;
        uint32_t root = 0;
        (void)fwu_lsn_parse(renamed.position, pgs_value(rows, i, 8));
        (void)pgs_number(found.xid, pgs_value(rows, i, 9));
        if (!pgs_number(id, pgs_value(rows, i, 1)) || !pgs_number(root, pgs_value(rows, i, 4)))
            continue; // no table is published
        pgo_relation table;
        table.id = id;
        table.schema = pgs_value(rows, i, 2);
        table.name = pgs_value(rows, i, 3);
        if (pgs_value(rows, i, 0) == "0") {
            table.columns.emplace_back(); // what it has, its first piece says
            take_table(renamed, found, registry, std::move(table), root != 0);
            continue;
        }
        pgb_part part = {.id = id,
                         .leaf = {.schema = std::move(table.schema),
                                  .table = std::move(table.name),
                                  .root = root},
                         .attached = pgs_value(rows, i, 6) == "t"};
        (void)pgs_number(part.leaf.node, pgs_value(rows, i, 5)); // 0: a foreign table has none
        (void)pgs_number(part.since, pgs_value(rows, i, 7));
        take_part(renamed, found, registry, std::move(part));
    }
}

// Tables that are known, and that the publication, or even the database, does not have.  Without
// the publication none is told of: the stream fails.
static void find_missing(pgb_renamed &renamed, const pgs_server &server,
                         const pgb_relations &relations, const pgb_parts &found)
{
    const pga_registry &registry = relations.aside;
    std::set<uint32_t> missing;
    for (const auto &[id, names] : registry.ids)
        if (!pga_is_left(id) && !found.roots.contains(id) && !found.alone.contains(id))
            missing.insert(id);
    if (missing.empty())
        return;
    std::string ids;
    for (const uint32_t id : missing)
        ids += (ids.empty() ? "" : ",") + std::to_string(id);
    pgs_result rows;
    if (!pgs_ask_rows(server, server.replication.get(),
                      "SELECT oid, relpersistence = 'u', EXISTS (SELECT FROM"
                      " pg_catalog.pg_publication WHERE pubname = " +
                          pgs_literal(server.publication) +
                          ") FROM pg_catalog.pg_class WHERE oid = ANY ('{" + ids +
                          "}'::pg_catalog.oid[])",
                      rows, "which tables are there"))
        return;
    for (int i = 0; i < PQntuples(rows.get()); i++) {
        uint32_t id = 0;
        if (!pgs_number(id, pgs_value(rows, i, 0)))
            continue;
        missing.erase(id);
        if (pgs_value(rows, i, 2) == "t" && !found.below.contains(id) &&
            pgb_is_lacked(relations, id))
            renamed.lacked.push_back({.id = id, .unlogged = pgs_value(rows, i, 1) == "t"});
    }
    renamed.dropped.assign(missing.begin(), missing.end());
}

outcome pgb_look_renamed(pgb_renamed &renamed, const pgs_server &server, pgb_relations &relations,
                         const fwu_writer *writer)
{
    const auto ask = [&server](const std::string &query, pgs_result &rows) {
        return pgs_ask_rows(server, server.replication.get(), query, rows);
    };
    pgs_result rows;
    if (!pgs_ask_rows(server, server.replication.get(), look_query(server.publication), rows,
                      "which tables have other names or parts"))
        return {};
    pgb_parts found;
    renamed = {};
    take_rows(renamed, found, relations.aside, rows);
    pgb_compare_parts(renamed.parts, relations.aside, found, fwu_writer_last_lsn(writer), ask);
    pgb_tell_returned(relations, [&found](uint32_t id) {
        return found.roots.contains(id) || found.alone.contains(id) || found.below.contains(id);
    });
    find_missing(renamed, server, relations, found);
    return pga_keep(relations.aside, fwu_writer_durable_lsn(writer));
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
    return !renamed.tables.empty() || !renamed.attached.empty() || !renamed.parts.empty() ||
           !renamed.lacked.empty();
}

outcome pgb_take_renamed(pgb_renamed &renamed, const pgs_server &server, feed_transaction &tx,
                         pgb_relations &relations, uint64_t passed)
{
    if (passed < renamed.position || (!pgb_has_renamed(renamed) && renamed.dropped.empty()))
        return {};
    const pgb_renamed now = std::move(renamed);
    renamed = {};
    for (const uint32_t id : now.dropped) // none of their changes is to come
        pga_forget(relations.aside, id, fwu_writer_durable_lsn(tx.writer));
    if (!pgb_has_renamed(now))
        return pga_keep(relations.aside, fwu_writer_durable_lsn(tx.writer));
    // Behind what was said of the old names, and before the next commit.
    const uint64_t last = fwu_writer_last_lsn(tx.writer);
    const uint64_t lsn = std::max(last + 1, now.position - std::min(now.position, COMMIT_STEP - 1));
    if (last == 0 || lsn % COMMIT_STEP == 0)
        return {}; // nothing is in the log; or no position is free, and the next look finds them
    feed_begin(tx, {.time_us = fwu_now_us(), .xid = 0, .lsn = lsn});
    outcome done = pgb_take_parts(now.parts, tx, relations);
    for (const pgb_attached &part : now.attached)
        if (done && stands_alone(relations.aside, part.id))
            done = take_attached(part, tx, relations);
    for (const pgo_relation &table : now.tables)
        if (done && has_other_name(relations.aside, table)) // the stream has not told it since
            done = pgb_identify_as(tx, relations, table);
    if (done)
        done = pgb_take_lacked(now.lacked, server, tx, relations);
    if (done)
        done = pgb_commit(tx, relations, PGB_OWN_JOINS);
    return done;
}
