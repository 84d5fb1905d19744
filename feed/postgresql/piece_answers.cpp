// What the server answers while a piece is read: rows taken apart, and what its refusals mean.
#include "feed/postgresql/piece_work.h"

#include <cstring>

outcome pgp_ask(pgs_server &server, pgs_result &result, const std::string &query)
{
    return pgp_ask(server, server.sql.get(), result, query);
}

outcome pgp_ask(pgs_server &server, PGconn *connection, pgs_result &result,
                const std::string &query)
{
    pgs_refusal refusal;
    outcome done = pgs_try(server, connection, result, query, refusal);
    return done && !refusal.state.empty() ? outcome(OUTCOME_LOST, pgp_reason(refusal))
                                          : std::move(done);
}

std::string pgp_literal(PGconn *connection, std::string_view text)
{
    const pgs_memory quoted(PQescapeLiteral(connection, text.data(), text.size()));
    return quoted == nullptr ? pgs_literal(text) : std::string(quoted.get());
}

std::string pgp_literal(const pgs_server &server, std::string_view text)
{
    return pgp_literal(server.sql.get(), text);
}

pgp_trouble pgp_trouble_of(const pgs_refusal &refusal)
{
    static constexpr struct {
        std::string_view state; // SQLSTATE, or its class
        pgp_trouble trouble;
    } rows[] = {
        {"42P01", PGP_GONE},   // no such table
        {"3F000", PGP_GONE},   // ... schema
        {"42809", PGP_GONE},   // something else has its name
        {"55P03", PGP_PASSES}, // locked
        {"57014", PGP_SLOW},   // the time is up
        {"40", PGP_PASSES},    // given up for others
        {"53", PGP_PASSES},    // the server lacks memory, disk or the like
        {"25P", PGP_PASSES},   // transactions have a limit of time
    };
    for (const auto &row : rows)
        if (std::string_view(refusal.state).starts_with(row.state))
            return row.trouble;
    return PGP_REFUSED;
}

static std::string reason(const pgs_refusal &refusal, const pgs_lacking &lacking)
{
    const char *const remedy = pgs_find_remedy(refusal.state.c_str(), refusal.message.c_str());
    return refusal.message + (refusal.detail.empty() ? "" : " (" + refusal.detail + ")") +
           (remedy == nullptr ? "" : "; " + pgs_name_remedy(remedy, lacking));
}

std::string pgp_reason(const pgs_refusal &refusal)
{
    return reason(refusal, {});
}

std::string pgp_reason(const pgs_refusal &refusal, const PGconn *connection,
                       const std::string &schema, const std::string &table)
{
    // It may be another table or schema that is refused, which a filter uses.
    const std::string &message = refusal.message;
    if (!message.ends_with(" " + table) && !message.ends_with(" " + schema) &&
        !message.ends_with("\"" + table + "\""))
        return reason(refusal, {});
    const char *const role = PQuser(connection);
    return reason(refusal, {.schema = pgs_name(schema),
                            .table = pgs_name(schema) + "." + pgs_name(table),
                            .role = role == nullptr ? "" : pgs_name(role)});
}

// The characters that COPY writes with a backslash.
static char unescape(char c)
{
    switch (c) {
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    default:
        return c;
    }
}

void pgp_split(pgo_tuple &tuple, char *line, size_t length)
{
    tuple.kind = 'N';
    tuple.count = 0;
    const char *const end = line + length;
    for (char *in = line;; in++) {
        char *const begin = in;
        char *out = in;
        const bool null = end - in >= 2 && in[0] == '\\' && in[1] == 'N';
        for (; in < end && *in != '\t' && *in != '\n'; in++) {
            if (*in == '\\' && in + 1 < end)
                *out++ = unescape(*++in);
            else
                *out++ = *in;
        }
        if (tuple.count == tuple.values.size())
            tuple.values.emplace_back();
        pgo_value &value = tuple.values[tuple.count++];
        value.kind = null ? 'n' : 't';
        value.text = {begin, null ? 0 : static_cast<size_t>(out - begin)};
        if (in >= end || *in == '\n')
            return;
    }
}

bool pgp_next(pgo_tuple &row, std::string &lines, size_t &at)
{
    if (at >= lines.size())
        return false;
    char *const line = lines.data() + at;
    const void *const found = memchr(line, '\n', lines.size() - at);
    const size_t length = found == nullptr
                              ? lines.size() - at
                              : static_cast<size_t>(static_cast<const char *>(found) - line) + 1;
    pgp_split(row, line, length);
    at += length;
    return true;
}

outcome pgp_check_names(const pgp_piece &piece, pgs_server &server, PGconn *connection)
{
    std::string values;
    for (const pgp_part &part : piece.parts) {
        const pgo_relation &table = part.relation;
        if (part.gone || !part.refused.empty())
            continue;
        values += (values.empty() ? "(" : ", (") +
                  pgp_literal(server, pgs_name(table.schema) + "." + pgs_name(table.name)) + ", " +
                  std::to_string(table.id) + "::oid)";
    }
    pgs_result result;
    outcome done;
    if (!values.empty())
        done = pgp_ask(server, connection, result,
                       "SELECT v.name FROM (VALUES " + values +
                           ") AS v (name, id) WHERE to_regclass(v.name)::oid IS DISTINCT FROM v.id"
                           " LIMIT 1");
    if (result == nullptr || PQntuples(result.get()) == 0)
        return done;
    return {OUTCOME_LOST, "another table has the name " + std::string(pgs_value(result, 0, 0)) +
                              " since a moment ago"};
}
