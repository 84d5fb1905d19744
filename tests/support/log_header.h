// Headers of log files as tests need them.
#ifndef TESTS_SUPPORT_LOG_HEADER_H
#define TESTS_SUPPORT_LOG_HEADER_H

#include "fwutil/fwu_entry.h"

#include <string>

inline std::string header_bytes(const fwu_file_header &header)
{
    std::string bytes(FWU_FILE_HEADER_SIZE, '\0');
    fwu_file_header_put(reinterpret_cast<unsigned char *>(bytes.data()), header);
    return bytes;
}

// Header of a log file of version 1.
inline std::string plain_header(int32_t sequence)
{
    return header_bytes({.generation = 1, .sequence = sequence});
}

// The header at the beginning of a log file's bytes; all zero when it is not good.
inline fwu_file_header header_of(const std::string &bytes)
{
    fwu_file_header header;
    if (bytes.size() < FWU_FILE_HEADER_SIZE ||
        fwu_file_header_get(header, reinterpret_cast<const unsigned char *>(bytes.data())) !=
            nullptr)
        return {};
    return header;
}

// A log file's bytes as those of another number in the same log.
inline std::string renumbered(const std::string &bytes, int32_t generation, int32_t sequence)
{
    fwu_file_header header = header_of(bytes);
    header.generation = generation;
    header.sequence = sequence;
    return header_bytes(header) + bytes.substr(FWU_FILE_HEADER_SIZE);
}

#endif
