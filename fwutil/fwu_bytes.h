// Little-endian integers in byte buffers: the log reads the same on every host.
#ifndef FWUTIL_FWU_BYTES_H
#define FWUTIL_FWU_BYTES_H

#include <bit>
#include <cstdint>
#include <cstring>

inline uint16_t get_le16(const unsigned char *p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline uint32_t get_le32(const unsigned char *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline uint64_t get_le64(const unsigned char *p)
{
    return get_le32(p) | static_cast<uint64_t>(get_le32(p + 4)) << 32;
}

inline void put_le16(unsigned char *p, uint16_t value)
{
    p[0] = static_cast<unsigned char>(value);
    p[1] = static_cast<unsigned char>(value >> 8);
}

inline void put_le32(unsigned char *p, uint32_t value)
{
    put_le16(p, static_cast<uint16_t>(value));
    put_le16(p + 2, static_cast<uint16_t>(value >> 16));
}

// One store where the host's order is the same; compilers do not find that by themselves.
inline void put_le64(unsigned char *p, uint64_t value)
{
    if constexpr (std::endian::native == std::endian::little) {
        memcpy(p, &value, sizeof value);
        return;
    }
    put_le32(p, static_cast<uint32_t>(value));
    put_le32(p + 4, static_cast<uint32_t>(value >> 32));
}

#endif
