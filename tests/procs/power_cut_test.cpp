// The built program behind a power cut, which is another boot of the system: a file
// of the test is mounted over the one that tells the boot, in a name space of its own.
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <gmock/gmock.h>

using testing::HasSubstr;

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

class PowerCutTest : public testing::Test {
  protected:
    void SetUp() override
    {
        options.directory = dir.path();
        boot("1");
        if (run_program(on_that_boot({"true"}), options).status != 0)
            GTEST_SKIP() << "mounting needs rights that are not to be had here";
        write_config(dir, "64M");
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        ASSERT_TRUE(append_transaction(writer, 1, 3));
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    void boot(const std::string &name) const
    {
        write_file(dir.file("boot_id"), name + "\n");
    }
    std::vector<std::string> on_that_boot(std::vector<std::string> words) const
    {
        words.insert(words.begin(),
                     {"unshare", "-m", "sh", "-c",
                      "mount --bind \"$0\" /proc/sys/kernel/random/boot_id && exec \"$@\"",
                      dir.file("boot_id")});
        return words;
    }
    // Follows the log until something is true, and is killed.
    template <typename F> void follow_and_kill(F done) const
    {
        const pid_t pid = start_program(on_that_boot({kestro, "-ascii", "one.txt"}), options, "",
                                        dir.file("err"));
        EXPECT_TRUE(poll_until(done)) << read_file(dir.file("err"));
        kill(pid, SIGKILL);
        EXPECT_EQ(wait_program(pid), 128 + SIGKILL);
    }
    // Whether the last position is known to be on disk: it stands in a line of its own.
    bool forced() const
    {
        return read_file(dir.file("fwutil.status")).find("\nposition 0001-00000001.0000000004 ") !=
               std::string::npos;
    }
    size_t captured(const std::string &name) const
    {
        const std::string text = read_file(dir.file(name));
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    run_result go_on(const std::string &name) const
    {
        return run_program(on_that_boot({kestro, "-synconly", "-ascii", name}), options);
    }
    tempdir dir;
    run_setup options;
};

TEST_F(PowerCutTest, WhatWasOnDiskDoesNotComeAgain)
{
    follow_and_kill([&] { return forced(); });
    boot("2");
    const run_result again = go_on("two.txt");
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("the system was started anew since: going on behind 1-1.4"));
    EXPECT_EQ(captured("two.txt"), 0U);
    EXPECT_EQ(go_on("three.txt").err, "") << "the boot is this one now";
}

TEST_F(PowerCutTest, WhatWasNotOnDiskComesAgain)
{
    follow_and_kill([&] { return captured("one.txt") == 3; });
    const bool was_forced = forced(); // a busy machine may have come to rest before the kill
    boot("2");
    const run_result again = go_on("two.txt");
    EXPECT_EQ(again.status, 0) << again.err;
    // The first record of a file is forced, since the file is new; the others at rest.
    EXPECT_EQ(captured("one.txt"), was_forced ? 3U : 1U) << "what comes again was taken away";
    EXPECT_EQ(captured("two.txt"), was_forced ? 0U : 2U);
    EXPECT_THAT(again.err,
                HasSubstr(was_forced ? "going on behind 1-1.4, the last position whose"
                                     : "going on behind 1-1.2, the last position whose"));
}

TEST_F(PowerCutTest, OnTheSameBootNothingComesAgain)
{
    follow_and_kill([&] { return captured("one.txt") == 3; });
    const run_result again = go_on("two.txt");
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.err, "");
    EXPECT_LE(captured("two.txt"), 1U) << "the record in hand";
}

TEST_F(PowerCutTest, ALogMadeAnewUnderTheStatusFileIsRefusedAndTheRemedyWorks)
{
    ASSERT_EQ(run_program({kestro, "-synconly", "-ascii", "one.txt"}, options).status, 0);
    std::filesystem::remove_all(dir.file("log"));
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    config.log_directory = dir.file("log");
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_TRUE(append_transaction(writer, 11, 8));
    ASSERT_EQ(fwu_writer_close(writer), 0);
    const std::vector<std::string> argv = {kestro, "-synconly", "-ascii", "two.txt"};
    const run_result refused = run_program(argv, options);
    EXPECT_EQ(refused.status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir.file("two.txt")));
    const size_t at = refused.err.find("(-start ");
    ASSERT_NE(at, refused.err.npos) << refused.err;
    const std::string start = refused.err.substr(at + 8, refused.err.find(')', at) - at - 8);
    const run_result good =
        run_program({kestro, "-start", start, "-synconly", "-ascii", "two.txt"}, options);
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(captured("two.txt"), 8U);
    EXPECT_EQ(run_program(argv, options).status, 0) << "and the run after it needs none";
}
