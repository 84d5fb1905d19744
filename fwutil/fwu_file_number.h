// Which log file comes behind which: the numbers count up, and on into the next generation.
#ifndef FWUTIL_FWU_FILE_NUMBER_H
#define FWUTIL_FWU_FILE_NUMBER_H

#include <cstdint>

constexpr int32_t FWU_GENERATION_MAX = 9999;
constexpr int32_t FWU_SEQUENCE_MAX = 99999999; // in each generation

struct fwu_file_number {
    int32_t generation = 0;
    int32_t sequence = 0;
    bool operator==(const fwu_file_number &) const = default;
};

// Of whatever has one.
template <typename T> fwu_file_number fwu_file_number_of(const T &file)
{
    return {file.generation, file.sequence};
}

// That of the file right behind another one, as 1-25 is of 1-24; behind the last one of a
// generation stands the next one's first.
inline fwu_file_number fwu_file_number_behind(const fwu_file_number &before)
{
    if (before.sequence == FWU_SEQUENCE_MAX)
        return {before.generation + 1, 1};
    return {before.generation, before.sequence + 1};
}

#endif
