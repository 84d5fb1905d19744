// Binary numbers as text columns.
#include "ascii/ascii_num.h"

#include "ascii/ascii_flags.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <string>

using converter = void (*)(uint32_t, char *, int32_t, const unsigned char *);

// The column that a converter writes, with a guard on both sides.
static std::string column_of(converter put, uint32_t flags, size_t width, const std::string &bytes)
{
    std::string cell(width + 2, '#');
    put(flags, cell.data() + 1, static_cast<int32_t>(width),
        reinterpret_cast<const unsigned char *>(bytes.data()));
    EXPECT_EQ('#', cell.front());
    EXPECT_EQ('#', cell.back());
    return cell.substr(1, width);
}

template <typename T> static std::string bytes_of(T value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

static std::string blanks(size_t n)
{
    return std::string(n, ' ');
}

using namespace std::string_literals;

struct byte_case {
    const char *name;
    converter put;
    size_t width;
    uint32_t flags;
    std::string bytes; // lowest address first
    std::string expected;
};

constexpr uint32_t REV = ASCII_ON | ASCII_REVERSE;
constexpr uint32_t BWF = ASCII_ON | ASCII_BWFMT;

TEST(AsciiNum, BytesBecomeRightAlignedColumns)
{
    const byte_case cases[] = {
        // 16-bit signed
        {"i1 zero", put_ascii_i1, 14, ASCII_ON, "\x00\x00"s, "             0"},
        {"i1 one", put_ascii_i1, 14, ASCII_ON, "\x01\x00"s, "             1"},
        {"i1 256", put_ascii_i1, 14, ASCII_ON, "\x00\x01"s, "           256"},
        {"i1 -1", put_ascii_i1, 14, ASCII_ON, "\xff\xff"s, "            -1"},
        {"i1 -123", put_ascii_i1, 14, ASCII_ON, "\x85\xff"s, "          -123"},
        {"i1 most", put_ascii_i1, 14, ASCII_ON, "\xff\x7f"s, "         32767"},
        {"i1 least", put_ascii_i1, 14, ASCII_ON, "\x00\x80"s, "        -32768"},
        {"i1 reversed", put_ascii_i1, 14, REV, "\x80\x00"s, "        -32768"},
        {"i1 filled 0", put_ascii_i1, 14, BWF, "\x00\x00"s, "       0000000"},
        {"i1 filled -123", put_ascii_i1, 14, BWF, "\x85\xff"s, "      -0000123"},
        {"i1 filled least", put_ascii_i1, 14, BWF, "\x00\x80"s, "      -0032768"},
        {"i1 filled reversed", put_ascii_i1, 14, BWF | REV, "\x00\x01"s, "       0000001"},
        // 32-bit signed
        {"i2 zero", put_ascii_i2, 14, ASCII_ON, "\x00\x00\x00\x00"s, "             0"},
        {"i2 order", put_ascii_i2, 14, ASCII_ON, "\x04\x03\x02\x01"s, "      16909060"},
        {"i2 reversed", put_ascii_i2, 14, REV, "\x01\x02\x03\x04"s, "      16909060"},
        {"i2 most", put_ascii_i2, 14, ASCII_ON, "\xff\xff\xff\x7f"s, "    2147483647"},
        {"i2 least", put_ascii_i2, 14, ASCII_ON, "\x00\x00\x00\x80"s, "   -2147483648"},
        {"i2 filled -123", put_ascii_i2, 14, BWF, "\x85\xff\xff\xff"s, "      -0000123"},
        {"i2 filled 7 digits", put_ascii_i2, 14, BWF, "\x87\xd6\x12\x00"s, "       1234567"},
        {"i2 filled 8 digits", put_ascii_i2, 14, BWF, "\x4e\x61\xbc\x00"s, "      12345678"},
        {"i2 filled least", put_ascii_i2, 14, BWF, "\x00\x00\x00\x80"s, "   -2147483648"},
        // 64-bit signed
        {"i4 zero", put_ascii_i4, 30, ASCII_ON, "\0\0\0\0\0\0\0\0"s, blanks(29) + "0"},
        {"i4 most", put_ascii_i4, 30, ASCII_ON, "\xff\xff\xff\xff\xff\xff\xff\x7f"s,
         blanks(11) + "9223372036854775807"},
        {"i4 least", put_ascii_i4, 30, ASCII_ON, "\0\0\0\0\0\0\0\x80"s,
         blanks(10) + "-9223372036854775808"},
        {"i4 reversed", put_ascii_i4, 30, REV, "\x00\x00\x00\x00\x00\x00\x01\x00"s,
         blanks(27) + "256"},
        {"i4 never filled", put_ascii_i4, 30, BWF, "\x85\xff\xff\xff\xff\xff\xff\xff"s,
         blanks(26) + "-123"},
        // 16-bit unsigned
        {"k1 zero", put_ascii_k1, 15, ASCII_ON, "\x00\x00"s, "              0"},
        {"k1 most", put_ascii_k1, 15, ASCII_ON, "\xff\xff"s, "          65535"},
        {"k1 order", put_ascii_k1, 15, ASCII_ON, "\x00\x01"s, "            256"},
        {"k1 reversed", put_ascii_k1, 15, REV, "\x00\x01"s, "              1"},
        {"k1 filled 5", put_ascii_k1, 15, BWF, "\x05\x00"s, "       00000005"},
        {"k1 filled most", put_ascii_k1, 15, BWF, "\xff\xff"s, "       00065535"},
        // 32-bit unsigned
        {"k2 most", put_ascii_k2, 15, ASCII_ON, "\xff\xff\xff\xff"s, "     4294967295"},
        {"k2 no sign", put_ascii_k2, 15, ASCII_ON, "\x00\x00\x00\x80"s, "     2147483648"},
        {"k2 reversed", put_ascii_k2, 15, REV, "\x80\x00\x00\x00"s, "     2147483648"},
        {"k2 filled 5", put_ascii_k2, 15, BWF, "\x05\x00\x00\x00"s, "       00000005"},
        {"k2 filled most", put_ascii_k2, 15, BWF, "\xff\xff\xff\xff"s, "     4294967295"},
        // 64-bit unsigned
        {"k4 most", put_ascii_k4, 30, ASCII_ON, "\xff\xff\xff\xff\xff\xff\xff\xff"s,
         blanks(10) + "18446744073709551615"},
        {"k4 reversed", put_ascii_k4, 30, REV, "\0\0\0\0\0\0\0\x07"s, blanks(29) + "7"},
        {"k4 never filled", put_ascii_k4, 30, BWF, "\x05\0\0\0\0\0\0\0"s, blanks(29) + "5"},
        // single: sign, 8 bits of exponent over 127, 23 of fraction
        {"e2 1.5", put_ascii_e2, 15, ASCII_ON, "\x00\x00\xc0\x3f"s, "            1.5"},
        {"e2 -123.25", put_ascii_e2, 15, ASCII_ON, "\x00\x80\xf6\xc2"s, "        -123.25"},
        {"e2 reversed", put_ascii_e2, 15, REV, "\xc2\xf6\x80\x00"s, "        -123.25"},
        {"e2 2^24", put_ascii_e2, 15, ASCII_ON, "\x00\x00\x80\x4b"s, "   1.677722E+07"},
        {"e2 least normal", put_ascii_e2, 15, ASCII_ON, "\x00\x00\x80\x80"s, "  -1.175494E-38"},
        {"e2 infinity", put_ascii_e2, 15, ASCII_ON, "\x00\x00\x80\x7f"s, "            INF"},
        {"e2 not filled", put_ascii_e2, 15, BWF, "\x00\x00\xc0\x3f"s, "            1.5"},
        // double: sign, 11 bits of exponent over 1023, 52 of fraction
        {"e4 1.5", put_ascii_e4, 25, ASCII_ON, "\0\0\0\0\0\0\xf8\x3f"s, blanks(22) + "1.5"},
        {"e4 1/3", put_ascii_e4, 25, ASCII_ON, "\x55\x55\x55\x55\x55\x55\xd5\x3f"s,
         blanks(11) + "0.333333333333"},
        {"e4 reversed", put_ascii_e4, 25, REV, "\x3f\xf8\0\0\0\0\0\0"s, blanks(22) + "1.5"},
    };
    for (const byte_case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.expected, column_of(c.put, c.flags, c.width, c.bytes));
    }
}

