// Elements of every type as numbers, texts and bytes.
#include "changes/value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

static const char *const KINDS[] = {"number", "special", "text", "utf8", "bytes"};

static std::string shown(const fwu_item &item, std::string_view bytes, bool big_endian = false,
                         fwu_encoding encoding = FWU_LATIN1)
{
    std::string_view text;
    std::string work = "left over from before";
    const change_value kind =
        change_value_get(text, work, item, big_endian, encoding,
                         reinterpret_cast<const unsigned char *>(bytes.data()));
    return std::string(KINDS[kind]) + " " + std::string(text);
}

struct value_row {
    char type;
    int32_t scale;
    std::string bytes;
    const char *shown;
};

static void expect_rows(std::initializer_list<value_row> rows)
{
    for (const value_row &row : rows) {
        const fwu_item item{"A", row.type, static_cast<int32_t>(row.bytes.size()), 1, row.scale};
        EXPECT_EQ(shown(item, row.bytes), row.shown) << row.type << row.bytes.size();
        std::string turned(row.bytes.rbegin(), row.bytes.rend());
        const bool binary = std::string_view("IJKER").find(row.type) != std::string_view::npos;
        if (binary && std::string_view(row.shown).substr(0, 5) != "bytes") {
            EXPECT_EQ(shown(item, turned, true), row.shown) << "big-endian";
        }
    }
}

static std::string bytes(std::initializer_list<int> list)
{
    std::string out;
    for (const int byte : list)
        out.push_back(static_cast<char>(byte));
    return out;
}

TEST(ChangeValue, IntegersHaveAllTheirDigits)
{
    expect_rows({
        {'I', 0, bytes({0, 0}), "number 0"},
        {'I', 0, bytes({0xFF, 0x7F}), "number 32767"},
        {'J', 0, bytes({0, 0x80}), "number -32768"},
        {'K', 0, bytes({0, 0x80}), "number 32768"},
        {'I', 0, bytes({0xFF, 0xFF, 0xFF, 0xFF}), "number -1"},
        {'I', 0, bytes({0, 0, 0, 0x80}), "number -2147483648"},
        {'K', 0, bytes({0xFF, 0xFF, 0xFF, 0xFF}), "number 4294967295"},
        {'I', 0, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}),
         "number 9223372036854775807"},
        {'J', 0, bytes({0, 0, 0, 0, 0, 0, 0, 0x80}), "number -9223372036854775808"},
        {'K', 0, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
         "number 18446744073709551615"},
    });
}

TEST(ChangeValue, FloatingPointHasTheFewestDigitsThatLeadBack)
{
    expect_rows({
        {'E', 0, bytes({0, 0, 0, 0}), "number 0"},
        {'E', 0, bytes({0, 0, 0, 0x80}), "number -0"},
        {'R', 0, bytes({0xCD, 0xCC, 0xCC, 0x3D}), "number 0.1"},
        {'E', 0, bytes({0x9A, 0x99, 0x99, 0x99, 0x99, 0x99, 0xB9, 0x3F}), "number 0.1"},
        {'E', 0, bytes({0xFF, 0xFF, 0x7F, 0x7F}), "number 3.4028235e+38"},
        {'E', 0, bytes({1, 0, 0, 0}), "number 1e-45"},
        {'R', 0, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xEF, 0xFF}),
         "number -1.7976931348623157e+308"},
        {'E', 0, bytes({1, 0, 0, 0, 0, 0, 0, 0}), "number 5e-324"},
        {'E', 0, bytes({0, 0, 0xC0, 0x7F}), "special NaN"},
        {'E', 0, bytes({0, 0, 0xC0, 0xFF}), "special NaN"},
        {'E', 0, bytes({0, 0, 0x80, 0x7F}), "special Infinity"},
        {'R', 0, bytes({0, 0, 0, 0, 0, 0, 0xF0, 0xFF}), "special -Infinity"},
        {'R', 0, bytes({1, 0, 0, 0, 0, 0, 0xF8, 0x7F}), "special NaN"},
    });
}

