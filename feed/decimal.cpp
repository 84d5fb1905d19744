// A number stays where it was written: two ranges of digits and the place of the
// decimal point.  Each converter asks for the digit of a power of ten.
#include "feed/decimal.h"

#include <algorithm>
#include <charconv>
#include <cstring>

// Exponents are clamped here: far above any item and any line, far below overflow.
static constexpr int64_t EXPONENT_LIMIT = 1'000'000'000;

static constexpr int64_t UINT64_DIGITS = 20;

struct decimal {
    bool negative = false;
    std::string_view whole;    // digits before the decimal point
    std::string_view fraction; // digits behind it
    int64_t first = 0;         // first digit that is not 0, counted over both ranges
    int64_t last = 0;          // one past the last such digit; equal to first for zero
    int64_t point = 0;         // digits before the point once the exponent is applied
};

static std::string_view take_digits(std::string_view &text)
{
    size_t n = 0;
    while (n < text.size() && text[n] >= '0' && text[n] <= '9')
        n++;
    const std::string_view digits = text.substr(0, n);
    text.remove_prefix(n);
    return digits;
}

static bool take_char(std::string_view &text, char c)
{
    if (text.empty() || text.front() != c)
        return false;
    text.remove_prefix(1);
    return true;
}

static bool take_exponent(std::string_view &text, int64_t &exponent)
{
    const bool negative = take_char(text, '-');
    if (!negative)
        (void)take_char(text, '+'); // the plus sign is optional and says nothing
    const std::string_view digits = take_digits(text);
    for (const char c : digits)
        exponent = std::min(exponent * 10 + (c - '0'), EXPONENT_LIMIT);
    if (negative)
        exponent = -exponent;
    return !digits.empty();
}

static char digit_at(const decimal &number, int64_t index)
{
    const auto i = static_cast<size_t>(index);
    return i < number.whole.size() ? number.whole[i] : number.fraction[i - number.whole.size()];
}

static bool parse(decimal &number, std::string_view text)
{
    int64_t exponent = 0;
    number.negative = take_char(text, '-');
    number.whole = take_digits(text);
    if (number.whole.empty())
        return false;
    if (take_char(text, '.')) {
        number.fraction = take_digits(text);
        if (number.fraction.empty())
            return false;
    }
    if (take_char(text, 'e') || take_char(text, 'E')) {
        if (!take_exponent(text, exponent))
            return false;
    }
    number.last = static_cast<int64_t>(number.whole.size() + number.fraction.size());
    while (number.first < number.last && digit_at(number, number.first) == '0')
        number.first++;
    while (number.last > number.first && digit_at(number, number.last - 1) == '0')
        number.last--;
    number.point = static_cast<int64_t>(number.whole.size()) + exponent;
    if (number.first == number.last)
        number.negative = false;
    return text.empty();
}

// Whether the number times 10^scale is whole and has at most ndigits digits.
static feed_number_result check_fit(const decimal &number, int64_t scale, int64_t ndigits)
{
    if (number.first == number.last)
        return FEED_NUMBER_OK;
    if (number.point - number.last + scale < 0)
        return FEED_NUMBER_FRACTION;
    return number.point - number.first + scale > ndigits ? FEED_NUMBER_DIGITS : FEED_NUMBER_OK;
}

// Digit of 10^power, as a number from 0 to 9.
static unsigned digit_of_power(const decimal &number, int64_t power)
{
    const int64_t index = number.point - 1 - power;
    if (index < number.first || index >= number.last)
        return 0;
    return static_cast<unsigned>(digit_at(number, index) - '0');
}

static void put_bytes(uint64_t value, bool big_endian, unsigned char *out, int32_t size)
{
    for (int32_t i = 0; i < size; i++) {
        out[big_endian ? size - 1 - i : i] = static_cast<unsigned char>(value & 0xFF);
        value >>= 8;
    }
}

bool feed_is_number(std::string_view text)
{
    decimal number;
    return parse(number, text);
}

