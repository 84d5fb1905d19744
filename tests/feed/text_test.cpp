// UTF-8 in the encodings of a log, array literals, names, quotes in messages.
#include "feed/text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

// "text", and behind it what was left of it and the first character without a place.
static std::string encode(std::string_view text, fwu_encoding encoding, size_t room = FEED_ALL)
{
    std::string out = "left over";
    const feed_encoded done = feed_encode(out, text, encoding, room);
    if (done.taken < text.size())
        out += " and " + std::to_string(text.size() - done.taken);
    char code[24];
    snprintf(code, sizeof code, " bad %X", static_cast<unsigned>(done.bad));
    return done.bad == 0 ? out : out + code;
}

TEST(FeedText, CharactersUpToFFAreAByteOfIso8859)
{
    EXPECT_EQ(encode("", FWU_LATIN1), "");
    EXPECT_EQ(encode("plain ~", FWU_LATIN1), "plain ~");
    EXPECT_EQ(encode("gr\xC3\xBC\xC3\x9F", FWU_LATIN1), "gr\xFC\xDF");
    EXPECT_EQ(encode("\xC2\x80\xC3\xBF", FWU_LATIN1), "\x80\xFF");
    EXPECT_EQ(encode("tab\tline\nend", FWU_LATIN1), "tab\tline\nend");
}

TEST(FeedText, CharactersAboveFFBecomeAQuestionMarkInIso8859)
{
    EXPECT_EQ(encode("\xC4\x80", FWU_LATIN1), "? bad 100");
    EXPECT_EQ(encode("10 \xE2\x82\xAC, \xC4\x80", FWU_LATIN1), "10 ?, ? bad 20AC");
    EXPECT_EQ(encode("\xF0\x9F\x98\x80", FWU_LATIN1), "? bad 1F600");
    EXPECT_EQ(encode("\xEF\xBF\xBD", FWU_LATIN1), "? bad FFFD");
}

TEST(FeedText, Utf8StaysWhatItIs)
{
    for (const char *text : {"", "plain ~", "gr\xC3\xBC\xC3\x9F", "10 \xE2\x82\xAC", "\x7F\xC2\x80",
                             "\xEF\xBF\xBD", "\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF",
                             "eight by\xC3\xBCte words and more of them \xE2\x82\xAC"})
        EXPECT_EQ(encode(text, FWU_UTF8), text);
}

TEST(FeedText, EachByteThatIsNoUtf8IsReplaced)
{
    const struct {
        const char *text;
        int bytes;
    } rows[] = {{"\x80", 1},
                {"\xFF", 1},
                {"\xC3", 1},
                {"\xC0\x80", 2},
                {"\xC1\xBF", 2},
                {"\xE0\x80\x80", 3},
                {"\xE0\x83\xBC", 3},
                {"\xF0\x80\x83\xBC", 4},
                {"\xE2\x82", 2},
                {"\xED\xA0\x80", 3},
                {"\xF5\x80\x80\x80", 4},
                {"\xF4\x90\x80\x80", 4}};
    for (const auto &row : rows) {
        std::string replaced;
        for (int i = 0; i < row.bytes; i++)
            replaced += "\xEF\xBF\xBD";
        const std::string bytes = row.text;
        EXPECT_EQ(encode("a" + bytes + "b", FWU_UTF8), "a" + replaced + "b bad FFFFFFFF");
        EXPECT_EQ(encode("a" + bytes + "b", FWU_LATIN1),
                  "a" + std::string(static_cast<size_t>(row.bytes), '?') + "b bad FFFFFFFF");
    }
    EXPECT_EQ(encode("\xC3(", FWU_LATIN1), "?( bad FFFFFFFF");
}

