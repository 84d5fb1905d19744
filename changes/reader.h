// The changes of a forward log, one after the other: from where, up to where and of which
// datasets a user wants them.
#ifndef CHANGES_READER_H
#define CHANGES_READER_H

#include "changes/change.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_log.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

// What is wanted.
struct change_range {
    fwu_position after; // behind this entry; sequence 0: not given
    fwu_position from;  // from this file or entry on
    fwu_position to;    // up to this file or entry
    std::function<bool(const std::string &dbname, const std::string &dsetname)>
        dataset; // empty: all
};

enum change_found {
    CHANGE_FOUND,       // a change
    CHANGE_COMMITTED,   // the transaction ends, of which changes were given
    CHANGE_PASSED,      // a transaction of which nothing was wanted has ended
    CHANGE_NO_MORE,     // for now; another call looks again
    CHANGE_RANGE_ENDED, // behind range.to
    CHANGE_FAILED,      // reported
};

// Only the functions here change a reader.
struct change_reader {
    change_range range;
    fwu_log log;
    change_transaction transaction; // the one in hand, or the one that has just ended
    struct parts;
    std::unique_ptr<parts> own;
    change_reader();
    ~change_reader();
};

// Begins to read the log of a configuration.  Its datasets tell of null maps and keys where
// the log does not.  0, or -1 (reported): range.after and range.from must be in the log.
int change_open(change_reader &reader, const fwu_config &config, change_range range);

// Goes on to the next change.  It and what it points to are valid until the next call; its
// dataset as long as the reader.
change_found change_next(change_reader &reader, change &next);

void change_close(change_reader &reader);

#endif
