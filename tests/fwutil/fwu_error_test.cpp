// Lines on standard error.
#include "fwutil/fwu_error.h"

#include "tests/fwutil/log_fixture.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(Error, CarriesTheProgramsNameAndLeavesErrnoAlone)
{
    EXPECT_EQ(stderr_of([] {
                  errno = ENOENT;
                  EXPECT_EQ(fwu_error("%s: %d", "x", 5), -1);
                  EXPECT_EQ(errno, ENOENT);
                  fwu_set_program("fwlog");
                  fwu_warn("cut");
                  fwu_set_program("fwutil");
              }),
              "fwutil: x: 5\nfwlog: cut\n");
}

TEST(Error, AMessageIsALineWhateverItTellsOf)
{
    EXPECT_EQ(stderr_of([] {
                  (void)fwu_error("%s: no", "a\nfwutil: b\x1b[2J\x7f\r\tc\xC3\xA9\xC2\x9B\xC2\xA0");
              }),
              "fwutil: a\\x0afwutil: b\\x1b[2J\\x7f\\x0d\tc\xC3\xA9\\u009b\xC2\xA0: no\n");
    EXPECT_EQ(fwu_error_last(), "a\nfwutil: b\x1b[2J\x7f\r\tc\xC3\xA9\xC2\x9B\xC2\xA0: no")
        << "as it is, for the program";
}

TEST(Error, NotesAppearOnlyWhenVerbose)
{
    EXPECT_EQ(stderr_of([] {
                  fwu_note("not shown");
                  fwu_set_verbose(1);
                  fwu_note("shown");
                  fwu_set_verbose(0);
                  fwu_note("not shown");
              }),
              "fwutil: shown\n");
}

TEST(Error, WhatIsHeldIsNotPrintedAndNotTheLast)
{
    testing::internal::CaptureStderr();
    fwu_error("one");
    {
        const fwu_error_hold hold;
        errno = EIO;
        EXPECT_EQ(fwu_error("two %d", 2), -1);
        EXPECT_EQ(errno, EIO);
        fwu_warn("three");
        EXPECT_EQ(hold.text, "two 2; three");
        EXPECT_EQ(fwu_error_last(), "one");
    }
    fwu_warn("four");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "fwutil: one\nfwutil: four\n");
}
