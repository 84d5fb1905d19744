// UTF-8, its longest and shortest forms, and bytes that are none.
#include "util/utf8.h"

#include <gtest/gtest.h>

#include <string>

static constexpr uint32_t UNTOUCHED = 0x123456;

struct utf8_row {
    std::string_view text;
    size_t length;
    uint32_t code;
};

TEST(Utf8, TakesOneCharacterOffTheFront)
{
    for (const utf8_row &row :
         {utf8_row{{"\0", 1}, 1, 0}, utf8_row{"a\x80", 1, 'a'}, utf8_row{"\x7F", 1, 0x7F},
          utf8_row{"\xC2\x80", 2, 0x80}, utf8_row{"\xDF\xBF!", 2, 0x7FF},
          utf8_row{"\xE0\xA0\x80", 3, 0x800}, utf8_row{"\xED\x9F\xBF", 3, 0xD7FF},
          utf8_row{"\xEE\x80\x80", 3, 0xE000}, utf8_row{"\xEF\xBF\xBD", 3, 0xFFFD},
          utf8_row{"\xF0\x90\x80\x80", 4, 0x10000},
          utf8_row{"\xF4\x8F\xBF\xBF\x80", 4, 0x10FFFF}}) {
        uint32_t code = UNTOUCHED;
        EXPECT_EQ(utf8_decode(row.text, code), row.length) << row.text;
        EXPECT_EQ(code, row.code) << row.text;
    }
}

TEST(Utf8, OtherBytesAreNoCharacter)
{
    for (const std::string_view text :
         {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2(", "\xE0\x9F\xBF", "\xE2\x82",
          "\xE2(\x80", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {
        uint32_t code = UNTOUCHED;
        EXPECT_EQ(utf8_decode(text, code), 0u) << text;
        EXPECT_EQ(code, UNTOUCHED) << text;
    }
}

TEST(Utf8, ReadsNothingBehindTheText)
{
    const std::string whole = "\xF0\x9F\x98\x80";
    for (size_t length = 1; length < whole.size(); length++) {
        const std::string part = whole.substr(0, length); // an allocation of its own
        uint32_t code = UNTOUCHED;
        EXPECT_EQ(utf8_decode(part, code), 0u) << length;
    }
}

TEST(Utf8, KnowsTheBytesInsideACharacter)
{
    for (int byte = 0; byte <= 0xFF; byte++)
        EXPECT_EQ(utf8_continues(static_cast<char>(byte)), byte >= 0x80 && byte <= 0xBF) << byte;
}

TEST(Utf8, ATextIsValidWhenAllItsCharactersAre)
{
    for (const std::string_view good :
         {"", "a", "12345678", "123456789abcdefgh", "\xE2\x82\xAC", "1234567\xE2\x82\xAC",
          "12345678\xF0\x9F\x98\x80tail of it", "\xC2\x80\xDF\xBF\xEF\xBF\xBD"})
        EXPECT_TRUE(utf8_valid(good)) << good;
    EXPECT_TRUE(utf8_valid({"a\0b", 3}));
    for (const std::string_view bad :
         {"\x80", "1234567\x80", "12345678\x80", "1234567\xE2", "12345678\xE2\x82",
          "123456789abcde\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"})
        EXPECT_FALSE(utf8_valid(bad)) << bad;
}
