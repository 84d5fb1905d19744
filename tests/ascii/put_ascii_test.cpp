// The walk over a record image's items.
#include "ascii/put_ascii.h"

#include "tests/ascii/ascii_fixture.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static const char too_small[] = "ASCII mode source buffer too small.\n";
static const char too_large[] = "ASCII mode source buffer too large.\n";

struct walk_case {
    const char *name;
    uint32_t flags;
    std::vector<item> items;
    std::string image;
    std::string expected; // behind the header "HD"
    std::string err;
};

static void check(const walk_case &c)
{
    SCOPED_TRACE(c.name);
    record_buffer buffer(64, "HD");
    const conversion result = convert_into(buffer, c.flags, c.items, c.image);
    EXPECT_EQ("HD" + c.expected, buffer.text());
    EXPECT_EQ(c.err, result.err);
    EXPECT_EQ(c.err.empty() ? 0 : -1, result.rc);
}

TEST(PutAscii, ColumnsFollowEachOther)
{
    const std::string b9(9, ' ');
    const walk_case cases[] = {
        {"nothing", ASCII_ON, {}, "", "", ""},
        {"three elements",
         ASCII_ON,
         {{'I', 4, 3}},
         "\x01\0\0\0\x02\0\0\0\xff\xff\xff\xff"s,
         "             1             2            -1",
         ""},
        {"text", ASCII_ON, {{'X', 3}, {'U', 2, 2}}, "abcDEFG", "abcDEFG", ""},
        {"text without bytes", ASCII_ON, {{'X', 0}, {'U', 2}}, "DE", "DE", ""},
        {"no elements", ASCII_ON, {{'I', 2, 0}, {'X', 2}}, "AB", "AB", ""},
        {"mixed",
         ASCII_ON,
         {{'X', 2}, {'K', 2}, {'P', 2}, {'Z', 2}},
         "AB\x05\0\x12\x3d"
         "1J"s,
         "AB              5-123-11",
         ""},
        {"mixed bwfmt",
         ASCII_ON | ASCII_BWFMT,
         {{'J', 2}, {'P', 2}},
         "\x05\0\x00\x7c"s,
         "       0000005   7",
         ""},
        {"reversed numbers, text as it is",
         ASCII_ON | ASCII_REVERSE,
         {{'K', 2}, {'X', 2}},
         "\x00\x01xy"s,
         "              1xy",
         ""},
    };
    for (const walk_case &c : cases)
        check(c);
}

TEST(PutAscii, LetterAndSizeChooseTheColumn)
{
    const struct {
        char type;
        int32_t size;
        size_t width;
    } columns[] = {
        {'E', 4, 15}, {'R', 4, 15}, {'E', 8, 25}, {'R', 8, 25}, {'I', 2, 14},
        {'J', 2, 14}, {'I', 4, 14}, {'J', 4, 14}, {'I', 8, 30}, {'J', 8, 30},
        {'K', 2, 15}, {'K', 4, 15}, {'K', 8, 30},
    };
    for (const auto &c : columns) {
        SCOPED_TRACE(std::string(1, c.type) + std::to_string(c.size));
        record_buffer buffer(64);
        const conversion result = convert_into(buffer, ASCII_ON, {{c.type, c.size}},
                                               std::string(static_cast<size_t>(c.size), '\0'));
        EXPECT_EQ(std::string(c.width - 1, ' ') + "0", buffer.text());
        EXPECT_EQ(0, result.rc);
    }
    for (const int32_t size : {1, 2, 5, 15}) {
        record_buffer packed(64);
        const std::string zeros(static_cast<size_t>(size - 1), '\0');
        convert_into(packed, ASCII_ON, {{'P', size}}, zeros + "\x1c");
        EXPECT_EQ("+" + std::string(static_cast<size_t>(2 * size - 2), '0') + "1", packed.text());
        record_buffer zoned(64);
        convert_into(zoned, ASCII_ON, {{'Z', size}},
                     std::string(static_cast<size_t>(size - 1), '0') + "1");
        EXPECT_EQ(" " + std::string(static_cast<size_t>(size - 1), '0') + "1", zoned.text());
    }
}

