// The functions that a program may define, found by the shared library.
#include "fwutil/fwu_hook.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"
#include "tests/support/run.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

class HookTest : public log_test {
  protected:
    // answers: of Fwu_hook_sync_due at start, record, rest and end.
    run_result program(int hooks, const std::vector<std::string> &answers = {"1", "0", "1", "1"},
                       const std::string &mark = "mark\n") const
    {
        std::vector<std::string> words = {HOOK_PROGRAMS + std::to_string(hooks), cfg, status};
        words.insert(words.end(), answers.begin(), answers.end());
        words.push_back(mark);
        return run_program(words);
    }
};

TEST_F(HookTest, AProgramWithoutThemIsServedAllTheSame)
{
    two_files();
    const run_result result = program(0);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "record 1\nrecord 2\nrecord 3\nrecord 4\nrecord 5\n");
}

TEST_F(HookTest, TheLibraryFindsThoseOfTheProgram)
{
    two_files();
    const run_result result = program(1);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "due 0\nsync\nrecord 1\ndue 1\nrecord 2\ndue 1\nrecord 3\ndue 1\n"
                          "record 4\ndue 1\nrecord 5\ndue 1\ndue 3\nsync\n");
}

TEST_F(HookTest, LooksTellThatTheLogIsOpenAndWhatWentWrong)
{
    two_files();
    setenv("HOOK_PROGRAM_LOOK", "1", 1);
    EXPECT_THAT(program(1).out, testing::StartsWith("due 0\nsync\nlook 0 []\nrecord 1\n"));
    std::filesystem::remove(status);
    const run_result failed = program(1, {"1", "0", "1", "1"}, "-");
    unsetenv("HOOK_PROGRAM_LOOK");
    EXPECT_EQ(failed.out, "due 0\nsync\nlook 2 [the program could not bring to disk what it has "
                          "written; the position on disk stays as it was]\n");
}

TEST_F(HookTest, EachRecordIsForcedWhenTheProgramWantsIt)
{
    two_files();
    EXPECT_EQ(program(1, {"0", "1", "1", "1"}).out,
              "due 0\nsync\nrecord 1\ndue 1\nsync\nrecord 2\ndue 1\nsync\nrecord 3\ndue 1\nsync\n"
              "record 4\ndue 1\nsync\nrecord 5\ndue 1\nsync\n")
        << "nothing is left for the end";
}

TEST_F(HookTest, NeverIsAskedOnce)
{
    two_files();
    EXPECT_EQ(program(1, {"-1", "1", "1", "1"}).out,
              "due 0\nrecord 1\nrecord 2\nrecord 3\nrecord 4\nrecord 5\n");
}

TEST_F(HookTest, ASyncThatFailsEndsTheRun)
{
    two_files();
    const run_result result = program(1, {"1", "0", "1", "1"}, "-");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "due 0\nsync\n") << "nothing is delivered";
    EXPECT_EQ(result.err, "fwutil: the program could not bring to disk what it has written; the "
                          "position on disk stays as it was\n");
}

// A signal that comes before the wait ends it at once: else each would last a second.
TEST_F(HookTest, BeforeAWaitTheProgramLooksAtItsSignals)
{
    two_files();
    const std::string read = "due 0\nsync\nrecord 1\ndue 1\nrecord 2\ndue 1\nrecord 3\ndue 1\n"
                             "record 4\ndue 1\nrecord 5\ndue 1\n";
    const auto waiting = [this](const char *answers, const char *at_start = "1") {
        std::filesystem::remove(status);
        run_setup options;
        options.env["HOOK_PROGRAM_WAIT"] = answers;
        return run_program({HOOK_PROGRAMS "1", cfg, status, at_start, "0", "0", "1", "mark\n"},
                           options);
    };
    // The position is forced where it is asked for, and forced already, too.
    const run_result forced = waiting("0110");
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_EQ(forced.out, read + "wait\nanswer 0\nhangup\nwait\nanswer 1\nsync\nhangup\n"
                                 "wait\nanswer 1\nsync\nhangup\nwait\nanswer 0\n");
    EXPECT_EQ(waiting("10", "-1").out, "due 0\nrecord 1\nrecord 2\nrecord 3\nrecord 4\nrecord 5\n"
                                       "wait\nanswer 1\nhangup\nwait\nanswer 0\n")
        << "a position that is never forced is not forced here";
    const run_result failed = waiting("-0");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, "fwutil: the program failed while it waited for more records; the "
                          "position stays as it was\n");
}

TEST_F(HookTest, WithoutTheProgramsWordItIsOnceAMinute)
{
    const system_calls_guard guard;
    calls.monotonic_ms = 1'000'000;
    fwu_forcing forcing;
    EXPECT_TRUE(fwu_hook_due(forcing, FWU_AT_START));
    const auto records_until_due = [&forcing] {
        for (int n = 1; n <= 100; n++)
            if (fwu_hook_due(forcing, FWU_AT_RECORD))
                return n;
        return 0;
    };
    calls.monotonic_ms += 59'999;
    EXPECT_EQ(records_until_due(), 0);
    calls.monotonic_ms += 1;
    EXPECT_LE(records_until_due(), 16);
    EXPECT_EQ(records_until_due(), 0) << "a minute begins anew";
    EXPECT_TRUE(fwu_hook_due(forcing, FWU_AT_REST));
    calls.monotonic_ms += 59'999;
    EXPECT_EQ(records_until_due(), 0) << "also behind a rest";
    EXPECT_TRUE(fwu_hook_due(forcing, FWU_AT_END));
    EXPECT_STREQ(fwu_hook_sync(), "");
    EXPECT_EQ(fwu_hook_resume("x"), 0);
}
