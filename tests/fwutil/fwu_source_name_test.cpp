// Names of the source as one text, and back.
#include "fwutil/fwu_source_name.h"

#include <gmock/gmock.h>
#include <random>

using testing::ElementsAre;

TEST(SourceName, OrdinaryNamesStandAsTheyAre)
{
    EXPECT_EQ(fwu_source_name("sales", "order_lines"), "sales.order_lines");
    EXPECT_EQ(fwu_source_name("Sales", "Zeile$2",
                              "gr\xC3\xB6\xC3\x9F"
                              "e"),
              "Sales.Zeile$2.gr\xC3\xB6\xC3\x9F"
              "e");
    EXPECT_EQ(fwu_source_name("a-b", "c/d", "e'f"), "a-b.c/d.e'f");
}

TEST(SourceName, PartsThatCouldBeTakenForSomethingElseAreQuoted)
{
    const struct {
        const char *part, *text;
    } rows[] = {
        {"", "\"\""},
        {"a.b", "\"a.b\""},
        {"Order Lines", "\"Order Lines\""},
        {"#", "\"#\""},
        {"a=b", "\"a=b\""},
        {"price \"net\"", "\"price \"\"net\"\"\""},
        {"\"", "\"\"\"\""},
        {"back\\slash", "back\\slash"},
        {"back\\ slash", "\"back\\ slash\""},
        {"two\nlines", "U&\"two\\000Alines\""},
        {"a\tb\\c\"d\x7F", "U&\"a\\0009b\\\\c\"\"d\\007F\""},
        {"U&", "U&"},
    };
    for (const auto &row : rows) {
        std::string text;
        fwu_source_name_put(text, row.part);
        EXPECT_EQ(text, row.text);
        EXPECT_EQ(fwu_source_name("s", row.part, "c"), std::string("s.") + row.text + ".c");
    }
}

TEST(SourceName, IsTakenApart)
{
    std::vector<std::string> parts;
    ASSERT_TRUE(fwu_source_name_parts(parts, "sales.\"Order Lines\".\"price \"\"net\"\"\""));
    EXPECT_THAT(parts, ElementsAre("sales", "Order Lines", "price \"net\""));
    ASSERT_TRUE(fwu_source_name_parts(parts, "\"a.b\".\"\""));
    EXPECT_THAT(parts, ElementsAre("a.b", ""));
    ASSERT_TRUE(fwu_source_name_parts(parts, "\"plain\".U&\"x\\000ay\\\\\".u&\"\\0041\""));
    EXPECT_THAT(parts, ElementsAre("plain", "x\ny\\", "A"));
    ASSERT_TRUE(fwu_source_name_parts(parts, "U&.u&\\000A"));
    EXPECT_THAT(parts, ElementsAre("U&", "u&\\000A"));
    ASSERT_TRUE(fwu_source_name_parts(parts, "a=b#c.\"d\\000A\""));
    EXPECT_THAT(parts, ElementsAre("a=b#c", "d\\000A"));
    ASSERT_TRUE(fwu_source_name_parts(parts, "alone"));
    EXPECT_THAT(parts, ElementsAre("alone"));
}

TEST(SourceName, RefusesWhatIsNone)
{
    for (const char *text : {"", ".", "a.", ".a", "a..b", "\"", "\"a", "\"a\"\"", "a\"b\"",
                             "\"a\"b", "a.\"b\".", "U&\"", "U&\"\\", "U&\"\\\"", "U&\"\\000\"",
                             "U&\"\\000G\"", "U&\"\\0000\"", "U&\"\\0080\"", "U&\"\\FFFF\""}) {
        std::vector<std::string> parts;
        EXPECT_FALSE(fwu_source_name_parts(parts, text)) << text;
    }
}

// Whatever the parts hold, the text means them and nothing else, and fits into a line.
TEST(SourceName, RandomPartsComeBack)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int run = 0; run < 20'000; run++) {
        std::string part[3];
        for (std::string &text : part)
            for (size_t n = random() % 5; n > 0; n--)
                text += std::string_view("a.\"\\ #=\n\t\x7F\xC3U&0\r")[random() % 14];
        const std::string name = fwu_source_name(part[0], part[1], part[2]);
        std::vector<std::string> parts;
        ASSERT_TRUE(fwu_source_name_parts(parts, name)) << name;
        ASSERT_THAT(parts, ElementsAre(part[0], part[1], part[2])) << name;
        for (const char c : name)
            ASSERT_FALSE((c >= 0 && c < ' ') || c == 127) << name;
    }
}
