// "fwlog postgresql" whose connections are ended again and again: each change is in the log once,
// and the last connection costs no more than the first ones.  scripts/long/reconnects has a
// thousand.  And one that is not let in for a while.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

struct bridge_cost {
    int64_t descriptors;
    int64_t kib;
};

class BridgeReconnectTest : public LedgerTest {
  protected:
    bridge_cost cost() const
    {
        const std::string proc = "/proc/" + std::to_string(bridge.pid);
        const std::string status = read_file(proc + "/status");
        const size_t at = status.find("VmRSS:");
        int64_t open = 0;
        for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(proc + "/fd"))
            open++;
        return {open, at == std::string::npos ? -1 : atoll(status.c_str() + at + 6)};
    }

    // Ends all sessions of the bridge, and waits until it follows with others.
    void end_sessions(int so_far)
    {
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        ASSERT_NE(value("SELECT count(pg_terminate_backend(active_pid)) FROM pg_replication_slots"
                        " WHERE slot_name = current_database() AND active"),
                  "0");
        ASSERT_TRUE(poll_until([&] {
            return status_member("state") == "streaming" &&
                   atoi(status_member("reconnects").c_str()) > so_far;
        })) << bridge.err();
    }
};

TEST_F(BridgeReconnectTest, TheLastConnectionCostsNoMoreThanTheFirst)
{
    const char *const said = getenv("KESTRO_RECONNECTS");
    const int times = said != nullptr ? atoi(said) : 10;
    begin_following();
    std::vector<bridge_cost> costs;
    for (int i = 1; i <= times; i++) {
        const int so_far = atoi(status_member("reconnects").c_str());
        insert(2 * i - 1); // the stream may be cut before it, or behind it
        ASSERT_NO_FATAL_FAILURE(end_sessions(so_far));
        insert(2 * i);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(2 * i));
        if (i == (times + 9) / 10 || i == (times + 1) / 2 || i == times) {
            costs.push_back(cost());
            printf("%d reconnects: %d descriptors, %d KiB\n", i,
                   static_cast<int>(costs.back().descriptors), static_cast<int>(costs.back().kib));
        }
    }
    ASSERT_EQ(costs.size(), 3U);
    EXPECT_EQ(costs[2].descriptors, costs[1].descriptors);
#ifndef KESTRO_SANITIZED // such a build keeps what was freed
    EXPECT_LE(costs[2].kib, costs[1].kib + 1024);
#endif
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    expect_log_equals_tables();
    EXPECT_EQ(value("SELECT count(*) FROM load.ledger"), std::to_string(2 * times));
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(BridgeReconnectTest, AServerThatLetsNobodyInIsAskedLessAndLessAndToldOnce)
{
    begin_following();
    for (const int row : {1, 2}) {
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        const std::string told_so_far = bridge.err();
        const int so_far = atoi(status_member("reconnects").c_str());
        pg_client elsewhere(server->conninfo());
        elsewhere.run("ALTER DATABASE " + database + " ALLOW_CONNECTIONS false");
        elsewhere.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" +
                      database + "'");
        ASSERT_TRUE(
            poll_until([&] { return atoi(status_member("reconnects").c_str()) >= so_far + 5; }));
        // The lost connection, the refusal, and another one where the server is still busy with
        // the first.
        const std::string told = bridge.err().substr(told_so_far.size());
        EXPECT_THAT(told, HasSubstr("not currently accepting connections; trying again\n"));
        EXPECT_GE(occurrences(told, "; trying again\n"), 2) << told;
        EXPECT_LE(occurrences(told, "; trying again\n"), 3) << told;
        elsewhere.run("ALTER DATABASE " + database + " ALLOW_CONNECTIONS true");
        insert(row);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(row));
    }
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    expect_log_equals_tables();
}