TEST(AsciiNum, SingleHasSevenSignificantDigits)
{
    const struct {
        float value;
        const char *expected;
    } cases[] = {
        {0.0F, "              0"},
        {-0.0F, "             -0"},
        {0.1F, "            0.1"},
        {123456.789F, "       123456.8"},
        {1e10F, "          1E+10"},
        {0.0001F, "         0.0001"},
        {0.00001F, "          1E-05"},
        {9999999.0F, "        9999999"},
        {std::numeric_limits<float>::max(), "   3.402823E+38"},
        {-std::numeric_limits<float>::infinity(), "           -INF"},
        {std::numeric_limits<float>::quiet_NaN(), "            NAN"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(c.expected, column_of(put_ascii_e2, ASCII_ON, 15, bytes_of(c.value)));
    }
}

TEST(AsciiNum, DoubleHasTwelveSignificantDigits)
{
    const struct {
        double value;
        std::string expected;
    } cases[] = {
        {0.0, blanks(24) + "0"},
        {0.1, blanks(22) + "0.1"},
        {-1e100, blanks(18) + "-1E+100"},
        {123456789012345.0, blanks(8) + "1.23456789012E+14"},
        {123456789012.0, blanks(13) + "123456789012"},
        {-1.23456789012345e-200, blanks(6) + "-1.23456789012E-200"},
        {std::numeric_limits<double>::infinity(), blanks(22) + "INF"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        std::string expected = c.expected;
        EXPECT_EQ(expected, column_of(put_ascii_e4, ASCII_ON, 25, bytes_of(c.value)));
    }
}
