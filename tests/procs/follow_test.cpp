// Kestro beside a log that grows: records come as they are committed, and
// SIGTERM, SIGINT and -bg end or detach a run cleanly.
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::HasSubstr;

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

class FollowTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    }
    void TearDown() override
    {
        fwu_writer_close(writer);
    }

    size_t lines(const std::string &name) const
    {
        const std::string text = read_file(dir.file(name));
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }

    void wait_for_lines(const std::string &name, size_t n) const
    {
        ASSERT_TRUE(poll_until([&] { return lines(name) >= n; }))
            << lines(name) << " lines; " << read_file(dir.file("err"));
    }

    void end_by(int signal_number)
    {
        ASSERT_TRUE(append_transaction(writer, 1, 3));
        const pid_t pid =
            start_program({kestro, "-ascii", "cap.txt"}, options, dir.file("out"), dir.file("err"));
        wait_for_lines("cap.txt", 3);
        ASSERT_TRUE(append_transaction(writer, 4, 2));
        wait_for_lines("cap.txt", 5);
        kill(pid, signal_number);
        EXPECT_EQ(wait_program(pid), 0);
        EXPECT_EQ(read_file(dir.file("err")), "");
        EXPECT_EQ(read_file(dir.file("out")), "5 Vostrel forward log file records processed.\n"
                                              "5 records written to capture file cap.txt\n");
        // The position is saved: only what comes later is delivered next.
        ASSERT_TRUE(append_transaction(writer, 6, 1));
        const run_result next = run_program({kestro, "-synconly", "-ascii", "next.txt"}, options);
        EXPECT_THAT(next.out, HasSubstr("1 records written to capture file next.txt\n"));
    }

    tempdir dir;
    run_setup options;
    fwu_writer *writer = nullptr;
};

TEST_F(FollowTest, SigtermEndsARunWithTotalsAndStatusZero)
{
    end_by(SIGTERM);
}

TEST_F(FollowTest, SigintEndsARunWithTotalsAndStatusZero)
{
    end_by(SIGINT);
}

TEST_F(FollowTest, AnUncommittedTransactionIsNotDelivered)
{
    ASSERT_TRUE(append_transaction(writer, 1, 2));
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const char image[24] = {};
    ASSERT_EQ(
        fwu_writer_record(writer, FWU_OP_INSERT, counter_layout(), 0, sizeof image, nullptr, image),
        0);
    const run_result result = run_program({kestro, "-synconly", "-ascii", "cap.txt"}, options);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(lines("cap.txt"), 2U);
}

TEST_F(FollowTest, ABackgroundRunWritesItsPidAndFollows)
{
    const run_result start =
        run_program({kestro, "-bg", "-pidfile", "pid", "-ascii", "cap.txt"}, options);
    EXPECT_EQ(start.status, 0);
    ASSERT_TRUE(append_transaction(writer, 1, 4));
    wait_for_lines("cap.txt", 4);
    const pid_t pid = atoi(read_file(dir.file("pid")).c_str());
    ASSERT_GT(pid, 1);
    EXPECT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(poll_until([&] { return kill(pid, 0) != 0; }));
}

TEST_F(FollowTest, ASecondRunOnTheStatusFileIsRefused)
{
    ASSERT_TRUE(append_transaction(writer, 1, 1));
    const pid_t pid = start_program({kestro, "-ascii", "cap.txt"}, options, "", dir.file("err"));
    wait_for_lines("cap.txt", 1);
    const run_result second = run_program({kestro, "-synconly", "-ascii", "two.txt"}, options);
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, HasSubstr("fwutil.status"));
    EXPECT_THAT(second.err, HasSubstr("Fwu_process() failed.\n"));
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_program(pid), 0);
}

TEST_F(FollowTest, AFullDiskStopsAtItsRecordAndLosesNothing)
{
    ASSERT_TRUE(append_transaction(writer, 1, 3));
    const run_result full = run_program({kestro, "-synconly", "-ascii", "/dev/full"}, options);
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.out, "1 records written to capture file /dev/full\n"
                        "ERROR encountered during processing.\n");
    EXPECT_EQ(full.err, "CAPERR: Success\n"
                        "Error writing to capture file: /dev/full\n"
                        "Fwu_process() failed.\n");
    const run_result next = run_program({kestro, "-synconly", "-ascii", "cap.txt"}, options);
    EXPECT_EQ(next.status, 0);
    EXPECT_EQ(lines("cap.txt"), 3U);
}

TEST_F(FollowTest, AFileSizeLimitStopsAtItsRecordAndLosesNothing)
{
    ASSERT_TRUE(append_transaction(writer, 1, 100));
    // Blocks of 512 bytes; a record has 62 + 14 + 20 characters and a line end.
    const run_result limited = run_program(
        {"sh", "-c", "ulimit -f 4; exec " + kestro + " -synconly -ascii cap.txt"}, options);
    EXPECT_EQ(limited.status, 1);
    EXPECT_THAT(limited.err, HasSubstr("Error writing to capture file: cap.txt\n"));
    EXPECT_EQ(read_file(dir.file("cap.txt")).size() % 97, 0U) << "whole lines only";
    const size_t first = lines("cap.txt");
    EXPECT_GT(first, 0U);
    const run_result next = run_program({kestro, "-synconly", "-ascii", "next.txt"}, options);
    EXPECT_EQ(next.status, 0);
    EXPECT_EQ(first + lines("next.txt"), 100U);
}

TEST_F(FollowTest, APipeWhoseReaderIsGoneIsAWriteError)
{
    ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
    ASSERT_TRUE(append_transaction(writer, 1, 1));
    const pid_t pid =
        start_program({kestro, "-ascii", "pipe"}, options, dir.file("out"), dir.file("err"));
    {
        std::ifstream reader(dir.file("pipe"));
        std::string line;
        std::getline(reader, line);
        EXPECT_EQ(line.substr(0, 6), "000000");
    }
    ASSERT_TRUE(append_transaction(writer, 2, 1));
    EXPECT_EQ(wait_program(pid), 1);
    EXPECT_EQ(read_file(dir.file("err")), "CAPERR: Success\n"
                                          "Error writing to capture file: pipe\n"
                                          "Fwu_process() failed.\n");
}

TEST_F(FollowTest, TheCaptureGoesOnWithoutStandardOutput)
{
    ASSERT_TRUE(append_transaction(writer, 1, 1000));
    for (const char *shown : {"-showsets", "-dumprecs", "-verbose -verbose"}) {
        SCOPED_TRACE(shown);
        std::filesystem::remove(dir.file("fwutil.status"));
        const run_result run = run_program(
            {"sh", "-c", "exec " + kestro + " -synconly " + shown + " -ascii cap.txt >/dev/full"},
            options);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(lines("cap.txt"), 1000U);
        const std::string told = "Error writing to standard output.\n";
        const size_t at = run.err.find(told);
        ASSERT_NE(at, std::string::npos) << run.err;
        EXPECT_EQ(run.err.find(told, at + 1), std::string::npos) << "told once";
        EXPECT_EQ(run.err.find("failed"), std::string::npos);
        const run_result next =
            run_program({kestro, "-synconly", "-capstats", "-ascii", "next.txt"}, options);
        EXPECT_THAT(next.out, HasSubstr("*Capture file total*                       0 "))
            << "the position is behind the last record";
    }
}

TEST_F(FollowTest, TotalsThatCannotBePrintedAreAnError)
{
    const run_result run = run_program(
        {"sh", "-c", "exec " + kestro + " -synconly -ascii cap.txt >/dev/full"}, options);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Error writing to standard output.\n");
}
