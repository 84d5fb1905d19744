// Decimal digits of unsigned numbers, two at a time.
#ifndef ASCII_ASCII_DIGITS_H
#define ASCII_ASCII_DIGITS_H

#include <array>
#include <cstdint>
#include <cstring>

// "00" to "99".
constexpr std::array<char[2], 100> make_two_digits()
{
    std::array<char[2], 100> pairs = {};
    for (size_t i = 0; i < pairs.size(); i++) {
        pairs[i][0] = static_cast<char>('0' + i / 10);
        pairs[i][1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}

inline constexpr std::array<char[2], 100> two_digits = make_two_digits();

// Writes the digits of value (one "0" for zero) so that they end before end;
// returns where they begin.
template <typename T> char *digits_before(char *end, T value)
{
    while (value >= 100) {
        end -= 2;
        memcpy(end, two_digits[static_cast<size_t>(value % 100)], 2);
        value = static_cast<T>(value / 100);
    }
    if (value >= 10) {
        end -= 2;
        memcpy(end, two_digits[static_cast<size_t>(value)], 2);
    } else {
        *--end = static_cast<char>('0' + value);
    }
    return end;
}

#endif
