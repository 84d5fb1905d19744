// Binary numbers as text columns: IEEE floating point and integers.
#include "ascii/ascii_num.h"

#include "ascii/ascii_digits.h"
#include "ascii/ascii_flags.h"
#include "ascii/ascii_float.h"
#include "ascii/ascii_width.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

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

// The widest text is shorter than its column, so that blanks in front make it the
// right-aligned form.
void put_ascii_e2(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    char text[FLOAT_TEXT_SIZE];
    const int n = float_to_text(text, static_cast<double>(load<float>(flags, element)), 7);
    put_right(column, width, text, n);
}

void put_ascii_e4(uint32_t flags, char *column, int32_t width, const unsigned char *element)
{
    char text[FLOAT_TEXT_SIZE];
    const int n = float_to_text(text, load<double>(flags, element), 12);
    put_right(column, width, text, n);
}

// Writes the digits of value leftwards from the last column; with zero_fill, "0"s
// follow as far as ASCII_ZERO_FILL_FROM; then the sign, then blanks.
template <typename T> static void put_integer(T value, bool zero_fill, char *column, int32_t width)
{
    // The absolute value of the most negative number has a place here.
    using magnitude = std::conditional_t<sizeof(T) == 8, uint64_t, uint32_t>;
    const bool negative = value < 0;
    const auto bits = static_cast<magnitude>(value);
    char *first = digits_before(column + width, negative ? magnitude{0} - bits : bits);
    auto at = first - column;
    while (zero_fill && at > ASCII_ZERO_FILL_FROM)
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
