// Removing the oldest files of a log, in their order: whatever ends that leaves a log without a
// gap.
#ifndef FWUTIL_FWU_REMOVAL_H
#define FWUTIL_FWU_REMOVAL_H

#include "fwutil/fwu_cursor.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct fwu_removal {
    size_t gone = 0;    // of the files that were to go: removed, or not there any more
    uint64_t files = 0; // removed
    int64_t bytes = 0;
};

// Removes the first count of the files; taken is called with each that goes, and its size.  Who
// removes files has the lock of the readers (fwutil/fwu_readers.h).  only_look: they stay.
// 0, or -1 (reported): that one and the newer ones are left.
int fwu_remove_oldest(const std::vector<fwu_log_file> &files, size_t count, bool only_look,
                      fwu_removal &removal,
                      const std::function<void(const fwu_log_file &, int64_t size)> &taken);

#endif
