// Pictures of all types, and that each has the size of what it describes.
#include "tools/fwlog/record_picture.h"

#include "ascii/ascii_width.h"

#include <gtest/gtest.h>

struct picture_case {
    char type;
    int32_t size;
    int32_t scale;
    std::string text, bwfmt, little, big; // picture and usage with a blank between them
};

static const picture_case cases[] = {
    {'I', 2, 0, "-(13)9", "-(7)9(7)", "S9(4) COMP-5", "S9(4) COMP"},
    {'J', 4, 0, "-(13)9", "-(7)9(7)", "S9(9) COMP-5", "S9(9) COMP"},
    {'I', 8, 0, "-(29)9", "-(29)9", "S9(18) COMP-5", "S9(18) COMP"},
    {'K', 2, 0, "Z(14)9", "Z(7)9(8)", "9(4) COMP-5", "9(4) COMP"},
    {'K', 4, 0, "Z(14)9", "Z(7)9(8)", "9(9) COMP-5", "9(9) COMP"},
    {'K', 8, 0, "Z(29)9", "Z(29)9", "9(18) COMP-5", "9(18) COMP"},
    {'P', 1, 0, "S9 SIGN IS LEADING SEPARATE", "-9", "S9 COMP-3", "S9 COMP-3"},
    {'P', 1, 1, "SV9 SIGN IS LEADING SEPARATE", "-V9", "SV9 COMP-3", "SV9 COMP-3"},
    {'P', 3, 2, "S9(3)V9(2) SIGN IS LEADING SEPARATE", "-(3)9V9(2)", "S9(3)V9(2) COMP-3",
     "S9(3)V9(2) COMP-3"},
    {'P', 14, 26, "S9V9(26) SIGN IS LEADING SEPARATE", "-9V9(26)", "S9V9(26) COMP-3",
     "S9V9(26) COMP-3"},
    {'P', 2, 4, "X(4)", "X(4)", "X(2)", "X(2)"},
    {'P', 2, -1, "X(4)", "X(4)", "X(2)", "X(2)"},
    {'Z', 1, 0, "S9 SIGN IS LEADING SEPARATE", "-9", "S9", "S9"},
    {'Z', 28, 28, "SV9(28) SIGN IS LEADING SEPARATE", "-V9(28)", "SV9(28)", "SV9(28)"},
    {'Z', 4, 1, "S9(3)V9 SIGN IS LEADING SEPARATE", "-(3)9V9", "S9(3)V9", "S9(3)V9"},
    {'E', 4, 0, "X(15)", "X(15)", "COMP-1", "X(4)"},
    {'R', 8, 0, "X(25)", "X(25)", "COMP-2", "X(8)"},
    {'X', 1, 0, "X", "X", "X", "X"},
    {'U', 32767, 0, "X(32767)", "X(32767)", "X(32767)", "X(32767)"},
    {'Q', 3, 0, "X(3)", "X(3)", "X(3)", "X(3)"},
};

static std::string joined(const record_picture &of)
{
    return of.picture + (of.picture.empty() || of.usage.empty() ? "" : " ") + of.usage;
}

// Characters of a picture of text, the sign's own one included: V has none.
static int64_t size_of(const record_picture &of)
{
    int64_t size = 0;
    for (size_t at = 0; at < of.picture.size(); at++) {
        const char symbol = of.picture[at];
        int64_t n = 1;
        if (at + 1 < of.picture.size() && of.picture[at + 1] == '(') {
            n = std::stoll(of.picture.substr(at + 2));
            at = of.picture.find(')', at);
        }
        size += symbol == 'V' ? 0 : n;
    }
    return size;
}

TEST(RecordPicture, EveryTypeHasItsOwn)
{
    for (const picture_case &row : cases) {
        const fwu_item item{
            .name = "A", .type = row.type, .size = row.size, .count = 1, .item_aux = row.scale};
        const int64_t width = ascii_column_width(static_cast<uint32_t>(row.type), row.size);
        SCOPED_TRACE(row.type + std::to_string(row.size) + " scale " + std::to_string(row.scale));
        EXPECT_EQ(joined(record_picture_text(item, width, false)), row.text);
        EXPECT_EQ(joined(record_picture_text(item, width, true)), row.bwfmt);
        EXPECT_EQ(joined(record_picture_raw(item, false)), row.little);
        EXPECT_EQ(joined(record_picture_raw(item, true)), row.big);
        EXPECT_EQ(size_of(record_picture_text(item, width, false)), width);
        EXPECT_EQ(size_of(record_picture_text(item, width, true)), width);
    }
}

TEST(RecordPicture, NumbersOfOtherSizesAreTheirBytes)
{
    for (const char type : {'I', 'J', 'K', 'E', 'R', 'P', 'Z', 'X'}) {
        const int32_t size = type == 'X' ? 40000 : type == 'E' ? 2 : 29;
        const fwu_item item{.name = "A", .type = type, .size = size};
        EXPECT_EQ(joined(record_picture_raw(item, false)), "X(" + std::to_string(size) + ")");
    }
}
