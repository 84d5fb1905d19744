// UTF-8 to ISO 8859-1, array literals, names, quotes in messages.
#include "feed/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

static std::string latin1(std::string_view text)
{
    std::string out;
    uint32_t bad = 0;
    if (feed_latin1(out, text, bad))
        return out;
    char code[16];
    snprintf(code, sizeof code, "bad %X", static_cast<unsigned>(bad));
    return code;
}

TEST(PgText, CharactersUpToFFBecomeOneByte)
{
    EXPECT_EQ(latin1(""), "");
    EXPECT_EQ(latin1("plain ~"), "plain ~");
    EXPECT_EQ(latin1("gr\xC3\xBC\xC3\x9F"), "gr\xFC\xDF");
    EXPECT_EQ(latin1("\xC2\x80\xC3\xBF"), "\x80\xFF");
    EXPECT_EQ(latin1("tab\tline\nend"), "tab\tline\nend");
}

TEST(PgText, CharactersAboveFFHaveNoPlace)
{
    EXPECT_EQ(latin1("\xC4\x80"), "bad 100");
    EXPECT_EQ(latin1("10 \xE2\x82\xAC"), "bad 20AC");
    EXPECT_EQ(latin1("\xF0\x9F\x98\x80"), "bad 1F600");
}

TEST(PgText, BytesThatAreNotUtf8AreNeverTakenForText)
{
    for (const char *text : {"\x80", "\xFF", "\xC3", "\xC3(", "\xC0\x80", "\xC1\xBF",
                             "\xE0\x80\x80", "\xE0\x83\xBC", "\xF0\x80\x83\xBC", "\xE2\x82",
                             "\xF5\x80\x80\x80", "\x80 and ten more bytes", "\xF4\x90\x80\x80"})
        EXPECT_EQ(latin1(text), "bad FFFD");
}

TEST(PgText, SessionTextsKeepGoingWithAQuestionMark)
{
    EXPECT_EQ(feed_latin1_lossy("a\xE2\x82\xAC\xC3\xBC"), "a?\xFC");
    EXPECT_EQ(feed_latin1_lossy("a\xFF"
                                "b"),
              "a?b");
}

static std::string array(const char *literal)
{
    std::vector<std::string> elements = {"left", "over", "from", "before", "this"};
    if (const char *wrong = feed_array(elements, literal))
        return wrong;
    std::string out;
    for (const std::string &element : elements)
        out += "<" + element + ">";
    return out;
}

TEST(PgText, ArraysAreTakenApartAtTheirCommas)
{
    EXPECT_EQ(array("{44,0,44,0}"), "<44><0><44><0>");
    EXPECT_EQ(array("{}"), "");
    EXPECT_EQ(array("{-1}"), "<-1>");
    EXPECT_EQ(array("{a b,c}"), "<a b><c>");
    EXPECT_EQ(array("[0:1]={7,8}"), "<7><8>");
}

TEST(PgText, QuotesAndBackslashesInArraysAreUndone)
{
    EXPECT_EQ(array(R"({"a,b","c}","d\"e","f\\g",""})"), R"(<a,b><c}><d"e><f\g><>)");
    EXPECT_EQ(array(R"({"NULL",\NULL})"), "<NULL><NULL>");
    EXPECT_EQ(array(R"({a\,b})"), "<a,b>");
}

TEST(PgText, ArraysThatCannotBeTakenApartAreRefused)
{
    EXPECT_EQ(array("{1,NULL}"), "has a NULL among its elements");
    EXPECT_EQ(array("{null}"), "has a NULL among its elements");
    EXPECT_EQ(array("{{1,2},{3,4}}"), "is an array of more than one dimension");
    EXPECT_EQ(array("[1:1][1:2]={{1,2}}"), "is an array of more than one dimension");
    for (const char *text :
         {"", "{", "}", "44", "{1,2", "1,2}", "{1}2}", "[0:1]", "[0:1]7", "{a\"b\"}", "{\"a\"b}"})
        EXPECT_EQ(array(text), "is not an array literal") << text;
    EXPECT_EQ(array("{1,,2}"), "is an array literal with an empty element");
    EXPECT_EQ(array("{,}"), "is an array literal with an empty element");
    EXPECT_EQ(array("{1,}"), "is an array literal with an empty element");
    EXPECT_EQ(array("{\"a}"), "is an array literal whose quotes do not match");
    EXPECT_EQ(array("{\"a\\}"), "is an array literal whose quotes do not match");
}

TEST(PgText, NamesAreUpperCaseWithHyphens)
{
    EXPECT_EQ(feed_name("order_lines"), "ORDER-LINES");
    EXPECT_EQ(feed_name("Mixed9_z"), "MIXED9-Z");
    EXPECT_EQ(feed_name(""), "");
}

TEST(PgText, QuotesInMessagesAreShortAndPrintable)
{
    EXPECT_EQ(feed_quote("a\tb\n"), "\"a?b?\"");
    EXPECT_EQ(feed_quote(std::string(41, 'x')), "\"" + std::string(40, 'x') + "...\"");
    // Byte 40 is inside a character: the whole character goes.
    EXPECT_EQ(feed_quote(std::string(39, 'x') + "\xC3\xBCyz"),
              "\"" + std::string(39, 'x') + "...\"");
}
