// Positions of a PostgreSQL server as text, there and back, and texts that are none.
#include "feed/lsn.h"

#include <gtest/gtest.h>

TEST(PgLsn, PositionsAreTwoHexadecimalNumbers)
{
    uint64_t lsn = 0;
    ASSERT_TRUE(feed_lsn_parse(lsn, "0/195E398"));
    EXPECT_EQ(lsn, 0x195E398U);
    ASSERT_TRUE(feed_lsn_parse(lsn, "1A/2b"));
    EXPECT_EQ(lsn, 0x1A0000002BU);
    ASSERT_TRUE(feed_lsn_parse(lsn, "FFFFFFFF/FFFFFFFF"));
    EXPECT_EQ(lsn, UINT64_MAX);
    for (const char *text : {"", "/", "1", "1/", "/1", "1/2/3", "1/2 ", " 1/2", "-1/2", "1/-2",
                             "100000000/0", "0/100000000", "0x1/2", "g/1"})
        EXPECT_FALSE(feed_lsn_parse(lsn, text)) << text;
    EXPECT_EQ(feed_lsn_text(0x1A0000002BU), "1A/2B");
    EXPECT_EQ(feed_lsn_text(0), "0/0");
}
