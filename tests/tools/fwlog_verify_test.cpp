// fwlog verify and info on small logs: sound, with a tail, damaged, a file missing.
#include "tests/procs/growing_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class FwlogVerifyTest : public testing::Test {
  protected:
    // Transactions of three inserts each, TESTDB.COUNTER.
    void make(int transactions, const std::string &file_size = "64M")
    {
        write_config(dir, file_size);
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (int n = 0; n < transactions; n++)
            ASSERT_TRUE(append_transaction(writer, 1 + 3 * n, 3));
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    run_result run(const std::vector<std::string> &words)
    {
        run_setup options;
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}};
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), words.begin(), words.end());
        return run_program(argv, options);
    }
    std::string file(int n) const
    {
        return dir.file("log/fw0001-0000000" + std::to_string(n) + ".log");
    }
    void flip(const std::string &path, size_t at)
    {
        std::string bytes = read_file(path);
        bytes.at(at) = static_cast<char>(bytes[at] ^ 1);
        write_file(path, bytes);
    }
    tempdir dir;
};

TEST_F(FwlogVerifyTest, SoundLogIsToldFileByFile)
{
    make(2);
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 0) << result.err;
    // A layout, two times three inserts and a commit.
    EXPECT_EQ(result.out, "log/fw0001-00000001.log: 2 transactions, 9 entries\n");
    EXPECT_EQ(
        run({"verify", "--json"}).out,
        "{\"file\":\"log/fw0001-00000001.log\",\"transactions\":2,\"entries\":9,\"tail\":0}\n");
}

TEST_F(FwlogVerifyTest, TailOfTheLastFileIsNoDamage)
{
    make(2);
    const std::string bytes = read_file(file(1));
    write_file(file(1), bytes + std::string(10, '\xFF'));
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "log/fw0001-00000001.log: 2 transactions, 9 entries; 10 bytes behind offset " +
                  std::to_string(bytes.size()) + " are not a whole transaction (yet)\n");
}

TEST_F(FwlogVerifyTest, EachDamagedFileIsToldWithItsOffset)
{
    make(200, "4K");
    ASSERT_TRUE(std::filesystem::exists(file(4)));
    flip(file(1), 64 + 24); // the first entry's payload
    flip(file(3), 64);      // the first entry's length
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000001.log: damaged at offset 64: "));
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000002.log: "));
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000003.log: damaged at offset 64: "));
    EXPECT_THAT(run({"verify", "--json"}).out, HasSubstr(",\"offset\":64}\n"));
    EXPECT_EQ(run({"info"}).status, 1);
}

TEST_F(FwlogVerifyTest, MissingFileIsTold)
{
    make(200, "4K");
    ASSERT_TRUE(std::filesystem::remove(file(2)));
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out,
                HasSubstr("log/fw0001-00000003.log: log files 2 to 2 are missing before it\n"));
    EXPECT_THAT(run({"verify", "--json"}).out,
                HasSubstr(",\"missing_from\":2,\"missing_to\":2}\n"));
}

TEST_F(FwlogVerifyTest, InfoTellsPositionsTimesAndDatasets)
{
    make(2);
    const run_result result = run({"info"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("    transactions  2\n"
                                      "    commits       2023-11-14 22:13:20.000000 UTC to "
                                      "2023-11-14 22:13:20.000000 UTC\n"
                                      "    last          position 1-1.9, source 0/5\n"
                                      "1 files, "));
    EXPECT_THAT(
        result.out,
        HasSubstr("\nTESTDB.COUNTER                             6          0          0\n"));
    const std::string json = run({"info", "--json"}).out;
    EXPECT_THAT(json, HasSubstr("\"last_tag\":9,\"first_commit_us\":1700000000000000,"));
    EXPECT_THAT(json, HasSubstr("\"datasets\":[{\"database\":\"TESTDB\",\"dataset\":\"COUNTER\","
                                "\"inserts\":6,\"updates\":0,\"deletes\":0}]}\n"));
}

TEST_F(FwlogVerifyTest, WrongCommandLinesAreRefused)
{
    make(1);
    for (const char *command : {"verify", "info"}) {
        EXPECT_EQ(run({command, "--bad"}).status, 2);
        EXPECT_EQ(run({command, "-cfg"}).status, 2);
        EXPECT_EQ(run({command, "word"}).err,
                  "fwlog: unexpected word: word\nTry \"fwlog --help\".\n");
        EXPECT_THAT(run({command, "--help"}).out,
                    HasSubstr(std::string("Usage: fwlog ") + command));
        EXPECT_EQ(run({command, "-cfg", "absent.cfg"}).status, 1);
    }
}

TEST_F(FwlogVerifyTest, PathsStandInJsonAsTheyAre)
{
    make(1);
    std::filesystem::rename(dir.file("log"), dir.file("b\xC3\xBC"
                                                      "cher"));
    write_file(dir.file("fwutil.cfg"), "log-directory b\xC3\xBC"
                                       "cher\n");
    EXPECT_THAT(run({"verify", "--json"}).out, HasSubstr("b\xC3\xBC"
                                                         "cher/fw0001-00000001.log\","));
    EXPECT_THAT(run({"info", "--json"}).out, HasSubstr("b\xC3\xBC"
                                                       "cher\","));
}