TEST(PutAscii, OtherLettersAreText)
{
    for (const char type : {'U', 'X', 'A', 'i', 'j', 'k', 'e', 'r', 'p', 'z', '?', ' '}) {
        SCOPED_TRACE(type);
        record_buffer buffer(64);
        EXPECT_EQ(0, convert_into(buffer, ASCII_ON, {{type, 4}}, "12AB").rc);
        EXPECT_EQ("12AB", buffer.text());
    }
}

TEST(PutAscii, TextIsCleanedUnlessDirty)
{
    const std::string image = "\x00\x1f\x20\x7e\x7f\x80\xff\t"s;
    record_buffer clean(64);
    convert_into(clean, ASCII_ON, {{'X', 8}}, image);
    EXPECT_EQ("~~ ~~~~~", clean.text());
    record_buffer dirty(64);
    convert_into(dirty, ASCII_ON | ASCII_DIRTY, {{'X', 8}}, image);
    EXPECT_EQ(image, dirty.text());
}

TEST(PutAscii, ImageShorterThanTheLayout)
{
    const walk_case cases[] = {
        {"first item", ASCII_ON, {{'I', 4}}, "\x01\0\0"s, "", too_small},
        {"empty image", ASCII_ON, {{'X', 1}}, "", "", too_small},
        {"later item: text so far stays", ASCII_ON, {{'X', 2}, {'X', 2}}, "ABC", "AB", too_small},
        {"looked at for items without elements", ASCII_ON, {{'X', 8, 0}}, "ABC", "", too_small},
        // Looked at once for an item: the second and third element are past the
        // image, whose missing bytes read as zero, and more bytes were consumed
        // than the image has.
        {"only the first element fits",
         ASCII_ON,
         {{'I', 2, 3}},
         "\x07\0"s,
         "             7             0             0",
         too_large},
        {"half an element",
         ASCII_ON,
         {{'K', 4, 2}},
         "\x01\0\0\0\x02\x01"s,
         "              1            258",
         too_large},
        {"half a text", ASCII_ON, {{'X', 3, 2}}, "ABCD", "ABCD~~", too_large},
        {"item behind it", ASCII_ON, {{'X', 1, 3}, {'X', 1}}, "A", "A~~", too_small},
    };
    for (const walk_case &c : cases)
        check(c);
}

TEST(PutAscii, ImageLongerThanTheLayout)
{
    const walk_case cases[] = {
        {"no items", ASCII_ON, {}, "A", "", too_large},
        {"all columns are written",
         ASCII_ON,
         {{'X', 2}, {'K', 2}},
         "AB\x01\0C"s,
         "AB              1",
         too_large},
    };
    for (const walk_case &c : cases)
        check(c);
}