TEST(ChangeValue, DecimalsKeepTheirScale)
{
    expect_rows({
        {'P', 0, bytes({0x0C}), "number 0"},
        {'P', 1, bytes({0x5D}), "number -0.5"},
        {'P', 0, bytes({0x12, 0x3F}), "number 123"},
        {'P', 2, bytes({0, 0, 0, 0, 0x0C}), "number 0.00"},
        {'P', 2, bytes({0, 0, 0, 0, 0x0D}), "number -0.00"},
        {'P', 2, bytes({0, 0, 0, 0x12, 0x5C}), "number 1.25"},
        {'P', 3, bytes({0x12, 0x3C}), "number 0.123"},
        {'P', 27,
         bytes(
             {0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9D}),
         "number -0.999999999999999999999999999"},
        {'Z', 0, "00012", "number 12"},
        {'Z', 2, "0001B", "number 0.12"},
        {'Z', 2, "1234}", "number -123.40"},
        {'Z', 1, "R", "number -0.9"},
        {'Z', 0, "{", "number 0"},
        {'Z', 0, "A", "number 1"},
        {'Z', 0, "J", "number -1"},
    });
}

TEST(ChangeValue, WhatIsNoNumberStaysBytes)
{
    expect_rows({
        {'P', 0, bytes({0xA0, 0x0C}), "bytes \xA0\x0C"},
        {'P', 0, bytes({0x12, 0x3A}), "bytes \x12:"},
        {'P', 4, bytes({0x12, 0x3C}), "bytes \x12<"}, // more places than digits
        {'P', -1, bytes({0x12, 0x3C}), "bytes \x12<"},
        {'Z', 0, "12 ", "bytes 12 "},
        {'Z', 0, "1A2", "bytes 1A2"},
        {'Z', 4, "123", "bytes 123"},
        {'I', 0, "abc", "bytes abc"},
        {'E', 0, "ab", "bytes ab"},
        {'Q', 0, "ab", "bytes ab"},
    });
    EXPECT_EQ(shown({"A", 'Z', 1, 1, 0}, std::string_view("\0", 1)), std::string("bytes ") + '\0');
}

TEST(ChangeValue, TextsEndBeforeTheirFilling)
{
    expect_rows({
        {'X', 0, "ab  ", "text ab"},
        {'X', 0, "    ", "text "},
        {'U', 0, " ab ", "text  ab"},
        {'X', 0, "a\n\xE9", "text a\n\xE9"},
    });
    EXPECT_EQ(shown({"A", 'X', 3, 1, 0}, std::string_view("a\0 ", 3)),
              std::string("text a") + '\0');
}

TEST(ChangeValue, EveryByteBecomesItsCharacter)
{
    std::string latin1;
    std::u32string expected;
    for (int byte = 0; byte < 256; byte++) {
        latin1.push_back(static_cast<char>(byte));
        expected.push_back(static_cast<char32_t>(byte));
    }
    std::string out = "kept";
    change_put_utf8(out, latin1);
    ASSERT_EQ(out.substr(0, 4), "kept");
    std::u32string decoded;
    for (size_t i = 4; i < out.size(); i++) {
        const auto byte = static_cast<unsigned char>(out[i]);
        if (byte < 0x80) {
            decoded.push_back(byte);
        } else {
            ASSERT_TRUE(byte == 0xC2 || byte == 0xC3) << "two bytes, none overlong";
            const auto next = static_cast<unsigned char>(out[++i]);
            ASSERT_EQ(next & 0xC0, 0x80);
            decoded.push_back(static_cast<char32_t>((byte & 0x1F) << 6 | (next & 0x3F)));
        }
    }
    EXPECT_EQ(decoded, expected);
}

// The number of a packed item, half byte by half byte; empty: it is none.
static std::string naive_packed(std::string_view in, int scale)
{
    std::string halves;
    for (const char c : in) {
        halves += "0123456789ABCDEF"[static_cast<unsigned char>(c) >> 4];
        halves += "0123456789ABCDEF"[static_cast<unsigned char>(c) & 15];
    }
    const char sign = halves.back();
    halves.pop_back();
    if (halves.find_first_not_of("0123456789") != std::string::npos ||
        std::string("CDF").find(sign) == std::string::npos)
        return "";
    std::string fraction = halves.substr(halves.size() - static_cast<size_t>(scale));
    std::string whole = halves.substr(0, halves.size() - static_cast<size_t>(scale));
    while (whole.size() > 1 && whole[0] == '0')
        whole.erase(0, 1);
    if (whole.empty())
        whole = "0";
    return (sign == 'D' ? "-" : "") + whole + (scale > 0 ? "." + fraction : "");
}

