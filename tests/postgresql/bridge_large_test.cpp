// "fwlog postgresql" and large things: a transaction of a million rows in little
// memory, and a log that has no room.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

#ifdef KESTRO_SANITIZED
constexpr int ROWS = 100'000;
#else
constexpr int ROWS = 1'000'000;
constexpr int64_t MEMORY_MAX_KIB = 100 * 1024;
#endif

class BridgeLargeTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        configure(ledger_cfg);
        sql(ledger_sql);
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    void insert(int rows) const
    {
        sql("INSERT INTO load.ledger SELECT g, 0, g, 'a row of usual length ' || g, NULL "
            "FROM generate_series(1, " +
            std::to_string(rows) + ") g");
    }

    // The most memory that the bridge has had, in KiB.
    int64_t peak_memory() const
    {
        const std::string status = read_file("/proc/" + std::to_string(bridge.pid) + "/status");
        const size_t at = status.find("VmHWM:");
        return at == std::string::npos ? -1 : atoll(status.c_str() + at + 6);
    }
};

TEST_F(BridgeLargeTest, AMillionRowsInOneTransactionNeedLittleMemory)
{
    start_bridge();
    insert(ROWS);
    const std::string changes = std::to_string(ROWS);
    ASSERT_TRUE(poll_until([&] { return status_member("changes") == changes; }, 120))
        << bridge.err();
#ifndef KESTRO_SANITIZED
    RecordProperty("peak_memory_kib", std::to_string(peak_memory()));
    EXPECT_GT(peak_memory(), 0);
    EXPECT_LT(peak_memory(), MEMORY_MAX_KIB);
#endif
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    const run_result info = fwlog({"info", "--json"});
    EXPECT_THAT(info.out, HasSubstr("\"transactions\":1,"));
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    const run_result capture =
        run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-cfg", "fwutil.cfg", "-stat", "text.status",
                     "-synconly", "-ascii", "/dev/null"},
                    options);
    EXPECT_THAT(capture.out, HasSubstr(changes + " records written to capture file /dev/null\n"));
}

TEST_F(BridgeLargeTest, AFullDiskStopsItAndTheNextRunGoesOn)
{
    insert(10);
    ASSERT_EQ(catch_up().status, 0);
    sql("DELETE FROM load.ledger");
    insert(2000);
    sql("UPDATE load.ledger SET client = 1");
    // A limit of the size of files instead of a disk: the signal for it is ignored, so
    // that writes fail.
    std::vector<std::string> argv = {"sh", "-c",
                                     "trap '' XFSZ; ulimit -f 200; exec timeout 60 \"$@\"", "sh"};
    for (const std::string &word : bridge_argv({"--once"}))
        argv.push_back(word);
    const run_result full = run_program(argv, options);
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("File too large"));
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    EXPECT_EQ(occurrences(dump(), " commit "), 2);
    const run_result rest = catch_up();
    EXPECT_EQ(rest.status, 0) << rest.err;
    EXPECT_EQ(occurrences(dump(), " commit "), 4);
    expect_log_equals_tables();
}
