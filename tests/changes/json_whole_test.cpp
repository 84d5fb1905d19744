// What a record cannot hold, in JSON: whole values in place of what the image has, members left
// out for what is not known, texts of UTF-8 logs.
#include "tests/changes/json_fixture.h"

#include "util/json_text.h"
#include "util/utf8.h"

#include <random>

// An integer, a decimal, two texts of 4 bytes, an array: 2, 2, 4, 4 and 4 bytes.
static change_dataset made(fwu_encoding encoding = FWU_LATIN1)
{
    change_dataset dataset = dataset_of("D",
                                        {{"NO", 'I', 2},
                                         {"NET", 'P', 2, 1, 1},
                                         {"TAG", 'X', 4},
                                         {"NOTE", 'X', 4},
                                         {"QTY", 'I', 2, 2},
                                         {"MAP", 'X', 5}},
                                        "MAP");
    dataset.encoding = encoding;
    return dataset;
}

static std::string row_of(const std::string &flags, const std::string &tag = "a   ")
{
    return "\5\0\x12\x3C"s + tag + "b   \1\0\2\0"s + flags;
}

TEST(ChangesJsonWhole, ValuesThatAreNotKnownAreLeftOut)
{
    const change_dataset dataset = made();
    EXPECT_EQ(values_of(dataset, row_of(".....")),
              R"({"NO":5,"NET":12.3,"TAG":"a","NOTE":"b","QTY":[1,2]})");
    EXPECT_EQ(values_of(dataset, row_of("?....")),
              R"({"NET":12.3,"TAG":"a","NOTE":"b","QTY":[1,2]})");
    EXPECT_EQ(values_of(dataset, row_of(".??N?")), R"({"NO":5,"NOTE":null})");
    EXPECT_EQ(values_of(dataset, row_of("????.")), R"({"QTY":[1,2]})");
    EXPECT_EQ(values_of(dataset, row_of("?????")), "{}");
    EXPECT_EQ(values_of(dataset, row_of("!....")),
              R"({"NET":12.3,"TAG":"a","NOTE":"b","QTY":[1,2]})")
        << "left blank, and its whole value is lost";
    EXPECT_EQ(values_of(dataset, row_of("..CR.")),
              R"({"NO":5,"NET":12.3,"TAG":"a","NOTE":"b","QTY":[1,2]})")
        << "what there is of them";
}

