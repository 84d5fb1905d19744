// What a repair is going to cut off, as far as it is whole.
#ifndef FWUTIL_FWU_REPAIR_LOOK_H
#define FWUTIL_FWU_REPAIR_LOOK_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_start.h"

#include <cstdint>

// What is whole of that which goes: transactions by their commit entries, and records
// whether their transaction is whole or not.
struct fwu_lost {
    uint64_t transactions = 0;
    uint64_t records = 0;
    fwu_position first; // of the first and the last of these commit entries
    fwu_position last;
    uint64_t first_lsn = 0; // source positions in them
    uint64_t last_lsn = 0;
};

// Adds what is whole at and behind an offset of a log file, also behind damaged places;
// 0 or -1 (reported).
int fwu_lost_add(fwu_lost &lost, const fwu_log_file &file, int64_t offset);

#endif
