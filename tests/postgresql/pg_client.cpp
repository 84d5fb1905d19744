// Sessions over libpq; every failure is an exception with the server's text.
#include "tests/postgresql/pg_client.h"

using owned_result = std::unique_ptr<PGresult, decltype(&PQclear)>;

pg_client::pg_client(const std::string &conninfo)
    : connection(PQconnectdb(conninfo.c_str()), PQfinish)
{
    if (PQstatus(connection.get()) != CONNECTION_OK)
        throw pg_error(PQerrorMessage(connection.get()));
    // Notices belong to no test.
    PQsetNoticeProcessor(
        connection.get(), [](void *, const char *) {}, nullptr);
}

int pg_client::version() const
{
    return PQserverVersion(connection.get()) / 10000;
}

std::vector<std::vector<std::string>> pg_client::run(const std::string &sql)
{
    const owned_result result(PQexec(connection.get(), sql.c_str()), PQclear);
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw pg_error(PQerrorMessage(connection.get()) + sql.substr(0, 200));
    std::vector<std::vector<std::string>> rows(static_cast<size_t>(PQntuples(result.get())));
    for (int row = 0; row < PQntuples(result.get()); row++)
        for (int column = 0; column < PQnfields(result.get()); column++)
            rows[static_cast<size_t>(row)].emplace_back(
                PQgetisnull(result.get(), row, column) != 0
                    ? "\\N"
                    : PQgetvalue(result.get(), row, column));
    return rows;
}

std::string pg_client::value(const std::string &sql)
{
    const auto rows = run(sql);
    if (rows.size() != 1 || rows[0].size() != 1)
        throw pg_error("not one value: " + sql);
    return rows[0][0];
}

std::string pg_client::copy(const std::string &sql)
{
    const owned_result begun(PQexec(connection.get(), sql.c_str()), PQclear);
    if (PQresultStatus(begun.get()) != PGRES_COPY_OUT)
        throw pg_error(PQerrorMessage(connection.get()) + sql);
    std::string text;
    char *data = nullptr;
    int length = 0;
    while ((length = PQgetCopyData(connection.get(), &data, 0)) > 0) {
        text.append(data, static_cast<size_t>(length));
        PQfreemem(data);
    }
    const owned_result ended(PQgetResult(connection.get()), PQclear);
    if (PQresultStatus(ended.get()) != PGRES_COMMAND_OK)
        throw pg_error(PQerrorMessage(connection.get()) + sql);
    while (PGresult *more = PQgetResult(connection.get()))
        PQclear(more);
    return text;
}

std::string pg_contents(pg_client &client, const std::string &schemas)
{
    const auto tables =
        client.run("SELECT n.nspname || '.' || r.relname,"
                   " (SELECT string_agg(attname, ',' ORDER BY attnum) FROM pg_attribute"
                   "  WHERE attrelid = r.oid AND attnum > 0 AND NOT attisdropped),"
                   " (SELECT string_agg(attname, ',' ORDER BY array_position(c.conkey, attnum))"
                   "  FROM pg_attribute WHERE attrelid = r.oid AND attnum = ANY (c.conkey)) "
                   "FROM pg_constraint c JOIN pg_class r ON r.oid = c.conrelid"
                   " JOIN pg_namespace n ON n.oid = r.relnamespace "
                   "WHERE c.contype = 'p' AND n.nspname IN (" +
                   schemas + ") ORDER BY 1");
    std::string text;
    for (const auto &table : tables) {
        text += "@" + table[0] + "," + table[1] + "\n";
        text +=
            client.copy("COPY (SELECT '" + table[0] + "' AS t, " + table[1] + " FROM " + table[0] +
                        " ORDER BY " + table[2] + ") TO STDOUT (FORMAT csv, NULL '\\N')");
    }
    return text;
}
