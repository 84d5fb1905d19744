// Where a path's name stands, and what bringing it to disk says.
#include "fwutil/fwu_file.h"

#include "tests/support/tempdir.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(FileTest, ANameStandsInItsDirectory)
{
    EXPECT_EQ(fwu_directory_of("fwutil.status"), ".");
    EXPECT_EQ(fwu_directory_of("run/fwutil.status"), "run");
    EXPECT_EQ(fwu_directory_of("/var/run/a.b"), "/var/run");
    EXPECT_EQ(fwu_directory_of("/fwutil.status"), "/");
}

TEST(FileTest, FilesAndDirectoriesAreBroughtToDisk)
{
    const tempdir dir;
    write_file(dir.file("a"), "text");
    EXPECT_EQ(fwu_path_sync(dir.file("a")), 0);
    EXPECT_EQ(fwu_path_sync(dir.path()), 0);
    EXPECT_EQ(fwu_path_sync(dir.file("b")), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileTest, APieceIsCopiedUpToItsEndOrTheFiles)
{
    const tempdir dir;
    write_file(dir.file("a"), "0123456789");
    ASSERT_EQ(fwu_file_copy(dir.file("a"), 2, 5, dir.file("b"), 0640), 0);
    EXPECT_EQ(read_file(dir.file("b")), "234");
    ASSERT_EQ(fwu_file_copy(dir.file("a"), 7, INT64_MAX, dir.file("b"), 0640), 0);
    EXPECT_EQ(read_file(dir.file("b")), "789");
    EXPECT_EQ(fwu_file_copy(dir.file("c"), 0, 1, dir.file("d"), 0640), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fwu_path_sync(dir.file("d")), -1) << "nothing is left";
}

TEST(FileTest, ZerosOnlyAreToldFromAnythingElse)
{
    const tempdir dir;
    std::string bytes(3 << 20, '\0');
    write_file(dir.file("a"), bytes);
    EXPECT_TRUE(fwu_file_all_zero(dir.file("a")));
    bytes.back() = 1;
    write_file(dir.file("a"), bytes);
    EXPECT_FALSE(fwu_file_all_zero(dir.file("a")));
    write_file(dir.file("a"), "");
    EXPECT_TRUE(fwu_file_all_zero(dir.file("a")));
    EXPECT_FALSE(fwu_file_all_zero(dir.file("b"))) << "there is no such file";
}
