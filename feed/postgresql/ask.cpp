// What cannot be had is not worth a stop: the stream may end by what it was asked for, or not.
#include "feed/postgresql/ask.h"

#include "feed/postgresql/beside.h"
#include "feed/postgresql/encoding.h"
#include "feed/postgresql/server_error.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

#include <algorithm>
#include <iterator>

// A connection that is not to be had says so without an SQLSTATE; what passes by itself, such as a
// server that starts, shows in the stream, too.
static bool is_refusal(const std::string &why)
{
    static constexpr const char *texts[] = {
        "permission denied", "too many", "connection slots",     "not permitted to log in",
        "pg_hba.conf",       "role \"",  "authentication failed"};
    return std::any_of(std::begin(texts), std::end(texts),
                       [&why](const char *text) { return why.find(text) != why.npos; });
}

// Notes why there is no answer; empty: there is one.
static void note(const pgs_server &server, const char *about, const std::string &why,
                 const char *remedy)
{
    if (about == nullptr)
        return;
    std::string &known = server.untold[about];
    if (known != why && !why.empty())
        tell("warning: the server does not tell %s: %s%s%s; the stream goes on", about, why.c_str(),
             remedy == nullptr ? "" : "; ", remedy == nullptr ? "" : remedy);
    known = why;
    if (why.empty())
        server.untold.erase(about);
}

static bool take_answer(const pgs_server &server, const pgs_result &rows, const char *about)
{
    if (PQresultStatus(rows.get()) == PGRES_TUPLES_OK) {
        note(server, about, {}, nullptr);
        return true;
    }
    const std::string state = pgs_error_field(rows.get(), PG_DIAG_SQLSTATE);
    const std::string why = pgs_error_field(rows.get(), PG_DIAG_MESSAGE_PRIMARY);
    if (!state.empty() && !state.starts_with("57P")) // which the stream meets as well
        note(server, about, why, pgs_find_remedy(state.c_str(), why.c_str()));
    return false;
}

bool pgs_ask_rows(const pgs_server &server, const PGconn *beside, const std::string &query,
                  pgs_result &rows, const char *about)
{
    const int64_t deadline = fwu_monotonic_ms() + PGS_BESIDE_MS;
    std::string sent;
    if (!pge_query(sent, server, query))
        return false;
    std::string why;
    const pgs_connection connection = pgs_beside_connect(server, beside, deadline, &why);
    if (connection == nullptr && is_refusal(why))
        note(server, about, why, nullptr);
    if (connection == nullptr || !pgs_beside_run(connection.get(), sent, deadline, rows))
        return false;
    if (pge_is_failure(server, rows.get())) {
        server.texts_failed = true;
        return false;
    }
    return take_answer(server, rows, about) && pge_answer(server, rows);
}

bool pgs_ask(const pgs_server &server, const PGconn *beside, const std::string &query,
             std::string &value, const char *about)
{
    pgs_result result;
    if (!pgs_ask_rows(server, beside, query, result, about) || PQntuples(result.get()) != 1)
        return false;
    value = pgs_value(result, 0, 0);
    return true;
}

const char pgs_lsn_query[] = "SELECT CASE WHEN pg_is_in_recovery() THEN pg_last_wal_replay_lsn() "
                             "ELSE pg_current_wal_flush_lsn() END";

void pgs_server_lsn(const pgs_server &server, uint64_t &lsn)
{
    std::string value;
    if (pgs_ask(server, server.replication.get(), pgs_lsn_query, value, "where its log ends"))
        (void)fwu_lsn_parse(lsn, value); // stays
}
