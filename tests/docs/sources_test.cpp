// Every source file, script and build file opens with its subject, as a comment.
#include "tests/support/tempdir.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <vector>

namespace fs = std::filesystem;

struct language {
    const char *suffix; // of the file's name
    const char *opens;  // a comment
};

static constexpr language languages[] = {
    {".h", "// "},   {".cpp", "// "},          {".c", "// "},    {".h", "/* "},     {".c", "/* "},
    {".py", "# "},   {"CMakeLists.txt", "# "}, {".cmake", "# "}, {".py", "\"\"\""}, {".sh", "# "},
    {".sql", "-- "},
};

static bool ends_with(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// What a file of that name may open with; none for a file that is no source.
static std::vector<std::string> openings(const std::string &path, const std::string &text)
{
    std::vector<std::string> found;
    for (const language &row : languages) {
        if (ends_with(path, row.suffix))
            found.emplace_back(row.opens);
    }
    if (found.empty() && text.rfind("#!", 0) == 0)
        found = {"# ", "\"\"\""};
    return found;
}

static bool opens_with_subject(const std::string &path, std::string text)
{
    const std::vector<std::string> ways = openings(path, text);
    if (text.rfind("#!", 0) == 0)
        text.erase(0, text.find('\n') + 1);
    return ways.empty() || std::any_of(ways.begin(), ways.end(), [&](const std::string &way) {
               return text.rfind(way, 0) == 0 &&
                      text.find_first_of(" \n", way.size() + 1) < text.find('\n'); // two words
           });
}

TEST(Sources, EachOpensWithItsSubject)
{
    size_t files = 0;
    for (const char *folder :
         {"driver", "capture", "ascii", "msgfile", "fwutil", "feed", "tools", "util", "tests",
          "bench", "examples", "scripts", "cmake", "packaging"}) {
        for (const auto &entry :
             fs::recursive_directory_iterator(fs::path(KESTRO_SOURCE_DIR) / folder)) {
            if (!entry.is_regular_file())
                continue;
            const std::string path = entry.path().string();
            if (path.find("/tests/fuzz/corpus/") != path.npos)
                continue; // bytes that nobody wrote
            files++;
            EXPECT_TRUE(opens_with_subject(path, read_file(path))) << path;
        }
    }
    EXPECT_GT(files, 300U);
}

TEST(Sources, OneWithoutASubjectIsFound)
{
    EXPECT_FALSE(opens_with_subject("a.cpp", "#include \"a.h\"\n"));
    EXPECT_FALSE(opens_with_subject("a.h", "// \n// late\n"));
    EXPECT_FALSE(opens_with_subject("run", "#!/bin/sh\nset -e\n"));
    EXPECT_FALSE(opens_with_subject("x/CMakeLists.txt", "add_library(x)\n# late\n"));
    EXPECT_FALSE(opens_with_subject("a.cpp", ""));
    EXPECT_TRUE(opens_with_subject("a.cpp", "// A thing.\n"));
    EXPECT_TRUE(opens_with_subject("run", "#!/bin/sh\n# Runs it.\n"));
    EXPECT_TRUE(opens_with_subject("run", "#!/usr/bin/env python3\n\"\"\"Runs it.\"\"\"\n"));
    EXPECT_TRUE(opens_with_subject("data.txt", "anything"));
}
