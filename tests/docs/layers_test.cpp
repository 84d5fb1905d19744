// Who includes whom in the sources is in order.  And scripts/layers on small trees with the
// sources' table: what it refuses, and how it says so.
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

static const std::string ROOT = KESTRO_SOURCE_DIR;

// A tree with the table, and files of one function's worth.
class Layers : public testing::Test {
  protected:
    void SetUp() override
    {
        if (run_program({"/usr/bin/env", "python3", "--version"}).status != 0)
            GTEST_SKIP() << "no python3";
        add("docs/architecture.md", read_file(ROOT + "/docs/architecture.md"));
        add("driver/base/log.h", "// Messages.\n");
        add("ascii/columns.h", "// Columns.\n");
        add("ascii/columns.cpp", "// Columns.\n#include \"ascii/columns.h\"\n\n"
                                 "#include \"driver/base/log.h\"\n\n#include <cstdio>\n");
        add("capture/write.h", "// Writing.\n");
    }

    void add(const std::string &name, const std::string &text)
    {
        const std::string path = dir.file(name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        write_file(path, text);
    }

    run_result layers(const std::vector<std::string> &words = {})
    {
        std::vector<std::string> argv = {ROOT + "/scripts/layers"};
        argv.insert(argv.end(), words.begin(), words.end());
        argv.push_back(dir.path());
        return run_program(argv);
    }

    tempdir dir;
};

TEST_F(Layers, SourcesAreInOrder)
{
    const run_result result = run_program({ROOT + "/scripts/layers"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_F(Layers, TreeInOrderIsQuiet)
{
    const run_result result = layers();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_F(Layers, IncludeOfAHigherFolderIsRefusedWithWhatIsAllowed)
{
    add("ascii/columns.h", "// Columns.\n\n#include \"capture/write.h\"\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "ascii/columns.h:3: \"capture/write.h\" - ascii/ may include driver/base\n");
}

TEST_F(Layers, SingleFileOfAFolderOpensTheOthersToNobody)
{
    add("msgfile/tmf.h", "/* Message files. */\n");
    add("msgfile/tmf_users.h", "// Users.\n");
    add("capture/write.h",
        "// Writing.\n#include \"msgfile/tmf.h\"\n#  include \"msgfile/tmf_users.h\"\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "capture/write.h:3: \"msgfile/tmf_users.h\" - capture/ may include ascii, "
              "msgfile/tmf.h, driver/base, fwutil/fwutil.h\n");
}

TEST_F(Layers, FolderBelowAnAllowedOneIsAnotherFolder)
{
    add("feed/postgresql/server.h", "// Connections.\n");
    add("feed/row.h", "// Rows.\n#include \"feed/postgresql/server.h\"\n");
    EXPECT_THAT(layers().out, HasSubstr("feed/row.h:2: \"feed/postgresql/server.h\" - feed/ may "
                                        "include fwutil, util\n"));
}

TEST_F(Layers, CircleOfFilesIsToldAsAChain)
{
    add("capture/a.h", "// A.\n#include \"capture/b.h\"\n");
    add("capture/b.h", "// B.\n");
    add("capture/b.cpp", "// B.\n#include \"capture/b.h\"\n\n#include \"capture/c.h\"\n");
    add("capture/c.h", "// C.\n#include \"capture/a.h\"\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "circle: capture/a -> capture/b -> capture/c -> capture/a "
                          "(capture/a.h:2, capture/b.cpp:4, capture/c.h:2)\n");
}

TEST_F(Layers, FolderWithoutARowIsRefused)
{
    add("compress/zip.h", "// Compression.\n");
    add("feed/csv/line.cpp", "// Lines.\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "compress/: has no row in the table of docs/architecture.md\n"
                          "feed/csv/: has no row in the table of docs/architecture.md\n");
}

TEST_F(Layers, IncludeThatIsNotWrittenFromTheRootIsRefused)
{
    add("capture/write.cpp", "// Writing.\n#include \"write.h\"\n");
    EXPECT_EQ(layers().out, "capture/write.cpp:2: \"write.h\" is no file below the root\n");
}

TEST_F(Layers, AngleBracketsIntoTheTreeCountLikeQuotes)
{
    add("rows.def", "// Rows.\n");
    add("driver/session.h", "// The session.\n");
    add("ascii/columns.cpp", "// Columns.\n#include <driver/session.h>\n#include <ascii/none.h>\n"
                             "#include <rows.def>\n#include <sys/stat.h>\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "ascii/columns.cpp:2: \"driver/session.h\" - ascii/ may include driver/base\n"
              "ascii/columns.cpp:3: \"ascii/none.h\" is no file below the root\n"
              "ascii/columns.cpp:4: \"rows.def\" - ascii/ may include driver/base\n");
}

TEST_F(Layers, OneFileHasOneName)
{
    add("capture/slist.h",
        "// Lists.\n#include \"capture//write.h\"\n"
        "#include \"./capture/write.h\"\n#include <capture/../capture/write.h>\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "capture/slist.h:2: \"capture//write.h\" is written \"capture/write.h\"\n"
              "capture/slist.h:3: \"./capture/write.h\" is written \"capture/write.h\"\n"
              "capture/slist.h:4: \"capture/../capture/write.h\" is written \"capture/write.h\"\n");
}

TEST_F(Layers, SourcesOfEverySuffixAreRead)
{
    for (const char *suffix : {"h", "hh", "hpp", "inc", "c", "cpp"}) {
        const std::string name = std::string("ascii/rows.") + suffix;
        add(name, "// Rows.\n#include \"capture/write.h\"\n");
        EXPECT_THAT(layers().out, HasSubstr(name + ":2: \"capture/write.h\" - ascii/ may "));
    }
}

TEST_F(Layers, PageWithoutTheTableIsRefused)
{
    add("docs/architecture.md", "| folder | holds |\n|---|---|\n| `ascii/` | columns |\n");
    const run_result result = layers();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("no table"));
}

TEST_F(Layers, TestsMayIncludeWhatTheyTest)
{
    add("tests/ascii/columns_test.cpp", "// Columns.\n#include \"ascii/columns.h\"\n");
    EXPECT_EQ(layers().out, "");
}

TEST_F(Layers, BuildFoldersOfAnyNameAreLeftOut)
{
    add("build/release/check.cpp", "// What CMake tries.\n");
    add("out/CMakeCache.txt", "# Settings.\n");
    add("out/CMakeFiles/check.cpp", "// What CMake tries.\n");
    EXPECT_EQ(layers().out, "");
}

TEST_F(Layers, TableCountsIncludesBetweenFolders)
{
    add("capture/write.cpp", "// Writing.\n#include \"capture/write.h\"\n\n"
                             "#include \"ascii/columns.h\"\n#include \"driver/base/log.h\"\n");
    const run_result result = layers({"--table"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "ascii                driver/base             1\n"
                          "capture              ascii                   1\n"
                          "capture              driver/base             1\n");
}
