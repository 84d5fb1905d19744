// What the next run believes: which server, database and slot the log belongs to, and how far the
// server was told.  The file is beside the log and for nobody else; it is written only once all of
// it is known to be so, and is on disk before what rests on it happens.
#ifndef FEED_POSTGRESQL_KEPT_H
#define FEED_POSTGRESQL_KEPT_H

#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

struct pgb_kept {
    std::string path;              // of the file, "source" in the log directory
    mode_t mode = 0600;            // that it gets
    std::string system;            // the server's system identifier; empty: not known yet
    std::string database;          // likewise
    uint32_t timeline = 0;         // of its history; 0: not known yet
    std::string slot;              // that the log follows; empty: none yet
    std::string snapshot = "none"; // or begun: a slot may be there; taking: file "aside" has the
                                   // tables; done
    uint64_t told_lsn = 0;         // the furthest position that the server was told
};

// Reads what a run before left, at path, else at older, where logs had it before they had a file
// for it; that is then written to path as it is.  What is not there, or damaged, leaves kept as
// it is; OUTCOME_FAILED for what cannot be read.
outcome pgb_kept_read(pgb_kept &kept, const std::string &older);

// Writes the file anew, under its name only once it is whole.  durable: it is on disk when the
// call returns.  OUTCOME_FAILED when it could not be written.
outcome pgb_kept_write(const pgb_kept &kept, bool durable);

// The same for any text in the place of what a file holds; false with errno.  Until it is whole it
// stands beside it, under a name that ends so.  held: the descriptor that has the file before
// locked (flock), or -1, is closed, and becomes that of the new one, locked before it has its name.
constexpr char PGB_FRESH[] = ".new";
bool pgb_put_file(const std::string &path, mode_t mode, const std::string &text, bool durable,
                  int *held = nullptr);

#endif
