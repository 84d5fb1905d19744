// A repair ended by SIGKILL before each of its system calls and inside its
// writes: the file is as it was or repaired, a copy aside is whole, and there
// is one before the file has changed.
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>
#include <gtest/gtest.h>

class MessageRepairKill : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");
    std::string aside = dir.file("aside");
    std::string damaged;

    // Three records of which the second is torn, in more bytes than one page.
    void SetUp() override
    {
        make_message_file(path);
        const std::string data(6000, 'd');
        user_process maker({opens(path, 0), writes(data), writes(data), writes(data), closes()});
        for (int step = 0; step < 5; step++)
            ASSERT_EQ(maker.run(), 0);
        damaged = read_file(path);
        damaged[4352 + 6006] = 0x7F;
    }
    static int records_of(const std::string &file)
    {
        tmf_check_result result;
        EXPECT_EQ(tmf_check(file.c_str(), &result), 0);
        EXPECT_EQ(result.found, 0);
        return result.records;
    }
    void expect_original_or_repaired() const
    {
        const bool copied = std::filesystem::exists(aside);
        EXPECT_TRUE(!copied || read_file(aside) == damaged);
        if (read_file(path) == damaged)
            return;
        EXPECT_TRUE(copied);
        EXPECT_EQ(records_of(path), 1);
    }
    // Begins a repair that is killed; whether it came to its end before.
    bool repair_killed(void (*die)(int), int n) const
    {
        write_file(path, damaged);
        for (const std::string &name : {aside, aside + ".part"})
            std::filesystem::remove(name);
        const shared_memory<std::atomic<bool>> completed;
        user_process victim({[&](tmf_handle *&) {
            tmf_check_result result;
            die(n);
            *completed = tmf_repair(path.c_str(), 0, aside.c_str(), &result) == 0;
            raise(SIGKILL);
            return 0;
        }});
        EXPECT_EQ(victim.run(), DIED);
        return *completed;
    }
    // The next repair does what the killed one did not.
    void expect_next_repair_works() const
    {
        tmf_check_result result;
        EXPECT_EQ(tmf_repair(path.c_str(), 0, aside.c_str(), &result), 0);
        EXPECT_EQ(records_of(path), 1);
        EXPECT_TRUE(read_file(aside) == damaged);
        EXPECT_FALSE(result.changed != 0 && std::filesystem::exists(aside + ".part"));
    }
};

TEST_F(MessageRepairKill, LeavesTheFileAsItWasOrRepairedAndTheCopyWhole)
{
    int calls = 0;
    for (bool completed = false; !completed; calls++) {
        SCOPED_TRACE("before system call " + std::to_string(calls + 1));
        completed = repair_killed(die_before_call, calls + 1);
        expect_original_or_repaired();
        expect_next_repair_works();
        ASSERT_LT(calls, 100);
    }
    EXPECT_GE(calls, 25);
    int writes = 0;
    for (bool completed = false; !completed; writes++) {
        SCOPED_TRACE("inside write " + std::to_string(writes + 1));
        completed = repair_killed(die_inside_write, writes + 1);
        expect_original_or_repaired();
        expect_next_repair_works();
        ASSERT_LT(writes, 100);
    }
    EXPECT_EQ(writes, 2); // the copy's
}
