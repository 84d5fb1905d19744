// "fwlog postgresql" through what happens in its life: the snapshot, restarts, lost
// connections, signals.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/load_client.h"

using testing::HasSubstr;
using testing::Not;

class BridgeStreamTest : public LedgerTest {
  protected:
    void insert(int first, int last) const
    {
        sql("INSERT INTO load.ledger SELECT g, 0, g, 'row', NULL FROM generate_series(" +
            std::to_string(first) + ", " + std::to_string(last) + ") g");
    }

    std::string walsenders() const
    {
        return value("SELECT count(*) FROM pg_replication_slots WHERE active");
    }
};

TEST_F(BridgeStreamTest, SnapshotAndStreamTogetherGiveTheTables)
{
    sql(audit_sql);
    configure(std::string(ledger_cfg) + audit_cfg);
    insert(1, 500);
    load_clients load(conninfo(), 3, 1, 5);
    ASSERT_TRUE(poll_until([&] { return value("SELECT count(*) >= 100 FROM load.audit") == "t"; }));
    start_bridge({"--create", "--snapshot"});
    // Records of both kinds: at least as many transactions as behind a snapshot.
    ASSERT_TRUE(poll_until([&] { return atoi(status_member("transactions").c_str()) > 100; }))
        << bridge.err();
    EXPECT_TRUE(load.stop());
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    const run_result rest = catch_up();
    EXPECT_EQ(rest.status, 0) << rest.err;
    EXPECT_THAT(dump(), HasSubstr("after ID=500 CLIENT=0 AMOUNT=500"));
    expect_log_equals_tables();
}

TEST_F(BridgeStreamTest, ASnapshotCutShortGoesOn)
{
    insert(1, 30000);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    pg_client lock = connect();
    lock.run("BEGIN; LOCK TABLE load.ledger IN ACCESS EXCLUSIVE MODE");
    start_bridge({"--snapshot"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    EXPECT_EQ(status_member("snapshot"), "taking");
    bridge.end(SIGKILL);
    lock.run("COMMIT");
    ASSERT_EQ(occurrences(dump(), " commit "), 0);
    sql("UPDATE load.ledger SET body = 'later' WHERE id = 7");
    // The options are not needed for it.
    const run_result again = catch_up();
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("snapshot at "));
    EXPECT_THAT(again.err, HasSubstr(": 30000 rows\n"));
    EXPECT_EQ(status_member("snapshot"), "done");
    expect_log_equals_tables();
    // They do nothing any more.
    insert(30001, 30001);
    EXPECT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    expect_log_equals_tables();
}

// Nor a part of one.
TEST_F(BridgeStreamTest, ALockedTableHoldsNoOtherOneUp)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("CREATE TABLE load.locked (id integer PRIMARY KEY);"
        "CREATE TABLE load.days (id integer PRIMARY KEY) PARTITION BY RANGE (id);"
        "CREATE TABLE load.monday PARTITION OF load.days FOR VALUES FROM (0) TO (9)");
    const std::string days = server_version() < 13 ? "load.monday" : "load.days";
    pg_client lock = connect();
    lock.run("BEGIN; LOCK TABLE load.locked, load.monday IN ACCESS EXCLUSIVE MODE");
    start_bridge({"--create", "--snapshot"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(1, 1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    background command;
    command.start({KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "-cfg", "fwutil.cfg", "--resume",
                   "load.locked", "--resume", days, "--resume", "load.ledger"},
                  options, dir.file("command"));
    ASSERT_TRUE(poll_until([&] { return logged("truncate LOAD.LEDGER"); })) << bridge.err();
    insert(2, 2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    lock.run("COMMIT");
    EXPECT_EQ(command.wait(), 0) << command.err() << bridge.err();
}

TEST_F(BridgeStreamTest, WithoutSnapshotTheLogBeginsWithTheSlot)
{
    insert(1, 3);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(4, 5);
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_EQ(occurrences(dump(), " insert LOAD.LEDGER "), 2);
}

TEST_F(BridgeStreamTest, ARestartGoesOnBehindTheLastCommit)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    for (int i = 0; i < 5; i++) {
        insert(10 * i, 10 * i + 9);
        const run_result result = catch_up();
        ASSERT_EQ(result.status, 0) << result.err;
    }
    EXPECT_EQ(occurrences(dump(), " insert LOAD.LEDGER "), 50);
    EXPECT_EQ(occurrences(dump(), " commit "), 5);
    expect_log_equals_tables();
}

TEST_F(BridgeStreamTest, OnceTakesWhatTheServerHadAtTheStart)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1, 10000);
    sql("UPDATE load.ledger SET body = 'changed' WHERE id % 2 = 0; "
        "DELETE FROM load.ledger WHERE id % 3 = 0");
    ASSERT_EQ(catch_up().status, 0);
    expect_log_equals_tables();
    // With nothing new it ends, too.
    EXPECT_EQ(catch_up().status, 0);
}

TEST_F(BridgeStreamTest, AServerThatCrashesIsFollowedFurther)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1, 1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    server->crash();
    server->start();
    insert(2, 2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    EXPECT_TRUE(bridge.running());
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(occurrences(dump(), " insert LOAD.LEDGER "), 2);
    expect_log_equals_tables();
}

TEST_F(BridgeStreamTest, AConnectionCutByTheServerIsMadeAgain)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    for (int i = 1; i <= 3; i++) {
        insert(i, i);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(i));
        sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
            "WHERE backend_type = 'walsender'");
    }
    insert(4, 4);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(4));
    EXPECT_TRUE(bridge.running());
    EXPECT_NE(status_member("reconnects"), "0");
    expect_log_equals_tables();
}

