// Whether there were rows is asked of those that are there: a partition that came by ATTACH with
// rows has some that are older than that, and one whose file was written anew and not emptied, by
// VACUUM FULL or CLUSTER, some that are older than the last look.  The first thousand are enough,
// since old ones come first.
#include "feed/postgresql/parts.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <algorithm>

constexpr size_t NAMED_MAX = 5; // partitions of a table that a mark names

// No table is locked for that.  System columns of a table never change, so that they show the
// transaction that has made it.
const char pgb_parts_query[] =
    "SELECT m.leaf, n.nspname, c.relname, m.root, c.relfilenode, m.attached, m.since FROM ("
    "WITH RECURSIVE m (root, leaf, attached, since) AS ("
    " SELECT t.oid, i.inhrelid, i.xmin <> a.xmin, i.xmin FROM t"
    " JOIN pg_catalog.pg_inherits i ON i.inhparent = t.oid"
    " JOIN pg_catalog.pg_attribute a ON a.attrelid = i.inhrelid AND a.attnum = -1"
    " WHERE t.relkind = 'p'"
    " UNION ALL SELECT m.root, i.inhrelid, m.attached OR i.xmin <> a.xmin,"
    " CASE WHEN pg_catalog.age(i.xmin) < pg_catalog.age(m.since) THEN i.xmin ELSE m.since END"
    " FROM m JOIN pg_catalog.pg_inherits i ON i.inhparent = m.leaf"
    " JOIN pg_catalog.pg_attribute a ON a.attrelid = i.inhrelid AND a.attnum = -1"
    ") SELECT * FROM m) m JOIN pg_catalog.pg_class c ON c.oid = m.leaf AND c.relkind <> 'p'"
    " JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace";

using asking = std::function<bool(const std::string &, pgs_result &)>;

// Whether a partition has rows older than a transaction; has: what it is taken for when the server
// does not tell.
static bool has_older_rows(const asking &ask, const pga_leaf &leaf, uint32_t xid, bool or_equal,
                           bool has)
{
    pgs_result rows;
    const std::string limit = "pg_catalog.age('" + std::to_string(xid) + "'::pg_catalog.xid)";
    const bool answered =
        ask("SET lock_timeout = '100ms'; SET statement_timeout = '1s'; SELECT count(*) FROM"
            " (SELECT pg_catalog.age(xmin) AS age FROM ONLY " +
                pgs_name(leaf.schema) + "." + pgs_name(leaf.table) +
                " LIMIT 1000) r WHERE age < 0 OR age " + (or_equal ? ">= " : "> ") + limit,
            rows);
    return answered && PQntuples(rows.get()) == 1 ? pgs_value(rows, 0, 0) != "0" : has;
}

// Nothing of a table is in the log that nothing was taken of yet, or is about to be made good.
static bool is_told(const pga_registry &registry, const pga_name &root)
{
    const pga_record *const record = pga_find(registry, fwu_source_name(root.schema, root.table));
    return record != nullptr &&
           (record->standing == PGA_ASIDE ||
            (record->standing == PGA_TAKING && record->reached.empty() && record->rows == 0));
}

static const pga_leaf *find_leaf(const pga_registry &registry, uint32_t id)
{
    const auto known = registry.leaves.find(id);
    return known == registry.leaves.end() || known->second.back().gone ? nullptr
                                                                       : &known->second.back();
}

// Whether a change of what is known comes with rows that the stream does not tell.
static bool is_emptied(const pga_registry &registry, const pga_leaf &known, const pga_leaf &now,
                       const asking &ask)
{
    return known.node != 0 && known.node != now.node &&
           !has_older_rows(ask, now, static_cast<uint32_t>(registry.leaves_xid), false, false);
}

static bool brings_rows(const pga_registry &registry, const pgb_part &part, const asking &ask)
{
    const auto known = registry.ids.find(part.id);
    const bool alone = known != registry.ids.end() && !known->second.back().lost; // told otherwise
    return part.attached && !alone && has_older_rows(ask, part.leaf, part.since, true, true);
}

void pgb_compare_parts(std::vector<pgb_part_change> &changes, pga_registry &registry,
                       const pgb_parts &found, uint64_t last_lsn, const asking &ask)
{
    changes.clear();
    const bool first = registry.leaves_xid == 0;
    std::set<uint32_t> there;
    for (const pgb_part &part : found.parts) {
        const auto root = found.roots.find(part.leaf.root);
        if (root == found.roots.end() || !there.insert(part.id).second)
            continue;
        const pga_leaf *const known = find_leaf(registry, part.id);
        const bool told = first || is_told(registry, root->second);
        pgb_part_change change = {.id = part.id, .leaf = part.leaf, .root = root->second};
        if (known != nullptr && known->root == part.leaf.root) {
            change.kind = PGB_PART_EMPTIED;
            if (!told && is_emptied(registry, *known, part.leaf, ask)) {
                changes.push_back(std::move(change));
                continue;
            }
        } else {
            if (known != nullptr && found.roots.contains(known->root))
                changes.push_back({.kind = PGB_PART_GONE,
                                   .id = part.id,
                                   .leaf = *known,
                                   .root = found.roots.at(known->root)});
            change.kind = PGB_PART_ATTACHED;
            if (!told && brings_rows(registry, part, ask)) {
                changes.push_back(std::move(change));
                continue;
            }
        }
        pga_leaf leaf = part.leaf;
        leaf.at = known == nullptr ? last_lsn : known->at;
        if (known == nullptr || !(*known == leaf)) {
            leaf.at = last_lsn;
            pga_put_leaf(registry, part.id, std::move(leaf));
        }
    }
    std::vector<uint32_t> dropped;
    for (const auto &[id, leaves] : registry.leaves) {
        const pga_leaf &known = leaves.back();
        if (known.gone || there.contains(id))
            continue;
        const auto root = found.roots.find(known.root);
        if (root != found.roots.end() && !is_told(registry, root->second))
            changes.push_back({.kind = PGB_PART_GONE,
                               .id = id,
                               .leaf = known,
                               .root = root->second,
                               .alone = found.alone.contains(id)});
        else
            dropped.push_back(id);
    }
    for (const uint32_t id : dropped) {
        pga_leaf leaf = registry.leaves.at(id).back();
        leaf.gone = true;
        leaf.at = last_lsn;
        pga_put_leaf(registry, id, std::move(leaf));
    }
    if (!changes.empty())
        return; // the next look is to find the same, should these not be taken
    registry.dirty = registry.dirty || first;
    registry.leaves_xid = found.xid;
}

