// Partitions of a table that is followed as one: what is done to a whole partition does not come
// with the stream.  The log has a gap mark all the same, the warning has what mends it, and what is
// no such case is told by nothing.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::Not;

class BridgePartsTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        if (server_version() < 13)
            GTEST_SKIP() << "partitions are published as tables of their own";
        configure();
        sql("CREATE SCHEMA shop;"
            "CREATE TABLE shop.days (id integer PRIMARY KEY, note text) PARTITION BY RANGE (id);"
            "CREATE TABLE shop.first PARTITION OF shop.days FOR VALUES FROM (0) TO (100);"
            "CREATE TABLE shop.rest PARTITION OF shop.days FOR VALUES FROM (1000) TO (2000)"
            " PARTITION BY RANGE (id);"
            "CREATE TABLE shop.last PARTITION OF shop.rest FOR VALUES FROM (1000) TO (1100)");
    }

    // The table alone is published, or all are.
    void begin(bool all) const
    {
        if (!all)
            sql("CREATE PUBLICATION " + database +
                " FOR TABLE shop.days WITH (publish_via_partition_root = true)");
        catch_up_well({"--create"});
        sql("INSERT INTO shop.days SELECT n, 'old' FROM generate_series(1, 90) n;"
            "INSERT INTO shop.days SELECT n, 'old' FROM generate_series(1000, 1090) n");
        catch_up_well();
    }

    std::string catch_up_well(const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.err;
    }

    // The gap marks of the log, "TABLE: reason" each.
    std::string gaps() const
    {
        std::istringstream in(fwlog({"dump", "--json"}).out);
        std::string lines;
        for (std::string line; std::getline(in, line);)
            if (json_member(line, "op") == "g")
                lines += json_member(line, "table") + ": " + json_member(line, "reason") + "\n";
        return lines;
    }

    // One mark for the table and one warning, once; what the warning says brings the table.
    void expect_told(const std::string &warning, const std::string &reason)
    {
        const std::string before = gaps();
        EXPECT_THAT(catch_up_well(),
                    HasSubstr("warning: table shop.days " + warning +
                              ", and the log has a gap mark; to have it right, fwlog postgresql "
                              "--resume shop.days\n"));
        EXPECT_EQ(gaps(), before + "shop.days: " + reason + "\n");
        EXPECT_THAT(catch_up_well(), Not(HasSubstr("warning: table "))) << "once";
        catch_up_well({"--resume", "shop.days"});
        EXPECT_EQ(gaps(), before + "shop.days: " + reason + "\n");
        EXPECT_EQ(
            ids_in_log(),
            value("SELECT coalesce(string_agg(id::text, ' ' ORDER BY id), '') FROM shop.days"));
    }

    void expect_not_told()
    {
        const std::string before = gaps();
        EXPECT_EQ(catch_up_well(), "");
        EXPECT_EQ(catch_up_well(), "");
        EXPECT_EQ(gaps(), before);
    }

    // Rows of the table that the log has behind its last truncate, without deletes.
    std::string ids_in_log() const
    {
        std::istringstream in(fwlog({"dump", "--json"}).out);
        std::set<int> ids;
        for (std::string line; std::getline(in, line);) {
            const std::string op = json_member(line, "op");
            if (op == "t")
                ids.clear();
            else if (op == "c" || op == "r")
                ids.insert(std::stoi(json_member(line, "ID")));
        }
        std::string text;
        for (const int id : ids)
            text += (text.empty() ? "" : " ") + std::to_string(id);
        return text;
    }
};

// The mark's place in the log is the one that the piece was to have.
TEST_F(BridgePartsTest, AMarkBesideATableThatIsTakenIn)
{
    ASSERT_NO_FATAL_FAILURE(begin(true));
    for (int round = 1; round <= 4; round++) {
        const std::string number = std::to_string(round);
        sql("CREATE TABLE shop.large" + number +
            " AS SELECT n AS id, repeat('x', 100) AS note FROM generate_series(1, 30000) n;"
            "ALTER TABLE shop.large" +
            number + " ADD PRIMARY KEY (id); INSERT INTO shop.days VALUES (" + number +
            " + 90, 'new'); TRUNCATE shop.first");
        catch_up_well({"--resume", "shop.large" + number});
        EXPECT_EQ(occurrences(gaps(), "shop.days: "), round) << gaps();
        EXPECT_EQ(occurrences(dump(), " insert SHOP.LARGE" + number + " "), 30000);
    }
}

TEST_F(BridgePartsTest, APartitionThatIsDropped)
{
    begin(true);
    sql("DROP TABLE shop.first");
    expect_told("has lost its part shop.first, which was detached or dropped: its rows are in the "
                "log still",
                "the rows of shop.first, which is no part any more, are in the log still");
    // One with parts of its own.
    sql("DROP TABLE shop.rest");
    expect_told("has lost its part shop.last, which was detached or dropped: its rows are in the "
                "log still",
                "the rows of shop.last, which is no part any more, are in the log still");
}

TEST_F(BridgePartsTest, APartitionThatIsDetached)
{
    begin(false);
    sql("ALTER TABLE shop.days DETACH PARTITION shop.first");
    expect_told("has lost its part shop.first, which was detached or dropped: its rows are in the "
                "log still",
                "the rows of shop.first, which is no part any more, are in the log still");
}

