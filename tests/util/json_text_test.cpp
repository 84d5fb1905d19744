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
