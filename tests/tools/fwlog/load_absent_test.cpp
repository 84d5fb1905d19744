// The load command of a build without a JSON parser.
#include "tools/fwlog/fwlog.h"

#include <gtest/gtest.h>

TEST(FwlogLoadAbsent, SaysWhichPackageTheBuildLacked)
{
    testing::internal::CaptureStderr();
    const int status = fwlog_load_main(0, nullptr);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "fwlog: load is not part of this build: the JSON library was missing when it was made "
        "(Debian package nlohmann-json3-dev)\n");
    EXPECT_EQ(status, FWLOG_EXIT_FAILED);
}
