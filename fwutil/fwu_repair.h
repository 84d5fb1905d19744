// Cutting a damaged log back to its last whole transaction before the damage.  What is
// cut is kept beside the log.  Errors are reported; calls return 0 or -1.
#ifndef FWUTIL_FWU_REPAIR_H
#define FWUTIL_FWU_REPAIR_H

#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_repair_look.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// A log file that goes, or its end does.
struct fwu_kept {
    fwu_log_file file;
    int64_t offset = 0; // where what goes begins; 0: the whole file goes
    int64_t bytes = 0;
    std::string name; // that it gets in the log directory
};

struct fwu_repair {
    std::string directory;
    mode_t file_mode = 0600;
    int lock_fd = -1;

    // What the log holds and goes on holding.
    size_t files = 0;
    uint64_t transactions = 0;
    fwu_ack end;               // its last commit and where that stands, and its identity
    int64_t unfinished = 0;    // bytes behind it that the next writer cuts off
    int64_t unfinished_at = 0; // ... from this offset of the last file on

    // The first damage.  Null reason: there is none.
    std::string damaged; // path of the log file
    int64_t damage_at = 0;
    const char *reason = nullptr;
    std::vector<fwu_kept> kept; // what goes, in the order of the log
    fwu_lost lost;

    bool have_ack = false;
    fwu_ack acked;      // what was acknowledged
    bool below = false; // part of that is missing
};

// Takes the writer's lock, if it is there and can be written when only_look is set, reads the log
// and finds the first damage.
int fwu_repair_open(fwu_repair &repair, const fwu_config &config, bool only_look);

// Cuts the log back as the plan says.  Whatever interrupts it leaves a log that is as
// damaged as it was, or repaired, and nothing of it lost: it is simply run again.
int fwu_repair_carry_out(fwu_repair &repair);

void fwu_repair_close(fwu_repair &repair);

#endif
