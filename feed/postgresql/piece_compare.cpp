// Keys whose order only the server knows: what it calls behind, in the order of the index that
// makes them a key.  The index's own operators and collations are named, whatever others there are
// of these names, so that what is asked here and in which order rows come is the same thing.
#include "feed/postgresql/piece_work.h"

#include "feed/postgresql/connect.h"

#include <algorithm>

static std::string listed(const std::vector<std::string> &values)
{
    std::string list;
    for (const std::string &value : values)
        list += (list.empty() ? "" : ", ") + value;
    return list;
}

static std::string row_of(const std::vector<std::string> &values)
{
    return values.size() == 1 ? values.front() : "(" + listed(values) + ")";
}

// The columns as their operators take them.
static std::vector<std::string> operands_of(const pgp_order &order,
                                            const std::vector<std::string> &columns)
{
    std::vector<std::string> operands = columns;
    for (size_t i = 0; i < std::min(operands.size(), order.operands.size()); i++)
        operands[i] += order.operands[i].collate;
    return operands;
}

// A row is compared by operators of one name only; else column by column, in a form whose first
// part an index answers.
static std::string is_behind_from(const pgp_order &order, const std::vector<std::string> &columns,
                                  const std::vector<std::string> &values, size_t i)
{
    const pgp_operand &operand = order.operands[i];
    const std::string greater = columns[i] + " " + operand.greater + " " + values[i];
    if (i + 1 == columns.size())
        return "(" + greater + ")";
    return "((" + columns[i] + " " + operand.at_least + " " + values[i] + ") AND ((" + greater +
           ") OR " + is_behind_from(order, columns, values, i + 1) + "))";
}

std::string pgp_is_behind(const pgp_order &order, PGconn *connection,
                          const std::vector<std::string> &columns,
                          const std::vector<std::string> &values)
{
    const std::vector<std::string> operands = operands_of(order, columns);
    std::vector<std::string> literals;
    for (size_t i = 0; i < values.size(); i++)
        literals.push_back(pgp_literal(connection, values[i]) +
                           (order.operands.empty() ? "" : "::" + order.operands[i].type));
    if (order.operands.empty())
        return row_of(operands) + " > " + row_of(literals);
    const std::string &greater = order.operands.front().greater;
    if (std::all_of(order.operands.begin(), order.operands.end(),
                    [&](const pgp_operand &operand) { return operand.greater == greater; }))
        return row_of(operands) + " " + greater + " " + row_of(literals);
    return is_behind_from(order, operands, literals, 0);
}

std::string pgp_order_by(const pgp_order &order, const std::vector<std::string> &columns)
{
    std::vector<std::string> terms = operands_of(order, columns);
    for (size_t i = 0; i < std::min(terms.size(), order.operands.size()); i++)
        terms[i] += " USING " + order.operands[i].less;
    return listed(terms);
}

// ---- questions

pgp_range pgp_range_of(const pgp_part &part)
{
    return {.order = part.order,
            .from = part.from,
            .to = part.ends ? std::vector<std::string>() : part.to};
}

pgp_range pgp_range_behind(const pgp_order &order, const std::vector<std::string> &reached)
{
    return {.order = order, .from = reached, .to = {}};
}

static std::string sides_query(const pgp_range &range, PGconn *connection,
                               const std::vector<std::vector<std::string_view>> &keys)
{
    std::vector<std::string> columns;
    for (size_t i = 0; i < range.order.operands.size(); i++)
        columns.push_back("v.k" + std::to_string(i));
    const auto behind = [&](const std::vector<std::string> &key, const char *without) {
        return key.empty() ? without : pgp_is_behind(range.order, connection, columns, key);
    };
    std::string query = "SELECT v.n, " + behind(range.from, "true") + ", " +
                        behind(range.to, "false") + " FROM (VALUES ";
    for (size_t n = 0; n < keys.size(); n++) {
        query += (n == 0 ? "(" : ", (") + std::to_string(n);
        for (size_t i = 0; i < columns.size(); i++)
            query +=
                ", " + pgp_literal(connection, keys[n][i]) + "::" + range.order.operands[i].type;
        query += ")";
    }
    query += ") AS v (n";
    for (size_t i = 0; i < columns.size(); i++)
        query += ", k" + std::to_string(i);
    return query + ")";
}

static outcome ask(pgs_result &result, pgs_server &server, const pgp_range &range,
                   const std::vector<std::vector<std::string_view>> &keys, pgs_refusal &refusal)
{
    PGconn *const had = server.order.get();
    outcome done;
    if (had == nullptr || PQstatus(had) != CONNECTION_OK)
        done = pgs_connect_order(server);
    if (!done)
        return done;
    PGconn *const connection = server.order.get();
    done = pgs_try(server, connection, result, sides_query(range, connection, keys), refusal);
    const pgp_trouble trouble = pgp_trouble_of(refusal);
    if (done && !refusal.state.empty() && (trouble == PGP_PASSES || trouble == PGP_SLOW))
        return {OUTCOME_LOST, pgp_reason(refusal)};
    return done;
}

outcome pgp_ask_sides(std::vector<pgp_side> &sides, pgs_server &server, const pgp_range &range,
                      const std::vector<std::vector<std::string_view>> &keys, pgs_refusal &refusal)
{
    sides.assign(keys.size(), PGP_UNKNOWN);
    pgs_result result;
    const bool converts = server.texts == nullptr;
    outcome done = ask(result, server, range, keys, refusal);
    if (done.kind() == OUTCOME_LOST && converts == (server.texts == nullptr)) {
        server.order.reset();
        done = ask(result, server, range, keys, refusal);
    }
    if (!done || !refusal.state.empty())
        return done;
    for (int row = 0; row < PQntuples(result.get()); row++) {
        size_t n = 0;
        if (!pgs_number(n, pgs_value(result, row, 0)) || n >= sides.size())
            return {OUTCOME_LOST, "the server gives \"" + std::string(pgs_value(result, row, 0)) +
                                      "\" as a key's place"};
        const bool behind_from = pgs_value(result, row, 1) == "t";
        const bool behind_to = pgs_value(result, row, 2) == "t";
        sides[n] = !behind_from ? PGP_TAKEN : !behind_to ? PGP_PIECE : PGP_LATER;
    }
    return done;
}
