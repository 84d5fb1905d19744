// One session of a PostgreSQL server.
#ifndef TESTS_POSTGRESQL_PG_CLIENT_H
#define TESTS_POSTGRESQL_PG_CLIENT_H

#include <libpq-fe.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct pg_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class pg_client {
  public:
    // Connects; throws pg_error.
    explicit pg_client(const std::string &conninfo);

    // The server's main version.
    int version() const;

    // Runs SQL and returns the rows of the last statement, null as "\N"; throws pg_error.
    std::vector<std::vector<std::string>> run(const std::string &sql);

    // The one value that the SQL gives.
    std::string value(const std::string &sql);

    // What a COPY ... TO STDOUT gives.
    std::string copy(const std::string &sql);

  private:
    std::unique_ptr<PGconn, decltype(&PQfinish)> connection;
};

// Contents of the tables in the schemas named ("'depot', 'sales'") that have a primary
// key, by key, as CSV: a line "@table,columns" opens each table, rows begin with the
// table's name; null is \N.
std::string pg_contents(pg_client &client, const std::string &schemas);

#endif
