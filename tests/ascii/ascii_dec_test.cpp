// Packed and zoned decimal numbers as text columns.
#include "ascii/ascii_dec.h"

#include "ascii/ascii_flags.h"

#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;

constexpr uint32_t DIRTY = ASCII_ON | ASCII_DIRTY;
constexpr uint32_t BWF = ASCII_ON | ASCII_BWFMT;

using converter = void (*)(uint32_t, char *, int64_t, const unsigned char *, int32_t);

// The column that a converter writes, with a guard on both sides.
static std::string column_of(converter put, uint32_t flags, size_t width, const std::string &bytes)
{
    std::string cell(width + 2, '#');
    put(flags, cell.data() + 1, static_cast<int64_t>(width),
        reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int32_t>(bytes.size()));
    EXPECT_EQ('#', cell.front());
    EXPECT_EQ('#', cell.back());
    return cell.substr(1, width);
}

struct dec_case {
    const char *name;
    uint32_t flags;
    std::string bytes;
    std::string expected;
};

TEST(AsciiDec, PackedShowsSignAndAllDigits)
{
    const dec_case cases[] = {
        {"minus", ASCII_ON, "\x12\x3d"s, "-123"},
        {"plus", ASCII_ON, "\x12\x3c"s, "+123"},
        {"unsigned", ASCII_ON, "\x12\x3f"s, " 123"},
        {"leading zeros", ASCII_ON, "\x00\x5c"s, "+005"},
        {"negative zero", ASCII_ON, "\x00\x0d"s, "-000"},
        {"one byte", ASCII_ON, "\x7d"s, "-7"},
        {"three bytes", ASCII_ON, "\x98\x76\x5c"s, "+98765"},
        {"byte order does not count", ASCII_ON | ASCII_REVERSE, "\x12\x3d"s, "-123"},
    };
    for (const dec_case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.expected, column_of(put_ascii_p, c.flags, 2 * c.bytes.size(), c.bytes));
    }
}

TEST(AsciiDec, PackedWithoutLeadingZeros)
{
    const dec_case cases[] = {
        {"nothing to strip", BWF, "\x12\x3d"s, "-123"},
        {"plus goes", BWF, "\x12\x3c"s, " 123"},
        {"one digit", BWF, "\x00\x5c"s, "   5"},
        {"minus moves", BWF, "\x00\x7d"s, "  -7"},
        {"inner zeros stay", BWF, "\x01\x00\x2d"s, " -1002"},
        {"zero", BWF, "\x00\x0c"s, "   0"},
        {"negative zero has no sign", BWF, "\x00\x0d"s, "   0"},
        {"narrow minus", BWF, "\x5d"s, "-5"},
        {"narrow negative zero", BWF, "\x0d"s, " 0"},
        {"narrow plus", BWF, "\x5c"s, " 5"},
    };
    for (const dec_case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.expected, column_of(put_ascii_p, c.flags, 2 * c.bytes.size(), c.bytes));
    }
}

TEST(AsciiDec, InvalidPackedShowsItsBytes)
{
    const dec_case cases[] = {
        {"sign a", ASCII_ON, "\x12\x3a"s, "* ~:"},
        {"sign b", ASCII_ON, "\x31\x3b"s, "* 1;"},
        {"sign e", ASCII_ON, "\x31\x3e"s, "* 1>"},
        {"sign 3", ASCII_ON, "ABC"s, "*  ABC"},
        {"digit in first byte", ASCII_ON, "\x1a\x3c"s, "* ~<"},
        {"first digit", ASCII_ON, "\xa1\x3c"s, "* ~<"},
        {"last digit", ASCII_ON, "\x12\xac"s, "* ~~"},
        {"one byte", ASCII_ON, "^"s, "*^"},
        {"dirty", DIRTY, "\x12\x3a"s, "* \x12:"},
        {"dirty high byte", DIRTY, "\x12\xac"s, "* \x12\xac"},
        {"nothing stripped", BWF, "00"s, "* 00"},
    };
    for (const dec_case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.expected, column_of(put_ascii_p, c.flags, 2 * c.bytes.size(), c.bytes));
    }
}

TEST(AsciiDec, ZonedLastByteHoldsDigitAndSign)
{
    const std::string plus = "{ABCDEFGHI";
    const std::string minus = "}JKLMNOPQR";
    for (size_t digit = 0; digit < 10; digit++) {
        const std::string text = std::to_string(digit);
        EXPECT_EQ("+12" + text, column_of(put_ascii_z, ASCII_ON, 4, "12" + plus.substr(digit, 1)));
        EXPECT_EQ("-12" + text, column_of(put_ascii_z, ASCII_ON, 4, "12" + minus.substr(digit, 1)));
        EXPECT_EQ(" 12" + text, column_of(put_ascii_z, ASCII_ON, 4, "12" + text));
    }
}

TEST(AsciiDec, ZonedTable)
{
    const dec_case cases[] = {
        {"minus", ASCII_ON, "12J", "-121"},
        {"one byte", ASCII_ON, "5", " 5"},
        {"one byte minus zero", ASCII_ON, "}", "-0"},
        {"leading zeros", ASCII_ON, "00{", "+000"},
        {"stripped zero", BWF, "00{", "   0"},
        {"stripped minus", BWF, "00J", "  -1"},
        {"stripped unsigned", BWF, "0120", "  120"},
        {"stripped negative zero", BWF, "00}", "   0"},
        {"narrow minus", BWF, "N", "-5"},
        {"narrow negative zero", BWF, "}", " 0"},
        {"nothing to strip", BWF, "12J", "-121"},
        {"blank inside", ASCII_ON, "1 2", "*1 2"},
        {"sign letter inside", ASCII_ON, "A12", "*A12"},
        {"sign brace inside", ASCII_ON, "1{2", "*1{2"},
        {"letter past R", ASCII_ON, "12S", "*12S"},
        {"at sign", ASCII_ON, "12@", "*12@"},
        {"colon", ASCII_ON, "12:", "*12:"},
        {"slash first", ASCII_ON, "/12", "*/12"},
        {"control byte", ASCII_ON, "12\x01", "*12~"},
        {"control byte dirty", DIRTY, "12\x01", "*12\x01"},
        {"high byte", ASCII_ON,
         "\xb1"
         "12",
         "*~12"},
        {"invalid is not stripped", BWF, "00S", "*00S"},
    };
    for (const dec_case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.expected, column_of(put_ascii_z, c.flags, c.bytes.size() + 1, c.bytes));
    }
}

TEST(AsciiDec, StripLeadingZeros)
{
    const struct {
        std::string column;
        std::string expected;
    } cases[] = {
        {"+005", "   5"}, {"-005", "  -5"}, {" 005", "   5"}, {"-000", "   0"}, {"+000", "   0"},
        {"-123", "-123"}, {"+123", " 123"}, {"-010", " -10"}, {"-0", " 0"},     {"-5", "-5"},
        {"+0", " 0"},     {"-00", "  0"},   {"-01", " -1"},   {"-100", "-100"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.column);
        std::string column = c.column;
        strip_leading_zeros_pz(column.data(), static_cast<int64_t>(column.size()));
        EXPECT_EQ(c.expected, column);
    }
}
