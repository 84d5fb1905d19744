// docs/messages.md has a row for every message of the sources, and no other.
#include "tests/docs/told_messages.h"
#include "tests/support/markdown.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <set>

using testing::ElementsAre;

static const char PAGE[] = "docs/messages.md";

// Which section has the messages of a source, by the beginning of its name; the first that fits.
static const struct {
    const char *begins;
    const char *section;
} sections[] = {
    {"driver/", "Kestro"},
    {"capture/", "Kestro"},
    {"ascii/", "Kestro"},
    {"fwutil/", "The forward log"},
    {"feed/postgresql/", "fwlog postgresql"},
    {"feed/", "Rows that go into the log"},
    {"changes/", "Changes as CSV and SQL"},
    {"tools/fwlog/", "The other subcommands of fwlog"},
    {"util/", "The other subcommands of fwlog"},
    {"records/", "capread"},
    {"tools/capread/", "capread"},
    {"ship/", "capship"},
    {"tools/capship/", "capship"},
    {"tools/tmf/", "tmf"},
};

using texts = std::map<std::string, std::set<std::string>>; // by section

static texts told()
{
    texts by_section;
    for (const source_message &message : told_messages()) {
        const auto *const row =
            std::find_if(std::begin(sections), std::end(sections),
                         [&](const auto &one) { return message.file.rfind(one.begins, 0) == 0; });
        by_section[row == std::end(sections) ? message.file : row->section].insert(message.text);
    }
    return by_section;
}

TEST(AllMessages, EachOfTheSourcesHasARowAndEachRowIsOfTheSources)
{
    const std::string page = md_page(PAGE);
    size_t rows = 0;
    for (const auto &[section, messages] : told()) {
        const md_table table = md_find_table(md_section(page, section), "message");
        std::set<std::string> listed;
        for (const auto &row : table.rows) {
            ASSERT_EQ(row.size(), 2U) << row[0];
            EXPECT_NE(row[1], "") << row[0];
            ASSERT_EQ(row[0].front(), '`');
            EXPECT_TRUE(listed.insert(row[0].substr(1, row[0].size() - 2)).second) << row[0];
        }
        for (const std::string &message : messages)
            EXPECT_EQ(listed.count(message), 1U) << section << " lacks `" << message << '`';
        for (const std::string &message : listed)
            EXPECT_EQ(messages.count(message), 1U)
                << section << ": nobody says `" << message << '`';
        rows += listed.size();
    }
    EXPECT_GE(rows, 1000U) << "fewer were not read";
    EXPECT_NE(page.find("\nThere are " + std::to_string(rows) + " of them"), std::string::npos)
        << "there are " << rows;
    const std::string grouped = std::to_string(rows / 1000) + "," + std::to_string(rows).substr(1);
    EXPECT_NE(md_page("docs/reliability.md").find("their libraries, " + grouped + " of them."),
              std::string::npos)
        << "there are " << grouped;
}

TEST(AllMessages, WhatIsPassedOverByNameIsThere)
{
    EXPECT_THAT(told_messages_unused(), ElementsAre());
}

static std::vector<std::string> read(const char *source)
{
    std::vector<std::string> found;
    for (const source_message &message : messages_of("x.cpp", source))
        found.push_back(message.text);
    return found;
}

TEST(AllMessages, AreReadAsTheSourcesSayThem)
{
    EXPECT_THAT(read(R"(fwu_error("%s: cannot " "open the file: %s", path, 1'000);)"),
                ElementsAre("cannot open the file"));
    EXPECT_THAT(
        read(R"(return name + ": the item " + name_of(a, "x") + " has " + n[1] + " rows";)"),
        ElementsAre("the item ... has ... rows"));
    EXPECT_THAT(read(R"(tell("the " + (one ? "row is gone" : "rows are gone") + " for good");)"),
                ElementsAre("the ... for good", "row is gone", "rows are gone"));
    EXPECT_THAT(read("// \"no such message\"\n#include \"no such.h\"\n/* \"none here\" */"),
                ElementsAre());
    EXPECT_THAT(read(R"(a = '"'; b("of \"%s\" %" PRIu64 " rows, %5.1f%%, are gone\n");)"),
                ElementsAre("of \"...\" ... rows, ...%, are gone"));
    EXPECT_THAT(read("x(\"SYNC\", \"one\", R\"(some long help)\");"), ElementsAre());
    const auto found = messages_of("x.cpp", R"(if (a(b) && tell(note("some more words"))))");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0].callers, ElementsAre("if", "tell", "note"));
}
