// What the log directory keeps of the server, and what monitors find there: both outlive starts
// that go wrong.
#include "tests/postgresql/bridge_fixture.h"

#include <regex>

using testing::HasSubstr;
using testing::StartsWith;

class BridgeStateTest : public LedgerTest {
  protected:
    std::string kept() const
    {
        return read_file(dir.file("log/source"));
    }

    void begin_with_row_1() const
    {
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        insert(1);
        ASSERT_EQ(catch_up().status, 0);
    }

    void expect_refused(const std::vector<std::string> &more, const std::string &text) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr(text));
    }
};

TEST_F(BridgeStateTest, AWrongSlotNameHarmsNothing)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    const std::string before = kept();
    const std::string text = "the log follows slot \"" + database + "\", not \"typo\"";
    expect_refused({"--slot", "typo"}, text);
    expect_refused({"--slot", "typo", "--create"}, text);
    sql("SELECT pg_create_logical_replication_slot('typo', 'pgoutput')");
    expect_refused({"--slot", "typo"}, text);
    EXPECT_EQ(kept(), before);
    insert(2);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=2 "));
}

TEST_F(BridgeStateTest, OldLogFilesGoWhenTheirReaderHasThem)
{
    configure("log-file-size 4K\nlog-keep acknowledged\n");
    ASSERT_NO_FATAL_FAILURE(begin_following());
    for (int id = 1; id <= 60; id++)
        insert(id);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(60));
    EXPECT_TRUE(bridge_says("old log files stay: log-keep acknowledged, and no reader"));
    const std::string first = dir.file("log/fw0001-00000001.log");
    ASSERT_TRUE(std::filesystem::exists(dir.file("log/fw0001-00000003.log")));
    const std::string status = dir.file("reader.status");
    ASSERT_EQ(fwlog({"readers", "--add", status}).status, 0);
    ASSERT_EQ(fwlog({"dump", "--json", "--state", status}).status, 0);
    int id = 61;
    EXPECT_TRUE(poll_until([&] {
        insert(id++);
        return !std::filesystem::exists(first);
    }));
    // What comes now is what the reader has not got.
    const std::string state = dir.file("log/postgresql.json");
    EXPECT_TRUE(poll_until([&] {
        insert(id++);
        const std::string text = read_file(state);
        return text.find("\"retention\":{\"keep\":\"acknowledged\",\"files\":") != text.npos &&
               text.find("\"readers\":1,\"held_by\":\"" + status + "\",\"held_at\":\"position ") !=
                   text.npos &&
               text.find("\"problem\":null,\"removed_files\":") != text.npos &&
               text.find("\"removed_files\":0,") == text.npos;
    })) << read_file(state);
}

TEST_F(BridgeStateTest, AWrongSlotNameHarmsNoLogThatIsEmptyYet)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const std::string before = kept();
    expect_refused({"--slot", "typo", "--create"}, "the log follows slot ");
    EXPECT_EQ(kept(), before);
    insert(1);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=1 "));
}

TEST_F(BridgeStateTest, WhoeverSaysSoGoesOnWithAnotherSlot)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    sql("SELECT pg_create_logical_replication_slot('another', 'pgoutput')");
    insert(2);
    const run_result left = catch_up({"--slot", "another", "--accept-gap"});
    EXPECT_EQ(left.status, 0);
    EXPECT_THAT(left.err,
                HasSubstr("the log follows slot \"" + database + "\" no more, which stays"));
    const std::string drop = "SELECT pg_drop_replication_slot('" + database + "')";
    EXPECT_THAT(left.err, HasSubstr(drop + "\n"));
    sql(drop);
    insert(3);
    EXPECT_EQ(catch_up({"--slot", "another"}).status, 0);
    EXPECT_TRUE(logged("after ID=3 "));
    expect_refused({}, "the log follows slot \"another\", not \"" + database + "\"");
}

TEST_F(BridgeStateTest, ASlotThatIsLeftForANewOneIsToldOnce)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    const std::vector<std::string> words = {"--slot", "newer", "--create", "--accept-gap"};
    EXPECT_EQ(occurrences(catch_up(words).err, "pg_drop_replication_slot"), 1);
    EXPECT_EQ(occurrences(catch_up(words).err, "pg_drop_replication_slot"), 0);
}

TEST_F(BridgeStateTest, AFileOfTheLogIsNeverReplacedByTheStatus)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    const std::string before = kept();
    const std::string log = read_file(dir.file("log/fw0001-00000001.log"));
    for (const char *name : {"log/source", "log/fw0001-00000001.log"})
        expect_refused({"--status", name}, "the log directory is no place for a status file");
    expect_refused({"--status", "fwutil.cfg"}, "this is no status file");
    EXPECT_EQ(kept(), before);
    EXPECT_EQ(read_file(dir.file("log/fw0001-00000001.log")), log);
    for (int again = 0; again < 2; again++)
        EXPECT_EQ(catch_up({"--status", "status.json"}).status, 0);
    EXPECT_EQ(json_member(read_file(dir.file("status.json")), "state"), "stopped");
}

