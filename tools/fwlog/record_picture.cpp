// Pictures and usages by type letter.  Columns of numbers are pictured so that they can be
// moved to numeric items: signs apart, decimal places assumed, blanks in front as those of
// numeric-edited items.
#include "tools/fwlog/record_picture.h"

#include "ascii/ascii_width.h"

static std::string times(const char *symbol, int64_t n)
{
    return n == 1 ? symbol : symbol + ("(" + std::to_string(n) + ")");
}

// Digits in front of the assumed decimal point and behind it.
static std::string digits(int64_t whole, int64_t places)
{
    return (whole > 0 ? times("9", whole) : "") + (places > 0 ? "V" + times("9", places) : "");
}

static record_picture characters(int64_t n)
{
    return {times("X", n), ""};
}

// Digits that a picture can have no point for are characters.
static bool scale_fits(const fwu_item &item)
{
    return item.item_aux >= 0 && item.item_aux <= fwu_item_digits(item.type, item.size);
}

static record_picture text_decimal(const fwu_item &item, int64_t width, bool bwfmt)
{
    if (!scale_fits(item))
        return characters(width);
    const int64_t places = item.item_aux;
    const int64_t whole = fwu_item_digits(item.type, item.size) - places;
    if (!bwfmt)
        return {"S" + digits(whole, places), "SIGN IS LEADING SEPARATE"};
    // The sign floats up to the last digit in front of the point.
    return {whole > 0 ? times("-", whole) + digits(1, places) : "-" + digits(0, places), ""};
}

static record_picture text_integer(const char *blank, int64_t width, bool zero_filled)
{
    const int64_t blanks = zero_filled ? ASCII_ZERO_FILL_FROM : width - 1;
    return {times(blank, blanks) + times("9", width - blanks), ""};
}

record_picture record_picture_text(const fwu_item &item, int64_t width, bool bwfmt)
{
    const bool zero_filled = bwfmt && item.size <= 4;
    switch (item.type) {
    case 'I':
    case 'J':
        return text_integer("-", width, zero_filled);
    case 'K':
        return text_integer("Z", width, zero_filled);
    case 'P':
    case 'Z':
        return text_decimal(item, width, bwfmt);
    default:
        return characters(width);
    }
}

// COMP-5 has the machine's byte order, COMP the other one of machines that are little-endian.
static record_picture raw_integer(const char *sign, int32_t size, bool big_endian)
{
    const char *const nines = size == 2 ? "9(4)" : size == 4 ? "9(9)" : "9(18)";
    return {std::string(sign) + nines, big_endian ? "COMP" : "COMP-5"};
}

record_picture record_picture_raw(const fwu_item &item, bool big_endian)
{
    const fwu_item_type *const type = fwu_item_type_of(item.type);
    if (type == nullptr || !fwu_item_size_ok(*type, item.size))
        return characters(item.size);
    switch (item.type) {
    case 'E':
    case 'R':
        if (big_endian)
            return characters(item.size);
        return {"", item.size == 4 ? "COMP-1" : "COMP-2"};
    case 'I':
    case 'J':
        return raw_integer("S", item.size, big_endian);
    case 'K':
        return raw_integer("", item.size, big_endian);
    case 'P':
    case 'Z':
        if (!scale_fits(item))
            return characters(item.size);
        return {"S" + digits(fwu_item_digits(item.type, item.size) - item.item_aux, item.item_aux),
                item.type == 'P' ? "COMP-3" : ""};
    default:
        return characters(item.size);
    }
}
