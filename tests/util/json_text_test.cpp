// Bytes as hexadecimal digits and as JSON strings.
#include "util/json_text.h"

#include <gtest/gtest.h>

using namespace std::string_view_literals;

TEST(JsonText, QuotesWhatAJsonStringMayNotHold)
{
    const std::pair<std::string_view, const char *> rows[] = {
        {"", R"("")"},
        {"plain ~", R"("plain ~")"},
        {R"(a"b\c/)", R"("a\"b\\c/")"},
        {"\0\t\n\x1F\x7F"sv, R"("\u0000\u0009\u000a\u001f\u007f")"},
        {"\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80", "\"\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80\""},
    };
    for (const auto &[text, expected] : rows)
        EXPECT_EQ(json_text(text), expected);
}

TEST(JsonText, EachByteThatIsNotUtf8IsOneReplacement)
{
    EXPECT_EQ(json_text("\xFF"), R"("\ufffd")");
    EXPECT_EQ(json_text("a\xE2\x82"
                        "b"),
              R"("a\ufffd\ufffdb")");
    EXPECT_EQ(json_text("\xED\xA0\x80"), R"("\ufffd\ufffd\ufffd")");
}

TEST(JsonText, AppendsBehindWhatIsThere)
{
    std::string out = "x:";
    json_text_append(out, "y");
    json_text_hex(out, "\0\xAB"sv);
    EXPECT_EQ(out, "x:\"y\"00ab");
}

TEST(JsonText, PrintableIsAsciiFromBlankToTilde)
{
    for (int byte = 0; byte <= 0xFF; byte++) {
        const char text[] = {'a', static_cast<char>(byte), 'b'};
        EXPECT_EQ(json_text_printable({text, sizeof text}), byte >= 0x20 && byte <= 0x7E) << byte;
    }
    EXPECT_TRUE(json_text_printable(""));
}

TEST(JsonText, StringsAreTakenAsTheyWereWritten)
{
    std::string all;
    for (int byte = 1; byte < 0x80; byte++)
        all += static_cast<char>(byte);
    for (const std::string_view text :
         {""sv, "plain"sv, "a\"b\\c\\\""sv, "\0\t\xC3\xBC"sv, std::string_view(all)}) {
        const std::string json = json_text(text) + ",\"next\"";
        std::string_view rest = json;
        std::string value = "before";
        ASSERT_TRUE(json_text_take(value, rest)) << json;
        EXPECT_EQ(value, text);
        EXPECT_EQ(rest, ",\"next\"");
    }
}

TEST(JsonText, WhatIsNoStringIsLeftAlone)
{
    for (const std::string_view text : {"", "x", "\"", "\"abc", "\"\\", "\"\\\"", "\"\\n\"",
                                        "\"\\u00\"", "\"\\u00g0\"", "\"\\u0100\"", "\"\\u00"}) {
        std::string_view rest = text;
        std::string value = "before";
        EXPECT_FALSE(json_text_take(value, rest)) << text;
        EXPECT_EQ(value, "before");
        EXPECT_EQ(rest, text);
    }
}

TEST(JsonText, AReplacementIsTakenAsOne)
{
    const std::string json = json_text("a\xFF");
    std::string_view rest = json;
    std::string value;
    ASSERT_TRUE(json_text_take(value, rest));
    EXPECT_EQ(value, "a\xEF\xBF\xBD");
}

TEST(JsonText, AMemberIsFoundByItsName)
{
    const std::string json = "{\"a\":1,\"b\":" + json_text("say \"c\":\"no\"") + ",\"c\":\"yes\"}";
    EXPECT_EQ(json_text_member(json, "a"), "");
    EXPECT_EQ(json_text_member(json, "b"), "say \"c\":\"no\"");
    EXPECT_EQ(json_text_member(json, "c"), "yes");
    EXPECT_EQ(json_text_member(json, "d"), "");
}
