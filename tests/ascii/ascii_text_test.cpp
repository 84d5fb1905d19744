// Cleaning of copied bytes.
#include "ascii/ascii_text.h"

#include "ascii/ascii_flags.h"

#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;

TEST(AsciiText, CleanTgtStopsAtItsLength)
{
    char bytes[] = "\x01\x02\x03";
    clean_tgt(ASCII_ON, bytes, 2);
    EXPECT_EQ("~~\x03"s, std::string(bytes));
}

// Words of eight bytes are taken at once; each place in one and behind it counts.
TEST(AsciiText, CleanTgtReplacesWhatCannotBeShownAtEachPlace)
{
    for (int value = 0; value < 256; value++) {
        const auto byte = static_cast<char>(value);
        const char shown = value >= 0x20 && value <= 0x7E ? byte : '~';
        for (size_t at = 0; at < 19; at++) {
            std::string bytes(19, 'x');
            std::string expected = bytes;
            bytes[at] = byte;
            expected[at] = shown;
            const std::string dirty = bytes;
            clean_tgt(ASCII_ON | ASCII_DIRTY, bytes.data(), 19);
            EXPECT_EQ(dirty, bytes) << value << " at " << at;
            clean_tgt(ASCII_ON, bytes.data(), 19);
            EXPECT_EQ(expected, bytes) << value << " at " << at;
        }
    }
}
