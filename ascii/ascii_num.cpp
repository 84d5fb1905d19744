// Binary numbers as text columns: IEEE floating point and integers.
#include "ascii/ascii_num.h"

#include "capture/capinfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

// First column that the zero-filled form of an integer fills.
constexpr int ZERO_FILL_FROM = 7;

template <typename T> static T load(uint32_t flags, const unsigned char *element)
{
    unsigned char bytes[sizeof(T)];
    if ((flags & ASCII_REVERSE) != 0)
        std::reverse_copy(element, element + sizeof(T), bytes);
    else
        memcpy(bytes, element, sizeof(T));
    T value;
    memcpy(&value, bytes, sizeof(T));
    return value;
}

// Copies the text from its end backwards; what is too long loses its beginning.
static void put_right(char *column, int32_t width, const char *text, int length)
{
    const int n = std::min(length, width);
    memset(column, ' ', static_cast<size_t>(width - n));
    memcpy(column + width - n, text + length - n, static_cast<size_t>(n));
}

void put_ascii_e2(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    char text[64];
    const int n =
        snprintf(text, sizeof text, "%15.7G", static_cast<double>(load<float>(flags, element)));
    put_right(column, width, text, n);
}

void put_ascii_e4(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    char text[64];
    const int n = snprintf(text, sizeof text, "%25.12G", load<double>(flags, element));
    put_right(column, width, text, n);
}

// Writes the digits of value leftwards from the last column; with zero_fill, "0"s
// follow as far as ZERO_FILL_FROM; then the sign, then blanks.
template <typename T> static void put_integer(T value, bool zero_fill, char *column, int32_t width)
{
    // The absolute value of the most negative number has a place here.
    using magnitude = std::make_unsigned_t<T>;
    const bool negative = value < 0;
    uint64_t rest = negative ? static_cast<magnitude>(0U - static_cast<magnitude>(value))
                             : static_cast<magnitude>(value);
    int at = width;
    do {
        column[--at] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    while (zero_fill && at > ZERO_FILL_FROM)
        column[--at] = '0';
    if (negative)
        column[--at] = '-';
    memset(column, ' ', static_cast<size_t>(at));
}

static bool zero_filled(uint32_t flags)
{
    return (flags & ASCII_BWFMT) != 0;
}

void put_ascii_i1(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<int16_t>(flags, element), zero_filled(flags), column, width);
}

void put_ascii_i2(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<int32_t>(flags, element), zero_filled(flags), column, width);
}

// Kept: the 64-bit columns are never zero-filled.
void put_ascii_i4(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<int64_t>(flags, element), false, column, width);
}

void put_ascii_k1(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<uint16_t>(flags, element), zero_filled(flags), column, width);
}

void put_ascii_k2(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<uint32_t>(flags, element), zero_filled(flags), column, width);
}

void put_ascii_k4(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    put_integer(load<uint64_t>(flags, element), false, column, width);
}
