// Bytes and bits: bit maps, reversal, big-endian words.
#ifndef MSGFILE_TMU_H
#define MSGFILE_TMU_H

#include <cstdint>

// Bit b of a map lives in byte b / 8 at position b mod 8 from the least
// significant bit.  The caller keeps b within the map.
int tmu_get_bit(const unsigned char *map, int b);
void tmu_set_bit(unsigned char *map, int b);
void tmu_clear_bit(unsigned char *map, int b);

// Reverses 2 or 4 bytes in place; any other n does nothing.
void tmu_reverse(void *bytes, int n);

// The number, or the limit that it lies beyond.
inline int tmu_within(int value, int lowest, int highest)
{
    const int raised = value < lowest ? lowest : value;
    return raised > highest ? highest : raised;
}

// Big-endian words of records and port entries.
inline uint16_t get_be16(const unsigned char *bytes)
{
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline void put_be16(unsigned char *bytes, uint16_t value)
{
    bytes[0] = static_cast<unsigned char>(value >> 8);
    bytes[1] = static_cast<unsigned char>(value & 0xFF);
}

// 1 on a big-endian host, 0 otherwise.  The library itself goes by the
// byte-order mark.
int is_big_endian();

#endif
