// Pages of macros, read for tests.
#include "tests/support/man_page.h"

#include <gmock/gmock.h>

TEST(ManPage, LinesAreShown)
{
    const struct {
        const char *line, *shown;
    } rows[] = {
        {"Op Fl cfg Ar FILE", "[-cfg FILE]"},
        {"Op Fl -create Ns Op = Ns Cm minimal", "[--create[=minimal]]"},
        {"Oo Fl -dir Ar DIR Oo Fl -force Oc Oc", "[--dir DIR [--force]]"},
        {"Po Fl -keep Ar N | Fl -before Ar POSITION Pc", "(--keep N|--before POSITION)"},
        {"Op Fl -conninfo Qq ...", "[--conninfo \"...\"]"},
        {"Op Ar CHANGES.jsonl | Fl", "[CHANGES.jsonl|-]"},
        {"Fl help , Fl \\&?", "-help, -?"},
        {"128 + n", "128 + n"},
        {"Nm \"fwlog dump\"", "fwlog dump"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(man_shown(row.line), row.shown);
}

static const char PAGE[] =
    ".Dd now\n.Sh NAME\n.Nm a\n.Sh SYNOPSIS\n.Nm a\n.Op Fl b\n.Ft \"char *\"\n"
    ".Fn c \"int d\" e\n.Ft int\n.Fo f\n.Fa void\n.Fc\n.Sh REST\n"
    ".It Fl b , Fl -long\nText.\n.It Ev X , Y , No ...\n.It 0\n";

TEST(ManPage, PartsAreFound)
{
    EXPECT_EQ(man_section(PAGE, "NAME"), ".Nm a\n");
    EXPECT_EQ(man_section(PAGE, "NONE"), "");
    EXPECT_THAT(man_prototypes(PAGE), testing::ElementsAre("char *c(int d, e)", "int f(void)"));
    EXPECT_THAT(man_options(PAGE), testing::ElementsAre("--long", "-b"));
    EXPECT_THAT(man_items(PAGE, "Fl"), testing::ElementsAre("-b, --long"));
    EXPECT_THAT(man_items(PAGE, "Ev"), testing::ElementsAre("X", "Y"));
    EXPECT_THAT(man_items(PAGE, ""), testing::ElementsAre("0"));
    EXPECT_EQ(man_synopsis(".Sh NAME\n.Nm a\n.Sh SYNOPSIS\n.Nm a\n.Op Fl b\n.Ar FILE\n.Sh X\n"),
              "a [-b] FILE");
}
