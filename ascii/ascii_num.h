// Binary numbers as right-aligned text columns.
#ifndef ASCII_ASCII_NUM_H
#define ASCII_ASCII_NUM_H

#include <cstdint>

// Each takes the ASCII_ flags, the column and its width, and the element's bytes
// in the machine's order, or reversed when flags say so.
void put_ascii_e2(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_e4(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_i1(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_i2(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_i4(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_k1(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_k2(uint32_t flags, char *column, int32_t width, const unsigned char *element);
void put_ascii_k4(uint32_t flags, char *column, int32_t width, const unsigned char *element);

#endif
