// Numbers to integers, packed, zoned and floating point: worked examples, limits
// of each width, and random numbers against a model that moves characters about.
#include "feed/decimal.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

static std::string hex(const std::vector<unsigned char> &data)
{
    std::string out;
    char two[4];
    for (const unsigned char byte : data) {
        snprintf(two, sizeof two, "%02X", byte);
        out += two;
    }
    return out;
}

// Result of a conversion: the bytes in hex, or the name of the error.
static std::string shown(feed_number_result result, const std::vector<unsigned char> &data)
{
    static const char *const names[] = {"", "not a number", "fraction", "digits", "range"};
    return result == FEED_NUMBER_OK ? hex(data) : names[result];
}

static std::string integer(const char *text, int32_t size, bool is_signed = true,
                           bool big_endian = true)
{
    std::vector<unsigned char> out(static_cast<size_t>(size), 0xEE);
    const feed_number_result result =
        feed_put_integer(text, is_signed, big_endian, out.data(), size);
    return shown(result, out);
}

static std::string packed(std::string_view text, int32_t size, int32_t scale)
{
    std::vector<unsigned char> out(static_cast<size_t>(size), 0xEE);
    const feed_number_result result = feed_put_packed(text, scale, out.data(), size);
    return shown(result, out);
}

static std::string zoned(std::string_view text, int32_t size, int32_t scale)
{
    std::vector<unsigned char> out(static_cast<size_t>(size), 0xEE);
    const feed_number_result result = feed_put_zoned(text, scale, out.data(), size);
    return result == FEED_NUMBER_OK ? std::string(out.begin(), out.end()) : shown(result, out);
}

static std::string floating(const char *text, int32_t size, bool big_endian = true)
{
    std::vector<unsigned char> out(static_cast<size_t>(size), 0xEE);
    const feed_number_result result = feed_put_float(text, big_endian, out.data(), size);
    return shown(result, out);
}

TEST(PgDecimal, OnlyWhatJsonCallsANumberIsOne)
{
    for (const char *text : {"0", "-0", "12", "00123", "1.5", "-871.20", "1e3", "1E+3", "1.2e-05"})
        EXPECT_TRUE(feed_is_number(text)) << text;
    for (const char *text : {"", "-", "+1", ".5", "5.", "1e", "1e+", "1.e3", " 1", "1 ", "0x10",
                             "1,5", "NaN", "Infinity", "1-2", "--1"})
        EXPECT_FALSE(feed_is_number(text)) << text;
}

TEST(PgDecimal, IntegersHaveTwosComplementInTheByteOrderAsked)
{
    EXPECT_EQ(integer("1", 2), "0001");
    EXPECT_EQ(integer("1", 2, true, false), "0100");
    EXPECT_EQ(integer("-2", 4), "FFFFFFFE");
    EXPECT_EQ(integer("700001", 4), "000AAE61");
    EXPECT_EQ(integer("700001", 4, true, false), "61AE0A00");
    EXPECT_EQ(integer("4200000001", 8), "00000000FA56EA01");
    EXPECT_EQ(integer("65535", 2, false), "FFFF");
}

TEST(PgDecimal, IntegersStopAtTheLimitsOfTheirWidth)
{
    EXPECT_EQ(integer("32767", 2), "7FFF");
    EXPECT_EQ(integer("32768", 2), "range");
    EXPECT_EQ(integer("-32768", 2), "8000");
    EXPECT_EQ(integer("-32769", 2), "range");
    EXPECT_EQ(integer("2147483647", 4), "7FFFFFFF");
    EXPECT_EQ(integer("2147483648", 4), "range");
    EXPECT_EQ(integer("-2147483648", 4), "80000000");
    EXPECT_EQ(integer("9223372036854775807", 8), "7FFFFFFFFFFFFFFF");
    EXPECT_EQ(integer("9223372036854775808", 8), "range");
    EXPECT_EQ(integer("-9223372036854775808", 8), "8000000000000000");
    EXPECT_EQ(integer("-9223372036854775809", 8), "range");
    EXPECT_EQ(integer("18446744073709551615", 8, false), "FFFFFFFFFFFFFFFF");
    EXPECT_EQ(integer("18446744073709551616", 8, false), "range");
    EXPECT_EQ(integer("99999999999999999999", 8, false), "range");
    EXPECT_EQ(integer("100000000000000000000", 8, false), "range");
    EXPECT_EQ(integer("65536", 2, false), "range");
    EXPECT_EQ(integer("-1", 4, false), "range");
    EXPECT_EQ(integer("-0", 4, false), "00000000");
}

