// docs/capture-record.md against the header's layout and the columns of text.
#include "capture/header.h"
#include "tests/ascii/ascii_fixture.h"
#include "tests/support/core_state.h"
#include "tests/support/markdown.h"

#include <gmock/gmock.h>
#include <sstream>

static const char PAGE[] = "docs/capture-record.md";

// An item as the page calls it, and its kind; the longer date counts for -yyyy.
static constexpr struct {
    const char *name;
    int32_t kind;
    int32_t long_kind;
} items[] = {
    {"sequence", HDRKIND_SEQUENCE, HDRKIND_SEQUENCE},
    {"database", HDRKIND_DBNAME, HDRKIND_DBFGA},
    {"dataset", HDRKIND_DSETNAME, HDRKIND_DSETNAME},
    {"date and time", HDRKIND_DATE2, HDRKIND_DATE4},
    {"operation", HDRKIND_OP, HDRKIND_OP},
    {"program", HDRKIND_PROG, HDRKIND_PROG},
    {"session", HDRKIND_SESSION, HDRKIND_SESSION},
    {"database user", HDRKIND_DBUSER, HDRKIND_DBUSER},
    {"process id", HDRKIND_PID, HDRKIND_PID},
    {"log record number", HDRKIND_RECNUM, HDRKIND_RECNUM},
};

// An item in the column "items at", which has shorter names for some.
static int32_t kind_of(const std::string &name)
{
    static constexpr struct {
        const char *shorter;
        const char *name;
    } names[] = {{"date", "date and time"},
                 {"user", "database user"},
                 {"pid", "process id"},
                 {"record number", "log record number"}};
    std::string whole = name;
    for (const auto &row : names)
        whole = name == row.shorter ? row.name : whole;
    for (const auto &item : items) {
        if (whole == item.name)
            return item.kind;
    }
    ADD_FAILURE() << name << " is no item";
    return HDRKIND_NONE;
}

class CaptureRecordPage : public core_state {};

TEST_F(CaptureRecordPage, ItemsAndWidthsAreTheHeaders)
{
    const md_table table = md_find_table(md_page(PAGE), "item");
    ASSERT_EQ(table.rows.size(), std::size(items));
    for (size_t i = 0; i < std::size(items); i++) {
        const int32_t width = cap_header_item_size(items[i].kind);
        const int32_t other = cap_header_item_size(items[i].long_kind);
        EXPECT_EQ(table.rows[i][0], items[i].name);
        EXPECT_EQ(table.rows[i][1], width == other
                                        ? std::to_string(width)
                                        : std::to_string(width) + " or " + std::to_string(other))
            << items[i].name;
    }
}

static uint32_t header_options(const std::string &words)
{
    static constexpr struct {
        const char *word;
        uint32_t bit;
    } options[] = {{"-exthdr", HDR_EXTHDR}, {"-yyyy", HDR_YYYY}, {"-recnum", HDR_RECNUM}};
    uint32_t bits = 0;
    for (const auto &option : options)
        bits |= words.find(option.word) != std::string::npos ? option.bit : 0;
    return bits;
}

// Where the header of a file has an item of that kind, of whichever date; -1: nowhere.
static int32_t offset_of(const capfil *cf, int32_t kind)
{
    for (hdritem *const *item = cf->hdritems; *item != nullptr; item++) {
        if ((*item)->kind == kind || (kind == HDRKIND_DATE2 && (*item)->kind == HDRKIND_DATE4))
            return (*item)->offset;
    }
    return -1;
}

TEST_F(CaptureRecordPage, SizesAndOffsetsAreTheHeaders)
{
    const md_table table = md_find_table(md_page(PAGE), "options");
    std::vector<uint32_t> seen;
    for (const std::vector<std::string> &row : table.rows) {
        capcfg cfg = {};
        cfg.hdropts = header_options(row[0]);
        seen.push_back(cfg.hdropts);
        const capfil *cf = add_file(row[0], cfg);
        EXPECT_EQ(row[1], std::to_string(cf->hdrsize)) << row[0];
        std::istringstream places(row[2]);
        for (std::string place; std::getline(places, place, ',');) {
            const size_t name = place.find_first_not_of(' ');
            const size_t digits = place.find_last_of(' ') + 1;
            const int32_t kind = kind_of(place.substr(name, digits - 1 - name));
            EXPECT_EQ(place.substr(digits), std::to_string(offset_of(cf, kind)))
                << row[0] << ": " << place;
        }
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

// Width of a column for an element of n bytes: "30", "2n", "n + 1" or "n".
static size_t width_of(const std::string &text, int32_t n)
{
    if (isdigit(static_cast<unsigned char>(text[0])) != 0 && text.find('n') == std::string::npos)
        return std::stoul(text);
    const size_t times = text[0] == 'n' ? 1 : std::stoul(text);
    const size_t plus = text.find("+ ");
    return times * static_cast<size_t>(n) +
           (plus == std::string::npos ? 0 : std::stoul(text.substr(plus + 2)));
}

// "2, 4" has 2 and 4; "n" stands for a size that no number has.
static std::vector<int32_t> sizes_of(const std::string &text)
{
    std::vector<int32_t> sizes;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');)
        sizes.push_back(word == "n" ? 7 : std::stoi(word));
    return sizes;
}

TEST_F(CaptureRecordPage, ColumnWidthsAreThoseOfTheText)
{
    const md_table table = md_find_table(md_page(PAGE), "type");
    std::string types;
    for (const std::vector<std::string> &row : table.rows) {
        const std::string letters = row[0] == "others" ? "X, U" : row[0];
        for (const char type : letters) {
            if (isupper(static_cast<unsigned char>(type)) == 0)
                continue;
            types += type;
            for (const int32_t size : sizes_of(row[1])) {
                record_buffer buffer(64);
                const conversion result = convert_into(buffer, ASCII_ON, {{type, size}},
                                                       std::string(static_cast<size_t>(size), '0'));
                EXPECT_EQ(result.rc, 0) << result.err;
                EXPECT_EQ(buffer.text().size(), width_of(row[2], size)) << type << size;
            }
        }
    }
    for (const char type : std::string("ERIJKPZXU"))
        EXPECT_THAT(types, testing::HasSubstr(std::string(1, type)));
}