TEST_F(BridgeStreamTest, SignalsEndItAndTheSlotIsFree)
{
    for (const int number : {SIGTERM, SIGINT}) {
        ASSERT_NO_FATAL_FAILURE(begin_following());
        insert(number, number);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(number));
        EXPECT_EQ(bridge.end(number), 128 + number) << bridge.err();
        EXPECT_EQ(status_member("state"), "stopped");
        EXPECT_TRUE(poll_until([&] { return walsenders() == "0"; }));
    }
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(BridgeStreamTest, ASignalInsideALargeTransactionLeavesItForTheNextRun)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1, 30000);
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    const int before = occurrences(dump(), " commit ");
    EXPECT_LE(before, 1);
    ASSERT_TRUE(poll_until([&] { return walsenders() == "0"; }));
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_EQ(occurrences(dump(), " commit "), 1);
    expect_log_equals_tables();
}

TEST_F(BridgeStreamTest, ASlotThatAnotherProcessUsesIsWaitedFor)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    run_setup elsewhere = options;
    elsewhere.directory = dir.file("other");
    std::filesystem::create_directory(elsewhere.directory);
    write_file(dir.file("other/fwutil.cfg"), read_file(dir.file("fwutil.cfg")));
    background second;
    second.start(bridge_argv({"--once", "--accept-gap"}), elsewhere, dir.file("second"));
    const std::string in_use = "replication slot \"" + database + "\" is active for PID";
    ASSERT_TRUE(poll_until([&] { return second.err().find(in_use) != std::string::npos; }))
        << second.err();
    EXPECT_TRUE(bridge.running());
    bridge.end(SIGTERM);
    EXPECT_EQ(second.wait(), 0) << second.err();
}

TEST_F(BridgeStreamTest, OneLogHasOneBridge)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    const run_result second = catch_up();
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, HasSubstr("writer"));
}