TEST(PgDecimal, IntegersTakeExponentsAndZerosBehindThePointButNoFraction)
{
    EXPECT_EQ(integer("1E3", 2), "03E8");
    EXPECT_EQ(integer("1.50e1", 2), "000F");
    EXPECT_EQ(integer("12000e-3", 2), "000C");
    EXPECT_EQ(integer("7.000", 2), "0007");
    EXPECT_EQ(integer("7.001", 2), "fraction");
    EXPECT_EQ(integer("1e-1", 2), "fraction");
    EXPECT_EQ(integer("0e99999999999999999999", 2), "0000");
    EXPECT_EQ(integer("1e99999999999999999999", 2), "range");
    EXPECT_EQ(integer("1e-99999999999999999999", 2), "fraction");
    EXPECT_EQ(integer("x", 2), "not a number");
}

TEST(PgDecimal, PackedHasTwoDigitsAByteAndTheSignBehindThem)
{
    EXPECT_EQ(packed("871.20", 5, 2), "000087120C");
    EXPECT_EQ(packed("-871.20", 5, 2), "000087120D");
    EXPECT_EQ(packed("1", 1, 0), "1C");
    EXPECT_EQ(packed("-9", 1, 0), "9D");
    EXPECT_EQ(packed("0", 3, 2), "00000C");
    EXPECT_EQ(packed("-0.00", 3, 2), "00000C");
    EXPECT_EQ(packed("42.4099", 6, 4), "00000424099C");
    EXPECT_EQ(packed("1.2e-05", 4, 6), "0000012C");
    EXPECT_EQ(packed("1E3", 4, 2), "0100000C");
}

TEST(PgDecimal, PackedRefusesWhatItHasNoDigitsFor)
{
    EXPECT_EQ(packed("999.99", 3, 2), "99999C");
    EXPECT_EQ(packed("1000.00", 3, 2), "digits");
    EXPECT_EQ(packed("871.205", 5, 2), "fraction");
    EXPECT_EQ(packed("871.2000", 5, 2), "000087120C");
    EXPECT_EQ(packed("1.2e-05", 4, 4), "fraction");
    EXPECT_EQ(packed("1e300", 5, 0), "digits");
    EXPECT_EQ(packed("NaN", 5, 0), "not a number");
}

TEST(PgDecimal, ZonedPunchesTheSignOverTheLastDigit)
{
    EXPECT_EQ(zoned("121", 3, 0), "12A");
    EXPECT_EQ(zoned("-121", 3, 0), "12J");
    EXPECT_EQ(zoned("0", 3, 0), "00{");
    EXPECT_EQ(zoned("-0", 3, 0), "00{");
    EXPECT_EQ(zoned("-20", 3, 0), "02}");
    EXPECT_EQ(zoned("1.29", 4, 2), "012I");
    EXPECT_EQ(zoned("-1.29", 4, 2), "012R");
    EXPECT_EQ(zoned("5", 1, 0), "E");
    EXPECT_EQ(zoned("10", 1, 0), "digits");
    EXPECT_EQ(zoned("1.5", 4, 0), "fraction");
}

TEST(PgDecimal, FloatsAreRoundedOnceToTheirOwnType)
{
    EXPECT_EQ(floating("1", 4), "3F800000");
    EXPECT_EQ(floating("1", 4, false), "0000803F");
    EXPECT_EQ(floating("-2.5", 8), "C004000000000000");
    EXPECT_EQ(floating("-0", 8), "8000000000000000");
    EXPECT_EQ(floating("0.1", 4), "3DCCCCCD");
    EXPECT_EQ(floating("0.1", 8), "3FB999999999999A");
    // Just above the middle between 1 and the next single: a way through double,
    // which rounds the tail away, would go down to 3F800000.
    EXPECT_EQ(floating("1.00000005960464477540", 4), "3F800001");
}

TEST(PgDecimal, FloatsOutOfRangeAreRefused)
{
    EXPECT_EQ(floating("3.4028235e38", 4), "7F7FFFFF");
    EXPECT_EQ(floating("3.5e38", 4), "range");
    EXPECT_EQ(floating("1e-60", 4), "range");
    EXPECT_EQ(floating("1e-45", 4), "00000001");
    EXPECT_EQ(floating("1e400", 8), "range");
    EXPECT_EQ(floating("5e-324", 8), "0000000000000001");
    EXPECT_EQ(floating("Infinity", 4), "7F800000");
    EXPECT_EQ(floating("-Infinity", 8), "FFF0000000000000");
    EXPECT_EQ(floating("NaN", 4), "7FC00000");
    EXPECT_EQ(floating("nan", 4), "not a number");
    EXPECT_EQ(floating("inf", 4), "not a number");
    EXPECT_EQ(floating("1.5x", 4), "not a number");
}

