// Names of the files that a full capture file rolls over to.
#include "capture/rollname.h"

#include "tests/support/tempdir.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>

static std::string taken(char *name)
{
    if (name == nullptr)
        return "(none)";
    std::string text = name;
    free(name);
    return text;
}

TEST(Rollname, NextNameCountsUpInFrontOfTheExtension)
{
    const struct {
        const char *name;
        const char *next;
    } rows[] = {
        {"capture.dat", "capture1.dat"},
        {"capture1.dat", "capture2.dat"},
        {"capture8.dat", "capture9.dat"},
        {"capture9.dat", "capture10.dat"},
        {"capfile", "capfile1"},
        {"cap99", "cap100"},
        {"cap9.dat", "cap10.dat"},
        {"cap09.dat", "cap10.dat"},
        {"cap0.dat", "cap1.dat"},
        {"cap199", "cap200"},
        {"cap1999.x", "cap2000.x"},
        {"x99.dat", "x100.dat"},
        {"log009", "log010"},
        {"0099.dat", "0100.dat"},
        {"9", "10"},
        {"999", "1000"},
        {"a9b9", "a9b10"},
        {"cap.", "cap1."},
        {"cap9.", "cap10."},
        {".dat", "1.dat"},
        {".", "1."},
        {"", "1"},
        {"a", "a1"},
        {"7", "8"},
        {"cap.01", "cap1.01"},
        {"cap.2024_01", "cap1.2024_01"},
        {"arch-01", "arch-02"},
        {"arch-09", "arch-10"},
        {"arch-99", "arch-100"},
        {"a.b-c", "a.b-c1"},
        {"a.b.c", "a.b1.c"},
        {"a.9.c", "a.10.c"},
        {"dir.d/cap", "dir.d/cap1"},
        {"dir.d/cap.x", "dir.d/cap1.x"},
        {"dir9/.x", "dir9/1.x"},
        {"dir9/", "dir9/1"},
        {"cap 9", "cap 10"},
        {"cap-.dat", "cap-1.dat"},
        {"cap.\xE4", "cap.\xE4"
                     "1"},
        {"_", "_1"},
        {"_.x", "_1.x"},
        {"abc_9", "abc_10"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.next, taken(calc_rollfname(row.name))) << row.name;
}

TEST(Rollname, AnyKindOfFileExists)
{
    const tempdir dir;
    EXPECT_EQ(0, file_exists(dir.file("f").c_str()));
    write_file(dir.file("f"), "");
    EXPECT_EQ(1, file_exists(dir.file("f").c_str()));
    EXPECT_EQ(1, file_exists(dir.path().c_str()));
    EXPECT_EQ(1, file_exists("/dev/null"));
    EXPECT_EQ(0, file_exists(dir.file("f/g").c_str()));
}

TEST(Rollname, NamesThatExistArePassedOver)
{
    const tempdir dir;
    const std::string name = dir.file("capture.dat");
    EXPECT_EQ(dir.file("capture1.dat"), taken(rollover_fname(name.c_str())));
    write_file(dir.file("capture1.dat"), "");
    ASSERT_EQ(0, mkdir(dir.file("capture2.dat").c_str(), 0700));
    EXPECT_EQ(dir.file("capture3.dat"), taken(rollover_fname(name.c_str())));
    EXPECT_EQ(dir.file("capture3.dat"), taken(rollover_fname(dir.file("capture1.dat").c_str())));
}

TEST(Rollname, AThousandAndTwentyFourNamesAreTried)
{
    const tempdir dir;
    for (int n = 1; n <= 1024; n++)
        write_file(dir.file("f" + std::to_string(n)), "");
    EXPECT_EQ("(none)", taken(rollover_fname(dir.file("f").c_str())));
    ASSERT_TRUE(std::filesystem::remove(dir.file("f1024")));
    EXPECT_EQ(dir.file("f1024"), taken(rollover_fname(dir.file("f").c_str())));
}