TEST_F(BridgeStreamTest, HowFarItIsStandsInTheStatusFileAndComesOnASignal)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1, 10);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(10));
    const std::string end = value("SELECT pg_current_wal_flush_lsn()");
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT coalesce(nullif('" + status_member("logged_lsn") +
                     "', '')::pg_lsn >= '" + end + "', false)") == "t";
    }));
    EXPECT_EQ(status_member("state"), "streaming");
    EXPECT_EQ(status_member("lag_bytes"), "0");
    EXPECT_EQ(status_member("lag_seconds"), "0.000");
    EXPECT_EQ(status_member("transactions"), "1");
    EXPECT_EQ(status_member("changes"), "10");
    EXPECT_EQ(status_member("slot"), database);
    bridge.signal(SIGUSR1);
    EXPECT_TRUE(bridge_says("1 transactions, 10 changes")) << bridge.err();
    EXPECT_THAT(bridge.err(), HasSubstr("0 bytes and 0.0 seconds behind"));
    EXPECT_TRUE(bridge.running());
}

TEST_F(BridgeStreamTest, TheStatusFileMayHaveAnotherName)
{
    ASSERT_EQ(catch_up({"--create", "--status", dir.file("far.json")}).status, 0);
    EXPECT_EQ(json_member(read_file(dir.file("far.json")), "slot"), database);
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/postgresql.json")));
}

TEST_F(BridgeStreamTest, TheServerForgetsWhatIsLogged)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1, 10);
    const std::string end = value("SELECT pg_current_wal_flush_lsn()");
    EXPECT_TRUE(poll_until([&] {
        return value("SELECT confirmed_flush_lsn >= '" + end +
                     "' FROM pg_replication_slots WHERE slot_name = '" + database + "'") == "t";
    })) << bridge.err();
    EXPECT_TRUE(logged("after ID=10 "));
}

TEST_F(BridgeStreamTest, SessionsComeFromMessagesInTheTransaction)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("BEGIN; SELECT pg_logical_emit_message(true, 'session', "
        "'pid=77;login=ann;user=ANN01;pname=desk;info=till');"
        "INSERT INTO load.ledger VALUES (1, 0, 1, 'named', true); COMMIT");
    insert(2, 2);
    ASSERT_EQ(catch_up().status, 0);
    const std::string text = dump();
    if (server_version() < 14) { // does not send messages
        EXPECT_THAT(text, Not(HasSubstr("ANN01")));
        EXPECT_EQ(occurrences(text, "data \"xid="), 2);
        return;
    }
    EXPECT_THAT(text, HasSubstr("user \"ANN01\""));
    EXPECT_THAT(text, HasSubstr("login \"ann\""));
    EXPECT_EQ(occurrences(text, "data \"xid="), 2);
    const std::vector<std::string> records = captured();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].substr(64, 62),
              "desk                    " // program
              "ANN01   "                 // user
              "ann                     " // login
              " 00077");                 // process id
    EXPECT_EQ(records[1].substr(64, 56), std::string(56, ' '));
}

TEST_F(BridgeStreamTest, ASessionMessageInTheMiddleCountsFromThereOn)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("BEGIN; INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL);"
        "SELECT pg_logical_emit_message(true, 'session', 'pname=desk');"
        "INSERT INTO load.ledger VALUES (2, 0, 1, 'row', NULL);"
        "SELECT pg_logical_emit_message(true, 'session', 'pname=till');"
        "INSERT INTO load.ledger VALUES (3, 0, 1, 'row', NULL); COMMIT");
    sql("SELECT pg_logical_emit_message(false, 'session', 'pname=nobody')");
    insert(4, 4);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0);
    if (server_version() < 14) { // does not send messages
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(captured().size(), 4U);
        return;
    }
    EXPECT_THAT(result.err, HasSubstr(": a session message comes behind the first change and "
                                      "counts from there on (this is told once)\n"));
    EXPECT_EQ(occurrences(result.err, "a session message"), 1);
    const std::vector<std::string> records = captured();
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records[0].substr(64, 8), "        ");
    EXPECT_EQ(records[1].substr(64, 8), "desk    ");
    EXPECT_EQ(records[2].substr(64, 8), "till    ");
    EXPECT_EQ(records[3].substr(64, 8), "        ");
}
