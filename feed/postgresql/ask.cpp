// What cannot be had is not worth a stop.
#include "feed/postgresql/ask.h"

#include "feed/postgresql/beside.h"
#include "feed/postgresql/encoding.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

bool pgs_ask_rows(const pgs_server &server, const PGconn *beside, const std::string &query,
                  pgs_result &rows)
{
    const int64_t deadline = fwu_monotonic_ms() + PGS_BESIDE_MS;
    std::string sent;
    if (!pge_query(sent, server, query))
        return false;
    const pgs_connection connection = pgs_beside_connect(server, beside, deadline);
    if (connection == nullptr || !pgs_beside_run(connection.get(), sent, deadline, rows))
        return false;
    server.texts_failed = server.texts_failed || pge_is_failure(server, rows.get());
    return PQresultStatus(rows.get()) == PGRES_TUPLES_OK && pge_answer(server, rows);
}

bool pgs_ask(const pgs_server &server, const PGconn *beside, const std::string &query,
             std::string &value)
{
    pgs_result result;
    if (!pgs_ask_rows(server, beside, query, result) || PQntuples(result.get()) != 1)
        return false;
    value = pgs_value(result, 0, 0);
    return true;
}

const char pgs_lsn_query[] = "SELECT CASE WHEN pg_is_in_recovery() THEN pg_last_wal_replay_lsn() "
                             "ELSE pg_current_wal_flush_lsn() END";

void pgs_server_lsn(const pgs_server &server, uint64_t &lsn)
{
    std::string value;
    if (pgs_ask(server, server.replication.get(), pgs_lsn_query, value))
        (void)fwu_lsn_parse(lsn, value); // stays
}