// ---- marks

static const struct {
    const char *reason_before;
    const char *reason_behind;
    const char *told_before;
    const char *told_behind;
} texts[] = {
    {"the rows that ", " had before it became a part are missing", "has got ",
     " as a part: the rows that it had before are missing there"},
    {"the rows of ", ", which is no part any more, are in the log still", "has lost its part ",
     ", which was detached or dropped: its rows are in the log still"},
    {"the rows of ", ", which was truncated or rewritten, may be in the log still",
     "has a part that was truncated or rewritten, ", ": rows that it had may be in the log still"},
};

// "sales.orders_2024, sales.orders_2025 and 3 more"
static std::string list_of(const std::vector<std::string> &names)
{
    std::string text;
    for (size_t i = 0; i < names.size() && i < NAMED_MAX; i++)
        text += (i == 0 ? "" : ", ") + names[i];
    if (names.size() > NAMED_MAX)
        text += " and " + std::to_string(names.size() - NAMED_MAX) + " more";
    return text;
}

static outcome mark_table(const std::vector<std::string> &parts, pgb_part_kind kind,
                          const pga_name &root, feed_transaction &tx, pgb_relations &relations)
{
    const std::string name = fwu_source_name(root.schema, root.table);
    const std::string list = list_of(parts);
    const auto &text = texts[kind];
    tell("warning: table %s %s%s%s, and the log has a gap mark; to have it right, %s", name.c_str(),
         text.told_before, list.c_str(), text.told_behind, pga_resume_command(name).c_str());
    return feed_put_mark(tx, pgb_gap_of(relations, root.schema, root.table,
                                        text.reason_before + list + text.reason_behind));
}

// What was a part has rows that the log has under another name.
static outcome mark_part(const pgb_part_change &change, feed_transaction &tx,
                         pgb_relations &relations)
{
    const std::string name = fwu_source_name(change.leaf.schema, change.leaf.table);
    const std::string root = fwu_source_name(change.root.schema, change.root.table);
    if (feed_is_skipped(*relations.tables.config, name))
        return {};
    tell("warning: table %s is no part of %s any more, and is followed by itself: the rows that it "
         "had before are missing there, and the log has a gap mark; to have them there, %s",
         name.c_str(), root.c_str(), pga_resume_command(name).c_str());
    return feed_put_mark(tx,
                         pgb_gap_of(relations, change.leaf.schema, change.leaf.table,
                                    "the rows that it had as a part of " + root + " are missing"));
}

// The stream may have told something since the look.
static bool holds(const pgb_part_change &change, const pga_registry &registry)
{
    const pga_leaf *const known = find_leaf(registry, change.id);
    if (change.kind == PGB_PART_ATTACHED)
        return known == nullptr || known->root != change.leaf.root;
    return known != nullptr && (change.kind == PGB_PART_GONE || known->node != 0);
}

outcome pgb_take_parts(const std::vector<pgb_part_change> &changes, feed_transaction &tx,
                       pgb_relations &relations)
{
    pga_registry &registry = relations.aside;
    using group = std::pair<std::string, pgb_part_kind>; // the table's name
    std::map<group, std::pair<pga_name, std::vector<std::string>>> groups;
    outcome done;
    for (const pgb_part_change &change : changes) {
        if (!done || !holds(change, registry))
            continue;
        const std::string root = fwu_source_name(change.root.schema, change.root.table);
        if (!feed_is_skipped(*relations.tables.config, root)) {
            auto &[name, parts] = groups[{root, change.kind}];
            name = change.root;
            parts.push_back(fwu_source_name(change.leaf.schema, change.leaf.table));
        }
        if (change.alone)
            done = mark_part(change, tx, relations);
        pga_leaf leaf = change.leaf;
        leaf.gone = change.kind == PGB_PART_GONE;
        leaf.at = tx.commit.lsn;
        pga_put_leaf(registry, change.id, std::move(leaf));
    }
    for (const auto &[key, group_of] : groups)
        if (done)
            done = mark_table(group_of.second, key.second, group_of.first, tx, relations);
    return done;
}
