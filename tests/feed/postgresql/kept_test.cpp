// The file that tells the next run which server and slot the log belongs to.
#include "feed/postgresql/kept.h"
#include "tests/support/tempdir.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string text_of(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

static pgb_kept example(const std::string &path)
{
    pgb_kept kept;
    kept.path = path;
    kept.mode = 0640;
    kept.system = "7710567567421338994";
    kept.database = "sh\"op\\\n\x7F\u00e9";
    kept.timeline = 12;
    kept.slot = "a";
    kept.snapshot = "begun";
    kept.told_lsn = 0x200000001;
    return kept;
}

static void expect_same(const pgb_kept &got, const pgb_kept &want)
{
    EXPECT_EQ(got.system, want.system);
    EXPECT_EQ(got.database, want.database);
    EXPECT_EQ(got.timeline, want.timeline);
    EXPECT_EQ(got.slot, want.slot);
    EXPECT_EQ(got.snapshot, want.snapshot);
    EXPECT_EQ(got.told_lsn, want.told_lsn);
}

class Kept : public testing::Test {
  protected:
    pgb_kept read() const
    {
        pgb_kept kept;
        kept.path = dir.file("source");
        EXPECT_TRUE(pgb_kept_read(kept, dir.file("postgresql.json")));
        return kept;
    }
    void expect_nothing_known() const
    {
        expect_same(read(), pgb_kept());
    }

    const tempdir dir;
};

TEST_F(Kept, FileIsALineOfTexts)
{
    ASSERT_TRUE(pgb_kept_write(example(dir.file("source")), true));
    EXPECT_EQ(
        text_of(dir.file("source")),
        "{\"system_identifier\":\"7710567567421338994\",\"database\":\"sh\\\"op\\\\\\u000a\\u007f"
        "\u00e9\",\"timeline\":\"12\",\"slot\":\"a\",\"snapshot\":\"begun\","
        "\"told_lsn\":\"2/1\"}\n");
    struct stat file = {};
    ASSERT_EQ(stat(dir.file("source").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0640U);
    EXPECT_NE(access(dir.file("source.new").c_str(), F_OK), 0);
}

TEST_F(Kept, NextRunKnowsAllOfIt)
{
    const pgb_kept kept = example(dir.file("source"));
    for (const bool durable : {false, true}) {
        ASSERT_TRUE(pgb_kept_write(kept, durable));
        expect_same(read(), kept);
    }
}

TEST_F(Kept, WithoutAFileNothingIsKnownAndNoneIsMade)
{
    expect_nothing_known();
    EXPECT_NE(access(dir.file("source").c_str(), F_OK), 0);
}

TEST_F(Kept, ATornFileTellsNothing)
{
    ASSERT_TRUE(pgb_kept_write(example(dir.file("source")), true));
    const std::string whole = text_of(dir.file("source"));
    for (size_t length = 0; length < whole.size(); length++) {
        std::ofstream(dir.file("source"), std::ios::binary) << whole.substr(0, length);
        expect_nothing_known();
    }
}

TEST_F(Kept, AnyByteMayBeDamaged)
{
    ASSERT_TRUE(pgb_kept_write(example(dir.file("source")), true));
    const std::string whole = text_of(dir.file("source"));
    for (size_t at = 0; at < whole.size(); at++)
        for (const char byte : {'\0', '"', '\\', '\xFF'}) {
            std::string damaged = whole;
            damaged[at] = byte;
            std::ofstream(dir.file("source"), std::ios::binary) << damaged;
            (void)read(); // whatever it says
        }
}

TEST_F(Kept, AFileThatCannotBeReadIsNotOneThatTellsNothing)
{
    std::filesystem::create_directory(dir.file("source"));
    pgb_kept kept;
    kept.path = dir.file("source");
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(pgb_kept_read(kept, dir.file("postgresql.json")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "fwlog: " + kept.path + ": cannot read what the log belongs to: Is a directory\n");
}

TEST_F(Kept, LogsWithoutTheFileHaveItInTheirState)
{
    std::ofstream(dir.file("postgresql.json"))
        << "{\"state\":\"stopped\",\"pid\":4711,\"updated\":\"2026-03-09 "
           "08:18:01\",\"slot\":\"kestro\","
           "\"publication\":\"kestro\",\"system_identifier\":\"77\",\"database\":\"shop\","
           "\"timeline\":\"3\",\"snapshot\":\"done\",\"server_lsn\":\"1/40\",\"received_lsn\":\"1/"
           "30\","
           "\"logged_lsn\":\"1/30\",\"told_lsn\":\"1/28\",\"lag_bytes\":16}\n";
    pgb_kept want;
    want.system = "77";
    want.database = "shop";
    want.timeline = 3;
    want.slot = "kestro";
    want.snapshot = "done";
    want.told_lsn = 0x100000028;
    expect_same(read(), want);
    std::ofstream(dir.file("postgresql.json")) << "{\"state\":\"failed\",\"slot\":\"other\"}\n";
    expect_same(read(), want); // from now on it has a file of its own
}

TEST_F(Kept, AStateForMonitorsAloneTellsNothing)
{
    std::ofstream(dir.file("postgresql.json"))
        << "{\"state\":\"failed\",\"error\":\"no\",\"error_time\":null,\"slot\":\"kestro\","
           "\"system_identifier\":\"77\",\"told_lsn\":\"1/28\"}\n";
    expect_nothing_known();
    EXPECT_NE(access(dir.file("source").c_str(), F_OK), 0);
}

TEST_F(Kept, AStateCutShortTellsNothing)
{
    std::ofstream(dir.file("postgresql.json")) << R"({"system_identifier":"77","database":"sho)";
    expect_nothing_known();
    EXPECT_NE(access(dir.file("source").c_str(), F_OK), 0);
}

TEST_F(Kept, FileThatCannotBeWrittenIsReported)
{
    pgb_kept kept;
    kept.path = dir.file("missing/source");
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(pgb_kept_write(kept, false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "fwlog: " + kept.path +
                  ": cannot write what the log belongs to: No such file or directory\n");
    EXPECT_EQ(outcome_failed_last(), kept.path + ": cannot write what the log belongs to: "
                                                 "No such file or directory");
}
