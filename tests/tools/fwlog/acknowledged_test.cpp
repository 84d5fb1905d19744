// The load command and what its summary has acknowledged: it is on disk, and a log that
// lacks it is refused until the remedy has been carried out.
#include "tests/support/log_lines.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::StartsWith;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class FwlogAcknowledged : public testing::Test {
  protected:
    FwlogAcknowledged()
    {
        options.directory = dir.path();
        configure("commit");
    }

    void configure(const std::string &sync) const
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\nsync " + sync +
                                               "\ndatabase SALES\n"
                                               "dataset ORDERS\n"
                                               "item NOTE X 4\n");
    }

    static std::string transaction(int number)
    {
        const std::string id = R"("xid":)" + std::to_string(number);
        const std::string rest = "," + id + R"(,"timestamp":"2026-11-20 22:08:38+00","lsn":"0/)" +
                                 std::to_string(number) + "\"}\n";
        return R"({"action":"B")" + rest + R"({"action":"I",)" + id +
               R"(,"schema":"sales","table":"orders","columns":[{"name":"note","type":"text",)"
               R"("value":")" +
               std::to_string(number) + "\"}]}\n" + R"({"action":"C")" + rest;
    }

    run_result load(int first, int last)
    {
        std::string input;
        for (int i = first; i <= last; i++)
            input += transaction(i);
        run_setup with = options;
        with.input = input;
        return run_program({program, "load"}, with);
    }

    run_result fwlog(const std::vector<std::string> &words) const
    {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), words.begin(), words.end());
        return run_program(argv, options);
    }

    void expect_refused()
    {
        const run_result result = load(1, 4);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr("it was acknowledged up to position 1-1."));
        EXPECT_THAT(result.err, HasSubstr("restore the log from a copy"));
    }

    size_t commits() const
    {
        return count_lines(log_lines(dir.file("log")), "commit ");
    }

    // Loads three transactions and changes a byte of the last commit entry.
    void lose_the_third()
    {
        ASSERT_EQ(load(1, 3).status, 0);
        whole = read_file(file);
        std::string bytes = whole;
        bytes[bytes.size() - 20] ^= 1;
        write_file(file, bytes);
    }

    tempdir dir;
    run_setup options;
    std::string file = dir.file("log/fw0001-00000001.log");
    std::string whole;
};

TEST_F(FwlogAcknowledged, ByteChangedInTheLastCommitIsRefusedUntilTheFileIsRestored)
{
    ASSERT_NO_FATAL_FAILURE(lose_the_third());
    expect_refused();
    write_file(file, whole);
    EXPECT_EQ(load(1, 4).status, 0);
    EXPECT_EQ(commits(), 4U);
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(FwlogAcknowledged, ALossThatIsAcceptedIsToldOnceAndLoadedAgain)
{
    ASSERT_NO_FATAL_FAILURE(lose_the_third());
    expect_refused();
    EXPECT_EQ(fwlog({"repair"}).status, 1);
    run_result result = fwlog({"repair", "--accept-loss"});
    EXPECT_EQ(result.status, 0) << result.err;
    result = load(1, 4);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "fwlog: warning: the log was cut back to 0/2, and had been acknowledged "
                          "up to 0/3: load all that came behind 0/2 again, else it is missing "
                          "(this is told once)\n");
    EXPECT_EQ(commits(), 4U);
    result = load(1, 5);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(commits(), 5U);
}

TEST_F(FwlogAcknowledged, LastFileMissing)
{
    ASSERT_EQ(load(1, 3).status, 0);
    whole = read_file(file);
    std::filesystem::remove(file);
    expect_refused();
    write_file(file, whole);
    EXPECT_EQ(load(1, 4).status, 0);
    EXPECT_EQ(commits(), 4U);
}

TEST_F(FwlogAcknowledged, LastFileOlder)
{
    ASSERT_EQ(load(1, 2).status, 0);
    const std::string older = read_file(file);
    ASSERT_EQ(load(1, 3).status, 0);
    whole = read_file(file);
    write_file(file, older);
    expect_refused();
    write_file(file, whole);
    EXPECT_EQ(load(1, 4).status, 0);
    EXPECT_EQ(commits(), 4U);
}

TEST_F(FwlogAcknowledged, TheSummaryCountsWhateverSyncSays)
{
    for (const char *sync : {"none", "interval 3600000"}) {
        configure(sync);
        std::filesystem::remove_all(dir.file("log"));
        ASSERT_NO_FATAL_FAILURE(lose_the_third());
        expect_refused();
    }
}

TEST_F(FwlogAcknowledged, SoDoesTheOneBehindAnError)
{
    configure("none");
    run_setup with = options;
    with.input = transaction(1) + transaction(2) + "nonsense\n";
    const run_result result = run_program({program, "load"}, with);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("fwlog: 2 transactions loaded:"));
    std::string bytes = read_file(file);
    bytes[bytes.size() - 20] ^= 1;
    write_file(file, bytes);
    expect_refused();
}

TEST_F(FwlogAcknowledged, NoSummaryForWhatIsNotOnDisk)
{
    configure("none");
    options.env = {{"LD_PRELOAD", FAILING_FSYNC},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                   {"FAILING_FSYNC", "log"}};
    const run_result result = load(1, 3);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("Input/output error"));
}
