// The functions that a program may define beside its callback, and what holds
// where it does not.
#ifndef FWUTIL_FWU_HOOK_H
#define FWUTIL_FWU_HOOK_H

#include <cstdint>

// When the position of one run was, and is to be, forced to disk.
struct fwu_forcing {
    bool never = false;    // the program said so at the start
    int64_t forced_ms = 0; // monotonic time of the last one; only kept without the program's word
    int32_t records = 0;   // since the clock was looked at
};

// Asks whether to force the position at this moment (FWU_AT_...).
bool fwu_hook_due(fwu_forcing &forcing, int when);

// The program's part of it: the text to keep, or null when that failed (reported).
const char *fwu_hook_sync();

// Has the program take away what it wrote behind the position that mark belongs to.
// 0 or -1 (reported).
int fwu_hook_resume(const char *mark);

// Has the program bring to disk what it wrote behind that position and what counts as
// written; an empty mark: everything.  0 or -1 (reported).
int fwu_hook_keep(const char *mark);

#endif
