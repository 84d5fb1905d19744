// The section of docs/changes-as-data.md that needs a PostgreSQL server.
#include "tests/docs/changes_page.h"
#include "tests/postgresql/pg_server.h"

TEST(ChangesAsDataPage, CommandsForPostgresqlPrintWhatStandsThere)
{
    if (const std::string why = pg_server::missing(); !why.empty())
        GTEST_SKIP() << why;
    if (const std::string why = missing_program({{"psql", "postgresql-client-15"}}); !why.empty())
        GTEST_SKIP() << why;
    const pg_server server;
    changes_page page;
    page.setup.env["PGHOST"] = std::filesystem::path(server.socket()).parent_path();
    page.setup.env["PGUSER"] = "postgres";
    page.run_section(CHANGES_PAGE_SERVER);
}
