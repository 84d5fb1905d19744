// The subcommands of a build without their libraries.
#include "feed/postgresql/bridge.h"
#include "tools/fwlog/load.h"

#include <gtest/gtest.h>

// What a run says that has to fail.
template <typename Run> static std::string told(Run run)
{
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    const outcome done = run();
    EXPECT_EQ(done.kind(), OUTCOME_FAILED);
    return testing::internal::GetCapturedStderr();
}

TEST(FwlogAbsent, LoadSaysWhichPackageTheBuildLacked)
{
    EXPECT_EQ(
        told([] { return fwlog_load({}); }),
        "fwlog: load is not part of this build: the JSON library was missing when it was made "
        "(Debian package nlohmann-json3-dev)\n");
}

TEST(FwlogAbsent, PostgresqlSaysWhichPackageTheBuildLacked)
{
    EXPECT_EQ(told([] { return pgb_run({}); }),
              "fwlog: postgresql is not part of this build: libpq was missing when it was made "
              "(Debian package libpq-dev)\n");
}
