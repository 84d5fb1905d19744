// Numbers keep every digit that the item has: binary ones are written by what they are,
// packed and zoned ones digit by digit, floating point with the fewest digits that lead
// back to the same bits.
#include "changes/value.h"

#include "util/utf8.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

static uint64_t get_bytes(const unsigned char *in, int32_t size, bool big_endian)
{
    uint64_t value = 0;
    for (int32_t i = 0; i < size; i++)
        value = value << 8 | in[big_endian ? i : size - 1 - i];
    return value;
}

template <typename Number> static void put_number(std::string &out, Number value)
{
    char text[64];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

static bool put_integer(std::string &out, const fwu_item &item, bool big_endian,
                        const unsigned char *in)
{
    if (item.size != 2 && item.size != 4 && item.size != 8)
        return false;
    uint64_t value = get_bytes(in, item.size, big_endian);
    const uint64_t sign = uint64_t{1} << (8 * item.size - 1);
    if (item.type != 'K' && (value & sign) != 0) {
        out.push_back('-');
        value = sign - (value & (sign - 1));
    }
    put_number(out, value);
    return true;
}

template <typename Number> static change_value put_float(std::string &out, Number value)
{
    if (std::isnan(value))
        out += "NaN";
    else if (std::isinf(value))
        out += value < 0 ? "-Infinity" : "Infinity";
    else
        put_number(out, value);
    return std::isfinite(value) ? CHANGE_NUMBER : CHANGE_SPECIAL;
}

static change_value get_float(std::string &out, const fwu_item &item, bool big_endian,
                              const unsigned char *in)
{
    const uint64_t bits =
        item.size == 4 || item.size == 8 ? get_bytes(in, item.size, big_endian) : 0;
    if (item.size == 4) {
        const auto low = static_cast<uint32_t>(bits);
        float value = 0;
        memcpy(&value, &low, sizeof value);
        return put_float(out, value);
    }
    if (item.size == 8) {
        double value = 0;
        memcpy(&value, &bits, sizeof value);
        return put_float(out, value);
    }
    return CHANGE_BYTES;
}

// The digits in out become a number: sign, no zeros in front, the decimal point in its place.
static bool make_decimal(std::string &out, bool negative, int32_t scale)
{
    if (scale < 0 || static_cast<size_t>(scale) > out.size())
        return false;
    const size_t whole = out.size() - static_cast<size_t>(scale);
    const size_t first = std::min(out.find_first_not_of('0'), whole);
    if (scale > 0)
        out.insert(whole, 1, '.');
    out.erase(0, first);
    if (first == whole)
        out.insert(0, 1, '0');
    if (negative)
        out.insert(0, 1, '-');
    return true;
}

static bool put_packed(std::string &out, const fwu_item &item, const unsigned char *in)
{
    constexpr int plus = 0xC;
    constexpr int minus = 0xD;
    constexpr int none = 0xF;
    const auto size = static_cast<size_t>(item.size);
    out.resize(2 * size - 1);
    for (size_t i = 0; i < out.size(); i++) {
        const int half = i % 2 == 0 ? in[i / 2] >> 4 : in[i / 2] & 0x0F;
        if (half > 9)
            return false;
        out[i] = static_cast<char>('0' + half);
    }
    const int sign = in[size - 1] & 0x0F;
    return (sign == plus || sign == minus || sign == none) &&
           make_decimal(out, sign == minus, item.item_aux);
}

static bool put_zoned(std::string &out, const fwu_item &item, const unsigned char *in)
{
    static constexpr std::string_view OVERPUNCHED = "{ABCDEFGHI}JKLMNOPQR0123456789";
    out.assign(reinterpret_cast<const char *>(in), static_cast<size_t>(item.size));
    const size_t last = OVERPUNCHED.find(out.back());
    if (last == OVERPUNCHED.npos)
        return false;
    out.back() = static_cast<char>('0' + last % 10);
    return out.find_first_not_of("0123456789") == out.npos &&
           make_decimal(out, last / 10 == 1, item.item_aux);
}

static std::string_view text_at(const fwu_item &item, const unsigned char *in)
{
    return {reinterpret_cast<const char *>(in), static_cast<size_t>(item.size)};
}

static bool is_text(const fwu_item &item)
{
    return item.type == 'X' || item.type == 'U';
}

static change_value kind_of_text(std::string_view text, fwu_encoding encoding)
{
    if (encoding == FWU_LATIN1)
        return CHANGE_LATIN1;
    return utf8_valid(text) ? CHANGE_UTF8 : CHANGE_BYTES;
}

change_value change_value_get(std::string_view &text, std::string &work, const fwu_item &item,
                              bool big_endian, fwu_encoding encoding, const unsigned char *element)
{
    change_value found = CHANGE_BYTES;
    work.clear();
    switch (item.type) {
    case 'I':
    case 'J':
    case 'K':
        found = put_integer(work, item, big_endian, element) ? CHANGE_NUMBER : CHANGE_BYTES;
        break;
    case 'E':
    case 'R':
        found = get_float(work, item, big_endian, element);
        break;
    case 'P':
        found = put_packed(work, item, element) ? CHANGE_NUMBER : CHANGE_BYTES;
        break;
    case 'Z':
        found = put_zoned(work, item, element) ? CHANGE_NUMBER : CHANGE_BYTES;
        break;
    case 'X':
    case 'U':
        text = text_at(item, element);
        text = text.substr(0, text.find_last_not_of(' ') + 1);
        found = kind_of_text(text, encoding);
        if (found != CHANGE_BYTES)
            return found;
        break;
    default:
        break;
    }
    text = found == CHANGE_BYTES ? text_at(item, element) : work;
    return found;
}

static bool take_digits(std::string_view &text)
{
    const size_t n = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(n);
    return n > 0;
}

bool change_is_number(std::string_view text)
{
    if (text.starts_with('-'))
        text.remove_prefix(1);
    if (text.starts_with('0'))
        text.remove_prefix(1); // no other digit may follow
    else if (!take_digits(text))
        return false;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (!take_digits(text))
            return false;
    }
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(1);
        if (text.starts_with('+') || text.starts_with('-'))
            text.remove_prefix(1);
        if (!take_digits(text))
            return false;
    }
    return text.empty();
}

change_value change_value_whole(std::string_view whole, const fwu_item &item)
{
    if (!is_text(item) && change_is_number(whole))
        return CHANGE_NUMBER;
    return kind_of_text(whole, FWU_UTF8);
}

void change_put_utf8(std::string &out, std::string_view latin1)
{
    for (const char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            out.push_back(c);
        } else {
            out.push_back(static_cast<char>(0xC0 | byte >> 6));
            out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        }
    }
}
