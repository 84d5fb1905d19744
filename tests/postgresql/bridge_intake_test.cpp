// Tables that are read while they are followed: rows that are made, changed, moved to other keys
// and deleted meanwhile, by several clients, and whatever ends the bridge on the way.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/steps.h"

#include <iostream>
#include <random>
#include <thread>

using testing::HasSubstr;
using testing::Not;

#ifdef KESTRO_SANITIZED
constexpr int ROWS = 25'000;
#else
constexpr int ROWS = 70'000;
#endif

class BridgeIntakeTest : public LedgerTest {
  protected:
    void SetUp() override
    {
        LedgerTest::SetUp();
        if (server == nullptr)
            return;
        sql(step_sql);
        fill(1, ROWS);
    }

    void fill(int first, int last) const
    {
        sql("INSERT INTO load.ledger SELECT g, 0, g % 1000, 'row', NULL FROM generate_series(" +
            std::to_string(first) + ", " + std::to_string(last) + ") g");
    }

    void finish()
    {
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
        const run_result rest = catch_up();
        EXPECT_EQ(rest.status, 0) << rest.err;
        EXPECT_TRUE(snapshot_is_done());
        expect_log_equals_tables();
    }

    const char *given_seed = getenv("KESTRO_TEST_SEED");
    unsigned seed = given_seed != nullptr ? static_cast<unsigned>(strtoul(given_seed, nullptr, 10))
                                          : std::random_device{}();
    std::mt19937 random{seed};
};

TEST_F(BridgeIntakeTest, RowsThatChangeMeanwhileAreTakenOnce)
{
    steps clients(conninfo(), 3, ROWS);
    start_bridge({"--create", "--snapshot", "-v"});
    ASSERT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    EXPECT_THAT(bridge.err(), HasSubstr("load.ledger is taken in (snapshot): "));
    EXPECT_THAT(bridge.err(), HasSubstr("fwlog: snapshot at "));
    clients.stop();
    ASSERT_NO_FATAL_FAILURE(finish());
    EXPECT_GE(occurrences(dump(), "snapshot="), 2) << "in pieces";
}

TEST_F(BridgeIntakeTest, ABridgeThatIsKilledGoesOnWhereItWas)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    steps clients(conninfo(), 2, ROWS);
    int starts = 0;
    start_bridge({"--create", "--snapshot"});
    ASSERT_TRUE(poll_until([&] { return status_member("snapshot") == "taking"; })) << bridge.err();
    while (!snapshot_is_done() && starts < 100) {
        usleep(static_cast<useconds_t>(random() % 400'000));
        bridge.end(SIGKILL);
        start_bridge();
        starts++;
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
    }
    std::cout << starts << " starts\n";
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    clients.stop();
    ASSERT_NO_FATAL_FAILURE(finish());
}

TEST_F(BridgeIntakeTest, ASnapshotWhoseProgressIsLostIsTakenAnew)
{
    sql("CREATE TABLE load.held (id integer PRIMARY KEY);"
        "ALTER TABLE load.held REPLICA IDENTITY FULL");
    const std::string last = std::to_string(ROWS);
    for (const bool damaged : {false, true}) {
        SCOPED_TRACE(damaged ? "damaged" : "removed");
        std::filesystem::remove_all(dir.file("log"));
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        {
            pg_client holder = connect();
            holder.run("BEGIN; LOCK TABLE load.held"); // it stays to be taken in
            start_bridge({"--snapshot"});
            EXPECT_TRUE(poll_until([&] { return logged("after ID=" + last + " "); }))
                << bridge.err();
            bridge.end(SIGKILL);
        }
        std::vector<std::string> more;
        if (damaged) {
            write_file(dir.file("log/aside"), "fwlog aside 1\n");
            const run_result refused = catch_up();
            EXPECT_EQ(refused.status, 1);
            EXPECT_THAT(refused.err, HasSubstr("log/aside: damaged: it says which tables are set "
                                               "aside or being taken in; go on with --accept-gap"));
            more = {"--accept-gap"};
        } else {
            std::filesystem::remove(dir.file("log/aside"));
        }
        const run_result anew = catch_up(more);
        EXPECT_EQ(anew.status, 0) << anew.err;
        EXPECT_THAT(anew.err, HasSubstr("log/aside does not say how far the snapshot had come: it "
                                        "is taken anew, each table behind a truncate mark\n"));
        EXPECT_TRUE(snapshot_is_done());
        const std::string log = dump();
        const std::string behind = log.substr(std::min(log.find(" truncate "), log.size()));
        EXPECT_EQ(occurrences(behind, "after ID="), ROWS);
        EXPECT_EQ(occurrences(behind, "after ID=" + last + " "), 1);
        EXPECT_EQ(occurrences(log, "file aside was damaged"), damaged ? 1 : 0);
        sql("SELECT pg_drop_replication_slot('" + database + "')");
    }
}

TEST_F(BridgeIntakeTest, CommitsThatOthersDoNotSeeYet)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    steps clients(conninfo(), 4, ROWS);
    start_bridge({"--snapshot"});
    bool wait = false;
    ASSERT_TRUE(poll_until([&] {
        let_commits_wait(wait = !wait);
        usleep(static_cast<useconds_t>(random() % 60'000));
        return snapshot_is_done();
    })) << bridge.err();
    let_commits_wait(false);
    clients.stop();
    ASSERT_NO_FATAL_FAILURE(finish());
}

TEST_F(BridgeIntakeTest, ACommitBeforeTheStartThatOthersDoNotSeeIsWaitedFor)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    let_commits_wait(true);
    std::thread client = run_until_it_waits("UPDATE load.ledger SET body = 'late' WHERE id = 7");
    start_bridge({"--snapshot", "--timeout", "5"});
    EXPECT_TRUE(bridge_says("taking in tables waits: ")) << bridge.err();
    EXPECT_EQ(occurrences(dump(), " insert "), 0) << bridge.err();
    let_commits_wait(false);
    client.join();
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    ASSERT_NO_FATAL_FAILURE(finish());
}

TEST_F(BridgeIntakeTest, AServerThatCrashes)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    steps clients(conninfo(), 2, ROWS);
    start_bridge({"--snapshot"});
    for (int round = 0; round < 3; round++) {
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        usleep(static_cast<useconds_t>(random() % 200'000));
        server->crash();
        server->start();
    }
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    clients.stop();
    ASSERT_NO_FATAL_FAILURE(finish());
}
