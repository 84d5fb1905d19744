// Items of images as text.
#include "tests/feed/rows.h"
#include "tools/fwlog/dump_value.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static std::string dumped(const fwu_item &item, const std::string &image, bool big_endian = true,
                          fwu_encoding encoding = FWU_LATIN1)
{
    fwu_layout layout;
    layout.items = {item};
    std::string out;
    const bool covered =
        dump_image(out, layout, big_endian, encoding,
                   reinterpret_cast<const unsigned char *>(image.data()), image.size());
    return covered ? out : "not covered" + out;
}

TEST(DumpValue, NamesAreEscapedAsTextsAre)
{
    EXPECT_EQ(dumped(item_of("A\x1B\n", 'I', 2), "\xFF\xFE"), " A\\x1B\\x0A=-2");
}

TEST(DumpValue, NumbersAreDecimal)
{
    EXPECT_EQ(dumped(item_of("A", 'I', 2), "\xFF\xFE"), " A=-2");
    EXPECT_EQ(dumped(item_of("A", 'J', 2), "\x80\x00"s), " A=-32768");
    EXPECT_EQ(dumped(item_of("A", 'K', 2), "\xFF\xFE"), " A=65534");
    EXPECT_EQ(dumped(item_of("A", 'K', 2), "\xFF\xFE", false), " A=65279");
    EXPECT_EQ(dumped(item_of("A", 'I', 8), "\x80\x00\x00\x00\x00\x00\x00\x00"s),
              " A=-9223372036854775808");
    EXPECT_EQ(dumped(item_of("A", 'I', 4), "\x00\x0A\xAE\x61"s), " A=700001");
    EXPECT_EQ(dumped(item_of("A", 'E', 4), "\x3D\xCC\xCC\xCD"), " A=0.1");
    EXPECT_EQ(dumped(item_of("A", 'R', 8), "\xC0\x04\x00\x00\x00\x00\x00\x00"s), " A=-2.5");
}

TEST(DumpValue, NumbersThatAreNoneHaveTheirNames)
{
    EXPECT_EQ(dumped(item_of("A", 'E', 4), "\x7F\xC0\x00\x00"s), " A=nan");
    EXPECT_EQ(dumped(item_of("A", 'E', 4), "\xFF\xC0\x00\x00"s), " A=-nan");
    EXPECT_EQ(dumped(item_of("A", 'R', 8), "\x7F\xF0\x00\x00\x00\x00\x00\x00"s), " A=inf");
    EXPECT_EQ(dumped(item_of("A", 'E', 4), "\x00\x00\x80\xFF"s, false), " A=-inf");
}

TEST(DumpValue, PackedAndZonedHaveTheirDecimalPoint)
{
    EXPECT_EQ(dumped(item_of("A", 'P', 5, 1, 2), "\x00\x00\x87\x12\x0D"s), " A=-871.20");
    EXPECT_EQ(dumped(item_of("A", 'P', 2, 1, 2), "\x00\x5C"s), " A=0.05");
    EXPECT_EQ(dumped(item_of("A", 'P', 2), "\x12\x3F"s), " A=123");
    EXPECT_EQ(dumped(item_of("A", 'Z', 3, 1, 1), "12J"), " A=-12.1");
    EXPECT_EQ(dumped(item_of("A", 'Z', 3), "00{"), " A=0");
    EXPECT_EQ(dumped(item_of("A", 'Z', 3), "123"), " A=123");
    EXPECT_EQ(dumped(item_of("A", 'Z', 2), "4}"), " A=-40");
    EXPECT_EQ(dumped(item_of("A", 'Z', 2, 1, 2), "4I"), " A=0.49");
}

