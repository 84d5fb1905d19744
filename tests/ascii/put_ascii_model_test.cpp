// Random layouts and images against a second, slow conversion.
#include "ascii/ascii_flags.h"
#include "driver/base/dsetinfo.h"
#include "tests/ascii/ascii_fixture.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>

using namespace std::string_literals;

namespace {

// What the text must be.
struct model {
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

} // namespace

static std::string right(const std::string &text, size_t width)
{
    return text.size() >= width ? text.substr(text.size() - width)
                                : std::string(width - text.size(), ' ') + text;
}

static std::string cleaned(uint32_t flags, std::string text)
{
    for (char &c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((flags & ASCII_DIRTY) == 0 && (byte < 0x20 || byte > 0x7E))
            c = '~';
    }
    return text;
}

// The element's value as an unsigned number, from its bytes as the flags say.
static unsigned __int128 number(uint32_t flags, const std::string &bytes)
{
    unsigned __int128 value = 0;
    for (size_t i = 0; i < bytes.size(); i++) {
        const size_t from_top = (flags & ASCII_REVERSE) != 0 ? i : bytes.size() - 1 - i;
        value = value * 256 + static_cast<unsigned char>(bytes[from_top]);
    }
    return value;
}

static std::string decimal(unsigned __int128 value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(value % 10)));
        value /= 10;
    } while (value != 0);
    return digits;
}

static std::string integer(uint32_t flags, const std::string &bytes, bool is_signed, size_t width)
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

static std::string floating(uint32_t flags, std::string bytes)
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
static std::string stripped(const std::string &column)
{
    std::string digits = column.substr(1);
    while (digits.size() > 1 && digits[0] == '0')
        digits.erase(0, 1);
    const bool minus = column[0] == '-' && digits[0] != '0';
    return right((minus ? "-" : "") + digits, column.size());
}

static std::string packed(uint32_t flags, const std::string &bytes)
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

static std::string zoned(uint32_t flags, const std::string &bytes)
{
    const std::string lasts = "{ABCDEFGHI}JKLMNOPQR0123456789";
    const std::string head = bytes.substr(0, bytes.size() - 1);
    const size_t last = bytes.back() == '\0' ? std::string::npos : lasts.find(bytes.back());
    if (last == std::string::npos || head.find_first_not_of("0123456789") != std::string::npos)
        return cleaned(flags, "*" + bytes);
    const std::string column =
        "+- "s[last / 10] + head + static_cast<char>('0' + static_cast<int>(last % 10));
    return (flags & ASCII_BWFMT) != 0 ? stripped(column) : column;
}

static model expected_text(uint32_t flags, const std::vector<item> &items, const std::string &image)
{
    model m;
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
                m.error("ASCII unsupported data type: "s + i.type + " size " +
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

// Bytes that are often numbers: any byte, digits, packed pairs, sign letters.
static std::string random_bytes(std::mt19937 &rng, char type, size_t n)
{
    const int kind = static_cast<int>(rng() % 4);
    std::string bytes;
    for (size_t i = 0; i < n; i++) {
        const auto digit = rng() % 3 == 0 ? rng() % 10 : 0;
        if (kind == 0)
            bytes += static_cast<char>(rng() % 256);
        else if (type == 'P')
            bytes += static_cast<char>(16 * digit + (i + 1 == n ? 10 + rng() % 6 : rng() % 10));
        else if (type == 'Z')
            bytes += i + 1 == n && kind == 1 ? "{}ABCDEFGHIJKLMNOPQRS"[rng() % 21]
                                             : static_cast<char>('0' + digit);
        else
            bytes += static_cast<char>(kind == 1 ? 0 : rng() % 256);
    }
    return bytes;
}

TEST(PutAsciiModel, RandomImagesReadAsTheModelSays)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const std::string letters = "ERIJKPZXU?";
    const int sizes[] = {1, 2, 2, 3, 4, 4, 8, 8, 5, 10};

    for (int run = 0; run < 4000 && !HasFailure(); run++) {
        SCOPED_TRACE("run " + std::to_string(run));
        const auto flags = static_cast<uint32_t>(ASCII_ON | (rng() % 8) << 1);
        std::vector<item> items;
        std::string image;
        for (auto i = rng() % 8; i > 0; i--) {
            item one = {letters[rng() % letters.size()], sizes[rng() % 10],
                        static_cast<int32_t>(rng() % 4)};
            // Mostly sizes that have a column.
            if (std::string("ERIJK").find(one.type) != std::string::npos && rng() % 8 != 0)
                one.size = rng() % 2 == 0 ? 4 : 8;
            items.push_back(one);
            for (int k = 0; k < one.count; k++)
                image += random_bytes(rng, one.type, static_cast<size_t>(one.size));
        }
        const auto cut = rng() % 6;
        if (cut == 0)
            image.resize(image.size() - std::min<size_t>(image.size(), 1 + rng() % 12));
        else if (cut == 1)
            image += "?";

        const model expected = expected_text(flags, items, image);
        record_buffer buffer(static_cast<int32_t>(rng() % 200 + 2), "HD");
        const conversion result = convert_into(buffer, flags, items, image);
        EXPECT_EQ(expected.err, result.err);
        EXPECT_EQ(expected.rc, result.rc);
        EXPECT_EQ("HD" + expected.text, buffer.text());
        EXPECT_GE(buffer.bufsize, buffer.length);
    }
}
