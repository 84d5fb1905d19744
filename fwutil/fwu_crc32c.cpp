// CRC-32C by the SSE4.2 instruction, or eight bytes at a time by tables.
#include "fwutil/fwu_crc32c.h"

#include "fwutil/fwu_bytes.h"

#include <array>
#include <cstring>

constexpr uint32_t CRC32C_POLYNOMIAL = 0x82F63B78; // bits reversed

using crc_tables = std::array<std::array<uint32_t, 256>, 8>;

static constexpr crc_tables make_tables()
{
    crc_tables tables{};
    for (uint32_t byte = 0; byte < 256; byte++) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; bit++)
            crc = (crc & 1) != 0 ? crc >> 1 ^ CRC32C_POLYNOMIAL : crc >> 1;
        tables[0][byte] = crc;
    }
    for (size_t byte = 0; byte < 256; byte++)
        for (size_t k = 1; k < 8; k++)
            tables[k][byte] = tables[k - 1][byte] >> 8 ^ tables[0][tables[k - 1][byte] & 0xFF];
    return tables;
}

static constexpr crc_tables TABLES = make_tables();

uint32_t fwu_crc32c_tables(uint32_t crc, const void *data, size_t length)
{
    const auto *p = static_cast<const unsigned char *>(data);
    crc = ~crc;
    for (; length >= 8; p += 8, length -= 8) {
        const uint32_t low = get_le32(p) ^ crc;
        crc = TABLES[7][low & 0xFF] ^ TABLES[6][low >> 8 & 0xFF] ^ TABLES[5][low >> 16 & 0xFF] ^
              TABLES[4][low >> 24] ^ TABLES[3][p[4]] ^ TABLES[2][p[5]] ^ TABLES[1][p[6]] ^
              TABLES[0][p[7]];
    }
    for (; length > 0; p++, length--)
        crc = crc >> 8 ^ TABLES[0][(crc ^ *p) & 0xFF];
    return ~crc;
}

#ifdef __x86_64__
__attribute__((target("sse4.2"))) static uint32_t crc32c_sse42(uint32_t crc, const void *data,
                                                               size_t length)
{
    const auto *p = static_cast<const unsigned char *>(data);
    uint64_t wide = ~crc;
    for (; length >= 8; p += 8, length -= 8) {
        uint64_t word = 0;
        memcpy(&word, p, 8);
        wide = __builtin_ia32_crc32di(wide, word);
    }
    auto narrow = static_cast<uint32_t>(wide);
    if ((length & 4) != 0) {
        uint32_t word = 0;
        memcpy(&word, p, 4);
        narrow = __builtin_ia32_crc32si(narrow, word);
        p += 4;
    }
    if ((length & 2) != 0) {
        uint16_t word = 0;
        memcpy(&word, p, 2);
        narrow = __builtin_ia32_crc32hi(narrow, word);
        p += 2;
    }
    if ((length & 1) != 0)
        narrow = __builtin_ia32_crc32qi(narrow, *p);
    return ~narrow;
}

static const bool has_sse42 = __builtin_cpu_supports("sse4.2") != 0;

uint32_t fwu_crc32c(uint32_t crc, const void *data, size_t length)
{
    return has_sse42 ? crc32c_sse42(crc, data, length) : fwu_crc32c_tables(crc, data, length);
}
#else
uint32_t fwu_crc32c(uint32_t crc, const void *data, size_t length)
{
    return fwu_crc32c_tables(crc, data, length);
}
#endif
