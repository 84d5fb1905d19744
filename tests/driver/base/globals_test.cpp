// The run's global state.
#include "driver/base/globals.h"

#include <cstring>
#include <gtest/gtest.h>

TEST(Globals, InitSetsTheStartValues)
{
    g_flags = 0xFFFF;
    g_nlogrecs = 5;
    g_loglevel = 8;
    strcpy(g_logfname, "x");
    g_needsetinfo = 1;
    init_globals();
    EXPECT_EQ(0U, g_flags);
    EXPECT_EQ(0, g_nlogrecs);
    EXPECT_EQ(2U, g_loglevel);
    EXPECT_STREQ("", g_logfname);
    EXPECT_EQ(nullptr, g_ci);
    EXPECT_EQ(0, g_needsetinfo);
}
