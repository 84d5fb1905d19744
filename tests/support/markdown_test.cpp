// Pages taken apart, by small pages.
#include "tests/support/markdown.h"

#include <gmock/gmock.h>
#include <stdexcept>

using testing::ElementsAre;

static const char PAGE[] = "# Page\n"
                           "intro\n"
                           "\n"
                           "    first block\n"
                           "\n"
                           "## One\n"
                           "text\n"
                           "    not a block: no empty line above\n"
                           "### Below one\n"
                           "| a | b |\n"
                           "|---|---|\n"
                           "| 1 | x \\| y |\n"
                           "| `2` |  |\n"
                           "\n"
                           "## Two\n"
                           "```\n"
                           "# no heading\n"
                           "| a | no table |\n"
                           "\n"
                           "last\n"
                           "```\n"
                           "end\n";

TEST(Markdown, SectionEndsAtTheNextHeadingOfItsLevel)
{
    EXPECT_NE(md_section(PAGE, "One").find("Below one"), std::string::npos);
    EXPECT_EQ(md_section(PAGE, "One").find("Two"), std::string::npos);
    EXPECT_EQ(md_section(PAGE, "Below one").rfind("| a | b |", 0), 0U);
    EXPECT_NE(md_section(PAGE, "Two").find("end"), std::string::npos);
    EXPECT_THROW(md_section(PAGE, "no heading"), std::runtime_error);
}

TEST(Markdown, TableIsFoundByItsFirstHead)
{
    const md_table table = md_find_table(PAGE, "a");
    EXPECT_THAT(table.heads, ElementsAre("a", "b"));
    EXPECT_THAT(table.rows, ElementsAre(ElementsAre("1", "x | y"), ElementsAre("`2`", "")));
    EXPECT_THROW(md_find_table(PAGE, "b"), std::runtime_error);
    EXPECT_THROW(md_find_table(md_section(PAGE, "Two"), "a"), std::runtime_error);
}

TEST(Markdown, TablesOfOneHeadAreFoundInTheirOrder)
{
    const std::vector<md_table> tables =
        md_find_tables("| a |\n|---|\n| 1 |\n\n| b |\n|---|\n| a |\n\n| a |\n|---|\n| 2 |\n", "a");
    ASSERT_EQ(tables.size(), 2U);
    EXPECT_THAT(tables[0].rows, ElementsAre(ElementsAre("1")));
    EXPECT_THAT(tables[1].rows, ElementsAre(ElementsAre("2")));
}

TEST(Markdown, BlocksAreFencedOrIndented)
{
    EXPECT_THAT(md_blocks(PAGE),
                ElementsAre("first block\n", "# no heading\n| a | no table |\n\nlast\n"));
    EXPECT_EQ(md_find_block(PAGE, "first"), "first block\n");
    EXPECT_THROW(md_find_block(PAGE, "text"), std::runtime_error);
}

TEST(Markdown, CodeStandsBetweenBackticks)
{
    EXPECT_THAT(md_code("`-a N`, or `-b`"), ElementsAre("-a N", "-b"));
    EXPECT_THAT(md_code("none, not `even this"), ElementsAre());
}

TEST(Markdown, PagesAreThoseOfTheSources)
{
    EXPECT_EQ(md_page("README.md").rfind("# Kestro", 0), 0U);
    EXPECT_THROW(md_page("docs/none.md"), std::runtime_error);
}
