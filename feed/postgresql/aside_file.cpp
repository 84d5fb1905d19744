// A line has words with a blank between; bytes of a word that could be taken for something else
// stand as "%" and two hexadecimal digits, a word of no bytes as "%".
//
//     skipped SCHEMA.TABLE
//     id OID SCHEMA TABLE at=LSN guessed=LSN [lost]    several of an OID in their order
//     lacking OID at=LSN
//     leaves XID
//     sent LSN XID MICROSECONDS
//     leaf OID ROOT SCHEMA TABLE node=NUMBER at=LSN [gone]    likewise
//     table SCHEMA TABLE
//     followed|aside|taking at=LSN ...    of the table named last, in their order
#include "feed/postgresql/aside_file.h"

#include "feed/postgresql/server.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <charconv>

using words = std::vector<std::string_view>;

static const char *const standing_words[] = {"followed", "aside", "taking"};

static std::string word_of(std::string_view text)
{
    static const char digits[] = "0123456789abcdef";
    if (text.empty())
        return "%";
    std::string word;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte != '%' && byte != 0x7F) {
            word += c;
            continue;
        }
        word += '%';
        word += digits[byte >> 4];
        word += digits[byte & 15];
    }
    return word;
}

static bool take_text(std::string &text, std::string_view word)
{
    text.clear();
    if (word == "%")
        return true;
    for (size_t at = 0; at < word.size(); at++) {
        if (word[at] != '%') {
            text += word[at];
            continue;
        }
        unsigned char byte = 0;
        const char *const from = word.data() + at + 1;
        if (word.size() - at < 3 || std::from_chars(from, from + 2, byte, 16).ptr != from + 2)
            return false;
        text += static_cast<char>(byte);
        at += 2;
    }
    return !word.empty();
}

static void put_texts(std::string &line, const char *name, const std::vector<std::string> &texts)
{
    for (const std::string &text : texts)
        line += std::string(" ") + name + "=" + word_of(text);
}

static std::string record_line(const pga_record &record)
{
    std::string line =
        std::string(standing_words[record.standing]) + " at=" + fwu_lsn_text(record.at);
    if (record.standing != PGA_FOLLOWED) {
        line += " since=" + fwu_lsn_text(record.since);
        line += " since_us=" + std::to_string(record.since_us);
        line += " reason=" + word_of(record.reason);
    }
    if (record.standing == PGA_TAKING) {
        line += std::string(" replaces=") + (record.replaces ? "1" : "0");
        line += " why=" + word_of(record.why);
        line += " rows=" + std::to_string(record.rows);
        if (record.shape != 0)
            line += " shape=" + std::to_string(record.shape);
        put_texts(line, "key", record.key);
        put_texts(line, "reached", record.reached);
    }
    return line + "\n";
}

static std::string leaf_line(uint32_t id, const pga_leaf &leaf)
{
    return "leaf " + std::to_string(id) + " " + std::to_string(leaf.root) + " " +
           word_of(leaf.schema) + " " + word_of(leaf.table) + " node=" + std::to_string(leaf.node) +
           " at=" + fwu_lsn_text(leaf.at) + (leaf.gone ? " gone\n" : "\n");
}

std::string pga_lines(const pga_registry &registry)
{
    std::string lines;
    for (const std::string &name : registry.skipped)
        lines += "skipped " + word_of(name) + "\n";
    for (const auto &[id, names] : registry.ids)
        for (const pga_name &name : names) {
            lines += "id " + std::to_string(id) + " " + word_of(name.schema) + " " +
                     word_of(name.table) + " at=" + fwu_lsn_text(name.at) +
                     " guessed=" + fwu_lsn_text(name.guessed) + (name.lost ? " lost" : "") + "\n";
        }
    for (const auto &[id, at] : registry.lacking)
        lines += "lacking " + std::to_string(id) + " at=" + fwu_lsn_text(at) + "\n";
    if (registry.leaves_xid != 0)
        lines += "leaves " + std::to_string(registry.leaves_xid) + "\n";
    if (registry.sent.lsn != 0)
        lines += "sent " + fwu_lsn_text(registry.sent.lsn) + " " +
                 std::to_string(registry.sent.xid) + " " + std::to_string(registry.sent.time_us) +
                 "\n";
    for (const auto &[id, leaves] : registry.leaves)
        for (const pga_leaf &leaf : leaves)
            lines += leaf_line(id, leaf);
    for (const auto &[name, table] : registry.tables) {
        lines += "table " + word_of(table.schema) + " " + word_of(table.table) + "\n";
        for (const pga_record &record : table.records)
            lines += record_line(record);
    }
    return lines;
}

static words split(std::string_view line)
{
    words found;
    while (!line.empty()) {
        const size_t end = line.find(' ');
        found.push_back(line.substr(0, end));
        line.remove_prefix(end == line.npos ? line.size() : end + 1);
    }
    return found;
}