TEST(ChangeValue, PackedNumbersAreThoseOfANaiveReader)
{
    std::mt19937 random(20261122);
    for (int round = 0; round < 20000; round++) {
        const size_t size = 1 + random() % 14;
        const int scale = static_cast<int>(random() % (2 * size));
        std::string in;
        for (size_t i = 0; i < size; i++)
            in.push_back(static_cast<char>((random() % 10) << 4 | random() % 10));
        in.back() = static_cast<char>((in.back() & 0xF0) | (10 + random() % 6));
        if (random() % 8 == 0)
            in[random() % size] = static_cast<char>(random() & 0xFF);
        const std::string number = naive_packed(in, scale);
        EXPECT_EQ(shown({"A", 'P', static_cast<int32_t>(size), 1, scale}, in),
                  number.empty() ? "bytes " + in : "number " + number)
            << "round " << round;
    }
}

TEST(ChangeValue, TextsOfAUtf8LogAreUtf8OrBytes)
{
    const auto of = [](std::string_view bytes) {
        return shown({"A", 'X', static_cast<int32_t>(bytes.size()), 1, 0}, bytes, false, FWU_UTF8);
    };
    EXPECT_EQ(of("ab  "), "utf8 ab");
    EXPECT_EQ(of("    "), "utf8 ");
    EXPECT_EQ(of("\xE2\x82\xAC 5 "), "utf8 \xE2\x82\xAC 5");
    EXPECT_EQ(of("\xE2\x82  "), "bytes \xE2\x82  ") << "with its blanks: it is no text";
    EXPECT_EQ(of("\xE9  "), "bytes \xE9  ");
    EXPECT_EQ(of("12345678\xFF"), "bytes 12345678\xFF");
    EXPECT_EQ(shown({"A", 'I', 2, 1, 0}, "\xE9\x01", false, FWU_UTF8), "number 489");
}

struct whole_row {
    char type;
    std::string_view whole;
    change_value kind;
};

TEST(ChangeValue, WholeValuesOfNumbersAreNumbersWhenTheirTextIs)
{
    for (const whole_row &row : {whole_row{'P', "0", CHANGE_NUMBER},
                                 whole_row{'P', "-0.00", CHANGE_NUMBER},
                                 whole_row{'P', "123456789012345678901234567890.5", CHANGE_NUMBER},
                                 whole_row{'I', "-9223372036854775809", CHANGE_NUMBER},
                                 whole_row{'Z', "10", CHANGE_NUMBER},
                                 whole_row{'E', "1e+400", CHANGE_NUMBER},
                                 whole_row{'R', "1.5E-7", CHANGE_NUMBER},
                                 whole_row{'K', "1e5", CHANGE_NUMBER},
                                 whole_row{'P', "NaN", CHANGE_UTF8},
                                 whole_row{'P', "Infinity", CHANGE_UTF8},
                                 whole_row{'P', "", CHANGE_UTF8},
                                 whole_row{'P', "-", CHANGE_UTF8},
                                 whole_row{'P', "01", CHANGE_UTF8},
                                 whole_row{'P', "1.", CHANGE_UTF8},
                                 whole_row{'P', ".5", CHANGE_UTF8},
                                 whole_row{'P', "+1", CHANGE_UTF8},
                                 whole_row{'P', "1 ", CHANGE_UTF8},
                                 whole_row{'P', "1e", CHANGE_UTF8},
                                 whole_row{'P', "1e+", CHANGE_UTF8},
                                 whole_row{'P', "0x1", CHANGE_UTF8},
                                 whole_row{'P', "--1", CHANGE_UTF8},
                                 whole_row{'P', "1,5", CHANGE_UTF8},
                                 whole_row{'P', "\xE9", CHANGE_BYTES},
                                 whole_row{'X', "12", CHANGE_UTF8},
                                 whole_row{'U', "a  ", CHANGE_UTF8},
                                 whole_row{'X', "", CHANGE_UTF8},
                                 whole_row{'X', "\xE2\x82\xAC", CHANGE_UTF8},
                                 whole_row{'X', "a\xE9", CHANGE_BYTES},
                                 whole_row{'X', "\xE2\x82", CHANGE_BYTES}})
        EXPECT_EQ(change_value_whole(row.whole, {"A", row.type, 8, 1, 0}), row.kind) << row.whole;
}
