// Timestamps to seconds and back.
#include "feed/stamp.h"

#include <gtest/gtest.h>

#include <string>

struct stamp_case {
    const char *text;
    int64_t seconds;
    int32_t micros;
    bool zoned;
};

TEST(PgTime, TimestampsAreCountedFrom1970)
{
    // 2026-11-20 is day 20777 of 1970: 56 years with 14 leap days (1972 to 2024)
    // are 20454 days, and 323 days of 2026 lie before 20 November.
    const stamp_case cases[] = {
        {"1970-01-01 00:00:00", 0, 0, false},
        {"1970-01-01 00:00:00+00", 0, 0, true},
        {"2026-11-20 22:08:38.038401+00", 20777LL * 86400 + 79718, 38401, true},
        {"2026-11-20 22:08:38.5", 20777LL * 86400 + 79718, 500000, false},
        {"2026-11-20 23:08:38+01", 20777LL * 86400 + 79718, 0, true},
        {"2026-11-20 16:38:38-05:30", 20777LL * 86400 + 79718, 0, true},
        {"1970-01-01 00:19:32+00:19:32", 0, 0, true},
        {"1969-12-31 23:59:59.25", -1, 250000, false},
        {"2000-02-29 00:00:00", 11016LL * 86400, 0, false},
    };
    for (const stamp_case &row : cases) {
        feed_stamp stamp;
        ASSERT_TRUE(feed_stamp_parse(stamp, row.text)) << row.text;
        EXPECT_EQ(stamp.seconds, row.seconds) << row.text;
        EXPECT_EQ(stamp.micros, row.micros) << row.text;
        EXPECT_EQ(stamp.zoned, row.zoned) << row.text;
    }
}

TEST(PgTime, WhatIsNotATimestampIsRefused)
{
    for (const char *text : {"",
                             "2026-11-20",
                             "2026-11-20T22:08:38",
                             "20.11.2026 22:08:38",
                             "2026-13-01 00:00:00",
                             "2026-00-01 00:00:00",
                             "2026-02-29 00:00:00",
                             "1900-02-29 00:00:00",
                             "2026-04-31 00:00:00",
                             "2026-01-00 00:00:00",
                             "2026-01-01 24:00:00",
                             "2026-01-01 00:60:00",
                             "2026-01-01 00:00:60",
                             "2026-01-01 00:00:00.",
                             "2026-01-01 00:00:00.1234567",
                             "2026-01-01 00:00:00+1",
                             "2026-01-01 00:00:00+24",
                             "2026-01-01 00:00:00+01:60",
                             "2026-01-01 00:00:00 UTC",
                             "2026-01-01 00:00:00+00 BC",
                             "0000-01-01 00:00:00",
                             "10000-01-01 00:00:00",
                             "infinity",
                             "-infinity",
                             "0044-03-15 12:00:00 BC"}) {
        feed_stamp stamp;
        EXPECT_FALSE(feed_stamp_parse(stamp, text)) << text;
    }
}

static std::string formatted(const char *text, int decimals)
{
    feed_stamp stamp;
    std::string out;
    EXPECT_TRUE(feed_stamp_parse(stamp, text)) << text;
    return feed_stamp_format(out, stamp, decimals) ? out : "refused";
}

TEST(PgTime, FormatHasTheDecimalsAskedFor)
{
    EXPECT_EQ(formatted("2026-03-09 08:18:01", 0), "2026-03-09 08:18:01");
    EXPECT_EQ(formatted("2026-03-09 08:18:01", 3), "2026-03-09 08:18:01.000");
    EXPECT_EQ(formatted("2026-03-09 08:18:01.2", 6), "2026-03-09 08:18:01.200000");
    EXPECT_EQ(formatted("2026-03-09 08:18:01.261644", 6), "2026-03-09 08:18:01.261644");
    EXPECT_EQ(formatted("2026-03-09 08:18:01.261", 3), "2026-03-09 08:18:01.261");
}

TEST(PgTime, NoDecimalIsLost)
{
    EXPECT_EQ(formatted("2026-03-09 08:18:01.2611", 3), "refused");
    EXPECT_EQ(formatted("2026-03-09 08:18:01.000001", 0), "refused");
}

TEST(PgTime, OffsetsLeadToUtcAcrossDaysAndYears)
{
    EXPECT_EQ(formatted("2026-12-31 23:30:00-01", 0), "2027-01-01 00:30:00");
    EXPECT_EQ(formatted("2024-03-01 00:30:00+01", 0), "2024-02-29 23:30:00");
    EXPECT_EQ(formatted("0001-01-01 00:00:00+01", 0), "refused");
    EXPECT_EQ(formatted("9999-12-31 23:59:59-01", 0), "refused");
}

TEST(PgTime, EveryDayOfTwoCenturiesComesBack)
{
    feed_stamp stamp;
    std::string text;
    std::string before;
    const int64_t first = -36525LL * 86400; // 1870 to 2069
    for (int day = 0; day < 73049; day++) {
        const int64_t seconds = first + int64_t{day} * 86400 + 43200;
        ASSERT_TRUE(feed_stamp_format(text, {.seconds = seconds}, 0));
        ASSERT_GT(text, before);
        ASSERT_TRUE(feed_stamp_parse(stamp, text)) << text;
        ASSERT_EQ(stamp.seconds, seconds) << text;
        before = text;
    }
}
