// A second, slow conversion of record images to text columns.
#ifndef TESTS_ASCII_ASCII_MODEL_H
#define TESTS_ASCII_ASCII_MODEL_H

#include "ascii/ascii_flags.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

struct item {
    char type;
    int32_t size;
    int32_t count = 1;
};

// What the text must be, and what is said.
struct ascii_model {
    std::string text;
    std::string err;
    int rc = 0;

    void append(const std::string &column)
    {
        text += column;
    }
    void skip(size_t n)
    {
        text += std::string(n, ' ');
    }
    void error(const std::string &msg)
    {
        err += msg + "\n";
        rc = -1;
    }
};

inline std::string right(const std::string &text, size_t width)
{
    return text.size() >= width ? text.substr(text.size() - width)
                                : std::string(width - text.size(), ' ') + text;
}

inline std::string cleaned(uint32_t flags, std::string text)
{
    for (char &c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((flags & ASCII_DIRTY) == 0 && (byte < 0x20 || byte > 0x7E))
            c = '~';
    }
    return text;
}

// The element's value as an unsigned number, from its bytes as the flags say.
inline unsigned __int128 number(uint32_t flags, const std::string &bytes)
{
    unsigned __int128 value = 0;
    for (size_t i = 0; i < bytes.size(); i++) {
        const size_t from_top = (flags & ASCII_REVERSE) != 0 ? i : bytes.size() - 1 - i;
        value = value * 256 + static_cast<unsigned char>(bytes[from_top]);
    }
    return value;
}

inline std::string decimal(unsigned __int128 value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(value % 10)));
        value /= 10;
    } while (value != 0);
    return digits;
}

inline std::string integer(uint32_t flags, const std::string &bytes, bool is_signed, size_t width)
{
    const unsigned __int128 one = 1;
    unsigned __int128 value = number(flags, bytes);
    const bool negative = is_signed && (value >> (8 * bytes.size() - 1)) != 0;
    if (negative)
        value = (one << (8 * bytes.size())) - value;
    std::string digits = decimal(value);
    const size_t filled = width - 7;
    if ((flags & ASCII_BWFMT) != 0 && bytes.size() < 8 && digits.size() < filled)
        digits = std::string(filled - digits.size(), '0') + digits;
    return right((negative ? "-" : "") + digits, width);
}

inline std::string floating(uint32_t flags, std::string bytes)
{
    if ((flags & ASCII_REVERSE) != 0)
        std::reverse(bytes.begin(), bytes.end());
    char text[64];
    if (bytes.size() == 4) {
        float value;
        memcpy(&value, bytes.data(), 4);
        snprintf(text, sizeof text, "%15.7G", static_cast<double>(value));
        return right(text, 15);
    }
    double value;
    memcpy(&value, bytes.data(), 8);
    snprintf(text, sizeof text, "%25.12G", value);
    return right(text, 25);
}

// "-123" and the like without leading zeros, as wide as before.
inline std::string stripped(const std::string &column)
{
    std::string digits = column.substr(1);
    while (digits.size() > 1 && digits[0] == '0')
        digits.erase(0, 1);
    const bool minus = column[0] == '-' && digits[0] != '0';
    return right((minus ? "-" : "") + digits, column.size());
}

inline std::string packed(uint32_t flags, const std::string &bytes)
{
    std::string halves;
    for (const char c : bytes) {
        halves += static_cast<char>(static_cast<unsigned char>(c) >> 4);
        halves += static_cast<char>(static_cast<unsigned char>(c) & 15);
    }
    const char sign = halves.back();
    halves.pop_back();
    const bool digits = std::all_of(halves.begin(), halves.end(), [](char h) { return h <= 9; });
    if (!digits || (sign != 0xC && sign != 0xD && sign != 0xF))
        return cleaned(flags, "*" + std::string(bytes.size() - 1, ' ') + bytes);
    std::string column(1, sign == 0xC ? '+' : sign == 0xD ? '-' : ' ');
    for (const char half : halves)
        column += static_cast<char>('0' + half);
    return (flags & ASCII_BWFMT) != 0 ? stripped(column) : column;
}

inline std::string zoned(uint32_t flags, const std::string &bytes)
{
    const std::string lasts = "{ABCDEFGHI}JKLMNOPQR0123456789";
    const std::string head = bytes.substr(0, bytes.size() - 1);
    const size_t last = bytes.back() == '\0' ? std::string::npos : lasts.find(bytes.back());
    if (last == std::string::npos || head.find_first_not_of("0123456789") != std::string::npos)
        return cleaned(flags, "*" + bytes);
    const std::string column =
        std::string("+- ")[last / 10] + head + static_cast<char>('0' + static_cast<int>(last % 10));
    return (flags & ASCII_BWFMT) != 0 ? stripped(column) : column;
}

inline ascii_model expected_text(uint32_t flags, const std::vector<item> &items,
                                 const std::string &image)
{
    ascii_model m;
    const auto zero_padded = [&](size_t at, size_t n) {
        std::string bytes = at < image.size() ? image.substr(at, n) : "";
        bytes.resize(n, '\0');
        return bytes;
    };
    size_t consumed = 0;
    size_t width = 0;
    for (const item &i : items) {
        const auto size = static_cast<size_t>(i.size);
        if (consumed + size > image.size()) {
            m.error("ASCII mode source buffer too small.");
            return m;
        }
        bool unsupported = false;
        for (int k = 0; k < i.count; k++) {
            const std::string bytes = zero_padded(consumed, size);
            const bool is_float = i.type == 'E' || i.type == 'R';
            const bool is_signed = i.type == 'I' || i.type == 'J';
            const bool is_int = is_signed || i.type == 'K';
            const size_t before = m.text.size();
            if ((is_float && size != 4 && size != 8) ||
                (is_int && size != 2 && size != 4 && size != 8)) {
                m.error(std::string("ASCII unsupported data type: ") + i.type + " size " +
                        std::to_string(i.size));
                m.skip(width);
                unsupported = true;
            } else if (is_float) {
                m.append(floating(flags, bytes));
            } else if (is_int) {
                m.append(integer(flags, bytes, is_signed, size == 8 ? 30 : is_signed ? 14 : 15));
            } else if (i.type == 'P') {
                m.append(packed(flags, bytes));
            } else if (i.type == 'Z') {
                m.append(zoned(flags, bytes));
            } else {
                m.append(cleaned(flags, bytes));
            }
            width = m.text.size() - before;
            consumed += size;
        }
        if (unsupported)
            return m;
    }
    if (consumed != image.size())
        m.error("ASCII mode source buffer too large.");
    return m;
}

#endif
