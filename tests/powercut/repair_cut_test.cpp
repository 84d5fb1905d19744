// Power cuts under fwlog repair, behind each of its calls that change files: run again it
// leaves what is whole before the damage, and nobody takes the loss for none.
#include "fwutil/fwu_ack.h"
#include "tests/powercut/numbered.h"
#include "tests/powercut/numbered_log.h"
#include "tests/powercut/power_disk.h"
#include "tests/support/run.h"

#include <filesystem>
#include <gtest/gtest.h>

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class RepairPowerCut : public ::testing::Test {
  protected:
    // A log of some files, the second of which is cut short or has another byte, on disk.
    void make(bool short_file)
    {
        std::filesystem::remove_all(disk.file("log"));
        write_file(config_file, "log-directory log\nlog-file-size 4K\n");
        fwu_writer *writer = open_numbered_log(config_file);
        ASSERT_NE(writer, nullptr);
        for (uint32_t last = 0; last < 60; last += 3)
            ASSERT_TRUE(append_numbered(writer, last, 3));
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        ASSERT_EQ(fwu_writer_close(writer), 0);
        const std::string second = disk.file("log/fw0001-00000002.log");
        std::string bytes = read_file(second);
        const size_t at = bytes.size() - 500;
        if (short_file)
            bytes.resize(at);
        else
            bytes[at] = static_cast<char>(bytes[at] ^ 1);
        write_file(second, bytes);
        disk.write_back_all();
    }
    run_result repair(const std::string &ending) const
    {
        run_setup options;
        if (!ending.empty())
            options.env = {{"LD_PRELOAD", ENDING_CALLS},
                           {"ENDING_CALL", ending},
                           {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
        return run_program({program, "repair", "-cfg", config_file, "--accept-loss"}, options);
    }
    // What a writer goes on behind, which the log has whole.
    std::vector<uint32_t> left() const
    {
        EXPECT_EQ(run_program({program, "verify", "-cfg", config_file}).status, 0);
        fwu_writer *writer = open_numbered_log(config_file);
        EXPECT_NE(writer, nullptr);
        EXPECT_EQ(fwu_writer_close(writer), 0);
        const std::vector<uint32_t> numbers = numbers_in_log(disk.file("log"));
        EXPECT_EQ(gap_in(numbers), "");
        return numbers;
    }
    power_disk disk;
    std::string config_file = disk.file("fwutil.cfg");
    std::mt19937 random{17};
};

TEST_F(RepairPowerCut, BehindEachCallTheNextRunRepairsWhatIsThere)
{
    if (!disk.problem().empty())
        GTEST_SKIP() << disk.problem();
    int cuts = 0;
    for (const bool short_file : {false, true}) {
        ASSERT_NO_FATAL_FAILURE(make(short_file));
        ASSERT_EQ(repair("").status, 0);
        const std::vector<uint32_t> expected = left();
        ASSERT_GT(expected.size(), 15U);
        ASSERT_LT(expected.size(), 50U);
        int calls = 0;
        for (bool ended = true; ended; calls++) {
            SCOPED_TRACE("call " + std::to_string(calls + 1));
            ASSERT_NO_FATAL_FAILURE(make(short_file));
            ended = repair("kill:" + std::to_string(calls + 1)).status != 0;
            disk.write_back_some(random);
            disk.cut();
            disk.boot();
            const run_result again = repair("");
            ASSERT_EQ(again.status, 0) << again.err;
            ASSERT_EQ(left(), expected);
            fwu_ack ack;
            ASSERT_EQ(fwu_ack_read(disk.file("log"), ack), FWU_FOUND);
            EXPECT_TRUE(ack.lost);
            EXPECT_EQ(ack.commit.lsn, 60U);
        }
        EXPECT_GT(calls, 10);
        cuts += calls;
    }
    printf("%d cuts under fwlog repair\n", cuts);
}