feed_number_result feed_put_integer(std::string_view text, bool is_signed, bool big_endian,
                                    unsigned char *out, int32_t size)
{
    decimal number;
    if (!parse(number, text))
        return FEED_NOT_A_NUMBER;
    const feed_number_result fit = check_fit(number, 0, UINT64_DIGITS);
    if (fit != FEED_NUMBER_OK)
        return fit == FEED_NUMBER_DIGITS ? FEED_NUMBER_RANGE : fit;

    uint64_t value = 0;
    for (int64_t power = std::min(number.point - number.first, UINT64_DIGITS) - 1; power >= 0;
         power--) {
        const unsigned digit = digit_of_power(number, power);
        if (value > (UINT64_MAX - digit) / 10)
            return FEED_NUMBER_RANGE;
        value = value * 10 + digit;
    }

    const uint64_t all_bits = size >= 8 ? UINT64_MAX : (uint64_t{1} << (8 * size)) - 1;
    const uint64_t highest = is_signed ? all_bits >> 1 : all_bits;
    const uint64_t limit = number.negative ? (is_signed ? highest + 1 : 0) : highest;
    if (value > limit)
        return FEED_NUMBER_RANGE;
    put_bytes(number.negative ? uint64_t{0} - value : value, big_endian, out, size);
    return FEED_NUMBER_OK;
}

feed_number_result feed_put_packed(std::string_view text, int32_t scale, unsigned char *out,
                                   int32_t size)
{
    decimal number;
    if (!parse(number, text))
        return FEED_NOT_A_NUMBER;
    const int64_t ndigits = 2 * int64_t{size} - 1;
    const feed_number_result fit = check_fit(number, scale, ndigits);
    if (fit != FEED_NUMBER_OK)
        return fit;

    int64_t power = ndigits - 1 - scale;
    for (int32_t i = 0; i < size; i++) {
        const unsigned high = digit_of_power(number, power--);
        const bool at_sign = i == size - 1;
        const unsigned low =
            at_sign ? (number.negative ? 0xDU : 0xCU) : digit_of_power(number, power--);
        out[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return FEED_NUMBER_OK;
}

feed_number_result feed_put_zoned(std::string_view text, int32_t scale, unsigned char *out,
                                  int32_t size)
{
    decimal number;
    if (!parse(number, text))
        return FEED_NOT_A_NUMBER;
    const feed_number_result fit = check_fit(number, scale, size);
    if (fit != FEED_NUMBER_OK)
        return fit;

    int64_t power = int64_t{size} - 1 - scale;
    for (int32_t i = 0; i < size - 1; i++)
        out[i] = static_cast<unsigned char>('0' + digit_of_power(number, power--));
    const char *overpunched = number.negative ? "}JKLMNOPQR" : "{ABCDEFGHI";
    out[size - 1] = static_cast<unsigned char>(overpunched[digit_of_power(number, power)]);
    return FEED_NUMBER_OK;
}

template <typename Float, typename Bits>
static feed_number_result put_float(std::string_view text, bool big_endian, unsigned char *out)
{
    static_assert(sizeof(Float) == sizeof(Bits));
    Float value = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (code == std::errc::result_out_of_range)
        return FEED_NUMBER_RANGE;
    if (code != std::errc() || end != text.data() + text.size())
        return FEED_NOT_A_NUMBER;
    Bits bits = 0;
    memcpy(&bits, &value, sizeof bits);
    put_bytes(bits, big_endian, out, sizeof bits);
    return FEED_NUMBER_OK;
}

feed_number_result feed_put_float(std::string_view text, bool big_endian, unsigned char *out,
                                  int32_t size)
{
    if (!feed_is_number(text) && text != "NaN" && text != "Infinity" && text != "-Infinity")
        return FEED_NOT_A_NUMBER;
    return size == 4 ? put_float<float, uint32_t>(text, big_endian, out)
                     : put_float<double, uint64_t>(text, big_endian, out);
}
