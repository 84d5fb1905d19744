// What of a log has been acknowledged: told to its source, or printed as done.
// It stands in the file "acknowledged" of the log directory, which the writer
// keeps: a log that ends before it has lost what its source will not send again.
#ifndef FWUTIL_FWU_ACK_H
#define FWUTIL_FWU_ACK_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_start.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

constexpr char FWU_ACK_NAME[] = "acknowledged";

struct fwu_ack {
    uint64_t number = 0;   // counts what was written
    fwu_identity identity; // of the log
    fwu_position position; // of the last commit acknowledged; generation 0: none yet
    int64_t end = 0;       // offset behind it in its file
    fwu_commit commit;     // without the transaction id
    bool lost = false; // a repair cut the log below what had been acknowledged: up to commit.lsn
};

// Reads it.  FWU_FOUND; FWU_END: there is no such file; FWU_FAILED: reported, also
// that it is damaged; unless quiet, when that has been reported before.
fwu_found fwu_ack_read(const std::string &directory, fwu_ack &ack, bool quiet = false);

// Makes the file, or replaces it, on disk and with its name; 0 or -1 (reported).
int fwu_ack_create(const std::string &directory, fwu_ack &ack, mode_t mode);

// Writes the next line into a file that is there, on disk; 0 or -1 (reported).
int fwu_ack_write(const std::string &directory, fwu_ack &ack);

// Reports that a log which ends at a position lacks what was acknowledged; reason
// says what is wrong there, or is null.  -1.
int fwu_ack_missing(const std::string &directory, const fwu_ack &ack, const fwu_position &end,
                    const char *reason);

// Reports that it belongs to another log than the files there.  -1.
int fwu_ack_foreign(const std::string &directory, const fwu_ack &ack, const fwu_identity &there);

#endif
