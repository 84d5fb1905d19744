// Packed and zoned decimal numbers as text columns.
#include "ascii/ascii_dec.h"

#include "ascii/ascii_flags.h"
#include "ascii/ascii_text.h"

#include <array>
#include <cstring>

// Shows the raw bytes of an element that holds no number.
static void put_invalid(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                        int32_t n)
{
    column[0] = '*';
    memset(column + 1, ' ', static_cast<size_t>(width - 1 - n));
    memcpy(column + width - n, element, static_cast<size_t>(n));
    clean_tgt(flags, column, width);
}

// The two digits of every byte; a byte that holds no two digits has a NUL first.
static constexpr std::array<char[2], 256> make_digit_pairs()
{
    std::array<char[2], 256> pairs = {};
    for (size_t high = 0; high <= 9; high++) {
        for (size_t low = 0; low <= 9; low++) {
            auto &pair = pairs[high * 16 + low];
            pair[0] = static_cast<char>('0' + high);
            pair[1] = static_cast<char>('0' + low);
        }
    }
    return pairs;
}

static constexpr auto digit_pairs = make_digit_pairs();

static bool put_packed(char *column, const unsigned char *element, int32_t n)
{
    const unsigned char last = element[n - 1];
    switch (last & 0x0F) {
    case 0x0C:
        column[0] = '+';
        break;
    case 0x0D:
        column[0] = '-';
        break;
    case 0x0F:
        column[0] = ' ';
        break;
    default:
        return false;
    }
    bool valid = last >> 4 <= 9;
    char *out = column + 1;
    for (int32_t i = 0; i < n - 1; i++, out += 2) {
        memcpy(out, digit_pairs[element[i]], 2);
        valid = valid && out[0] != '\0';
    }
    *out = static_cast<char>('0' + (last >> 4));
    return valid;
}

void put_ascii_p(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                 int32_t n)
{
    if (n == 0)
        return; // a column of no width
    if (!put_packed(column, element, n))
        put_invalid(flags, column, width, element, n);
    else if ((flags & ASCII_BWFMT) != 0)
        strip_leading_zeros_pz(column, width);
}

// The last byte of a zoned number: its digit and sign.
static bool get_zone(unsigned char byte, char *digit, char *sign)
{
    if (byte >= '0' && byte <= '9') {
        *digit = static_cast<char>(byte);
        *sign = ' ';
    } else if (byte == '{' || (byte >= 'A' && byte <= 'I')) {
        *digit = static_cast<char>(byte == '{' ? '0' : '1' + (byte - 'A'));
        *sign = '+';
    } else if (byte == '}' || (byte >= 'J' && byte <= 'R')) {
        *digit = static_cast<char>(byte == '}' ? '0' : '1' + (byte - 'J'));
        *sign = '-';
    } else {
        return false;
    }
    return true;
}

static bool put_zoned(char *column, const unsigned char *element, int32_t n)
{
    if (n == 0 || !get_zone(element[n - 1], &column[n], &column[0]))
        return false;
    for (int32_t i = 0; i < n - 1; i++) {
        if (element[i] < '0' || element[i] > '9')
            return false;
        column[i + 1] = static_cast<char>(element[i]);
    }
    return true;
}

void put_ascii_z(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                 int32_t n)
{
    if (!put_zoned(column, element, n))
        put_invalid(flags, column, width, element, n);
    else if ((flags & ASCII_BWFMT) != 0)
        strip_leading_zeros_pz(column, width);
}

void strip_leading_zeros_pz(char *column, int64_t width)
{
    int64_t first = 1;
    while (first < width - 1 && column[first] == '0')
        column[first++] = ' ';
    const bool negative = column[0] == '-';
    column[0] = ' ';
    // A negative zero shows no sign.
    if (negative && column[first] != '0')
        column[first - 1] = '-';
}
