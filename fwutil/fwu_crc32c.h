// CRC-32C (Castagnoli), the checksum of log files and status files.
#ifndef FWUTIL_FWU_CRC32C_H
#define FWUTIL_FWU_CRC32C_H

#include <cstddef>
#include <cstdint>

// CRC of the bytes behind those that gave crc; crc is 0 for the first ones.
// Uses the processor's instruction where there is one.
uint32_t fwu_crc32c(uint32_t crc, const void *data, size_t length);

// The same by tables, for any processor.
uint32_t fwu_crc32c_tables(uint32_t crc, const void *data, size_t length);

#endif