TEST(FeedText, RoomEndsBetweenCharacters)
{
    const std::string text = "ab\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80z";
    const char *const utf8[] = {" and 12",
                                "a and 11",
                                "ab and 10",
                                "ab and 10",
                                "ab\xC3\xBC and 8",
                                "ab\xC3\xBC and 8",
                                "ab\xC3\xBC and 8",
                                "ab\xC3\xBC\xE2\x82\xAC and 5",
                                "ab\xC3\xBC\xE2\x82\xAC and 5",
                                "ab\xC3\xBC\xE2\x82\xAC and 5",
                                "ab\xC3\xBC\xE2\x82\xAC and 5",
                                "ab\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80 and 1",
                                "ab\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80z"};
    for (size_t room = 0; room < std::size(utf8); room++)
        EXPECT_EQ(encode(text, FWU_UTF8, room), utf8[room]) << room;
    const char *const latin1[] = {" and 12",
                                  "a and 11",
                                  "ab and 10",
                                  "ab\xFC and 8",
                                  "ab\xFC? and 5 bad 20AC",
                                  "ab\xFC?? and 1 bad 20AC",
                                  "ab\xFC??z bad 20AC"};
    for (size_t room = 0; room < std::size(latin1); room++)
        EXPECT_EQ(encode(text, FWU_LATIN1, room), latin1[room]) << room;
    // What replaces a byte may be longer than the room left.
    EXPECT_EQ(encode("a\xFFz", FWU_UTF8, 3), "a and 2");
    EXPECT_EQ(encode("a\xFFz", FWU_UTF8, 4), "a\xEF\xBF\xBD and 1 bad FFFFFFFF");
}

// The same, character by character, with forms of characters taken from a table.
static std::string naive(std::string_view text, fwu_encoding encoding, size_t room)
{
    std::string out;
    size_t at = 0;
    while (at < text.size()) {
        size_t length = 0;
        unsigned code = 0;
        const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
        for (size_t n = 1; n <= 4 && length == 0; n++) {
            static const unsigned first[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
            static const unsigned mask[] = {0, 0x80, 0xE0, 0xF0, 0xF8};
            static const unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
            if ((byte(0) & mask[n]) != first[n] || at + n > text.size())
                continue;
            code = byte(0) & ~mask[n];
            bool good = true;
            for (size_t i = 1; i < n; i++) {
                good = good && byte(i) / 64 == 2;
                code = code * 64 + byte(i) % 64;
            }
            if (good && code >= least[n] && code < 0x110000 && code / 0x800 != 0x1B)
                length = n;
        }
        std::string made;
        if (encoding == FWU_UTF8)
            made = length == 0 ? "\xEF\xBF\xBD" : std::string(text.substr(at, length));
        else
            made = length == 0 || code > 255 ? "?" : std::string(1, static_cast<char>(code));
        if (made.size() > room - out.size())
            break;
        out += made;
        at += length == 0 ? 1 : length;
    }
    return out + (at < text.size() ? " and " + std::to_string(text.size() - at) : "");
}

TEST(FeedText, RandomBytesBecomeWhatASlowerWayMakesOfThem)
{
    static const char *const pieces[] = {
        "a",    "bcd efgh ijklm", "\xC3\xBC",     "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
        "\xFF", "\xC3",           "\xED\xA0\x80", "\x80"};
    std::minstd_rand random(20261122);
    for (int run = 0; run < 3000; run++) {
        std::string text;
        for (auto n = random() % 12; n > 0; n--)
            text += pieces[random() % std::size(pieces)];
        const size_t room = random() % 3 == 0 ? FEED_ALL : random() % 40;
        for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8}) {
            const std::string made = encode(text, encoding, room);
            EXPECT_EQ(made.substr(0, made.find(" bad ")), naive(text, encoding, room))
                << "run " << run << " room " << room;
        }
    }
}

TEST(FeedText, AsciiEndsBeforeTheFirstOtherByte)
{
    for (size_t length = 0; length <= 40; length++) {
        std::string text(length, 'x');
        EXPECT_EQ(feed_ascii_length(text), length);
        for (size_t at = 0; at < length; at++) {
            text[at] = '\x80';
            EXPECT_EQ(feed_ascii_length(text), at);
            text[at] = '\x7F';
        }
    }
}

