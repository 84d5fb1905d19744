// Bytes that are copied into a text column as they are: whatever cannot be shown in a
// line of text is replaced.
#ifndef ASCII_ASCII_TEXT_H
#define ASCII_ASCII_TEXT_H

#include "ascii/ascii_flags.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

// Unless flags say dirty, replaces each byte outside 0x20 to 0x7E by "~".  Eight bytes at
// a time, of which mostly none has to be replaced.
inline void clean_tgt(uint32_t flags, char *bytes, int64_t n)
{
    if ((flags & ASCII_DIRTY) != 0)
        return;
    constexpr uint64_t ONES = 0x0101010101010101;
    constexpr uint64_t HIGH_BITS = 0x80 * ONES;
    for (int64_t i = 0; i < n;) {
        uint64_t word = 0;
        if (n >= 8) {
            i = std::min(i, n - 8); // the last ones once more, with some before them
            memcpy(&word, bytes + i, 8);
            // A high bit shows in a byte below 0x20, of 0x7F, or above it.
            if (((word | (word - 0x20 * ONES) | (word + ONES)) & HIGH_BITS) == 0) {
                i += 8;
                continue;
            }
        }
        for (const int64_t end = std::min(i + 8, n); i < end; i++) {
            if (bytes[i] < 0x20 || bytes[i] > 0x7E)
                bytes[i] = '~';
        }
    }
}

#endif
