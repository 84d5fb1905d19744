// Bytes and bits: bit maps, reversal, the host's byte order.
#include "msgfile/tmu.h"

#include <cstring>
#include <utility>

int tmu_get_bit(const unsigned char *map, int b)
{
    return map[b >> 3] >> (b & 7) & 1;
}

void tmu_set_bit(unsigned char *map, int b)
{
    map[b >> 3] = static_cast<unsigned char>(map[b >> 3] | 1U << (b & 7));
}

void tmu_clear_bit(unsigned char *map, int b)
{
    map[b >> 3] = static_cast<unsigned char>(map[b >> 3] & ~(1U << (b & 7)));
}

void tmu_reverse(void *bytes, int n)
{
    unsigned char *p = static_cast<unsigned char *>(bytes);
    if (n == 2) {
        std::swap(p[0], p[1]);
    } else if (n == 4) {
        std::swap(p[0], p[3]);
        std::swap(p[1], p[2]);
    }
}

int is_big_endian()
{
    const uint16_t one = 1;
    unsigned char bytes[sizeof(one)];
    memcpy(bytes, &one, sizeof(one));
    return bytes[1];
}
