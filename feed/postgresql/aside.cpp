// Records of a table stand in the order of their positions, so that whether one holds is seen from
// the log's last position alone.
#include "feed/postgresql/aside.h"

#include "feed/postgresql/aside_file.h"
#include "feed/whole_file.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

static constexpr std::string_view FIRST_LINE = "fwlog aside 1\n";

// Puts what holds from a position on behind what holds before.
template <typename Record> static void put(std::vector<Record> &records, Record record)
{
    if (!records.empty())
        record.at = std::max(record.at, records.back().at); // positions of the log only grow
    if (!records.empty() && records.back().at == record.at)
        records.pop_back();
    records.push_back(std::move(record));
}

// Whether any went that is newer than the log.
template <typename Record> static bool withdraw(std::vector<Record> &records, uint64_t last_lsn)
{
    const size_t before = records.size();
    while (!records.empty() && records.back().at > last_lsn)
        records.pop_back();
    return records.size() != before;
}

// Drops those that a newer one replaces which the log has for good.
template <typename Record>
static void forget_old(std::vector<Record> &records, uint64_t durable_lsn)
{
    size_t held = 0;
    for (size_t i = 1; i < records.size() && records[i].at <= durable_lsn; i++)
        held = i;
    records.erase(records.begin(), records.begin() + static_cast<ptrdiff_t>(held));
}

// A name that its table has left for another one stands here under an OID that no table of a user
// has: the log has rows under it, which the next table of that name has to take away.
constexpr uint32_t LEFT_FIRST = 8192;
constexpr uint32_t LEFT_END = 16384;

bool pga_is_left(uint32_t id)
{
    return id >= LEFT_FIRST && id < LEFT_END;
}

// The names of one that was left and not taken since; null: it was not.
static std::vector<pga_name> *find_left(pga_registry &registry, const std::string &schema,
                                        const std::string &table)
{
    const auto end = registry.ids.lower_bound(LEFT_END);
    for (auto at = registry.ids.lower_bound(LEFT_FIRST); at != end; ++at) {
        const pga_name &name = at->second.back();
        if (!name.lost && name.schema == schema && name.table == table)
            return &at->second;
    }
    return nullptr;
}

static void find_holders(pga_registry &registry)
{
    registry.holders.clear();
    for (const auto &[id, names] : registry.ids)
        if (!names.back().lost && !pga_is_left(id))
            registry.holders[fwu_source_name(names.back().schema, names.back().table)] = id;
}

outcome pga_open(pga_registry &registry, const std::string &directory, mode_t mode,
                 uint64_t last_lsn, bool replaces_damaged)
{
    registry = {.path = directory + "/aside", .mode = mode, .version = registry.version + 1};
    std::string lines;
    const feed_whole read = feed_whole_read(lines, registry.path, FIRST_LINE);
    if (read == FEED_WHOLE_FAILED)
        return outcome_failed("%s: cannot read which tables are set aside: %m",
                              registry.path.c_str());
    registry.damaged =
        read == FEED_WHOLE_DAMAGED || (read == FEED_WHOLE && !pga_take_lines(registry, lines));
    registry.anew = registry.damaged || read == FEED_WHOLE_NONE;
    if (registry.damaged && !replaces_damaged)
        return outcome_failed(
            "%s: damaged: it says which tables are set aside or being taken in; go on with "
            "--accept-gap, which leaves a gap mark for all tables in the log and follows them from "
            "there on, and take those in with --resume that the log may lack rows of (a snapshot "
            "that was not done is taken anew)",
            registry.path.c_str());
    if (registry.damaged) { // what was read of it
        registry.leaves.clear();
        registry.leaves_xid = 0;
        registry.sent = {};
        registry.skipped.clear();
        registry.ids.clear();
        registry.tables.clear();
    }
    find_holders(registry);
    pga_withdraw(registry, last_lsn);
    return {};
}

const pga_record *pga_find(const pga_registry &registry, const std::string &name)
{
    const auto found = registry.tables.find(name);
    return found == registry.tables.end() ? nullptr : &found->second.records.back();
}

pga_table *pga_find_table(pga_registry &registry, const std::string &name)
{
    const auto found = registry.tables.find(name);
    return found == registry.tables.end() ? nullptr : &found->second;
}

void pga_put(pga_registry &registry, const std::string &schema, const std::string &table,
             pga_record record)
{
    pga_table &of = registry.tables[fwu_source_name(schema, table)];
    of.schema = schema;
    of.table = table;
    put(of.records, std::move(record));
    registry.version++;
    registry.dirty = true;
}

void pga_withdraw(pga_registry &registry, uint64_t last_lsn)
{
    bool any = false;
    for (auto &[name, table] : registry.tables)
        any = withdraw(table.records, last_lsn) || any;
    bool renamed = false;
    for (auto &[id, names] : registry.ids)
        renamed = withdraw(names, last_lsn) || renamed;
    for (auto &[id, leaves] : registry.leaves)
        any = withdraw(leaves, last_lsn) || any;
    any = std::erase_if(registry.lacking,
                        [last_lsn](const auto &lacked) { return lacked.second > last_lsn; }) != 0 ||
          any;
    if (!any && !renamed)
        return;
    std::erase_if(registry.leaves, [](const auto &leaf) { return leaf.second.empty(); });
    std::erase_if(registry.tables, [](const auto &table) { return table.second.records.empty(); });
    std::erase_if(registry.ids, [](const auto &id) { return id.second.empty(); });
    find_holders(registry);
    registry.version++;
    registry.dirty = true; // the file must lose it before the log gets there
}