TEST(ChangesJsonWhole, AWholeValueStandsInPlaceOfWhatTheImageHas)
{
    const change_dataset dataset = made();
    const std::string note(100'000, 'n');
    EXPECT_EQ(values_of(dataset, row_of("..C.."), {},
                        {{.item = 2, .text = "a \"longer\" text \xE2\x82\xAC  "}}),
              "{\"NO\":5,\"NET\":12.3,\"TAG\":\"a \\\"longer\\\" text \xE2\x82\xAC  \","
              "\"NOTE\":\"b\",\"QTY\":[1,2]}");
    EXPECT_EQ(values_of(dataset, row_of("N?RC!"), {},
                        {{.item = 2, .text = "\xE2\x82\xAC"},
                         {.item = 3, .text = note},
                         {.item = 4, .text = "{1,2,70000}"}}),
              "{\"NO\":null,\"TAG\":\"\xE2\x82\xAC\",\"NOTE\":\"" + note +
                  "\",\"QTY\":\"{1,2,70000}\"}");
    EXPECT_EQ(values_of(dataset, row_of("....."), {}, {{.item = 3, .text = ""}}),
              R"({"NO":5,"NET":12.3,"TAG":"a","NOTE":"","QTY":[1,2]})");
}

TEST(ChangesJsonWhole, NumbersThatNoItemHoldsAreNumbersOrTheirTexts)
{
    const change_dataset dataset = made();
    const auto net = [&dataset](const char *text, change_json_options options = {}) {
        const std::string all =
            values_of(dataset, row_of("?!???"), options, {{.item = 1, .text = text}});
        return all.substr(all.find(':') + 1, all.size() - all.find(':') - 2);
    };
    EXPECT_EQ(net("123456789012345678901234567890.50"), "123456789012345678901234567890.50");
    EXPECT_EQ(net("-0"), "-0");
    EXPECT_EQ(net("1e+100"), "1e+100");
    EXPECT_EQ(net("NaN"), R"("NaN")");
    EXPECT_EQ(net("-Infinity"), R"("-Infinity")");
    EXPECT_EQ(net("$1,234.00"), R"("$1,234.00")");
    EXPECT_EQ(net("007"), R"("007")");
    EXPECT_EQ(net("12.5", {.text_numbers = true}), R"("12.5")");
    EXPECT_EQ(net("NaN", {.text_numbers = true}), R"("NaN")");
}

TEST(ChangesJsonWhole, BytesThatAreNoUtf8AreHexadecimal)
{
    EXPECT_EQ(values_of(made(), row_of("??C??"), {}, {{.item = 2, .text = "\xE9t\xE9"}}),
              R"({"TAG":{"hex":"e974e9"}})");
}

TEST(ChangesJsonWhole, BooleansAreTrueAndFalse)
{
    change_dataset dataset = dataset_of("D", {{"A", 'X', 1}, {"MAP", 'X', 1}}, "MAP");
    set_source(dataset, "d", {{.name = "a", .type = "boolean", .item = 0}});
    EXPECT_EQ(values_of(dataset, " !", {.source_names = true}, {{.item = 0, .text = "true"}}),
              R"({"a":true})");
    dataset.encoding = FWU_UTF8;
    EXPECT_EQ(values_of(dataset, "F.", {.source_names = true}), R"({"a":false})");
}

TEST(ChangesJsonWhole, EachRowHasItsOwn)
{
    const change_dataset dataset = dataset_of("D", {{"A", 'X', 1}, {"MAP", 'X', 1}}, "MAP");
    json_lines lines;
    lines.put(CHANGE_UPDATE, dataset, "xC", "yC", nullptr,
              {{{.item = 0, .text = "xx"}}, {{.item = 0, .text = "yy"}}});
    lines.put(CHANGE_DELETE, dataset, "xC", "", nullptr, {{{.item = 0, .text = "xxx"}}, {}});
    lines.commit();
    EXPECT_NE(lines.out.find(R"("before":{"A":"xx"},"after":{"A":"yy"})"), std::string::npos);
    EXPECT_NE(lines.out.find(R"("before":{"A":"xxx"},"after":null)"), std::string::npos);
}

TEST(ChangesJsonUtf8, TextsStayAsTheyAreUnlessTheyAreNone)
{
    const auto tag = [](const std::string &text) {
        const std::string all = values_of(made(FWU_UTF8), row_of("??.??", text));
        return all.substr(7, all.size() - 8);
    };
    EXPECT_EQ(tag("ab  "), R"("ab")");
    EXPECT_EQ(tag("\xE2\x82\xAC "), "\"\xE2\x82\xAC\"");
    EXPECT_EQ(tag("\xC3\xA9\xC2\xA0"), "\"\xC3\xA9\xC2\xA0\"") << "no blank: U+00A0";
    EXPECT_EQ(tag("\xF0\x9F\x98\x80"), "\"\xF0\x9F\x98\x80\"");
    EXPECT_EQ(tag("\"\\\n\x7F"), R"("\"\\\u000a\u007f")");
    EXPECT_EQ(tag("\xC2\x80\xC2\x9F"), R"("\u0080\u009f")") << "as of an ISO 8859-1 log";
    EXPECT_EQ(tag("\0\0a "s), R"("\u0000\u0000a")");
    EXPECT_EQ(tag("\xE9   "), R"({"hex":"e9202020"})");
    EXPECT_EQ(tag("ab\xE2\x82"), R"({"hex":"6162e282"})");
}

// The same character by character.
static std::string naive(std::string_view text)
{
    std::string out = "\"";
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t length = utf8_decode(text, code);
        const std::string_view next = text.substr(0, length);
        if (code < 0x20 || (code >= 0x7F && code < 0xA0)) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", code);
            out += escaped;
        } else {
            out += next == "\"" ? "\\\"" : next == "\\" ? "\\\\" : next;
        }
        text.remove_prefix(length);
    }
    return out + "\"";
}

TEST(ChangesJsonUtf8, RandomTextsAreWrittenAsCharacterByCharacter)
{
    constexpr unsigned SEED = 20260712;
    static constexpr std::string_view CHARACTERS[] = {
        "a",        "\"",       "\\",       "\n",           "\x7F",         "\xC2\x80",
        "\xC2\x9F", "\xC2\xA0", "\xC3\x82", "\xE2\x82\xAC", "\xE0\xA0\x80", "\xF0\x90\x80\x80"};
    std::mt19937 random(SEED);
    for (int round = 0; round < 3000; round++) {
        std::string text;
        for (auto left = random() % 12; left > 0; left--)
            text += CHARACTERS[random() % std::size(CHARACTERS)];
        std::string out;
        change_json_utf8(out, text);
        ASSERT_EQ(out, naive(text)) << "seed " << SEED << " round " << round;
    }
}
