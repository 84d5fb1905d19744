// The values of a dump are read by people: decimal numbers, floating point with
// as many digits as tell it from its neighbours, text as it was.
#include "tools/fwlog/dump_value.h"

#include "util/utf8.h"

#include <charconv>
#include <cstdint>
#include <cstring>

static constexpr char HEX[] = "0123456789ABCDEF";

void dump_hex(std::string &out, const unsigned char *bytes, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        out.push_back(HEX[bytes[i] >> 4]);
        out.push_back(HEX[bytes[i] & 0x0F]);
    }
}

static void put_escaped(std::string &out, std::string_view text, bool quoted)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0)) {
            out += "\\x";
            dump_hex(out, &byte, 1);
        } else if (byte >= 0xA0) {
            out.push_back(static_cast<char>(0xC0 | byte >> 6));
            out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        } else {
            if (c == '\\' || (quoted && c == '"'))
                out.push_back('\\');
            out.push_back(c);
        }
    }
}

void dump_text(std::string &out, std::string_view text)
{
    out.push_back('"');
    put_escaped(out, text, true);
    out.push_back('"');
}

void dump_name(std::string &out, std::string_view name)
{
    put_escaped(out, name, false);
}

void dump_utf8(std::string &out, std::string_view text)
{
    constexpr uint32_t first_printable = 0xA0; // of the characters of several bytes
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t length = utf8_decode(text, code);
        const std::string_view next = text.substr(0, length == 0 ? 1 : length);
        text.remove_prefix(next.size());
        if (length == 1)
            put_escaped(out, next, false);
        else if (code >= first_printable)
            out += next;
        else
            for (const char c : next) {
                const auto byte = static_cast<unsigned char>(c);
                out += "\\x";
                dump_hex(out, &byte, 1);
            }
    }
}

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
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    out.append(text, end);
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

static bool put_float(std::string &out, const fwu_item &item, bool big_endian,
                      const unsigned char *in)
{
    if (item.size == 4) {
        const auto bits = static_cast<uint32_t>(get_bytes(in, 4, big_endian));
        float value = 0;
        memcpy(&value, &bits, sizeof value);
        put_number(out, value);
        return true;
    }
    if (item.size == 8) {
        const uint64_t bits = get_bytes(in, 8, big_endian);
        double value = 0;
        memcpy(&value, &bits, sizeof value);
        put_number(out, value);
        return true;
    }
    return false;
}

// Writes a sign and digits with the decimal point in its place.
static bool put_decimal(std::string &out, bool negative, const std::string &digits, int32_t scale)
{
    if (scale < 0 || static_cast<size_t>(scale) > digits.size())
        return false;
    const size_t point = digits.size() - static_cast<size_t>(scale);
    const std::string whole = digits.substr(0, point);
    const size_t first = whole.find_first_not_of('0');
    if (negative)
        out.push_back('-');
    out += first == std::string::npos ? "0" : whole.substr(first);
    if (scale > 0)
        out += "." + digits.substr(point);
    return true;
}

static bool put_packed(std::string &out, const fwu_item &item, const unsigned char *in)
{
    std::string digits;
    for (int32_t i = 0; i < fwu_item_digits(item.type, item.size); i++) {
        const int half = i % 2 == 0 ? in[i / 2] >> 4 : in[i / 2] & 0x0F;
        if (half > 9)
            return false;
        digits.push_back(static_cast<char>('0' + half));
    }
    const int sign = in[item.size - 1] & 0x0F;
    if (sign != 0xC && sign != 0xD && sign != 0xF)
        return false;
    return put_decimal(out, sign == 0xD, digits, item.item_aux);
}

static bool put_zoned(std::string &out, const fwu_item &item, const unsigned char *in)
{
    static constexpr char OVERPUNCHED[] = "{ABCDEFGHI}JKLMNOPQR0123456789";
    std::string digits(reinterpret_cast<const char *>(in), static_cast<size_t>(item.size));
    const char last = digits.back();
    digits.pop_back();
    const char *found = last == '\0' ? nullptr : strchr(OVERPUNCHED, last);
    if (found == nullptr || digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const auto index = static_cast<int>(found - OVERPUNCHED);
    digits.push_back(static_cast<char>('0' + index % 10));
    return put_decimal(out, index / 10 == 1, digits, item.item_aux);
}

static bool put_element(std::string &out, const fwu_item &item, bool big_endian,
                        const unsigned char *in)
{
    switch (item.type) {
    case 'I':
    case 'J':
    case 'K':
        return put_integer(out, item, big_endian, in);
    case 'E':
    case 'R':
        return put_float(out, item, big_endian, in);
    case 'P':
        return put_packed(out, item, in);
    case 'Z':
        return put_zoned(out, item, in);
    case 'X':
    case 'U': {
        std::string_view text(reinterpret_cast<const char *>(in), static_cast<size_t>(item.size));
        const size_t last = text.find_last_not_of(' ');
        dump_text(out, text.substr(0, last == std::string_view::npos ? 0 : last + 1));
        return true;
    }
    default:
        return false;
    }
}

bool dump_image(std::string &out, const fwu_layout &layout, bool big_endian,
                const unsigned char *image, size_t length)
{
    for (const fwu_item &item : layout.items) {
        if (item.size < 1 || item.count < 1)
            return false;
    }
    if (fwu_layout_image_length(layout) != static_cast<int64_t>(length))
        return false;
    for (const fwu_item &item : layout.items) {
        out += " ";
        dump_name(out, item.name);
        out += item.count > 1 ? "={" : "=";
        for (int32_t i = 0; i < item.count; i++) {
            if (i > 0)
                out.push_back(',');
            if (!put_element(out, item, big_endian, image)) {
                out += "0x";
                dump_hex(out, image, static_cast<size_t>(item.size));
            }
            image += item.size;
        }
        if (item.count > 1)
            out.push_back('}');
    }
    return true;
}

bool dump_time(std::string &out, int64_t second, int32_t micros, size_t length)
{
    char text[FWU_TIME_SIZE];
    if (!fwu_time_put(text, second, micros) || std::string_view(text, 4) == "0000")
        return false;
    out.append(text, length);
    return true;
}
