// "fwlog postgresql" where it would be easy to stop for good or to lose changes without a
// word: shutdowns of the server, kills and signals before the stream, odd tables and texts.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/support/notified.h"

using testing::HasSubstr;
using testing::Not;

class BridgeTroubleTest : public LedgerTest {
  protected:
    std::string slot_count(const std::string &name) const
    {
        return value("SELECT count(*) FROM pg_replication_slots WHERE slot_name = '" + name + "'");
    }
};

TEST_F(BridgeTroubleTest, AServerThatIsShutDownAndStartedIsFollowedFurther)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    for (int id = 1; id <= 2; id++) {
        insert(id);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(id));
        server->stop();
        server->start();
    }
    insert(3);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(3));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_log_equals_tables();
}

TEST_F(BridgeTroubleTest, AServerThatWaitsForItsSessionsIsNotKeptUp)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    EXPECT_TRUE(server->stop_when_unused());
    server->start();
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
}

TEST_F(BridgeTroubleTest, AChangeBeforeTheShutdownIsNotLost)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    bridge.signal(SIGSTOP);
    insert(1);
    bridge.signal(SIGCONT);
    server->stop();
    server->start();
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_log_equals_tables();
}

TEST_F(BridgeTroubleTest, ASlotThatWasMovedAheadOfTheLogIsRefused)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    ASSERT_EQ(catch_up().status, 0);
    insert(2);
    sql("SELECT pg_replication_slot_advance('" + database + "', pg_current_wal_flush_lsn())");
    insert(3);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("slot \"" + database + "\""));
    EXPECT_FALSE(logged("after ID=3 "));
}

TEST_F(BridgeTroubleTest, ASignalEndsTheWaitForASlot)
{
    pg_client open_transaction = connect();
    open_transaction.run("BEGIN; INSERT INTO load.ledger VALUES (1, 0, 1, 'open', NULL)");
    start_bridge({"--create"});
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'walsender' "
                     "AND query LIKE 'CREATE_REPLICATION_SLOT%'") == "1";
    })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    open_transaction.run("COMMIT");
    ASSERT_TRUE(poll_until([&] { return slot_count(database) == "0"; }));
    insert(2);
    EXPECT_EQ(catch_up({"--create"}).status, 0);
}

TEST_F(BridgeTroubleTest, ADatabaseOfAnOddName)
{
    pg_client(server->conninfo()).run("CREATE DATABASE \"we\"\"ird \\ name\"");
    const std::string connection = server->conninfo("'we\"ird \\\\ name'");
    for (int run = 0; run < 2; run++) {
        const run_result result = catch_up({"--create", "--conninfo", connection});
        EXPECT_EQ(result.status, 0) << result.err;
    }
    pg_client(server->conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    pg_client(server->conninfo()).run("DROP DATABASE \"we\"\"ird \\ name\"");
}

TEST_F(BridgeTroubleTest, TablesWithoutColumnsArePassedOverAndCanBeLeftOut)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("CREATE TABLE load.nothing (); ALTER TABLE load.nothing REPLICA IDENTITY FULL;"
        "INSERT INTO load.nothing DEFAULT VALUES");
    insert(1);
    run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("warning: table load.nothing has no columns"));
    EXPECT_TRUE(logged("after ID=1 "));
    configure(std::string("skip-table load.nothing\n") + ledger_cfg);
    sql("INSERT INTO load.nothing DEFAULT VALUES");
    insert(2);
    result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, Not(HasSubstr("no columns")));
    EXPECT_TRUE(logged("after ID=2 "));
}

TEST_F(BridgeTroubleTest, AHugeSessionMessageDoesNotStopIt)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("BEGIN; SELECT pg_logical_emit_message(true, 'session', 'user=' || "
        "repeat('x', 70000000)); INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL); COMMIT");
    insert(2);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(logged("after ID=2 "));
}

// ---- what a monitor is told

TEST_F(BridgeTroubleTest, AMonitorTellsAServerThatIsGoneAndABridgeThatStandsStill)
{
    const auto health = [this] {
        return run_program(
            {KESTRO_BUILD_DIR "/bin/fwlog", "health", "--state", dir.file("log/postgresql.json")});
    };
    const auto comes = [&](int status, const std::string &text) {
        run_result last;
        EXPECT_TRUE(poll_until([&] {
            last = health();
            return last.status == status && last.out.find(text) != std::string::npos;
        })) << last.out
            << last.err;
    };
    const notified manager(dir.file("socket"));
    setenv("NOTIFY_SOCKET", dir.file("socket").c_str(), 1);
    setenv("WATCHDOG_USEC", "60000000", 1);
    begin_following();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    comes(0, ": idle at ");
    std::string heard;
    EXPECT_TRUE(poll_until([&] {
        heard += manager.next() + "\n";
        return heard.find("READY=1") != std::string::npos &&
               heard.find("WATCHDOG=1") != std::string::npos;
    })) << heard;
    bridge.signal(SIGSTOP);
    comes(2, "was stopped (SIGCONT)");
    bridge.signal(SIGCONT);
    comes(0, ": idle at ");
    server->stop();
    comes(2, ": waiting at ");
    server->start();
    comes(0, ": idle at ");
    bridge.end(SIGKILL);
    comes(2, "is gone and has not said why");
    EXPECT_EQ(catch_up().status, 0);
    comes(1, ": stopped at ");
}
