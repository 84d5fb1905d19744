// Weak references: null when neither the program nor a library that it has loaded
// defines them.  A program that is linked with this library exports its definitions
// without a word from its author, since the linker sees that they are asked for.
#include "fwutil/fwu_hook.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"

#pragma weak Fwu_hook_sync_due
#pragma weak Fwu_hook_sync
#pragma weak Fwu_hook_resume
#pragma weak Fwu_hook_keep
#pragma weak Fwu_hook_wait

constexpr int64_t FORCED_EVERY_MS = 60'000;
constexpr int32_t CLOCK_EVERY = 16; // records; a run with longer pauses than 200 ms rests

// Without the program's word.
static bool due_by_default(fwu_forcing &forcing, int when)
{
    if (when == FWU_AT_RECORD) {
        if (++forcing.records < CLOCK_EVERY)
            return false;
        forcing.records = 0;
        if (fwu_monotonic_ms() - forcing.forced_ms < FORCED_EVERY_MS)
            return false;
    }
    forcing.forced_ms = fwu_monotonic_ms();
    return true;
}

bool fwu_hook_due(fwu_forcing &forcing, int when)
{
    if (forcing.never)
        return false;
    if (Fwu_hook_sync_due == nullptr)
        return due_by_default(forcing, when);
    const int answer = Fwu_hook_sync_due(when);
    if (when != FWU_AT_START)
        return answer == 1;
    forcing.never = answer < 0;
    forcing.ask = forcing.never ? nullptr : Fwu_hook_sync_due;
    return !forcing.never;
}

const char *fwu_hook_sync()
{
    if (Fwu_hook_sync == nullptr)
        return "";
    const char *mark = Fwu_hook_sync();
    if (mark == nullptr)
        fwu_error("the program could not bring to disk what it has written; the position on disk "
                  "stays as it was");
    return mark;
}

int fwu_hook_resume(const char *mark)
{
    if (Fwu_hook_resume == nullptr || Fwu_hook_resume(mark) == 0)
        return 0;
    return fwu_error("the program could not take away what it had written behind the position on "
                     "disk; the position stays as it was");
}

int fwu_hook_keep(const char *mark)
{
    if (Fwu_hook_keep == nullptr || Fwu_hook_keep(mark) == 0)
        return 0;
    return fwu_error("the program could not bring to disk what a run that was killed has written; "
                     "the position on disk stays as it was");
}

int fwu_hook_wait()
{
    const int answer = Fwu_hook_wait == nullptr ? 0 : Fwu_hook_wait();
    return answer >= 0 ? answer
                       : fwu_error("the program failed while it waited for more records; the "
                                   "position stays as it was");
}
