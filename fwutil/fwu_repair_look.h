// What a repair is going to cut off, as far as it is whole.
#ifndef FWUTIL_FWU_REPAIR_LOOK_H
#define FWUTIL_FWU_REPAIR_LOOK_H

#include "fwutil/fwu_repair.h"

// Adds what is whole at and behind an offset of a log file, also behind damaged places;
// 0 or -1 (reported).
int fwu_lost_add(fwu_lost &lost, const fwu_log_file &file, int64_t offset);

#endif
