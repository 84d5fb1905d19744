// Packed and zoned decimal numbers as text columns.
#ifndef ASCII_ASCII_DEC_H
#define ASCII_ASCII_DEC_H

#include <cstdint>

// An element of n bytes in its column: 2n characters for packed, n + 1 for
// zoned.  The sign goes to the first character; contents that are not a number
// give "*" there and the raw bytes, cleaned, at the end.
void put_ascii_p(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                 int32_t n);
void put_ascii_z(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                 int32_t n);

// Blanks the leading zeros of such a column, moves "-" to the first digit left
// and drops "+".
void strip_leading_zeros_pz(char *column, int64_t width);

#endif
