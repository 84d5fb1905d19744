// A row of a partition comes in the name of the table that it is a part of, as that one would
// send it, but with what the partition's own identity kept: a whole row may be none, a key may
// lack a part, and a null may be a value that was not kept.  Which partition a row is from the
// server does not say.  It describes each one, though, directly behind the table and before the
// first change that it sends of it, so that all those that rows may be from are known.
#include "feed/postgresql/old_row.h"

#include "feed/postgresql/identity.h"
#include "feed/remedy.h"
#include "feed/text.h"

#include <algorithm>

void pgb_note_described(pgb_relations &relations, uint32_t id)
{
    if (relations.described != 0 && relations.described != id)
        relations.known[relations.described].next = id;
    relations.known[id].next = 0;
    relations.described = id;
}

void pgb_note_change(pgb_relations &relations, uint32_t id)
{
    if (relations.described == 0)
        return; // nothing is new
    relations.described = 0;
    const auto found = relations.known.find(id);
    if (found == relations.known.end() || found->second.next == 0)
        return;
    pgb_relation &changed = found->second;
    std::vector<uint32_t> &leaves = changed.leaves;
    if (std::find(leaves.begin(), leaves.end(), changed.next) == leaves.end())
        leaves.push_back(changed.next);
    changed.next = 0;
}

// All tables are described before a truncate: what is behind another one is none of its parts.
void pgb_note_truncate(pgb_relations &relations, const std::vector<uint32_t> &ids)
{
    relations.described = 0;
    for (const uint32_t id : ids)
        if (const auto found = relations.known.find(id); found != relations.known.end())
            found->second.next = 0;
}

static bool keeps_all(const pgo_relation &table)
{
    return table.identity == 'f';
}

// Where rows are a partition's, it is the partition that keeps the old ones.
static bool is_whole(const pgb_relation &relation, const pgb_relations &relations)
{
    if (relation.leaves.empty())
        return keeps_all(relation.told);
    return std::all_of(relation.leaves.begin(), relation.leaves.end(), [&](uint32_t id) {
        return keeps_all(relations.known.find(id)->second.told);
    });
}

static bool identifies(const pgo_relation &table, const std::string &name)
{
    return std::any_of(table.columns.begin(), table.columns.end(), [&](const pgo_column &column) {
        return column.name == name && column.identity;
    });
}

// Those who keep all send an old row always.
bool pgb_stays(const pgb_relation &relation, const pgb_relations &relations, size_t column)
{
    const std::string &name = relation.told.columns[column].name;
    if (relation.leaves.empty())
        return relation.told.columns[column].identity;
    bool some = false;
    for (const uint32_t id : relation.leaves) {
        const pgo_relation &leaf = relations.known.find(id)->second.told;
        if (keeps_all(leaf))
            continue;
        if (!identifies(leaf, name))
            return false;
        some = true;
    }
    return some;
}

bool pgb_is_brought(const pgb_relation &relation, const pgb_relations &relations, size_t column)
{
    const pgo_column &told = relation.told.columns[column];
    if (relation.leaves.empty())
        return told.identity;
    return std::all_of(relation.leaves.begin(), relation.leaves.end(), [&](uint32_t id) {
        const pgo_relation &leaf = relations.known.find(id)->second.told;
        return keeps_all(leaf) || identifies(leaf, told.name);
    });
}

outcome pgb_old_row(const feed_row *&row, pgb_relation &relation, const pgb_relations &relations,
                    const pgo_message &message)
{
    const pgo_tuple &sent = message.old_row;
    if (sent.kind == 0) {
        const auto is_known = [&](size_t i) {
            return message.new_row.values[i].kind != 'u' && pgb_stays(relation, relations, i);
        };
        row = &feed_take_columns(relation.partial_old, relation.fresh, is_known);
        return {};
    }
    if (outcome filled = pgb_fill(relation.old, relation, sent); !filled)
        return filled;
    // Columns that identify a row are never null.
    const bool nulls_count = is_whole(relation, relations);
    const auto is_known = [&](size_t i) {
        return sent.values[i].kind == 't' || (sent.values[i].kind == 'n' && nulls_count);
    };
    row = &feed_take_columns(relation.partial_old, relation.old, is_known);
    return {};
}

bool pgb_lacks_needed(const pgb_relation &relation, const feed_row &old)
{
    const feed_table &table = *relation.table;
    const std::vector<fwu_policy> &policies = table.policies;
    if (std::find(policies.begin(), policies.end(), FWU_POLICY_ERROR) == policies.end())
        return false; // as nearly always, and a table may have 1,600 columns
    const auto is_needed = [&](const pgo_column &column) {
        const std::string name = feed_name(column.name);
        for (size_t i = 0; i < table.policies.size(); i++)
            if (table.policies[i] == FWU_POLICY_ERROR && feed_feeds(table, column.name, name, i))
                return true;
        return false;
    };
    size_t at = 0; // the old row has the columns in the table's order
    for (const pgo_column &column : relation.told.columns) {
        if (at < old.count && old.columns[at].name == column.name)
            at++;
        else if (is_needed(column))
            return true;
    }
    return false;
}

// The commands for a table and its partitions, as far as they are still needed.
static std::string identity_commands(const pgb_relation &relation, const pgb_relations &relations)
{
    const std::string id = std::to_string(relation.told.id);
    std::string commands;
    pgs_result rows;
    const bool answered =
        relations.facts.ask != nullptr &&
        relations.facts.ask("SELECT c.oid::regclass FROM (SELECT " + id +
                                "::oid AS oid UNION SELECT relid FROM pg_partition_tree('" + id +
                                "')) t JOIN pg_class c ON c.oid = t.oid WHERE c.relkind IN"
                                " ('r', 'p') AND c.relreplident <> 'f' ORDER BY c.relkind, 1",
                            rows);
    const auto add = [&](const std::string &name) {
        commands += "\n  " + pgb_identity_command(name) + ";";
    };
    if (answered)
        for (int i = 0; i < PQntuples(rows.get()); i++)
            add(std::string(pgs_value(rows, i, 0)));
    else
        add(pgs_name(relation.told.schema) + "." + pgs_name(relation.told.name));
    return commands;
}

void pgb_find_remedy(pgb_relation &relation, const pgb_relations &relations, const feed_row &old)
{
    if (relation.remedy_found || relation.leaves.empty() ||
        old.count == relation.told.columns.size())
        return;
    relation.remedy_found = true;
    if (const std::string commands = identity_commands(relation, relations); !commands.empty())
        relation.table->old_row_remedy = "run" + commands;
}

std::string pgb_no_old_row_text(const pgb_relation &relation, const pgb_relations &relations)
{
    const feed_table &table = *relation.table;
    const std::string commands = identity_commands(relation, relations);
    std::string text = table.name + ": the change comes without the whole old row";
    text += commands.empty() ? ", since it was made before the table got REPLICA IDENTITY FULL, "
                               "which mends it; else "
                             : "; let the server send it:" + commands + "\n  or ";
    if (table.dataset != nullptr && table.dataset->null_map >= 0) {
        const std::string remedy = feed_mark_remedy(table);
        text += "mark what is not known";
        text += (remedy.starts_with("table ") ? " with the line " : ": ") + remedy + ", or ";
    }
    return text + "leave the table out with the line skip-table " + table.name;
}