TEST(DumpValue, BytesThatAreNoDecimalNumberAreShownAsTheyAre)
{
    EXPECT_EQ(dumped(item_of("A", 'P', 2), "\x12\x3A"), " A=0x123A");
    EXPECT_EQ(dumped(item_of("A", 'P', 2), "\x1B\x3C"), " A=0x1B3C");
    EXPECT_EQ(dumped(item_of("A", 'Z', 2), "  "), " A=0x2020");
    EXPECT_EQ(dumped(item_of("A", 'Z', 2), "1\0"s), " A=0x3100");
    EXPECT_EQ(dumped(item_of("A", 'I', 3), "abc"), " A=0x616263");
    EXPECT_EQ(dumped(item_of("A", 'E', 2), "ab"), " A=0x6162");
    EXPECT_EQ(dumped(item_of("A", 'Q', 2), "ab"), " A=0x6162");
    EXPECT_EQ(dumped(item_of("A", 'P', 1, 1, 5), "\x1C"), " A=0x1C");
}

TEST(DumpValue, TextIsQuotedUtf8WithoutBlanksAtItsEnd)
{
    EXPECT_EQ(dumped(item_of("A", 'X', 5), "ab   "), " A=\"ab\"");
    EXPECT_EQ(dumped(item_of("A", 'U', 3), "   "), " A=\"\"");
    EXPECT_EQ(dumped(item_of("A", 'X', 4), "\xFC\xDF\x85\xA0"),
              " A=\"\xC3\xBC\xC3\x9F\\x85\xC2\xA0\"");
    EXPECT_EQ(dumped(item_of("A", 'X', 4), "\"\\\n\0"s), " A=\"\\\"\\\\\\x0A\\x00\"");
}

TEST(DumpValue, ElementsStandInBraces)
{
    EXPECT_EQ(dumped(item_of("A", 'K', 2, 3), "\x00\x01\x00\x02\x00\x03"s), " A={1,2,3}");
}

TEST(DumpValue, LayoutOfAnotherLengthIsNotUsed)
{
    EXPECT_EQ(dumped(item_of("A", 'X', 5), "abcd"), "not covered");
    EXPECT_EQ(dumped(item_of("A", 'X', 5), "abcdef"), "not covered");
    EXPECT_EQ(dumped(item_of("A", 'X', -1, -4), "abcd"), "not covered");
}

TEST(DumpValue, TimesHaveTheYears1To9999)
{
    const auto timed = [](int64_t second, int32_t micros, size_t length) {
        std::string out = "at ";
        return dump_time(out, second, micros, length) ? out : out + "none";
    };
    EXPECT_EQ(timed(1795314832, 123456, FWU_TIME_SIZE), "at 2026-11-22 02:33:52.123456");
    EXPECT_EQ(timed(1795314832, 0, FWU_TIME_MICROS_AT - 1), "at 2026-11-22 02:33:52");
    EXPECT_EQ(timed(-62135596800, 0, FWU_TIME_SIZE), "at 0001-01-01 00:00:00.000000");
    EXPECT_EQ(timed(-62135596801, 999999, FWU_TIME_SIZE), "at none"); // of the year 0
    EXPECT_EQ(timed(253402300799, 999999, FWU_TIME_SIZE), "at 9999-12-31 23:59:59.999999");
    EXPECT_EQ(timed(253402300800, 0, FWU_TIME_SIZE), "at none");
    EXPECT_EQ(timed(INT64_MIN, 0, FWU_TIME_SIZE), "at none");
}

TEST(DumpValue, TextsOfAUtf8LogAreAsTheyAre)
{
    const auto of = [](const std::string &text) {
        return dumped(item_of("A", 'X', static_cast<int32_t>(text.size())), text, true, FWU_UTF8);
    };
    EXPECT_EQ(of("\xE2\x82\xAC 5\xC3\xA9  "), " A=\"\xE2\x82\xAC 5\xC3\xA9\"");
    EXPECT_EQ(of("\"\\\n\xC2\x85"), " A=\"\\\"\\\\\\x0A\\xC2\\x85\"");
    EXPECT_EQ(of("a\xE2\x82"), " A=0x61E282") << "cut inside a character: no text";
}
