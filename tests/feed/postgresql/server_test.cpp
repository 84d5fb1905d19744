// Values of the server's answers, and names in SQL.
#include "feed/postgresql/server.h"

#include <gtest/gtest.h>

TEST(BridgeServer, NumbersAreTakenWholeOrNotAtAll)
{
    uint32_t number = 7;
    for (const char *text : {"", "x", "1x", " 1", "-1", "+1", "4294967296", "1.0"}) {
        EXPECT_FALSE(pgs_number(number, text)) << text;
        EXPECT_EQ(number, 7U);
    }
    EXPECT_TRUE(pgs_number(number, "4294967295"));
    EXPECT_EQ(number, UINT32_MAX);
    int32_t with_sign = 0;
    EXPECT_TRUE(pgs_number(with_sign, "-1"));
    EXPECT_EQ(with_sign, -1);
    EXPECT_FALSE(pgs_number(with_sign, "2147483648"));
}

TEST(BridgeServer, NamesAndTextsAreQuoted)
{
    EXPECT_EQ(pgs_name("kestro"), "\"kestro\"");
    EXPECT_EQ(pgs_name("a\"b'c"), "\"a\"\"b'c\"");
    EXPECT_EQ(pgs_literal("a\"b'c"), "'a\"b''c'");
}
