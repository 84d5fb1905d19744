// Random layouts and images against a second, slow conversion.
#include "ascii/ascii_flags.h"
#include "tests/ascii/ascii_fixture.h"
#include "tests/ascii/ascii_model.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

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

        const ascii_model expected = expected_text(flags, items, image);
        record_buffer buffer(static_cast<int32_t>(rng() % 200 + 2), "HD");
        const conversion result = convert_into(buffer, flags, items, image);
        EXPECT_EQ(expected.err, result.err);
        EXPECT_EQ(expected.rc, result.rc);
        EXPECT_EQ("HD" + expected.text, buffer.text());
        EXPECT_GE(buffer.bufsize, buffer.length);
    }
}
