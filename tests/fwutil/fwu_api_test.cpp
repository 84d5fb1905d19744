// The shared library as others see it.
#include "fwutil/fwutil.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/support/run.h"

#include <gtest/gtest.h>
#include <sstream>

TEST(Library, ExportsItsTwelveCallsAndNothingElse)
{
    const run_result result = run_program({"nm", "-D", "--defined-only", FWUTIL_LIBRARY});
    ASSERT_EQ(result.status, 0) << result.err;
    std::istringstream in(result.out);
    std::string address;
    std::string type;
    std::string name;
    std::vector<std::string> names;
    while (in >> address >> type >> name)
        names.push_back(name);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Fwu_CurrentLogGeneration", "Fwu_CurrentLogSequence",
                                               "Fwu_CurrentTagSequence", "Fwu_get_item",
                                               "Fwu_get_session_data", "Fwu_get_session_elements",
                                               "Fwu_get_session_entry", "Fwu_process", "Fwu_status",
                                               "Fwu_synconly", "Fwu_verbose", "Fwu_version"}));
}

TEST(Library, ItsSonameHasNoVersion)
{
    const run_result result = run_program({"readelf", "-d", FWUTIL_LIBRARY});
    EXPECT_NE(result.out.find("Library soname: [libfwutil.so]"), std::string::npos) << result.out;
}

TEST(Library, VersionIsOneLine)
{
    testing::internal::CaptureStdout();
    Fwu_version();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "libfwutil 1.0\n");
}

class ApiTest : public log_test {};

TEST_F(ApiTest, ItemsAreCopiedOutPieceByPieceAndNullPointersAllowed)
{
    two_files();
    int looked = 0;
    on_record = [&](const seen &) {
        const char *name = "none";
        int32_t size = -1;
        int32_t count = -1;
        int32_t aux = -1;
        EXPECT_EQ(Fwu_get_item(&name, nullptr, nullptr, nullptr, nullptr), 1);
        EXPECT_STREQ(name, "NO");
        EXPECT_EQ(Fwu_get_item(nullptr, nullptr, &size, &count, &aux), 1);
        EXPECT_EQ(size, 12);
        EXPECT_EQ(count, 1);
        EXPECT_EQ(aux, 0);
        EXPECT_EQ(Fwu_get_item(&name, nullptr, &size, nullptr, nullptr), 0);
        EXPECT_STREQ(name, "NO") << "nothing is set behind the last item";
        EXPECT_EQ(size, 12);
        looked++;
        return 0;
    };
    run();
    EXPECT_EQ(looked, 5);
}
