// Tables whose rows have no order, and are too many for one piece: they come bit by bit, in one
// snapshot, while the stream goes on, and what the snapshot does not have comes behind them.
#include "tests/postgresql/intake_fixture.h"

#include <atomic>
#include <iostream>

using testing::HasSubstr;

constexpr int ROWS = 60'000;      // one piece may be in the log, the next one in hand
static const char key[] = "T=ID"; // by which the log's SQL finds rows, though the table has none

class BridgeHeldTest : public IntakeTest {
  protected:
    void TearDown() override
    {
        if (stopped != 0)
            kill(stopped, SIGCONT);
        IntakeTest::TearDown();
    }

    // The bridge holds the table, and the server gives no more rows than it has given so far: not
    // all of them.
    void hold(const std::string &id = "g")
    {
        ASSERT_NO_FATAL_FAILURE(make_table("bigint", id, ROWS));
        // Nothing is logged before the stream is behind the snapshot.
        ASSERT_NO_FATAL_FAILURE(begin_waiting());
        const pid_t held = sender();
        pg_stop_at_rest(held);
        see_first();
        const bool read = poll_until([&] { return (stopped = reader()) != 0; });
        if (read)
            pg_stop_at_rest(stopped);
        let_commits_wait(false);
        kill(held, SIGCONT);
        ASSERT_TRUE(read) << bridge.err();
        sql("CREATE TABLE load.other (id integer PRIMARY KEY)");
    }

    void let_go()
    {
        kill(stopped, SIGCONT);
        stopped = 0;
    }

    bool some_are_taken() const
    {
        return poll_until([&] { return std::atoi(taken().c_str()) > 0; });
    }

    bool other_is_logged(int id)
    {
        sql("INSERT INTO load.other VALUES (" + std::to_string(id) + ")");
        return poll_until([&] { return logged("after ID=" + std::to_string(id) + " "); });
    }

    // Rows of the table that are in the log.
    std::string taken() const
    {
        return value("SELECT coalesce(substring(" + pg_literal(state()) +
                     " from '\"table\":\"load.t\"[^}]*\"rows\":([0-9]+)'), 'none')");
    }

    std::string state() const
    {
        return read_file(dir.file("log/postgresql.json"));
    }

    static std::string pg_literal(const std::string &text)
    {
        return "$text$" + text + "$text$";
    }

    pid_t stopped = 0;
};

TEST_F(BridgeHeldTest, OthersAreFollowedWhileItIsRead)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    EXPECT_TRUE(other_is_logged(1'000'001)) << bridge.err();
    ASSERT_TRUE(some_are_taken()) << state();
    EXPECT_LT(std::stoi(taken()), ROWS);
    EXPECT_THAT(state(), testing::ContainsRegex("\"estimate\":[1-9][0-9]{3}"));
    sql("UPDATE load.t SET n = 1 WHERE id <= 20; DELETE FROM load.t WHERE id = 29990;"
        "INSERT INTO load.t VALUES (90000, 5, 'new')");
    EXPECT_TRUE(other_is_logged(1'000'002)) << bridge.err();
    EXPECT_FALSE(logged("ID=90000 "));
    EXPECT_FALSE(snapshot_is_done());
    let_go();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    const std::string log = dump();
    EXPECT_GT(occurrences(log, "snapshot="), 1);
    EXPECT_LT(log.find("after ID=1000001 "), log.find("after ID=1000002 "));
    EXPECT_LT(log.find("after ID=1000002 "), log.find("after ID=90000 "));
    EXPECT_THAT(bridge.err(), HasSubstr("load.t is taken in (snapshot): 60000 rows"));
}

TEST_F(BridgeHeldTest, WhatTheSnapshotDoesNotHaveComesBehindTheRows)
{
    ASSERT_NO_FATAL_FAILURE(make_table("bigint", "g", ROWS));
    ASSERT_NO_FATAL_FAILURE(hold_until_read("BEGIN; INSERT INTO load.t VALUES (-1, 2, 'new');"
                                            "UPDATE load.t SET id = 90000 WHERE id = 2;"
                                            "UPDATE load.t SET n = 1 WHERE id BETWEEN 100 AND 140;"
                                            "DELETE FROM load.t WHERE id IN (1, 60000); COMMIT"));
    EXPECT_TRUE(poll_until([&] { return logged("after ID=90000 "); })) << bridge.err();
    EXPECT_EQ(occurrences(dump(), " insert LOAD.T "), ROWS + 1);
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
}

// Equal rows are found by all that they hold.
TEST_F(BridgeHeldTest, RowsThatAreEqualAreAllTaken)
{
    ASSERT_NO_FATAL_FAILURE(hold("g / 4"));
    sql("DELETE FROM load.t WHERE ctid = (SELECT max(ctid) FROM load.t);"
        "UPDATE load.t SET n = 4 WHERE ctid IN (SELECT ctid FROM load.t WHERE id = 9 LIMIT 2);"
        "INSERT INTO load.t SELECT 7, 0, 'new' FROM generate_series(1, 3)");
    let_go();
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

TEST_F(BridgeHeldTest, MoreChangesThanMemoryMayTake)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    sql("UPDATE load.t SET n = 1"); // 13 MB in the stream, all old rows with it
    sql("DELETE FROM load.t WHERE id > 59000");
    EXPECT_TRUE(other_is_logged(1'000'001)) << bridge.err();
    EXPECT_FALSE(logged(" update "));
    let_go();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    const std::string log = dump();
    EXPECT_EQ(occurrences(log, " insert LOAD.T "), ROWS); // once
    EXPECT_EQ(occurrences(log, " update LOAD.T "), ROWS);
    EXPECT_EQ(occurrences(log, " delete LOAD.T "), 1000);
}

