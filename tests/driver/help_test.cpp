// Usage and help texts.
#include "driver/help.h"

#include "tests/support/captured.h"
#include "tests/support/golden.h"

TEST(Help, Usage)
{
    EXPECT_EQ("Kestro - 2.21 (Linux x86)\n"
              "\n"
              "Usage: ./prog [options] [captopts] capture-file\n"
              "\n"
              "  To see more help: ./prog -help\n",
              capture([] { printusage("./prog"); }).out);
}

TEST(Help, Help)
{
    std::string expected = golden("help.txt");
    expected.replace(expected.find("%s"), 2, "some%dname");
    EXPECT_EQ(expected, capture([] { show_help("some%dname"); }).out);
}

TEST(Help, LeavesOutTheRareOptions)
{
    const std::string text = capture([] { show_help("x"); }).out;
    for (const char *option : {"-pause", "-versnum", "-showsets", "-dumprecs", "-fga", "-ascii",
                               "-asciirev", "-dirty", "-bwfmt", "-?"})
        EXPECT_EQ(std::string::npos, text.find(option)) << option;
}

TEST(Help, Banner)
{
    EXPECT_EQ("Kestro - 2.21 (Linux x86)\n", capture(print_banner).out);
    EXPECT_STREQ("2.21", PROGRAM_VERSION);
}
