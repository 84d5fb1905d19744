// A log as it is when a loss has been accepted: cut back below what was acknowledged, and
// marked so.
#ifndef TESTS_SUPPORT_CUT_BACK_H
#define TESTS_SUPPORT_CUT_BACK_H

#include "fwutil/fwu_ack.h"

#include <filesystem>

// before: what was acknowledged at the place to cut back to, inside the last file.
inline bool cut_back(const std::string &directory, const std::string &last_file,
                     const fwu_ack &before)
{
    fwu_ack ack;
    if (fwu_ack_read(directory, ack) != FWU_FOUND)
        return false;
    std::filesystem::resize_file(last_file, static_cast<uintmax_t>(before.end));
    ack.position = before.position;
    ack.end = before.end;
    ack.commit.time_us = before.commit.time_us;
    ack.lost = true;
    return fwu_ack_write(directory, ack) == 0;
}

#endif
