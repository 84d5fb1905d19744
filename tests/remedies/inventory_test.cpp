// remedies.txt says which test carries out what a page says to do: each row of the pages has its
// line, each line its row, and each test that a line names is there.
#include "tests/remedies/remedy_fixture.h"

#include <filesystem>
#include <regex>
#include <set>

namespace fs = std::filesystem;

static const std::vector<std::string> pages = {
    "docs/capread.md",    "docs/forward-log.md", "docs/fwlog.md",   "docs/message-file.md",
    "docs/operations.md", "docs/postgresql.md",  "docs/tmf-tool.md"};

// A page, and the first message, or the codes, of one of its rows.
using row = std::pair<std::string, std::string>;

// The rows of these are all to have a line; of this one those whose words are the remedy.
static const char ALL_MESSAGES[] = "docs/messages.md";
static const char OWN_WORDS[] = "as it says";

static bool begins_with(const std::string &text, const char *beginning)
{
    return text.rfind(beginning, 0) == 0;
}

static std::multiset<row> rows_of(const std::vector<std::string> &of, const char *remedy = "")
{
    std::multiset<row> rows;
    for (const std::string &page : of) {
        const std::string text = md_page(page);
        for (const char *head : {"message", "detail", "code"}) {
            if (text.find("| " + std::string(head) + " |") == std::string::npos)
                continue;
            for (const md_table &table : md_find_tables(text, head)) {
                for (const auto &cells : table.rows) {
                    if (!begins_with(cells.at(1), remedy))
                        continue;
                    const std::vector<std::string> messages = md_code(cells[0]);
                    rows.emplace(page, messages.empty() ? cells[0] : messages[0]);
                }
            }
        }
    }
    return rows;
}

struct line {
    row of;
    std::string by; // tests, or why there is none
};

static std::vector<line> inventory()
{
    static const std::string BETWEEN = " | ";
    std::vector<line> lines;
    std::istringstream in(read_file(KESTRO_SOURCE_DIR "/tests/remedies/remedies.txt"));
    for (std::string text; std::getline(in, text);) {
        if (text.empty() || text[0] == '#')
            continue;
        const size_t first = text.find(BETWEEN);
        const size_t last = text.rfind(BETWEEN);
        if (first == std::string::npos || first == last)
            throw std::runtime_error("not of three parts: " + text);
        lines.push_back({{text.substr(0, first),
                          text.substr(first + BETWEEN.size(), last - first - BETWEEN.size())},
                         text.substr(last + BETWEEN.size())});
    }
    return lines;
}

static std::set<std::string> tests()
{
    static const std::regex test(R"(\nTEST(?:_F|_P)?\((\w+),\s+(\w+)\))");
    std::set<std::string> names;
    for (const auto &entry : fs::recursive_directory_iterator(KESTRO_SOURCE_DIR "/tests")) {
        if (entry.path().extension() != ".cpp")
            continue;
        const std::string text = read_file(entry.path().string());
        for (std::sregex_iterator at(text.begin(), text.end(), test), end; at != end; ++at)
            names.insert(at->str(1) + "." + at->str(2));
    }
    return names;
}

TEST(RemedyInventory, EachRowHasItsLineAndEachLineItsRow)
{
    std::multiset<row> lines;
    for (const line &one : inventory()) {
        if (one.of.first != ALL_MESSAGES)
            lines.insert(one.of);
    }
    EXPECT_GE(lines.size(), 200U);
    const std::multiset<row> rows = rows_of(pages);
    std::vector<row> differ;
    std::set_symmetric_difference(lines.begin(), lines.end(), rows.begin(), rows.end(),
                                  std::back_inserter(differ));
    EXPECT_THAT(differ, testing::ElementsAre());
}

TEST(RemedyInventory, EachTestThatALineNamesIsThere)
{
    static const std::regex name(R"(\b[A-Z]\w+\.[A-Z]\w+)");
    const std::set<std::string> there = tests();
    EXPECT_GE(there.size(), 2000U);
    for (const line &one : inventory()) {
        size_t named = 0;
        for (std::sregex_iterator at(one.by.begin(), one.by.end(), name), end; at != end; ++at) {
            EXPECT_EQ(there.count(at->str()), 1U) << one.of.second << ": " << at->str();
            named++;
        }
        const bool excused =
            begins_with(one.by, "no remedy: ") || begins_with(one.by, "by people: ");
        EXPECT_TRUE(excused || named > 0) << one.of.second;
    }
}

// Some have their remedy on a page as well.
TEST(RemedyInventory, EachMessageThatIsItsOwnRemedyHasItsLine)
{
    const std::multiset<row> rows = rows_of({ALL_MESSAGES});
    std::set<row> lines;
    for (const line &one : inventory()) {
        if (one.of.first == ALL_MESSAGES) {
            EXPECT_TRUE(lines.insert(one.of).second) << "twice: " << one.of.second;
            EXPECT_GE(rows.count(one.of), 1U) << one.of.second;
        }
    }
    const std::multiset<row> own = rows_of({ALL_MESSAGES}, OWN_WORDS);
    EXPECT_GE(own.size(), 200U);
    for (const row &one : own)
        EXPECT_EQ(lines.count(one), 1U) << one.second;
}

// What docs/reliability.md counts, by how the third part begins.
TEST(RemedyInventory, NumbersAreThoseThatThePageGives)
{
    const std::pair<const char *, const char *> kinds[] = {
        {"no remedy: ", "that say that nothing is to be done"},
        {"by people: ", "whose remedy is the work of people"},
        {"message only: ", "of which a test has the message only"},
    };
    const std::string page = md_section(md_page("docs/reliability.md"), "Messages and remedies");
    const auto expect_row = [&page](const std::string &what, size_t number) {
        EXPECT_NE(page.find("| " + what + " | " + std::to_string(number) + " |"), std::string::npos)
            << what << ": " << number;
    };
    std::vector<line> rows = inventory();
    const auto middle = std::stable_partition(
        rows.begin(), rows.end(), [](const line &one) { return one.of.first != ALL_MESSAGES; });
    std::vector<line> themselves(middle, rows.end());
    rows.erase(middle, rows.end());
    expect_row("rows of the tables that say what to do", rows.size());
    expect_row("messages beside these whose own words are the remedy", themselves.size());
    for (const auto &[lines, of, with] :
         {std::tuple(&rows, "rows ", "rows with a remedy that a test carries out"),
          std::tuple(&themselves, "messages ", "messages whose own words a test carries out")}) {
        size_t done = lines->size();
        for (const auto &[beginning, what] : kinds) {
            const auto number = static_cast<size_t>(std::count_if(
                lines->begin(), lines->end(), [beginning = beginning](const line &one) {
                    return begins_with(one.by, beginning);
                }));
            expect_row(of + std::string(what), number);
            done -= number;
        }
        expect_row(with, done);
    }
}
