// The functions that a program may define beside its callback, and what holds
// where it does not.
#ifndef FWUTIL_FWU_HOOK_H
#define FWUTIL_FWU_HOOK_H

#include "fwutil/fwutil.h"

#include <cstdint>

// When the position of one run was, and is to be, forced to disk.
struct fwu_forcing {
    int (*ask)(int) = nullptr; // the program's word, from the start on unless never is set
    bool never = false;        // the program said so at the start
    int64_t forced_ms = 0; // monotonic time of the last one; only kept without the program's word
    int32_t records = 0;   // since the clock was looked at
};

// Asks whether to force the position at this moment (FWU_AT_...).
bool fwu_hook_due(fwu_forcing &forcing, int when);

// The same for FWU_AT_RECORD, where it is asked once for each record.
inline bool fwu_hook_due_at_record(fwu_forcing &forcing)
{
    return forcing.ask != nullptr ? forcing.ask(FWU_AT_RECORD) == 1
                                  : fwu_hook_due(forcing, FWU_AT_RECORD);
}

// The program's part of it: the text to keep, or null when that failed (reported).
const char *fwu_hook_sync();

// Has the program take away what it wrote behind the position that mark belongs to.
// 0 or -1 (reported).
int fwu_hook_resume(const char *mark);

// Has the program bring to disk what it wrote behind that position and what counts as
// written; an empty mark: everything.  0 or -1 (reported).
int fwu_hook_keep(const char *mark);

// Has the program look at its signals before a wait.  0; 1: the position is to be forced;
// -1 (reported).
int fwu_hook_wait();

#endif
