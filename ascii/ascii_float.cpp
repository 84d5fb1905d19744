// Floating-point numbers as text.  printf takes some hundred nanoseconds for a
// number, since it is prepared for any; the numbers that databases hold fit into
// exact 128-bit arithmetic, and the others still go to printf.
#include "ascii/ascii_float.h"

#include "ascii/ascii_digits.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

__extension__ typedef unsigned __int128 uint128;

constexpr int POWERS = 28;        // powers of ten that a table holds
constexpr int PRODUCT_BITS = 126; // bits that a product may have

static constexpr std::array<uint128, POWERS> make_powers()
{
    std::array<uint128, POWERS> powers = {};
    powers[0] = 1;
    for (size_t i = 1; i < POWERS; i++)
        powers[i] = powers[i - 1] * 10;
    return powers;
}

static constexpr std::array<uint128, POWERS> power_of_ten = make_powers();

static int bits_of(uint128 value)
{
    const auto high = static_cast<uint64_t>(value >> 64);
    return static_cast<int>(high != 0 ? 64 + std::bit_width(high)
                                      : std::bit_width(static_cast<uint64_t>(value)));
}

// value = mantissa * 2^exponent, the mantissa odd.
struct binary {
    uint64_t mantissa;
    int exponent;
};

static binary split(double value)
{
    constexpr int MANTISSA_BITS = 52;
    constexpr int EXPONENT_BIAS = 1075;
    const auto bits = std::bit_cast<uint64_t>(value);
    const auto biased = static_cast<int>(bits >> MANTISSA_BITS & 0x7FF);
    uint64_t mantissa = bits & ((uint64_t{1} << MANTISSA_BITS) - 1);
    int exponent = 1 - EXPONENT_BIAS;
    if (biased != 0) {
        mantissa |= uint64_t{1} << MANTISSA_BITS;
        exponent = biased - EXPONENT_BIAS;
    }
    const int zeros = std::countr_zero(mantissa);
    return {mantissa >> zeros, exponent + zeros};
}

// The quotient and what is left, compared with half the divisor: -1, 0 or 1.
struct quotient {
    uint128 whole;
    int half;
    bool exact;
};

// number * 10^scale; false when it does not fit.
static bool scaled(const binary &number, int scale, quotient &result)
{
    uint128 dividend = number.mantissa;
    uint128 divisor = 1;
    const int ten = scale < 0 ? -scale : scale;
    if (ten >= POWERS)
        return false;
    uint128 &by_ten = scale < 0 ? divisor : dividend;
    if (bits_of(by_ten) + bits_of(power_of_ten[static_cast<size_t>(ten)]) > PRODUCT_BITS)
        return false;
    by_ten *= power_of_ten[static_cast<size_t>(ten)];
    const int two = number.exponent < 0 ? -number.exponent : number.exponent;
    uint128 &by_two = number.exponent < 0 ? divisor : dividend;
    if (bits_of(by_two) + two > PRODUCT_BITS)
        return false;
    by_two <<= two;

    uint128 rest;
    if (divisor == uint128{1} << two) { // mostly: no division
        result.whole = dividend >> two;
        rest = dividend & (divisor - 1);
    } else {
        result.whole = dividend / divisor;
        rest = dividend % divisor;
    }
    result.exact = rest == 0;
    result.half = rest * 2 < divisor ? -1 : rest * 2 > divisor ? 1 : 0;
    return true;
}

// The number rounded to precision digits, half to even, and the decimal exponent
// of its first digit; false when it does not fit.
static bool round_to(const binary &number, int precision, uint64_t &digits, int &exponent)
{
    constexpr double LOG10_2 = 0.30102999566398120;
    const auto limit = static_cast<uint64_t>(power_of_ten[static_cast<size_t>(precision)]);
    const int top_bit = static_cast<int>(std::bit_width(number.mantissa)) - 1 + number.exponent;
    exponent = static_cast<int>(std::floor(top_bit * LOG10_2)); // right, or one too small
    quotient q = {};
    for (;;) {
        if (!scaled(number, precision - 1 - exponent, q))
            return false;
        if (q.whole < limit)
            break;
        exponent++;
    }
    digits = static_cast<uint64_t>(q.whole);
    if (q.half > 0 || (q.half == 0 && !q.exact && digits % 2 != 0))
        digits++;
    if (digits == limit) {
        digits /= 10;
        exponent++;
    }
    return true;
}

