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
