// What is kept of a key between the pieces names each column with its type and with the one that
// it is compared as here, or with how the server compares it: a table that has another key by
// then, or a key of another type or another order, is found out.
#include "feed/postgresql/piece.h"

#include "feed/postgresql/key_order.h"
#include "feed/postgresql/piece_work.h"

#include <algorithm>

// Members of an operand in their places behind a column's name; no name of the server's has NUL.
static std::string pgp_operand::*const members[] = {
    &pgp_operand::type,     &pgp_operand::collate, &pgp_operand::less,
    &pgp_operand::at_least, &pgp_operand::greater, &pgp_operand::version,
};

std::string pgp_key_text(const pgo_column &column, uint32_t compared_as, const pgp_operand *operand)
{
    std::string text =
        std::to_string(column.type) + " " + std::to_string(compared_as) + " " + column.name;
    for (std::string pgp_operand::*const member : members)
        if (operand != nullptr)
            text += '\0' + operand->*member;
    return text;
}

bool pgp_is_ordered_there(const std::vector<std::string> &key)
{
    return !key.empty() && key.front().find('\0') != key.front().npos;
}

// Cuts what a text begins with off it, and the end of that: a text's end stands for NUL.
static bool take(std::string_view &part, std::string_view &text, char end)
{
    const size_t at = text.find(end);
    if (at == text.npos && end != '\0')
        return false;
    part = text.substr(0, at);
    text.remove_prefix(at == text.npos ? text.size() : at + 1);
    return true;
}

static bool take_number(uint32_t &number, std::string_view &text)
{
    std::string_view part;
    return take(part, text, ' ') && pgs_number(number, part);
}

static pgp_operand take_operand(std::string_view text)
{
    pgp_operand operand;
    for (std::string pgp_operand::*const member : members) {
        std::string_view part;
        (void)take(part, text, '\0'); // what is not there is empty
        operand.*member = part;
    }
    return operand;
}

bool pgp_find_order(pgp_order &order, const pgo_relation &relation,
                    const std::vector<std::string> &key)
{
    order = {};
    const bool there = pgp_is_ordered_there(key);
    for (const std::string &entry : key) {
        std::string_view rest = entry;
        std::string_view name;
        uint32_t type = 0;
        uint32_t compared_as = 0;
        if (!take_number(type, rest) || !take_number(compared_as, rest) || !take(name, rest, '\0'))
            return false;
        const auto found =
            std::find_if(relation.columns.begin(), relation.columns.end(),
                         [&](const pgo_column &column) { return column.name == name; });
        if (found == relation.columns.end() || found->type != type)
            return false;
        order.columns.push_back(static_cast<size_t>(found - relation.columns.begin()));
        order.types.push_back(compared_as);
        if (there)
            order.operands.push_back(take_operand(rest));
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
