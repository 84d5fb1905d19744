// docs/changes-as-data.md: its commands print what stands there.
#include "tests/docs/changes_page.h"

struct page_section {
    const char *heading;
    std::vector<page_program> programs; // beside those of every system
};

static const page_section sections[] = {
    {"A change as JSON", {{"jq", "jq"}}},
    {"Order, and what arrives", {{"jq", "jq"}, {"python3", "python3"}}},
    {"jq", {{"jq", "jq"}}},
    {"CSV and spreadsheets", {{"ssconvert", "gnumeric"}}},
    {"SQL: a copy in another database", {{"sqlite3", "sqlite3"}}},
    {"COBOL", {{"cobc", "gnucobol3"}, {"jq", "jq"}}},
};

class ChangesAsData : public testing::TestWithParam<page_section> {};

TEST_P(ChangesAsData, CommandsPrintWhatStandsThere)
{
    if (const std::string why = missing_program(GetParam().programs); !why.empty())
        GTEST_SKIP() << why;
    changes_page().run_section(GetParam().heading);
}

static std::string name_of(const testing::TestParamInfo<page_section> &section)
{
    std::string name;
    for (const char *at = section.param.heading; *at != '\0'; at++)
        if (isalnum(static_cast<unsigned char>(*at)) != 0)
            name += *at;
    return name;
}

INSTANTIATE_TEST_SUITE_P(Sections, ChangesAsData, testing::ValuesIn(sections), name_of);

TEST(ChangesAsDataPage, EveryBlockIsRun)
{
    std::string run = changes_page_beginning();
    for (const page_section &section : sections)
        run += md_section(md_page(CHANGES_PAGE), section.heading);
    run += md_section(md_page(CHANGES_PAGE), CHANGES_PAGE_SERVER);
    const std::vector<std::string> blocks = md_blocks(md_page(CHANGES_PAGE));
    EXPECT_EQ(md_blocks(run).size(), blocks.size());
    for (const std::string &block : blocks)
        EXPECT_FALSE(page_commands(block).empty()) << block;
}
