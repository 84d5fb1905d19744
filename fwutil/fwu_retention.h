// What a writer does about the age of its log: it removes the oldest files that neither log-keep
// nor a registered reader keeps, from time to time, and tells when the disk gets full.
//
// None of it ever stops the writer: what goes wrong is told, and keeps everything.  Each thing is
// told once, and again when it has changed.
#ifndef FWUTIL_FWU_RETENTION_H
#define FWUTIL_FWU_RETENTION_H

#include "fwutil/fwu_log_end.h"
#include "fwutil/fwu_room.h"
#include "fwutil/fwu_writing.h"

#include <cstdint>
#include <string>

// What the last look has found, for monitors.
struct fwu_retained {
    std::string keep; // as fwu_keep
    uint64_t files = 0;
    int64_t bytes = 0;
    size_t readers = 0;      // registered ones
    std::string held_by;     // the reader that keeps most beside log-keep; empty: none does
    std::string held_at;     // where it stands, or what is wrong with it
    uint64_t held_files = 0; // that only readers keep
    int64_t held_bytes = 0;
    std::string problem;        // why nothing can be removed; empty: nothing is wrong
    uint64_t removed_files = 0; // since the start
    int64_t removed_bytes = 0;
    fwu_room room;
    bool little_room = false;
};

struct fwu_retention {
    std::string directory; // absolute; empty: not found yet
    fwu_keep keep;
    int64_t due_ms = 0; // monotonic time of the next look; 0: at once
    int64_t locked_ms =
        0; // monotonic time since which another process has the readers' lock; 0: none
    fwu_retained found;
    std::string told; // the problem that was told last
};

// Looks when it is time, or now.
void fwu_retention_look(fwu_retention &retention, const fwu_log_end &log, bool now);

// Milliseconds until it is time.
int fwu_retention_due_in(const fwu_retention &retention);

#endif
