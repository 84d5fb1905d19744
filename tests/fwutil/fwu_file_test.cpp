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
