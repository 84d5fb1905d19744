// How wide the text column of an item's element is, by its type letter and size: the
// one place that says it, for whoever makes the columns and whoever describes them.
#ifndef ASCII_ASCII_WIDTH_H
#define ASCII_ASCII_WIDTH_H

#include <array>
#include <cstddef>
#include <cstdint>

constexpr int32_t ASCII_NO_COLUMN = -1; // width of a column that there is none for

// Columns of binary numbers, by element size.
constexpr int ASCII_BINARY_SIZE_MAX = 8;
using ascii_binary_widths = std::array<int32_t, ASCII_BINARY_SIZE_MAX + 1>;
inline constexpr ascii_binary_widths ascii_float_widths = {-1, -1, -1, -1, 15, -1, -1, -1, 25};
inline constexpr ascii_binary_widths ascii_signed_widths = {-1, -1, 14, -1, 14, -1, -1, -1, 30};
inline constexpr ascii_binary_widths ascii_unsigned_widths = {-1, -1, 15, -1, 15, -1, -1, -1, 30};

// The first character that the zero-filled form of an integer of 2 or 4 bytes fills.
constexpr int ASCII_ZERO_FILL_FROM = 7;

// What a type letter's columns are: those of binary numbers, or so many characters for
// each byte of the element and some more.
struct ascii_letter_width {
    const ascii_binary_widths *by_size;
    int32_t per_byte;
    int32_t more;
};

constexpr ascii_letter_width ascii_letter_width_of(uint32_t letter)
{
    switch (letter) {
    case 'E':
    case 'R':
        return {&ascii_float_widths, 0, 0};
    case 'I':
    case 'J':
        return {&ascii_signed_widths, 0, 0};
    case 'K':
        return {&ascii_unsigned_widths, 0, 0};
    case 'P':
        return {nullptr, 2, 0};
    case 'Z':
        return {nullptr, 1, 1};
    default:
        return {nullptr, 1, 0};
    }
}

// Width of the column of an element of size bytes; ASCII_NO_COLUMN: it has none.
constexpr int64_t ascii_column_width(uint32_t letter, int64_t size)
{
    const ascii_letter_width row = ascii_letter_width_of(letter);
    if (row.by_size != nullptr)
        return size < 0 || size > ASCII_BINARY_SIZE_MAX ? ASCII_NO_COLUMN
                                                        : (*row.by_size)[static_cast<size_t>(size)];
    return size < 0 ? ASCII_NO_COLUMN : row.per_byte * size + row.more;
}

#endif