// The limit of the size of files stands for the disk: the signal for it is ignored, so that writes
// fail.
TEST_F(BridgeHeldTest, AFullDiskLosesNothing)
{
    configure("values mark\ncolumn load.t.body width=190\nlog-file-size 1M\n");
    around = {"sh", "-c", "trap '' XFSZ; ulimit -f 15500; exec \"$@\"", "sh"};
    ASSERT_NO_FATAL_FAILURE(hold());
    ASSERT_TRUE(some_are_taken()) << state();
    sql("UPDATE load.t SET n = 1");
    EXPECT_EQ(bridge.wait(), 1);
    EXPECT_THAT(bridge.err(), HasSubstr("log: cannot write to the spill file of changes that "
                                        "belong behind a table's rows: File too large"));
    let_go();
    start_bridge();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    EXPECT_EQ(occurrences(dump(), " truncate "), 1) << "it was begun anew";
}

TEST_F(BridgeHeldTest, AConnectionThatIsLostBeginsTheTableAnew)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    ASSERT_TRUE(some_are_taken()) << state();
    sql("UPDATE load.t SET n = 1 WHERE id < 9");
    EXPECT_TRUE(other_is_logged(1'000'001)) << bridge.err();
    sql("SELECT pg_terminate_backend(" + std::to_string(stopped) + ")");
    let_go();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    const std::string log = dump();
    EXPECT_EQ(occurrences(log, " truncate "), 1);
    EXPECT_EQ(occurrences(log.substr(log.find(" truncate ")), " insert LOAD.T "), ROWS);
    EXPECT_EQ(status_member("reconnects"), "0") << "the stream was not disturbed";
}

// Only one of them has its snapshot at a time; small ones and those with a key go on meanwhile.
TEST_F(BridgeHeldTest, OtherTablesAreTakenInMeanwhile)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    sql("CREATE TABLE load.u AS SELECT * FROM load.t; ALTER TABLE load.u REPLICA IDENTITY FULL;"
        "CREATE TABLE load.keyed AS SELECT * FROM load.t; ALTER TABLE load.keyed ADD PRIMARY KEY "
        "(id); CREATE TABLE load.small (v text); ALTER TABLE load.small REPLICA IDENTITY FULL;"
        "INSERT INTO load.small VALUES ('small')");
    clients.emplace_back([this] {
        const run_result resumed = fwlog({"postgresql", "--resume", "load.u", "--resume",
                                          "load.keyed", "--resume", "load.small"});
        EXPECT_EQ(resumed.status, 0) << resumed.err;
    });
    const auto is_in = [&](const char *table, const char *why = "resume") {
        return bridge_says(std::string("load.") + table + " is taken in (" + why + "): ");
    };
    EXPECT_TRUE(is_in("small")) << bridge.err();
    EXPECT_TRUE(is_in("keyed")) << bridge.err();
    sql("UPDATE load.u SET n = 1 WHERE id < 100; UPDATE load.keyed SET n = 1 WHERE id < 100");
    let_go();
    EXPECT_TRUE(is_in("u")) << bridge.err();
    EXPECT_TRUE(is_in("t", "snapshot")) << bridge.err();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
}

TEST_F(BridgeHeldTest, WritersAndKills)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    ASSERT_NO_FATAL_FAILURE(make_table("bigint", "g", ROWS));
    std::atomic<bool> done = false;
    std::thread writer([&] {
        pg_client session = connect();
        session.run("CREATE INDEX ON load.t (id)");
        for (int i = 1; !done; i++) {
            const std::string id = std::to_string(i * 37 % ROWS);
            session.run("UPDATE load.t SET n = n + 1 WHERE id = " + id);
            session.run("DELETE FROM load.t WHERE id = 7 + " + id);
            session.run("INSERT INTO load.t VALUES (100000 + " + std::to_string(i) + ", 0, 'new')");
            session.run("UPDATE load.t SET id = -id WHERE id = 13 + " + id);
        }
    });
    begin_snapshot();
    for (int i = 0; i < 5 && !snapshot_is_done(); i++) {
        usleep(static_cast<useconds_t>(random() % 400'000));
        bridge.end(SIGKILL);
        start_bridge();
    }
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    done = true;
    writer.join();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
}

// Who wants to alter the table waits until its rows have come, and comes behind them.
TEST_F(BridgeHeldTest, ATruncateWaitsUntilItIsRead)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    clients.emplace_back(
        [this] { sql("TRUNCATE load.t; INSERT INTO load.t VALUES (1, 1, 'one')"); });
    ASSERT_TRUE(poll_until([&] {
        return value(
                   "SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' AND query"
                   " LIKE 'TRUNCATE%'") == "1";
    }));
    EXPECT_TRUE(other_is_logged(1'000'001)) << bridge.err();
    let_go();
    ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    EXPECT_EQ(occurrences(dump(), " truncate "), 1);
}
