// Results of steps, what is told of them, and what programs end with.
#include "util/outcome.h"
#include "util/stop_signal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

class Outcome : public testing::Test {
  protected:
    Outcome()
    {
        tell_as("prog");
    }
};

TEST_F(Outcome, NothingSaidIsThatAllWentWell)
{
    const outcome done;
    EXPECT_TRUE(done);
    EXPECT_EQ(done.kind(), OUTCOME_OK);
    EXPECT_EQ(done.text(), "");
    EXPECT_TRUE(outcome(OUTCOME_OK));
}

TEST_F(Outcome, AFailureKeepsKindAndTextOnItsWayUp)
{
    outcome found = outcome_bad("the value is odd");
    EXPECT_FALSE(found);
    const outcome passed = std::move(found).at("table t: ");
    EXPECT_EQ(passed.kind(), OUTCOME_BAD);
    EXPECT_EQ(passed.text(), "table t: the value is odd");
}

TEST_F(Outcome, APlaceInFrontOfNoFailureChangesNothing)
{
    const outcome done = outcome().at("table t: ");
    EXPECT_TRUE(done);
    EXPECT_EQ(done.text(), "");
}

TEST_F(Outcome, TellingPutsTheProgramInFrontAndLeavesErrnoAlone)
{
    errno = EINTR;
    testing::internal::CaptureStderr();
    tell("%s: %d of\n  two lines", "file", 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: file: 3 of\n  two lines\n");
    EXPECT_EQ(errno, EINTR);
}

TEST_F(Outcome, WhatFailedIsToldAtOnceAndNotAgain)
{
    testing::internal::CaptureStderr();
    const outcome done = outcome_failed("disk %s", "full");
    EXPECT_EQ(done.kind(), OUTCOME_FAILED);
    EXPECT_EQ(outcome_exit_status(done), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: disk full\n");
}

TEST_F(Outcome, ProgramsEndByKindAndTellWhatWasNotTold)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(outcome_exit_status(OUTCOME_OK), 0);
    EXPECT_EQ(outcome_exit_status(OUTCOME_USAGE), 2);
    EXPECT_EQ(outcome_exit_status(outcome_bad("100% wrong")), 1);
    EXPECT_EQ(outcome_exit_status({OUTCOME_LOST, "gone"}), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: 100% wrong\nprog: gone\n");
}

TEST_F(Outcome, AStopEndsWithTheNumberOfItsSignal)
{
    stop_signal_install();
    raise(SIGTERM);
    EXPECT_EQ(outcome_exit_status(OUTCOME_STOPPED), 128 + SIGTERM);
}

TEST_F(Outcome, WhatIsToldMovesNoCursor)
{
    const struct {
        const char *text;
        const char *shown;
    } rows[] = {
        {"a\tb, two\n  lines", "a\tb, two\n  lines"},
        {"two\nlines\n and\nfwlog: more\n", "two\\x0alines\\x0a and\\x0afwlog: more\\x0a"},
        {"table \x1b[2J\x1b]0;x\x07", "table \\x1b[2J\\x1b]0;x\\x07"},
        {"\r\b\x7f\x01", "\\x0d\\x08\\x7f\\x01"},
        {"\xC3\xA9\xC2\xA0\xF0\x9F\x90\x98", "\xC3\xA9\xC2\xA0\xF0\x9F\x90\x98"}, // as they are
        {"\xC2\x9B"
         "2J \xC2\x85",
         "\\u009b2J \\u0085"},
        {"cut \xC2", "cut \xC2"},
        {"%s%n", "%s%n"},
    };
    for (const auto &row : rows) {
        testing::internal::CaptureStderr();
        const outcome failed = outcome_failed("%s", row.text);
        tell("%s", row.text);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "prog: " + std::string(row.shown) + "\nprog: " + row.shown + "\n");
        EXPECT_EQ(outcome_failed_last(), row.text) << "state files have it as it is";
    }
}
