// What is kept of a key between the pieces names each column with its type and with the one that
// it is compared as: a table that has another key by then, or a key of another type, is found out.
#include "feed/postgresql/piece.h"

#include "feed/postgresql/key_order.h"
#include "feed/postgresql/piece_work.h"

#include <algorithm>

std::string pgp_key_text(const pgo_column &column, uint32_t compared_as)
{
    return std::to_string(column.type) + " " + std::to_string(compared_as) + " " + column.name;
}

// Cuts the number that a text begins with off it, and the blank behind it.
static bool take_number(uint32_t &number, std::string_view &text)
{
    const size_t end = text.find(' ');
    if (end == text.npos || !pgs_number(number, text.substr(0, end)))
        return false;
    text.remove_prefix(end + 1);
    return true;
}

bool pgp_find_order(pgp_order &order, const pgo_relation &relation,
                    const std::vector<std::string> &key)
{
    order = {};
    for (const std::string &entry : key) {
        std::string_view name = entry;
        uint32_t type = 0;
        uint32_t compared_as = 0;
        if (!take_number(type, name) || !take_number(compared_as, name))
            return false;
        const auto found =
            std::find_if(relation.columns.begin(), relation.columns.end(),
                         [&](const pgo_column &column) { return column.name == name; });
        if (found == relation.columns.end() || found->type != type)
            return false;
        order.columns.push_back(static_cast<size_t>(found - relation.columns.begin()));
        order.types.push_back(compared_as);
    }
    return true;
}

bool pgp_key_of(std::vector<std::string_view> &key, const pgp_order &order, const pgo_tuple &row)
{
    key.clear();
    for (const size_t column : order.columns) {
        if (column >= row.count || row.values[column].kind != 't')
            return false;
        key.push_back(row.values[column].text);
    }
    return true;
}

pgp_side pgp_side_of(const pgp_order &order, const std::vector<std::string> &reached,
                     const std::vector<std::string_view> &key)
{
    int found = 1;
    if (!reached.empty() && (key.size() != order.types.size() || reached.size() != key.size()))
        return PGP_UNKNOWN;
    for (size_t i = 0; i < reached.size() && (i == 0 || found == 0); i++)
        if (!pgy_compare(found, order.types[i], key[i], reached[i]))
            return PGP_UNKNOWN;
    return found <= 0 ? PGP_TAKEN : PGP_LATER;
}

pgp_side pgp_side_of(const pgp_part &part, const std::vector<std::string_view> &key)
{
    const pgp_side side = pgp_side_of(part.order, part.from, key);
    if (side != PGP_LATER || part.ends)
        return side == PGP_LATER ? PGP_PIECE : side;
    const pgp_side end = pgp_side_of(part.order, part.to, key);
    return end == PGP_TAKEN ? PGP_PIECE : end;
}
