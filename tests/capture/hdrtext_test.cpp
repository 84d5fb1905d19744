// Text routines of the capture record header.
#include "capture/hdrtext.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;

TEST(HdrText, MovefgaTable)
{
    const struct {
        const char *name;
        const char *expected;
        int result;
    } cases[] = {
        {"ACCTDB.PROD.FIN", "ACCTDB  PROD    FIN     ", 0},
        {"CUSTDB", "CUSTDB                  ", 0},
        {"", "                        ", 0},
        {"A..C", "A               C       ", 0},
        {".B", "        B               ", 0},
        {"..C", "                C       ", 0},
        {"A.B.", "A       B               ", 0},
        {"..", "                        ", 0},
        {"12345678.12345678.12345678", "123456781234567812345678", 0},
        {"TOOLONGNAME.X", "TOOLONGNAME.X           ", 1},
        {"123456789", "123456789               ", 1},
        {"A.123456789", "A.123456789             ", 1},
        {"A.B.123456789", "A.B.123456789           ", 1},
        {"A.B.C.", "A.B.C.                  ", 1},
        {"A.B.C.D", "A.B.C.D                 ", 1},
        {"...", "...                     ", 1},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", "ABCDEFGHIJKLMNOPQRSTUVWX", 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        char out[FGA_SIZE + 1];
        memset(out, '#', sizeof out);
        EXPECT_EQ(c.result, movefga(out, c.name));
        EXPECT_EQ(c.expected, std::string(out, 24));
        EXPECT_EQ('#', out[24]) << "stays as it was";
        EXPECT_EQ(c.result == 0 ? '\0' : '#', out[25]);
        EXPECT_EQ('#', out[26]);
    }
}

TEST(HdrText, MovefgadotsTable)
{
    const struct {
        const char *name;
        const char *expected;
    } cases[] = {
        {"CUSTDB.PROD.SALES", "CUSTDB  .PROD    .SALES   "},
        {"CUSTDB", "CUSTDB  .        .        "},
        {"", "        .        .        "},
        {"TOOLONGNAME.X", "\"TOOLONGNAME.X           \""},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", "\"ABCDEFGHIJKLMNOPQRSTUVWX\""},
    };
    for (const auto &c : cases) {
        char out[FGADOTS_SIZE + 1];
        memset(out, '#', sizeof out);
        movefgadots(out, c.name);
        EXPECT_STREQ(c.expected, out);
        EXPECT_EQ('#', out[FGADOTS_SIZE]);
    }
}

static std::string progname(const std::string &pname, int width)
{
    std::string out(static_cast<size_t>(width) + 1, '#');
    moveprogname(out.data(), pname.c_str(), width);
    EXPECT_EQ('#', out.back());
    out.pop_back();
    return out;
}

TEST(HdrText, MoveprognameTable)
{
    const struct {
        const char *pname;
        std::string expected;
    } cases[] = {
        {"/opt/app/bin/orders -q", "orders                  "},
        {"orders", "orders\0                 "s},
        {"/orders", "orders\0                 "s},
        {"orders\t-q", "orders\t                 "},
        {"orders\n", "orders\n                 "},
        {"", "\0                       "s},
        {"/opt/bin/", "\0                       "s},
        {" leading", "                        "},
        {"prog /etc/file", "prog                    "}, // a "/" behind the name does not count
        {"12345678901234567890123", "12345678901234567890123\0"s},
        {"123456789012345678901234", "123456789012345678901234"},
        {"/x/1234567890123456789012345", "123456789012345678901234"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.expected, progname(c.pname, 24)) << c.pname;
}

TEST(HdrText, MovProgtermTable)
{
    const struct {
        const char *pname;
        const char *term;
        const char *expected;
    } cases[] = {
        {"/usr/bin/interp /app/bin/orders.cmd -x", ".cmd", "/app/bin/orders         "},
        {"orders.cmd", ".cmd", "orders                  "},
        {"/bin/orders.cmd", ".cmd", "/bin/orders             "}, // no base name here
        {"a b.c d.c", ".c", "b                       "},         // the first one ends the name
        {"a .cmd", ".cmd", "                        "},
        {".cmd x", ".cmd", "                        "},
        {"prog arg", "", "                        "},
        {"/bin/prog arg", ".cmd", "prog                    "},
        {"/bin/prog", ".cmd", "prog                    "},
        {"prog", ".cmd", "prog                    "},
        {"/bin/prog /x/y", ".cmd", "prog                    "},
        {"", ".cmd", "                        "},
        {" prog", ".cmd", "                        "},
        {"x", "longer than x", "x                       "},
        {"1234567890123456789012345.cmd", ".cmd", "123456789012345678901234"},
        {"/x/123456789012345678901234567", ".cmd", "123456789012345678901234"},
        {"tab\tprog.cmd", ".cmd", "tab\tprog                "}, // only a blank parts words
    };
    for (const auto &c : cases) {
        std::string out(25, '#');
        mov_progterm(c.pname, c.term, out.data(), 24);
        EXPECT_EQ(std::string(c.expected) + "#", out) << c.pname;
    }
}

TEST(HdrText, StrFind)
{
    EXPECT_EQ(0, str_find("", ""));
    EXPECT_EQ(0, str_find("", "abc"));
    EXPECT_EQ(0, str_find("a", "abca"));
    EXPECT_EQ(2, str_find("ca", "abca"));
    EXPECT_EQ(-1, str_find("cab", "abca"));
    EXPECT_EQ(-1, str_find("abc", "ab"));
    EXPECT_EQ(-1, str_find("a", ""));
    EXPECT_EQ(-1, str_find("A", "a"));
}

TEST(HdrText, Substr)
{
    const struct {
        int outmax;
        int start;
        int count;
        std::string expected;
    } cases[] = {
        {8, 0, 3, "abc"}, {8, 2, 3, "cde"}, {2, 0, 3, "ab"}, {8, 4, 9, "ef"}, {8, 6, 3, ""},
        {0, 0, 3, ""},    {-1, 0, 3, ""},   {8, 0, 0, ""},   {8, 0, -2, ""},
    };
    for (const auto &c : cases) {
        char out[10] = "#########";
        EXPECT_EQ(static_cast<int>(c.expected.size()),
                  substr(out, c.outmax, "abcdef", c.start, c.count));
        EXPECT_EQ(c.expected, std::string(out, c.expected.size()));
        EXPECT_EQ('#', out[c.expected.size()]) << "no NUL is written";
    }
}

TEST(HdrText, Backfind)
{
    EXPECT_EQ(2, backfind('/', "a//b", 3));
    EXPECT_EQ(2, backfind('/', "a//b", 2));
    EXPECT_EQ(1, backfind('/', "a//b", 1));
    EXPECT_GT(0, backfind('/', "a//b", 0));
    EXPECT_GT(0, backfind('/', "a//b", -1));
    EXPECT_GT(0, backfind('x', "a//b", 3));
}
