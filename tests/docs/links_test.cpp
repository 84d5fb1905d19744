// Links between the pages lead somewhere, and files that a page names are there.
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <regex>

namespace fs = std::filesystem;

static const fs::path ROOT = KESTRO_SOURCE_DIR;

static std::vector<std::string> pages()
{
    std::vector<std::string> names = {"examples/orders/README.md"};
    for (const char *folder : {".", "docs"}) {
        for (const auto &entry : fs::directory_iterator(ROOT / folder)) {
            if (entry.path().extension() == ".md")
                names.push_back((fs::path(folder) / entry.path().filename()).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The name that a link gives a heading: lower case, "-" for a blank, no punctuation.
static std::string anchor_of(const std::string &heading)
{
    std::string name;
    for (const char c : heading) {
        if (isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_')
            name += static_cast<char>(tolower(c));
        else if (c == ' ')
            name += '-';
    }
    return name;
}

static bool has_anchor(const std::string &page, const std::string &anchor)
{
    static const std::regex heading("(^|\n)#+ ([^\n]*)");
    for (std::sregex_iterator at(page.begin(), page.end(), heading), end; at != end; ++at) {
        if (anchor_of((*at)[2]) == anchor)
            return true;
    }
    return false;
}

// What is wrong with a page's links; name is that of its file below root.
static std::vector<std::string> bad_links(const std::string &name, const std::string &page)
{
    static const std::regex link(R"(\]\(([^)#]*)(#([^)]*))?\))");
    std::vector<std::string> bad;
    for (std::sregex_iterator at(page.begin(), page.end(), link), end; at != end; ++at) {
        const std::string file = (*at)[1];
        const fs::path path = file.empty() ? ROOT / name : (ROOT / name).parent_path() / file;
        if (!fs::exists(path) ||
            ((*at)[2].matched && !has_anchor(read_file(path.string()), (*at)[3])))
            bad.push_back(name + ": " + at->str());
    }
    return bad;
}

// A module may be named without the ending of its files, a folder's new file by
// capitals in the place of its name.
static bool is_there(const std::string &path)
{
    static const std::regex made_up("(^|/|_)[A-Z]+(/|_|[.]|$)");
    return fs::exists(ROOT / path) || fs::exists(ROOT / (path + ".h")) ||
           fs::exists(ROOT / (path + ".cpp")) ||
           (std::regex_search(path, made_up) && path.find("README") == std::string::npos);
}

// Paths below our folders, in text and commands, that are not there.
static std::vector<std::string> bad_paths(const std::string &name, const std::string &page)
{
    static const std::regex path(
        "(^|[ `(\"\n])((driver|capture|ascii|msgfile|fwutil|feed|tools|util|"
        "tests|bench|docs|examples|scripts|cmake|packaging)/[A-Za-z0-9_./-]*)");
    std::vector<std::string> bad;
    for (std::sregex_iterator at(page.begin(), page.end(), path), end; at != end; ++at) {
        std::string file = (*at)[2];
        file.erase(file.find_last_not_of('.') + 1);
        if (!is_there(file))
            bad.push_back(name + ": " + file);
    }
    return bad;
}

TEST(Links, LeadToPagesAndHeadings)
{
    for (const std::string &name : pages())
        EXPECT_THAT(bad_links(name, md_page(name)), testing::IsEmpty());
}

TEST(Links, FilesThatPagesNameAreThere)
{
    for (const std::string &name : pages())
        EXPECT_THAT(bad_paths(name, md_page(name)), testing::IsEmpty());
}

TEST(Links, BadOnesAreFound)
{
    EXPECT_EQ(bad_links("docs/x.md", "[a](none.md) [b](fwlog.md#no-heading)").size(), 2U);
    EXPECT_THAT(bad_links("docs/x.md", "[a](../README.md#where-to-read-on)"), testing::IsEmpty());
    EXPECT_EQ(bad_paths("x", "`driver/none` and scripts/none.").size(), 2U);
    EXPECT_THAT(bad_paths("x", "`driver/options`, `feed/NAME/` and scripts/test."),
                testing::IsEmpty());
}

TEST(Links, ReadmeBeginsWithTheTwoCommandsAndIntegrationRunsTheSecond)
{
    const std::string commands =
        md_find_block(md_section(md_page("README.md"), "Two commands"), "scripts/demo ");
    EXPECT_NE(commands.find("\nscripts/test "), std::string::npos) << commands;
    const std::string run = read_file((ROOT / ".ci/run").string());
    EXPECT_NE(run.find("\nexec scripts/test\n"), std::string::npos) << run;
    for (const char *script : {"scripts/demo", "scripts/test"})
        EXPECT_NE(fs::status(ROOT / script).permissions() & fs::perms::owner_exec, fs::perms::none);
}

TEST(Links, PagesAreFound)
{
    EXPECT_THAT(pages(), testing::IsSupersetOf({"./README.md", "docs/architecture.md"}));
}