TEST_F(BridgeStateTest, AFirstStartThatFailsTellsTheServer)
{
    expect_refused({}, "publication \"" + database + "\" is not there");
    EXPECT_EQ(status_member("database"), database);
    EXPECT_EQ(status_member("system_identifier"),
              value("SELECT system_identifier FROM pg_control_system()"));
    EXPECT_EQ(json_member(kept(), "database"), "");
}

TEST_F(BridgeStateTest, ASlotNameThatTheServerRefusesIsForgotten)
{
    expect_refused({"--slot", "No Slot", "--create"}, "No Slot");
    EXPECT_EQ(json_member(kept(), "slot"), "");
    EXPECT_EQ(catch_up({"--create"}).status, 0);
}

TEST_F(BridgeStateTest, AnEmptyDirectoryTakesNoSlotOfOthers)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    insert(2);
    std::filesystem::rename(dir.file("log"), dir.file("first"));
    const std::string text = "is there already, and the log directory knows nothing of it";
    expect_refused({}, text);
    expect_refused({"--create", "--snapshot"}, text);
    std::filesystem::remove_all(dir.file("log"));
    std::filesystem::rename(dir.file("first"), dir.file("log"));
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=2 "));
}

TEST_F(BridgeStateTest, RemediesOfAnEmptyDirectoryCarriedOut)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    insert(2);
    std::filesystem::remove_all(dir.file("log"));
    const run_result refused = catch_up();
    const std::string drop = "SELECT pg_drop_replication_slot('" + database + "')";
    ASSERT_THAT(refused.err,
                HasSubstr("drop it (" + drop + ") and begin with --create --snapshot"));
    std::filesystem::copy(dir.file("log"), dir.file("empty"));
    EXPECT_EQ(catch_up({"--accept-gap"}).status, 0);
    EXPECT_FALSE(logged("after ID=1 "));
    EXPECT_TRUE(logged("after ID=2 "));
    std::filesystem::remove_all(dir.file("log"));
    std::filesystem::rename(dir.file("empty"), dir.file("log"));
    sql(drop);
    EXPECT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_TRUE(logged("after ID=1 "));
    EXPECT_TRUE(logged("after ID=2 "));
}

TEST_F(BridgeStateTest, ALogOfBeforeHasItsPlaceFromItsStateFile)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    std::filesystem::rename(dir.file("log/source"), dir.file("log/postgresql.json"));
    expect_refused({"--slot", "typo"}, "the log follows slot ");
    insert(2);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(logged("after ID=2 "));
    EXPECT_EQ(json_member(kept(), "slot"), database);
}

TEST_F(BridgeStateTest, WhatMonitorsReadIsNothingThatItNeeds)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    write_file(dir.file("log/postgresql.json"), "{\"told_lsn\":\"0/1\",\"slot\":\"x\"}\n");
    insert(2);
    EXPECT_EQ(catch_up().status, 0);
    std::filesystem::remove(dir.file("log/postgresql.json"));
    insert(3);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=3 "));
}

TEST_F(BridgeStateTest, FailuresAreToldUntilTheNextStart)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    EXPECT_EQ(status_member("state"), "stopped");
    EXPECT_EQ(status_member("error"), "null");
    EXPECT_EQ(status_member("error_time"), "null");
    const run_result refused = catch_up({"--slot", "another"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(status_member("state"), "failed");
    EXPECT_THAT(status_member("error"), HasSubstr("the log follows slot "));
    const std::string text = refused.err.substr(7, refused.err.size() - 8); // "fwlog: TEXT\n"
    EXPECT_THAT(
        read_file(dir.file("log/postgresql.json")),
        HasSubstr("\"error\":\"" + std::regex_replace(text, std::regex("\""), "\\\"") + "\""));
    EXPECT_THAT(status_member("error_time"), StartsWith("20"));
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_EQ(status_member("state"), "stopped");
    EXPECT_EQ(status_member("error"), "null");
}

TEST_F(BridgeStateTest, AStopIsNoFailure)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(status_member("state"), "stopped");
    EXPECT_EQ(status_member("error"), "null");
}

TEST_F(BridgeStateTest, AServerThatCannotBeReachedIsAFailure)
{
    expect_refused({"--conninfo", "host=" + dir.path()}, "cannot connect");
    EXPECT_EQ(status_member("state"), "failed");
    EXPECT_THAT(status_member("error"), HasSubstr("cannot connect: "));
}

TEST_F(BridgeStateTest, AServerThatIsWaitedForIsTold)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    server->stop();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "waiting"; })) << bridge.err();
    EXPECT_THAT(status_member("error_time"), StartsWith("20"));
    server->start();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    EXPECT_EQ(status_member("error"), "null");
}

TEST_F(BridgeStateTest, ALogThatCannotBeWrittenIsAFailure)
{
    ASSERT_NO_FATAL_FAILURE(begin_with_row_1());
    write_file(dir.file("fwutil.cfg"),
               std::string("log-directory log\nbyte-order big\n") + ledger_cfg);
    const run_result refused = catch_up();
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(status_member("state"), "failed");
    EXPECT_EQ(refused.err, "fwlog: " + status_member("error") + "\n");
}

TEST_F(BridgeStateTest, TheStateOfTheProcessThatWritesTheLogIsLeftAlone)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    EXPECT_EQ(catch_up().status, 1);
    EXPECT_EQ(status_member("state"), "streaming");
}
