// A log that is written as a copy of another one, byte for byte: the same files with the same
// identity, so that a position of the one is a position of the other.  Like any log it only ever
// shows whole transactions.  Errors are reported on standard error where they are found; calls
// return 0 or -1.
#ifndef FWUTIL_FWU_REPLICA_H
#define FWUTIL_FWU_REPLICA_H

#include "fwutil/fwu_config.h"
#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_file_number.h"

#include <cstddef>
#include <cstdint>

struct fwu_replica; // opaque

// Opens the log of the configuration, as fwu_writer_open does; its lock is the same.  Byte order
// and encoding are those of the log that is copied, whatever the configuration says.
int fwu_replica_open(fwu_replica **replica, const fwu_config &config);

// Where the copy ends: behind the last whole transaction.
struct fwu_replica_end {
    fwu_file_number file; // generation 0: there is no file yet
    fwu_file_header header;
    int64_t end = 0;             // in this file
    int64_t taken = 0;           // bytes behind it, of a transaction that is not whole yet
    fwu_commit commit;           // of the log's last transaction; all 0: it has none
    bool commit_in_file = false; // that one stands in this file
    bool mid() const
    {
        return taken != 0;
    }
};
fwu_replica_end fwu_replica_where(const fwu_replica *replica);

// Begins the file that this header is of.  It must come behind the last one, be of the same log,
// and no transaction may be in hand.
int fwu_replica_begin_file(fwu_replica *replica, const fwu_file_header &header);

// Takes the next bytes of the file, which may end anywhere.  Behind a commit entry the transaction
// stands in the log, if it is whole.
int fwu_replica_take(fwu_replica *replica, const unsigned char *bytes, size_t length);

// Forgets what was taken of a transaction that is not whole.
void fwu_replica_drop(fwu_replica *replica);

// Brings the log to disk, and records that it is there (fwu_writer_acknowledge).
int fwu_replica_acknowledge(fwu_replica *replica);

// Looks after the age of the log (fwu_writer_tend).
void fwu_replica_tend(fwu_replica *replica);

// Syncs, releases the lock and frees it; null is allowed.
int fwu_replica_close(fwu_replica *replica);

#endif