// The model: writes the number out in full as a string of digits, point and all.
struct model_number {
    bool negative = false;
    std::string whole;
    std::string fraction;
};

static model_number model_parse(std::string text)
{
    model_number number;
    if (text[0] == '-') {
        number.negative = true;
        text.erase(0, 1);
    }
    int exponent = 0;
    const size_t e = text.find('e');
    if (e != std::string::npos) {
        exponent = std::stoi(text.substr(e + 1));
        text.resize(e);
    }
    const size_t point = text.find('.');
    number.whole = text.substr(0, point);
    if (point != std::string::npos)
        number.fraction = text.substr(point + 1);
    for (; exponent > 0; exponent--) {
        if (number.fraction.empty())
            number.fraction = "0";
        number.whole += number.fraction[0];
        number.fraction.erase(0, 1);
    }
    for (; exponent < 0; exponent++) {
        if (number.whole.empty())
            number.whole = "0";
        number.fraction.insert(0, 1, number.whole.back());
        number.whole.pop_back();
    }
    return number;
}

// Digits of the number times 10^scale, width of them, or the name of the error.
static std::string model_digits(const model_number &number, int scale, size_t width)
{
    std::string fraction = number.fraction;
    while (fraction.size() > static_cast<size_t>(scale)) {
        if (fraction.back() != '0')
            return "fraction";
        fraction.pop_back();
    }
    fraction.append(static_cast<size_t>(scale) - fraction.size(), '0');
    std::string digits = number.whole + fraction;
    while (!digits.empty() && digits[0] == '0')
        digits.erase(0, 1);
    if (digits.size() > width)
        return "digits";
    return std::string(width - digits.size(), '0') + digits;
}

static bool all_zeros(const std::string &digits)
{
    return digits.find_first_not_of('0') == std::string::npos;
}

static std::string random_number(std::mt19937 &random)
{
    const auto digits = [&random](unsigned most) {
        std::string out;
        for (auto n = random() % most + 1; n > 0; n--)
            out += static_cast<char>('0' + (random() % 3 == 0 ? 0 : random() % 10));
        return out;
    };
    std::string text = random() % 2 ? "-" : "";
    text += digits(9);
    if (random() % 2)
        text += "." + digits(6);
    if (random() % 4 == 0)
        text += "e" + std::to_string(static_cast<int>(random() % 13) - 6);
    return text;
}

TEST(PgDecimal, RandomNumbersAgreeWithTheModel)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    int fitted = 0;
    for (int i = 0; i < 50000; i++) {
        const std::string text = random_number(random);
        const model_number number = model_parse(text);
        const int size = static_cast<int>(random() % 7) + 1;
        const int scale = static_cast<int>(random() % 5);

        std::string digits = model_digits(number, scale, 2 * static_cast<size_t>(size) - 1);
        const bool fits = digits != "fraction" && digits != "digits";
        const bool minus = number.negative && !all_zeros(digits);
        ASSERT_EQ(packed(text, size, scale), fits ? digits + (minus ? "D" : "C") : digits)
            << text << " size " << size << " scale " << scale;
        fitted += fits;

        digits = model_digits(number, scale, static_cast<size_t>(size));
        if (digits != "fraction" && digits != "digits") {
            const int last = digits.back() - '0';
            digits.back() =
                number.negative && !all_zeros(digits) ? "}JKLMNOPQR"[last] : "{ABCDEFGHI"[last];
        }
        ASSERT_EQ(zoned(text, size, scale), digits)
            << text << " size " << size << " scale " << scale;

        digits = model_digits(number, 0, 18);
        std::string expected = digits == "digits" ? "range" : digits;
        if (digits != "fraction" && digits != "digits") {
            long long value = std::stoll(digits);
            value = number.negative ? -value : value;
            char wanted[17];
            snprintf(wanted, sizeof wanted, "%08X", static_cast<unsigned>(value));
            expected = value < INT32_MIN || value > INT32_MAX ? "range" : wanted;
        }
        ASSERT_EQ(integer(text.c_str(), 4), expected) << text;
    }
    EXPECT_GT(fitted, 5000);
}