// Takes "name=value"; false: it is no such word, or nothing of this kind.
static bool take_member(pga_record &record, std::string_view word)
{
    const size_t equals = word.find('=');
    if (equals == word.npos)
        return false;
    const std::string_view name = word.substr(0, equals);
    const std::string_view value = word.substr(equals + 1);
    if (name == "at")
        return fwu_lsn_parse(record.at, value);
    if (name == "since")
        return fwu_lsn_parse(record.since, value);
    if (name == "since_us")
        return pgs_number(record.since_us, value);
    if (name == "reason")
        return take_text(record.reason, value);
    if (name == "replaces") {
        record.replaces = value == "1";
        return value == "0" || value == "1";
    }
    if (name == "why")
        return take_text(record.why, value);
    if (name == "rows")
        return pgs_number(record.rows, value);
    if (name == "shape")
        return pgs_number(record.shape, value);
    if (name == "key")
        return take_text(record.key.emplace_back(), value);
    return name == "reached" && take_text(record.reached.emplace_back(), value);
}

static bool take_record(pga_table *table, const words &line)
{
    pga_record record;
    bool good = table != nullptr;
    for (const pga_standing standing : {PGA_FOLLOWED, PGA_ASIDE, PGA_TAKING})
        if (line[0] == standing_words[standing])
            record.standing = standing;
    good = good && line[0] == standing_words[record.standing];
    for (size_t i = 1; i < line.size() && good; i++)
        good = take_member(record, line[i]);
    good = good && (table->records.empty() || table->records.back().at < record.at);
    if (good)
        table->records.push_back(std::move(record));
    return good;
}

static bool take_position(uint64_t &lsn, std::string_view name, std::string_view word)
{
    return word.starts_with(name) && fwu_lsn_parse(lsn, word.substr(name.size()));
}

static bool take_id(pga_registry &registry, const words &line)
{
    uint32_t id = 0;
    pga_name name;
    if (line.size() < 6 || line.size() > 7 || !pgs_number(id, line[1]) ||
        !take_text(name.schema, line[2]) || !take_text(name.table, line[3]) ||
        !take_position(name.at, "at=", line[4]) ||
        !take_position(name.guessed, "guessed=", line[5]))
        return false;
    name.lost = line.size() == 7;
    if (name.lost && line[6] != "lost")
        return false;
    std::vector<pga_name> &names = registry.ids[id];
    if (!names.empty() && names.back().at >= name.at)
        return false;
    names.push_back(std::move(name));
    return true;
}

static bool take_lacking(pga_registry &registry, const words &line)
{
    uint32_t id = 0;
    uint64_t at = 0;
    return line.size() == 3 && pgs_number(id, line[1]) && take_position(at, "at=", line[2]) &&
           registry.lacking.emplace(id, at).second;
}

static bool take_leaf(pga_registry &registry, const words &line)
{
    uint32_t id = 0;
    pga_leaf leaf;
    constexpr std::string_view node = "node=";
    if (line.size() < 7 || line.size() > 8 || !pgs_number(id, line[1]) ||
        !pgs_number(leaf.root, line[2]) || !take_text(leaf.schema, line[3]) ||
        !take_text(leaf.table, line[4]) || !line[5].starts_with(node) ||
        !pgs_number(leaf.node, line[5].substr(node.size())) ||
        !take_position(leaf.at, "at=", line[6]))
        return false;
    leaf.gone = line.size() == 8;
    if (leaf.gone && line[7] != "gone")
        return false;
    std::vector<pga_leaf> &leaves = registry.leaves[id];
    if (!leaves.empty() && leaves.back().at >= leaf.at)
        return false;
    leaves.push_back(std::move(leaf));
    return true;
}

static pga_table *take_table(pga_registry &registry, const words &line)
{
    pga_table table;
    if (line.size() != 3 || !take_text(table.schema, line[1]) || !take_text(table.table, line[2]))
        return nullptr;
    const auto [at, is_new] =
        registry.tables.emplace(fwu_source_name(table.schema, table.table), pga_table());
    if (!is_new)
        return nullptr;
    at->second = std::move(table);
    return &at->second;
}

bool pga_take_lines(pga_registry &registry, std::string_view lines)
{
    pga_table *table = nullptr;
    for (size_t end = 0; !lines.empty(); lines.remove_prefix(end + 1)) {
        end = lines.find('\n');
        if (end == lines.npos || end == 0)
            return false;
        const words line = split(lines.substr(0, end));
        bool good = true;
        std::string name;
        if (line[0] == "skipped") {
            good = line.size() == 2 && take_text(name, line[1]) &&
                   registry.skipped.insert(name).second;
        } else if (line[0] == "id") {
            good = take_id(registry, line);
        } else if (line[0] == "lacking") {
            good = take_lacking(registry, line);
        } else if (line[0] == "leaves") {
            good = line.size() == 2 && pgs_number(registry.leaves_xid, line[1]);
        } else if (line[0] == "sent") {
            good = line.size() == 4 && fwu_lsn_parse(registry.sent.lsn, line[1]) &&
                   pgs_number(registry.sent.xid, line[2]) &&
                   pgs_number(registry.sent.time_us, line[3]);
        } else if (line[0] == "leaf") {
            good = take_leaf(registry, line);
        } else if (line[0] == "table") {
            good = table == nullptr || !table->records.empty();
            table = good ? take_table(registry, line) : nullptr;
            good = table != nullptr;
        } else {
            good = take_record(table, line);
        }
        if (!good)
            return false;
    }
    return table == nullptr || !table->records.empty();
}