constexpr int DIGITS_MAX = 20; // of a number of 64 bits

// Copies digits; always the same number of bytes, which the texts have room for.
static void copy_digits(char *out, const char *digits)
{
    memcpy(out, digits, DIGITS_MAX);
}

// Writes the digits in the form that their exponent asks for.
static int put_digits(char *text, uint64_t number, int exponent, int precision)
{
    char digits[2 * DIGITS_MAX];
    char *const end = digits + DIGITS_MAX;
    const char *first = number <= UINT32_MAX ? digits_before(end, static_cast<uint32_t>(number))
                                             : digits_before(end, number);
    auto n = static_cast<int>(end - first);
    while (n > 1 && first[n - 1] == '0')
        n--;

    if (exponent < -4 || exponent >= precision) {
        char *out = text;
        *out++ = first[0];
        if (n > 1) {
            *out++ = '.';
            copy_digits(out, first + 1);
            out += n - 1;
        }
        out += snprintf(out, 8, "E%c%02d", exponent < 0 ? '-' : '+',
                        exponent < 0 ? -exponent : exponent);
        return static_cast<int>(out - text);
    }
    if (exponent < 0) {
        memcpy(text, "0.0000", 6);
        copy_digits(text + 1 - exponent, first);
        return 1 - exponent + n;
    }
    const int whole = exponent + 1; // digits before the point
    copy_digits(text, first);
    if (n <= whole)
        return whole; // zeros that were taken for trailing ones among them
    text[whole] = '.';
    copy_digits(text + whole + 1, first + whole);
    return n + 1;
}

// Whole numbers, halves, quarters and eighths that have no more digits than asked
// for: their digits are all there is, and none of them has to be rounded away.
// 0 for other numbers.
static int put_exact(char *text, const binary &number, int precision)
{
    static constexpr uint64_t fives[] = {1, 5, 25, 125};
    constexpr int MANTISSA_BITS = 53;
    const int places = number.exponent < 0 ? -number.exponent : 0; // behind the point
    if (places >= static_cast<int>(std::size(fives)) || number.exponent > 64 - MANTISSA_BITS - 1)
        return 0;
    const uint64_t shifted = places != 0 ? number.mantissa : number.mantissa << number.exponent;
    if (shifted >= static_cast<uint64_t>(power_of_ten[16]))
        return 0;
    const uint64_t digits = shifted * fives[places];
    if (digits >= static_cast<uint64_t>(power_of_ten[static_cast<size_t>(precision)]))
        return 0;
    char buf[2 * DIGITS_MAX];
    char *const end = buf + DIGITS_MAX;
    char *first = digits_before(end, digits);
    while (end - first <= places)
        *--first = '0'; // at least one digit before the point
    const auto whole = static_cast<int>(end - first) - places;
    copy_digits(text, first);
    if (places == 0)
        return whole;
    text[whole] = '.';
    copy_digits(text + whole + 1, first + whole);
    return whole + 1 + places;
}

int float_to_text(char (&text)[FLOAT_TEXT_SIZE], double value, int precision)
{
    if (!std::isfinite(value))
        return snprintf(text, sizeof text, "%.*G", precision, value);
    char *out = text;
    if (std::signbit(value))
        *out++ = '-';
    if (value == 0) {
        *out++ = '0';
        return static_cast<int>(out - text);
    }
    const binary number = split(value);
    if (const int exact = put_exact(out, number, precision); exact != 0)
        return static_cast<int>(out - text) + exact;
    uint64_t digits = 0;
    int exponent = 0;
    if (!round_to(number, precision, digits, exponent))
        return snprintf(text, sizeof text, "%.*G", precision, value);
    return static_cast<int>(out - text) + put_digits(out, digits, exponent, precision);
}
