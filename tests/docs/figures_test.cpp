// The figures of docs/performance.md are what its tables give.
#include "tests/support/markdown.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
using testing::HasSubstr;

static const fs::path source = KESTRO_SOURCE_DIR;

TEST(Figures, EachIsShown)
{
    const std::string page = md_page("docs/performance.md");
    int shown = 0;
    for (const auto &file : fs::directory_iterator(source / "docs/figures")) {
        const std::string name = file.path().filename().string();
        EXPECT_THAT(page, HasSubstr("](figures/" + name + ")")) << name;
        EXPECT_THAT(read_file(file.path()), HasSubstr("</svg>")) << name;
        shown++;
    }
    EXPECT_EQ(shown, 5);
    EXPECT_THAT(md_page("README.md"), HasSubstr("](docs/figures/message-files.svg)"));
}

TEST(Figures, ATableThatHasChangedIsTold)
{
    if (run_program({"gnuplot", "--version"}).status != 0)
        GTEST_SKIP() << "no gnuplot";
    const tempdir dir;
    fs::create_directory(dir.file("bench"));
    fs::copy(source / "bench/plot", dir.file("bench/plot"));
    fs::create_directory(dir.file("docs"));
    fs::copy(source / "docs/performance.md", dir.file("docs/performance.md"));
    fs::copy(source / "docs/figures", dir.file("docs/figures"), fs::copy_options::recursive);
    const std::vector<std::string> check = {dir.file("bench/plot"), "--check"};
    run_result run = run_program(check);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");

    std::string page = read_file(dir.file("docs/performance.md"));
    const std::string row = "| append, 100 bytes | ";
    const size_t at = page.find('|', page.find(row) + row.size()); // behind the library's own rate
    ASSERT_NE(at, std::string::npos);
    page.insert(at + 2, "77");
    write_file(dir.file("docs/performance.md"), page);
    run = run_program(check);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "bench/plot: docs/figures/message-files.svg is not what docs/performance.md "
                       "says: bench/plot\n");
    EXPECT_EQ(run_program({dir.file("bench/plot")}).status, 0);
    EXPECT_EQ(run_program(check).status, 0);
    EXPECT_EQ(run_program({dir.file("bench/plot"), "--what"}).status, 2);
}
