// Hex dumps.
#include "driver/base/dump.h"

#include "tests/support/captured.h"

#include <numeric>
#include <vector>

static std::string dump(const std::vector<unsigned char> &bytes)
{
    return capture([&] { hexdump("title", bytes.data(), static_cast<int>(bytes.size())); }).out;
}

static std::vector<unsigned char> counting(size_t n)
{
    std::vector<unsigned char> bytes(n);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    return bytes;
}

TEST(Dump, OnlyTheTitleWithoutBytes)
{
    const unsigned char byte = 1;
    EXPECT_EQ("title\n", capture([&] { hexdump("title", &byte, 0); }).out);
    EXPECT_EQ("title\n", capture([&] { hexdump("title", &byte, -5); }).out);
    EXPECT_EQ("title\n", capture([] { hexdump("title", nullptr, 5); }).out);
    EXPECT_EQ("\n", capture([] { hexdump("", nullptr, 0); }).out);
}

TEST(Dump, FullLine)
{
    std::vector<unsigned char> bytes(16, 0);
    for (unsigned char c = 0x41; c <= 0x50; c++)
        bytes.push_back(c);
    EXPECT_EQ("title\n"
              "0000: 00 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00  .... .... .... ....\n"
              "0010: 41 42 43 44  45 46 47 48  49 4a 4b 4c  4d 4e 4f 50  ABCD EFGH IJKL MNOP\n",
              dump(bytes));
}

TEST(Dump, ShortLinesKeepTheTextColumn)
{
    const std::string blanks(60, ' ');
    EXPECT_EQ("title\n0000: 61 62 63 64  65 " + blanks.substr(0, 33) + " abcd e  \n",
              dump({'a', 'b', 'c', 'd', 'e'}));
    EXPECT_EQ("title\n0000: 61 " + blanks.substr(0, 46) + " a   \n", dump({'a'}));
    EXPECT_EQ("title\n0000: 61 61 61 61 " + blanks.substr(0, 37) + " aaaa   \n",
              dump({'a', 'a', 'a', 'a'}));
    const std::string fourteen = "0000: 61 61 61 61  61 61 61 61  61 61 61 61  61 61 ";
    EXPECT_EQ("title\n" + fourteen + "     aaaa aaaa aaaa aa\n",
              dump(std::vector<unsigned char>(14, 'a')));
    EXPECT_EQ("title\n" + fourteen + "61   aaaa aaaa aaaa aaa\n",
              dump(std::vector<unsigned char>(15, 'a')));
}

TEST(Dump, OnlyPrintableCharactersAreShown)
{
    EXPECT_EQ("title\n"
              "0000: 00 1f 20 21  7d 7e 7f 80  a0 ff 09 0a  5c 25 22 27  .. ! }~.. .... \\%\"'\n",
              dump({0x00, 0x1f, 0x20, 0x21, 0x7d, 0x7e, 0x7f, 0x80, 0xa0, 0xff, 0x09, 0x0a, 0x5c,
                    0x25, 0x22, 0x27}));
}

TEST(Dump, OffsetsHaveFourDigits)
{
    const auto bytes = counting(65536 + 17);
    const std::string out = dump(bytes);
    // 6 characters of title, 77 and a newline per full line.
    const auto line = [&](size_t n) { return out.substr(6 + n * 78, 77); };
    EXPECT_EQ("0ff0: f0", line(0xff).substr(0, 8));
    EXPECT_EQ("fff0: f0", line(0xfff).substr(0, 8));
    EXPECT_EQ("0000: 00", line(0x1000).substr(0, 8));
    EXPECT_EQ("0010: 10 ", line(0x1001).substr(0, 9));
    EXPECT_EQ(6U + 0x1001 * 78 + 55 + 2 + 3 + 1, out.size()) << "the last line has one byte";
}

TEST(Dump, TitleIsFormattedAndCut)
{
    EXPECT_EQ("Record 7 of X\n", capture([] { dumprec("", 0, "Record %d of %s", 7, "X"); }).out);
    const std::string text(1000, 'x');
    EXPECT_EQ(text.substr(0, 255) + "\n0000: 41 " + std::string(46, ' ') + " A   \n",
              capture([&] { dumprec("A", 1, "%s", text.c_str()); }).out);
}
