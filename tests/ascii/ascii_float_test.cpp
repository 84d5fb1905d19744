// Floating-point texts against the C library's, which they must equal to the
// character.
#include "ascii/ascii_float.h"

#include <bit>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

static std::string made(double value, int precision)
{
    char text[FLOAT_TEXT_SIZE];
    const int n = float_to_text(text, value, precision);
    return {text, static_cast<size_t>(n)};
}

static std::string wanted(double value, int precision)
{
    char text[FLOAT_TEXT_SIZE];
    snprintf(text, sizeof text, "%.*G", precision, value);
    return text;
}

TEST(FloatToText, TextsWorkedOutByHand)
{
    EXPECT_EQ(made(0.0, 7), "0");
    EXPECT_EQ(made(-0.0, 7), "-0");
    EXPECT_EQ(made(12.5, 7), "12.5");
    EXPECT_EQ(made(-1000, 7), "-1000");
    EXPECT_EQ(made(1234567, 7), "1234567");
    EXPECT_EQ(made(12345678, 7), "1.234568E+07");
    EXPECT_EQ(made(0.0001, 7), "0.0001");
    EXPECT_EQ(made(0.00001, 7), "1E-05");
    EXPECT_EQ(made(2.5, 1), "2"); // half to even
    EXPECT_EQ(made(3.5, 1), "4");
    EXPECT_EQ(made(9999999.5, 7), "1E+07"); // rounding adds a digit
    EXPECT_EQ(made(std::numeric_limits<double>::infinity(), 12), "INF");
    EXPECT_EQ(made(-std::numeric_limits<double>::infinity(), 12), "-INF");
}

TEST(FloatToText, LimitsOfTheType)
{
    for (const double value : {5e-324, 2.2250738585072014e-308, 1.7976931348623157e308, 0.1, 1e15,
                               1e16, 9007199254740993.0, 123456789012345678.0}) {
        for (int precision = 1; precision <= 17; precision++) {
            EXPECT_EQ(made(value, precision), wanted(value, precision));
            EXPECT_EQ(made(-value, precision), wanted(-value, precision));
        }
    }
}

TEST(FloatToText, AnyBitsReadAsTheCLibraryReadsThem)
{
    const unsigned seed = std::random_device{}();
    std::mt19937_64 random(seed);
    for (int i = 0; i < 100000; i++) {
        const uint64_t bits = random();
        const auto value = std::bit_cast<double>(bits);
        ASSERT_EQ(made(value, 12), wanted(value, 12)) << "bits " << bits << ", seed " << seed;
        const auto single = static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits)));
        ASSERT_EQ(made(single, 7), wanted(single, 7)) << "bits " << bits << ", seed " << seed;
    }
}

TEST(FloatToText, DecimalNumbersReadAsTheCLibraryReadsThem)
{
    const unsigned seed = std::random_device{}();
    std::mt19937_64 random(seed);
    const double divisors[] = {1, 2, 3, 8, 10, 64, 100, 1e3, 1e4, 1e6, 1e9, 1e12};
    for (int i = 0; i < 100000; i++) {
        const auto whole =
            static_cast<double>(static_cast<int64_t>(random() % 2000000001) - 1000000000);
        const double value = whole / divisors[random() % std::size(divisors)];
        const int precision = 1 + static_cast<int>(random() % 17);
        ASSERT_EQ(made(value, precision), wanted(value, precision)) << "seed " << seed;
        const auto single = static_cast<double>(static_cast<float>(value));
        ASSERT_EQ(made(single, 7), wanted(single, 7)) << "seed " << seed;
    }
}
