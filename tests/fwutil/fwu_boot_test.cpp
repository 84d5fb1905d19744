// Which start of the system this is.
#include "fwutil/fwu_boot.h"

#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

class BootTest : public testing::Test {
  protected:
    ~BootTest() override
    {
        fwu_boot_path = real;
    }
    const char *const real = fwu_boot_path;
    const tempdir dir;
    const std::string path = dir.file("boot_id");
};

TEST_F(BootTest, IsTheSameAsLongAsTheSystemRuns)
{
    EXPECT_EQ(fwu_boot(), fwu_boot());
    EXPECT_EQ(fwu_boot().size(), 36U) << "this system has no boot id";
}

TEST_F(BootTest, IsTheFirstLineOfTheSystemsFile)
{
    fwu_boot_path = path.c_str();
    for (const auto &[bytes, expected] : std::vector<std::pair<std::string, std::string>>{
             {"6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001\n", "6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001"},
             {"1", "1"},
             {"", "unknown"},
             {"\n1", "unknown"},
             {"any\n", "unknown"},
             {"a b\n", "unknown"}}) {
        write_file(path, bytes);
        EXPECT_EQ(fwu_boot(), expected);
    }
    std::filesystem::remove(path);
    EXPECT_EQ(fwu_boot(), "unknown");
    fwu_boot_path = dir.path().c_str();
    EXPECT_EQ(fwu_boot(), "unknown");
}
