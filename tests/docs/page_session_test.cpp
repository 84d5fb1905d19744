// The sessions of a page as this folder's tests take them.
#include "tests/docs/page_session.h"

#include <gtest/gtest.h>

TEST(PageSession, CommandsAndWhatTheyPrintAreToldApart)
{
    const auto commands = page_commands("$ cd /\n$ printf 'a\n> b\n> '\na\nb\n$ cat\n^C\n");
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[0].command, "cd /");
    EXPECT_EQ(commands[0].output, "");
    EXPECT_EQ(commands[1].command, "printf 'a\nb\n'");
    EXPECT_EQ(commands[1].output, "a\nb\n");
    EXPECT_FALSE(commands[1].interrupted);
    EXPECT_TRUE(commands[2].interrupted);
    EXPECT_TRUE(page_commands("cd /\n").empty());
}

TEST(PageSession, OutputIsBothStreamsAndAFailure)
{
    EXPECT_EQ(page_output({"echo a; echo b >&2", "", false}, {}), "a\nb\n");
    EXPECT_EQ(page_output({"echo a; exit 3", "", false}, {}), "a\nstatus 3\n");
}

TEST(PageSession, ACommandThatGoesOnIsInterruptedWhenItHasPrinted)
{
    EXPECT_EQ(page_output({"echo a; sleep 1000; echo b", "a\n", true}, {}), "a\n");
}