// Of all tables it is one more from then on.
TEST_F(BridgePartsTest, ADetachedPartitionThatIsFollowedByItself)
{
    begin(true);
    sql("ALTER TABLE shop.days DETACH PARTITION shop.first");
    EXPECT_THAT(catch_up_well(),
                HasSubstr("warning: table shop.first is no part of shop.days any more, and is "
                          "followed by itself: the rows that it had before are missing there, and "
                          "the log has a gap mark; to have them there, fwlog postgresql --resume "
                          "shop.first\n"));
    EXPECT_EQ(gaps(), "shop.first: the rows that it had as a part of shop.days are missing\n"
                      "shop.days: the rows of shop.first, which is no part any more, are in the "
                      "log still\n");
    EXPECT_EQ(catch_up_well(), "");
    catch_up_well({"--resume", "shop.first"});
    EXPECT_THAT(dump(), HasSubstr("SHOP.FIRST"));
}

TEST_F(BridgePartsTest, ATableWithRowsThatNobodyFollowedIsAttached)
{
    begin(false);
    sql("CREATE TABLE shop.more (LIKE shop.days INCLUDING ALL);"
        "INSERT INTO shop.more VALUES (200, 'before')");
    sql("ALTER TABLE shop.days ATTACH PARTITION shop.more FOR VALUES FROM (200) TO (300)");
    sql("INSERT INTO shop.days VALUES (201, 'behind')");
    expect_told("has got shop.more as a part: the rows that it had before are missing there",
                "the rows that shop.more had before it became a part are missing");
}

TEST_F(BridgePartsTest, APartitionThatIsTruncated)
{
    begin(true);
    sql("TRUNCATE shop.first");
    sql("INSERT INTO shop.days VALUES (5, 'new')");
    expect_told(
        "has a part that was truncated or rewritten, shop.first: rows that it had may be "
        "in the log still",
        "the rows of shop.first, which was truncated or rewritten, may be in the log still");
    sql("TRUNCATE shop.rest");
    expect_told("has a part that was truncated or rewritten, shop.last: rows that it had may be "
                "in the log still",
                "the rows of shop.last, which was truncated or rewritten, may be in the log still");
}

TEST_F(BridgePartsTest, WhatTheStreamTellsIsNoGap)
{
    begin(true);
    // Made as a partition, with rows; attached without rows; written anew; truncated as a whole.
    sql("CREATE TABLE shop.made PARTITION OF shop.days FOR VALUES FROM (300) TO (400);"
        "INSERT INTO shop.days VALUES (300, 'new')");
    expect_not_told();
    pg_client client = connect();
    client.run("VACUUM FULL shop.first");
    client.run("CLUSTER shop.last USING last_pkey");
    expect_not_told();
    client.run("TRUNCATE shop.days");
    client.run("INSERT INTO shop.days VALUES (1, 'new')");
    expect_not_told();
    client.run("TRUNCATE shop.days");
    expect_not_told();
    EXPECT_EQ(gaps(), "");
    sql("DROP TABLE shop.days");
    expect_not_told();
}

TEST_F(BridgePartsTest, AnEmptyTableThatIsAttachedIsNoGap)
{
    begin(false);
    sql("CREATE TABLE shop.empty (LIKE shop.days INCLUDING ALL)");
    sql("ALTER TABLE shop.days ATTACH PARTITION shop.empty FOR VALUES FROM (200) TO (300)");
    sql("INSERT INTO shop.days VALUES (201, 'behind')");
    expect_not_told();
    EXPECT_EQ(gaps(), "");
}

// What was seen by a run that was killed, or that never came to say so, is seen again.
TEST_F(BridgePartsTest, ARunningBridgeSeesIt)
{
    begin(true);
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    sql("INSERT INTO shop.days VALUES (91, 'new'); TRUNCATE shop.first");
    ASSERT_TRUE(bridge_says("has a part that was truncated or rewritten, shop.first: "))
        << bridge.err();
    bridge.end(SIGKILL);
    EXPECT_EQ(occurrences(gaps(), "shop.first, which was truncated"), 1) << gaps();
    EXPECT_EQ(catch_up_well(), "");
    sql("DROP TABLE shop.last");
    start_bridge();
    ASSERT_TRUE(bridge_says("has lost its part shop.last, ")) << bridge.err();
    bridge.end(SIGKILL);
    catch_up_well();
    EXPECT_EQ(occurrences(gaps(), "shop.last, which is no part"), 1) << gaps();
}

TEST_F(BridgePartsTest, ManyPartitionsAreToldAtOnce)
{
    sql("DO $$ BEGIN FOR n IN 1 .. 8 LOOP EXECUTE format('CREATE TABLE shop.p%s PARTITION OF"
        " shop.days FOR VALUES FROM (%s) TO (%s)', n, 2000 + n * 10, 2010 + n * 10); END LOOP; END "
        "$$");
    begin(true);
    sql("INSERT INTO shop.days SELECT n FROM generate_series(2010, 2089) n");
    catch_up_well();
    sql("DROP TABLE shop.p1, shop.p2, shop.p3, shop.p4, shop.p5, shop.p6, shop.p7");
    expect_told("has lost its part shop.p1, shop.p2, shop.p3, shop.p4, shop.p5 and 2 more, which "
                "was detached or dropped: its rows are in the log still",
                "the rows of shop.p1, shop.p2, shop.p3, shop.p4, shop.p5 and 2 more, which is no "
                "part any more, are in the log still");
}