TEST(FeedText, SessionTextsKeepGoingWithAQuestionMark)
{
    EXPECT_EQ(feed_latin1("a\xE2\x82\xAC\xC3\xBC"), "a?\xFC");
    EXPECT_EQ(feed_latin1("a\xFF"
                          "b"),
              "a?b");
}

static std::string array(const char *literal, size_t most = 100, size_t in_all = 0)
{
    std::vector<std::string> elements = {"left", "over", "from", "before", "this"};
    size_t count = 0;
    if (const char *wrong = feed_array(elements, count, literal, most))
        return wrong;
    EXPECT_EQ(count, in_all == 0 ? elements.size() : in_all) << literal;
    std::string out;
    for (const std::string &element : elements)
        out += "<" + element + ">";
    return out;
}

TEST(FeedText, ElementsBehindTheMostAreCountedOnly)
{
    EXPECT_EQ(array("{1,2,3,4}", 2, 4), "<1><2>");
    EXPECT_EQ(array("{1,2}", 2, 2), "<1><2>");
    EXPECT_EQ(array("{\"a,b\",2}", 0, 2), "");
    EXPECT_EQ(array("{1,2,3,{4}}", 2), "is an array of more than one dimension");
    EXPECT_EQ(array("{1,2,3", 2), "is not an array literal");
}

TEST(FeedText, ATextIsMeasuredAsItWouldBeEncoded)
{
    const std::string characters[] = {"a",    "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x8C\x8D",
                                      "\xFF", "\xC3"};
    const unsigned seed = std::random_device{}();
    std::minstd_rand random(seed);
    for (int round = 0; round < 200; round++) {
        std::string text;
        const size_t length = random() % 10'000;
        const size_t kinds = 1 + random() % std::size(characters);
        while (text.size() < length)
            text += characters[random() % kinds];
        for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8}) {
            std::string out;
            const feed_encoded whole = feed_encode(out, text, encoding, FEED_ALL);
            const feed_measured measured = feed_measure(text, encoding);
            ASSERT_EQ(measured.length, out.size()) << "seed " << seed;
            ASSERT_EQ(measured.bad, whole.bad) << "seed " << seed;
        }
    }
}

TEST(FeedText, ArraysAreTakenApartAtTheirCommas)
{
    EXPECT_EQ(array("{44,0,44,0}"), "<44><0><44><0>");
    EXPECT_EQ(array("{}"), "");
    EXPECT_EQ(array("{-1}"), "<-1>");
    EXPECT_EQ(array("{a b,c}"), "<a b><c>");
    EXPECT_EQ(array("[0:1]={7,8}"), "<7><8>");
}

TEST(FeedText, QuotesAndBackslashesInArraysAreUndone)
{
    EXPECT_EQ(array(R"({"a,b","c}","d\"e","f\\g",""})"), R"(<a,b><c}><d"e><f\g><>)");
    EXPECT_EQ(array(R"({"NULL",\NULL})"), "<NULL><NULL>");
    EXPECT_EQ(array(R"({a\,b})"), "<a,b>");
}

TEST(FeedText, ArraysThatCannotBeTakenApartAreRefused)
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

TEST(FeedText, NamesAreUpperCaseWithHyphens)
{
    EXPECT_EQ(feed_name("order_lines"), "ORDER-LINES");
    EXPECT_EQ(feed_name("Mixed9_z"), "MIXED9-Z");
    EXPECT_EQ(feed_name(""), "");
}

TEST(FeedText, QuotesInMessagesAreShortAndPrintable)
{
    EXPECT_EQ(feed_quote("a\tb\n"), "\"a?b?\"");
    EXPECT_EQ(feed_quote(std::string(41, 'x')), "\"" + std::string(40, 'x') + "...\"");
    // Byte 40 is inside a character: the whole character goes.
    EXPECT_EQ(feed_quote(std::string(39, 'x') + "\xC3\xBCyz"),
              "\"" + std::string(39, 'x') + "...\"");
}