TEST(PutAscii, UnsupportedSizes)
{
    const struct {
        item what;
        const char *err;
    } cases[] = {
        {{'I', 3}, "ASCII unsupported data type: I size 3\n"},
        {{'I', 1}, "ASCII unsupported data type: I size 1\n"},
        {{'J', 16}, "ASCII unsupported data type: J size 16\n"},
        {{'J', 0}, "ASCII unsupported data type: J size 0\n"},
        {{'K', 1}, "ASCII unsupported data type: K size 1\n"},
        {{'E', 2}, "ASCII unsupported data type: E size 2\n"},
        {{'R', 10}, "ASCII unsupported data type: R size 10\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.err);
        record_buffer buffer(64, "HD");
        const conversion result = convert_into(buffer, ASCII_ON, {c.what},
                                               std::string(static_cast<size_t>(c.what.size), '\1'));
        EXPECT_EQ(-1, result.rc);
        EXPECT_EQ(c.err, result.err);
        EXPECT_EQ("HD", buffer.text()) << "the first element advances by nothing";
    }
}

TEST(PutAscii, UnsupportedElementTakesTheWidthBeforeIt)
{
    record_buffer buffer(64, "HD");
    const conversion result =
        convert_into(buffer, ASCII_ON, {{'X', 5}, {'I', 3, 2}, {'X', 1}}, "abcdeIIIiiiZ");
    EXPECT_EQ(-1, result.rc);
    EXPECT_EQ("ASCII unsupported data type: I size 3\nASCII unsupported data type: I size 3\n",
              result.err);
    EXPECT_EQ("HDabcde          ", buffer.text())
        << "its place stays blank, the item behind is not met";
}

TEST(PutAscii, ItemsOfNoSizeHaveNoDigits)
{
    record_buffer buffer(64, "HD");
    const conversion result = convert_into(
        buffer, ASCII_ON,
        {{'X', 3}, {'P', 0}, {'P', 0, 3}, {'X', 0}, {'X', 0, 2}, {'Z', 0}, {'X', 2}}, "abcde");
    EXPECT_EQ("", result.err);
    EXPECT_EQ(0, result.rc);
    EXPECT_EQ("HDabc*de", buffer.text()) << "a sign's column without a number";
}

TEST(PutAscii, ColumnsThatNoBufferCanHoldAreRefused)
{
    record_buffer buffer(64, "HD");
    const conversion result =
        convert_into(buffer, ASCII_ON, {{'X', 1}, {'X', 1, 2147483647}}, "ab");
    EXPECT_EQ("ASCII mode record too long.\n", result.err);
    EXPECT_EQ(-1, result.rc);
    EXPECT_EQ(64, buffer.bufsize);
}

TEST(PutAscii, SecondImageGoesBehindTheFirst)
{
    record_buffer buffer(64, "HD");
    convert_into(buffer, ASCII_ON, {{'X', 3}}, "old");
    convert_into(buffer, ASCII_ON, {{'X', 3}}, "new");
    EXPECT_EQ("HDoldnew", buffer.text());
}

TEST(PutAscii, BufferGrowsToTheColumnsEnd)
{
    record_buffer buffer(10, "HD");
    convert_into(buffer, ASCII_ON, {{'X', 8}}, "12345678");
    EXPECT_EQ(10, buffer.bufsize) << "it fits exactly";
    convert_into(buffer, ASCII_ON, {{'K', 2}, {'X', 1}}, "\x01\0Z"s);
    EXPECT_EQ(10 + 15 + 1, buffer.bufsize);
    EXPECT_EQ("HD12345678              1Z", buffer.text());
    // The two bytes for the line end are there.
    buffer.bytes[buffer.bufsize] = '\n';
    buffer.bytes[buffer.bufsize + 1] = '\0';
    buffer.length = 0;
    convert_into(buffer, ASCII_ON, {{'X', 1}}, "a");
    EXPECT_EQ(26, buffer.bufsize) << "it never shrinks";
}

TEST(PutAscii, CheckBufRefusesWhatNoBufferCanHold)
{
    record_buffer buffer(10);
    int rc = 0;
    const captured printed =
        capture([&] { rc = check_buf(&buffer.bytes, 8, &buffer.bufsize, 0x7FFFFFFF); });
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("ASCII mode record too long.\n", printed.err);
    EXPECT_EQ(10, buffer.bufsize);
}

TEST(PutAscii, NegativeSizesAndCountsOfABrokenLayoutAreHarmless)
{
    record_buffer buffer(64, "HD");
    EXPECT_EQ(-1, convert_into(buffer, ASCII_ON, {{'X', -5}}, "abc").rc);
    EXPECT_EQ(0, convert_into(buffer, ASCII_ON, {{'X', 1, -5}, {'X', 3}}, "abc").rc);
}
