// Where the last transactions of a log begin.
#ifndef TOOLS_FWLOG_TAIL_START_H
#define TOOLS_FWLOG_TAIL_START_H

#include "fwutil/fwu_log.h"

#include <cstdint>

struct fwlog_tail_start {
    fwu_found found = FWU_FOUND; // FWU_END: the log has no files; FWU_DAMAGED: they begin behind
                                 // damage, which was reported; FWU_FAILED: reported
    uint64_t skip = 0;           // transactions of the file that stand before them
    uint64_t wanted = 0;         // how many they are, of all files
};

// Opens the file in which the last transactions begin, so many as are asked for.
fwlog_tail_start fwlog_tail_open(fwu_log &log, uint64_t asked);

#endif