outcome pga_keep(pga_registry &registry, uint64_t durable_lsn)
{
    if (!registry.dirty || registry.path.empty())
        return {};
    for (auto &[name, table] : registry.tables)
        forget_old(table.records, durable_lsn);
    const size_t gone = std::erase_if(registry.tables, [durable_lsn](const auto &table) {
        const std::vector<pga_record> &records = table.second.records;
        return records.size() == 1 && records.back().standing == PGA_FOLLOWED &&
               records.back().at <= durable_lsn;
    });
    if (gone != 0)
        registry.version++;
    for (auto &[id, names] : registry.ids)
        forget_old(names, durable_lsn);
    for (auto &[id, leaves] : registry.leaves)
        forget_old(leaves, durable_lsn);
    std::erase_if(registry.leaves, [durable_lsn](const auto &leaf) {
        return leaf.second.size() == 1 && leaf.second.back().gone &&
               leaf.second.back().at <= durable_lsn;
    });
    if (!feed_whole_write(registry.path, registry.mode, FIRST_LINE, pga_lines(registry)))
        return outcome_failed("%s: cannot keep which tables are set aside: %m",
                              registry.path.c_str());
    registry.dirty = registry.anew = registry.damaged = false;
    return {};
}

static void leave_name(pga_registry &registry, const pga_name &name, uint64_t at)
{
    uint32_t id = LEFT_FIRST;
    for (auto found = registry.ids.find(id);
         found != registry.ids.end() && !found->second.back().lost && pga_is_left(id);
         found = registry.ids.find(id))
        id++;
    if (pga_is_left(id)) // else so many were left that one more makes no difference
        put(registry.ids[id], {.schema = name.schema, .table = name.table, .at = at});
}

// Forgets what the catalogue said of an OID that the stream is not at yet.
static void forget_guess(pga_registry &registry, uint32_t id, uint64_t at)
{
    const auto found = registry.ids.find(id);
    if (found == registry.ids.end() || found->second.back().guessed <= at)
        return;
    const pga_name &name = found->second.back();
    registry.holders.erase(fwu_source_name(name.schema, name.table));
    registry.ids.erase(found);
}

pga_identity pga_describe(pga_registry &registry, uint32_t id, const std::string &schema,
                          const std::string &table, uint64_t at)
{
    pga_identity found;
    forget_guess(registry, id, at);
    if (const auto known = registry.ids.find(id); known != registry.ids.end())
        found.before = known->second.back();
    pga_name &before = found.before;
    if (!before.lost && before.schema == schema && before.table == table)
        return found;
    const std::string name = fwu_source_name(schema, table);
    if (const auto holder = registry.holders.find(name); holder != registry.holders.end()) {
        const uint32_t other = holder->second;
        forget_guess(registry, other, at);
        if (const auto known = registry.ids.find(other); known != registry.ids.end()) {
            found.was_known = true;
            put(known->second, {.schema = schema, .table = table, .at = at, .lost = true});
        }
    }
    if (std::vector<pga_name> *left = find_left(registry, schema, table); left != nullptr) {
        found.was_known = true;
        put(*left, {.schema = schema, .table = table, .at = at, .lost = true});
    }
    if (!before.table.empty() && !before.lost) {
        registry.holders.erase(fwu_source_name(before.schema, before.table));
        leave_name(registry, before, at);
    }
    registry.holders[name] = id;
    put(registry.ids[id], {.schema = schema, .table = table, .at = at});
    registry.dirty = true;
    found.what = !before.table.empty() ? PGA_RENAMED : found.was_known ? PGA_REMADE : PGA_NEW;
    return found;
}

void pga_guess(pga_registry &registry, uint32_t id, const std::string &schema,
               const std::string &table, uint64_t at)
{
    const std::string name = fwu_source_name(schema, table);
    if (registry.ids.contains(id) || registry.holders.contains(name) ||
        find_left(registry, schema, table) != nullptr)
        return;
    registry.ids[id] = {{.schema = schema, .table = table, .guessed = at}};
    registry.holders[name] = id;
    registry.dirty = true;
}

void pga_forget(pga_registry &registry, uint32_t id, uint64_t at)
{
    const auto known = registry.ids.find(id);
    if (known == registry.ids.end() || known->second.back().at > at)
        return;
    const pga_name name = known->second.back();
    registry.ids.erase(known);
    if (!name.lost) {
        registry.holders.erase(fwu_source_name(name.schema, name.table));
        leave_name(registry, name, at);
    }
    registry.dirty = true;
}

void pga_put_leaf(pga_registry &registry, uint32_t id, pga_leaf leaf)
{
    put(registry.leaves[id], std::move(leaf));
    registry.dirty = true;
}

void pga_forget_nodes(pga_registry &registry, uint32_t root, uint64_t at)
{
    for (auto &[id, leaves] : registry.leaves) {
        pga_leaf leaf = leaves.back();
        if (leaf.root != root || leaf.gone || leaf.node == 0)
            continue;
        leaf.node = 0;
        leaf.at = at;
        pga_put_leaf(registry, id, std::move(leaf));
    }
}

std::string pga_option_name(const std::string &name)
{
    std::vector<std::string> parts;
    if (name.find(',') == name.npos || !fwu_source_name_parts(parts, name))
        return name;
    std::string word;
    for (const std::string &part : parts) {
        std::string text;
        fwu_source_name_put(text, part);
        if (text == part && part.find(',') != part.npos)
            text = '"' + text + '"'; // nothing in it needs more
        word += (word.empty() ? "" : ".") + text;
    }
    return word;
}

std::string pga_resume_command(const std::string &name)
{
    static const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._";
    const std::string bare = pga_option_name(name);
    std::string word = bare;
    if (bare.find_first_not_of(plain) != bare.npos) {
        word = "'";
        for (const char c : bare)
            word += c == '\'' ? "'\\''" : std::string(1, c);
        word += "'";
    }
    return "fwlog postgresql --resume " + word;
}
