// "fwlog postgresql" and a log that has no room.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::Not;

class BridgeDiskTest : public BridgeTest {
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

    // A limit of the size of files instead of a disk: the signal for it is ignored, so that
    // writes fail.
    run_result run_without_room(const std::vector<std::string> &more) const
    {
        std::vector<std::string> argv = {
            "sh", "-c", "trap '' XFSZ; ulimit -f 200; exec timeout 60 \"$@\"", "sh"};
        for (const std::string &word : bridge_argv(more))
            argv.push_back(word);
        return run_program(argv, options);
    }
};

TEST_F(BridgeDiskTest, AFullDiskStopsItAndTheNextRunGoesOn)
{
    insert(10);
    ASSERT_EQ(catch_up().status, 0);
    sql("DELETE FROM load.ledger");
    insert(2000);
    sql("UPDATE load.ledger SET client = 1");
    const run_result full = run_without_room({"--once"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("File too large"));
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    EXPECT_EQ(occurrences(dump(), " commit "), 2);
    const run_result rest = catch_up();
    EXPECT_EQ(rest.status, 0) << rest.err;
    EXPECT_EQ(occurrences(dump(), " commit "), 4);
    expect_log_equals_tables();
}

// What is told is in the log.
TEST_F(BridgeDiskTest, ATableIsToldToBeTakenInOnceTheLogHasIt)
{
    insert(2000);
    const run_result full = run_without_room({"--once", "--snapshot", "-v"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("File too large"));
    EXPECT_THAT(full.err, Not(HasSubstr("is taken in")));
    const run_result rest = catch_up({"-v"});
    EXPECT_EQ(rest.status, 0) << rest.err;
    EXPECT_THAT(rest.err, HasSubstr("load.ledger is taken in (snapshot): 2000 rows\n"));
    expect_log_equals_tables();
}
