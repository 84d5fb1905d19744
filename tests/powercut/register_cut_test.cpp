// Power cuts under what removes old log files and what registers readers, behind each of their
// calls that change files: a reader whose registration was answered is there, what it needs is
// there, and the log has no gap.
#include "tests/powercut/numbered.h"
#include "tests/powercut/numbered_log.h"
#include "tests/powercut/power_disk.h"
#include "tests/support/run.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";
constexpr uint32_t RECORDS = 90;

class RegisterPowerCut : public ::testing::Test {
  protected:
    // A log of some files, a run that has captured all of it and one that has captured nothing yet,
    // on disk.
    void make()
    {
        for (const char *name : {"log", "done.status", "done.msg"})
            std::filesystem::remove_all(disk.file(name));
        write_file(disk.file("fwutil.cfg"), "log-directory log\nlog-file-size 4K\n");
        fwu_writer *writer = open_numbered_log(disk.file("fwutil.cfg"));
        ASSERT_NE(writer, nullptr);
        for (uint32_t last = 0; last < RECORDS; last += 3)
            ASSERT_TRUE(append_numbered(writer, last, 3));
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        ASSERT_EQ(fwu_writer_close(writer), 0);
        ASSERT_EQ(run({kestro, "-synconly", "-stat", "done.status", "done.msg"}).status, 0);
        disk.write_back_all();
    }
    run_result run(const std::vector<std::string> &argv, const std::string &ending = "") const
    {
        run_setup options;
        options.directory = disk.file(".");
        if (!ending.empty())
            options.env = {{"LD_PRELOAD", ENDING_CALLS},
                           {"ENDING_CALL", ending},
                           {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
        return run_program(argv, options);
    }
    run_result fwlog(const std::vector<std::string> &words, const std::string &ending = "") const
    {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), words.begin(), words.end());
        return run(argv, ending);
    }
    // The power goes, with or without some of what is in memory; whether the command had come to
    // its end.
    bool cut_behind(const std::vector<std::string> &words, const std::string &ending)
    {
        const bool done = fwlog(words, ending).status == 0;
        disk.write_back_some(random);
        disk.cut();
        disk.boot();
        return done;
    }
    bool is_registered(const std::string &status) const
    {
        const run_result readers = fwlog({"readers", "--json"});
        EXPECT_EQ(readers.err, "");
        return readers.out.find("/" + status + "\"") != std::string::npos;
    }
    bool has_first_file() const
    {
        return std::filesystem::exists(disk.file("log/fw0001-00000001.log"));
    }
    // All records from the oldest file on, the last one there.
    void expect_no_gap() const
    {
        EXPECT_EQ(fwlog({"verify"}).status, 0);
        fwu_writer *writer = open_numbered_log(disk.file("fwutil.cfg"));
        ASSERT_NE(writer, nullptr);
        EXPECT_EQ(fwu_writer_close(writer), 0);
        const std::vector<uint32_t> numbers = numbers_in_log(disk.file("log"));
        ASSERT_FALSE(numbers.empty());
        for (size_t i = 1; i < numbers.size(); i++)
            EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
        EXPECT_EQ(numbers.back(), RECORDS);
    }
    // A step with the power cut behind each of its calls, and behind its end.
    void behind_each_call(const std::vector<std::string> &words,
                          const std::function<void()> &before,
                          const std::function<void(bool)> &look)
    {
        bool done = false;
        for (int call = 1; !done; call++) {
            SCOPED_TRACE(words[0] + " " + words[1] + ", call " + std::to_string(call));
            ASSERT_NO_FATAL_FAILURE(make());
            before();
            disk.write_back_all();
            done = cut_behind(words, "kill:" + std::to_string(call));
            look(done);
            ASSERT_NO_FATAL_FAILURE(expect_no_gap());
            cuts++;
            ASSERT_LT(call, 50);
        }
    }
    power_disk disk;
    std::mt19937 random{19};
    int cuts = 0;
};

TEST_F(RegisterPowerCut, WhatWasAnsweredHolds)
{
    if (!disk.problem().empty())
        GTEST_SKIP() << disk.problem();
    const int rounds = (power_cuts() + 9) / 10;
    for (int round = 0; round < rounds; round++) {
        // A reader that has nothing yet keeps everything, as soon as its registration was answered.
        behind_each_call(
            {"readers", "--add", "new.status"}, [] {},
            [&](bool done) {
                EXPECT_TRUE(!done || is_registered("new.status"));
                const bool keeps = is_registered("new.status");
                (void)fwlog({"prune", "--keep", "2"});
                EXPECT_EQ(has_first_file(), keeps);
            });
        behind_each_call(
            {"readers", "--remove", "new.status"},
            [&] {
                ASSERT_EQ(fwlog({"readers", "--add", "done.status"}).status, 0);
                ASSERT_EQ(fwlog({"readers", "--add", "new.status"}).status, 0);
            },
            [&](bool done) {
                EXPECT_TRUE(!done || !is_registered("new.status"));
                EXPECT_TRUE(is_registered("done.status"));
            });
        behind_each_call(
            {"prune", "--keep", "2"},
            [&] {
                ASSERT_EQ(fwlog({"readers", "--add", "done.status"}).status, 0);
            },
            [&](bool done) {
                EXPECT_TRUE(!done || !has_first_file());
                EXPECT_TRUE(is_registered("done.status"));
                // The run that needed none of what went goes on.
                const run_result rest =
                    run({kestro, "-synconly", "-stat", "done.status", "done.msg"});
                EXPECT_EQ(rest.status, 0) << rest.err;
                EXPECT_NE(rest.out.find("0 records written to capture file done.msg"),
                          std::string::npos)
                    << rest.out;
            });
    }
    std::cout << cuts << " cuts under the register of readers and what removes log files\n";
}
