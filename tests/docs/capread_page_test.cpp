// docs/capread.md: its commands print what stands there.
#include "tests/docs/changes_page.h"

static const char CAPREAD_PAGE[] = "docs/capread.md";

TEST(CapreadPage, CommandsPrintWhatStandsThere)
{
    if (const std::string why =
            missing_program({{"jq", "jq"}, {"python3", "python3"}, {"cc", "gcc"}});
        !why.empty())
        GTEST_SKIP() << why;
    changes_page().run(md_page(CAPREAD_PAGE));
}

TEST(CapreadPage, EveryBlockButTheSynopsisIsRun)
{
    const std::vector<std::string> blocks = md_blocks(md_page(CAPREAD_PAGE));
    ASSERT_EQ(blocks.size(), 4U);
    EXPECT_EQ(blocks[0].rfind("capread (--layout FILE", 0), 0U);
    for (size_t i = 1; i < blocks.size(); i++)
        EXPECT_FALSE(page_commands(blocks[i]).empty()) << blocks[i];
}

static bool begins_with(const std::string &line, const char *text)
{
    return line.rfind(text, 0) == 0;
}

// Lines of a program that are neither blank nor comments.
static int lines_of(const std::string &name)
{
    const bool c = name.ends_with(".c");
    std::ifstream in(KESTRO_SOURCE_DIR "/examples/orders/" + name);
    int lines = 0;
    for (std::string line; std::getline(in, line);)
        lines += !line.empty() &&
                 !(c ? begins_with(line, "/*") || begins_with(line, " *") : begins_with(line, "#"));
    return lines;
}

TEST(CapreadPage, ConsumersHaveSoManyLines)
{
    const std::vector<std::vector<std::string>> rows =
        md_find_table(md_page(CAPREAD_PAGE), "program").rows;
    ASSERT_EQ(rows.size(), 3U);
    for (const auto &row : rows) {
        const std::string name = row[0].substr(1, row[0].find(']') - 1);
        EXPECT_EQ(std::to_string(lines_of(name)), row[1]) << name;
    }
}
