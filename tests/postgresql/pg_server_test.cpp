// The temporary server itself: it comes back after a stop and a crash with what was
// committed, and is gone with its files in the end.
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"

#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

class PgServerTest : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!pg_server::missing().empty())
            GTEST_SKIP() << pg_server::missing();
    }
};

TEST_F(PgServerTest, CommittedRowsOutliveStopAndCrash)
{
    pg_server server({"work_mem = 1MB"});
    const auto run = [&](const std::string &sql) { return pg_client(server.conninfo()).run(sql); };
    EXPECT_EQ(pg_client(server.conninfo()).value("SHOW work_mem"), "1MB");
    run("CREATE TABLE t (n integer PRIMARY KEY); INSERT INTO t VALUES (1)");
    server.stop();
    EXPECT_THROW(run("SELECT 1"), pg_error);
    server.start();
    pg_client open_at_crash(server.conninfo());
    open_at_crash.run("INSERT INTO t VALUES (2)");
    open_at_crash.run("BEGIN; INSERT INTO t VALUES (3)");
    server.crash();
    server.start();
    EXPECT_THROW(open_at_crash.run("COMMIT"), pg_error);
    pg_client client(server.conninfo());
    EXPECT_EQ(pg_contents(client, "'public'"), "@public.t,n\npublic.t,1\npublic.t,2\n");
}

TEST_F(PgServerTest, NothingIsLeftBehind)
{
    std::string directory;
    {
        const pg_server server;
        directory = pg_client(server.conninfo()).value("SHOW unix_socket_directories");
        EXPECT_EQ(access(directory.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(directory.c_str(), F_OK), 0);
}
