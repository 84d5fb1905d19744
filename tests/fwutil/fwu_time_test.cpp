// Times as text and back, at the ends of what four digits of a year can say.
#include "fwutil/fwu_time.h"

#include <ctime>
#include <gtest/gtest.h>
#include <random>

struct time_row {
    int64_t time_us;
    int64_t second;
    int32_t micros;
    const char *text;
};

static const time_row TIMES[] = {
    {0, 0, 0, "1970-01-01 00:00:00.000000"},
    {-1, -1, 999999, "1969-12-31 23:59:59.999999"},
    {-1'000'000, -1, 0, "1969-12-31 23:59:59.000000"},
    {1'700'000'004'000'005, 1'700'000'004, 5, "2023-11-14 22:13:24.000005"},
    {951'827'696'123'456, 951'827'696, 123456, "2000-02-29 12:34:56.123456"},
    {-62'167'219'200'000'000, -62'167'219'200, 0, "0000-01-01 00:00:00.000000"},
    {253'402'300'799'999'999, 253'402'300'799, 999999, "9999-12-31 23:59:59.999999"},
};

TEST(TimeTest, ASecondAndItsMicrosecondsAreWrittenAndReadBack)
{
    for (const time_row &row : TIMES) {
        EXPECT_EQ(fwu_second_of(row.time_us), row.second) << row.text;
        EXPECT_EQ(fwu_micros_of(row.time_us), row.micros) << row.text;
        char text[FWU_TIME_SIZE];
        ASSERT_TRUE(fwu_time_put(text, row.second, row.micros)) << row.text;
        EXPECT_EQ(std::string(text, sizeof text), row.text);
        EXPECT_EQ(fwu_time_get(row.text), row.time_us) << row.text;
        EXPECT_EQ(fwu_time_text(row.time_us), std::string(row.text) + " UTC");
        std::string word = row.text;
        word[10] = 'T';
        EXPECT_EQ(fwu_time_word(row.time_us), word + "Z");
    }
}

TEST(TimeTest, OtherYearsAreNotWrittenOrBecomeTheNearestOne)
{
    char text[FWU_TIME_SIZE] = {'x'};
    for (const int64_t second :
         {INT64_MIN, int64_t{-62'167'219'201}, int64_t{253'402'300'800}, INT64_MAX})
        EXPECT_FALSE(fwu_time_put(text, second, 0)) << second;
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(fwu_time_text(INT64_MIN).substr(0, 20), "0000-01-01 00:00:00.");
    EXPECT_EQ(fwu_time_text(INT64_MAX).substr(0, 20), "9999-12-31 23:59:59.");
}

// The calendar of the C library, which is right where its seconds have 64 bits.
TEST(TimeTest, AgreesWithTheSystemsCalendar)
{
    if (sizeof(time_t) < 8)
        GTEST_SKIP() << "the system's calendar ends in 2038";
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::uniform_int_distribution<int64_t> seconds(-62'167'219'200, 253'402'300'799);
    for (int i = 0; i < 100'000; i++) {
        const time_t when = seconds(random);
        struct tm tm = {};
        char expected[64];
        ASSERT_NE(gmtime_r(&when, &tm), nullptr);
        snprintf(expected, sizeof expected, "%04d-%02d-%02d %02d:%02d:%02d.000000",
                 tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
        char text[FWU_TIME_SIZE];
        ASSERT_TRUE(fwu_time_put(text, when, 0));
        ASSERT_EQ(std::string(text, sizeof text), expected) << when;
        ASSERT_EQ(fwu_time_get(expected), when * FWU_US_PER_S) << expected;
    }
    // Days that no month has, and hours that no day has, go on behind those that there are.
    for (int i = 0; i < 100'000; i++) {
        const auto below = [&](int end) {
            return static_cast<int>(random() % static_cast<unsigned>(end));
        };
        struct tm tm = {};
        tm.tm_year = below(10'000) - 1900;
        tm.tm_mon = below(100) - 1;
        tm.tm_mday = below(100);
        tm.tm_hour = below(100);
        tm.tm_min = below(100);
        tm.tm_sec = below(100);
        char text[64];
        snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.000000", tm.tm_year + 1900,
                 tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
        ASSERT_EQ(fwu_time_get(text), timegm(&tm) * FWU_US_PER_S) << text;
    }
}
