// Reading one log file: finds committed transactions, one after the other, and
// gives their entries.  What no commit stands behind is "not there yet"; a
// writer may still change it, so nothing of it is trusted before the commit.
#ifndef FWUTIL_FWU_CURSOR_H
#define FWUTIL_FWU_CURSOR_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_file_number.h"

#include <cstdint>
#include <string>
#include <vector>

struct fwu_log_file {
    int32_t generation = 0;
    int32_t sequence = 0;
    std::string name; // "fw0001-00000025.log"
    std::string path; // directory and name
};

std::string fwu_log_file_name(int32_t generation, int32_t sequence);
bool fwu_log_file_parse(const char *name, int32_t &generation, int32_t &sequence);

enum fwu_found {
    FWU_FOUND,
    FWU_END,     // no more for now
    FWU_DAMAGED, // a commit stands behind bytes that are wrong: the verdict says where, what
    FWU_FAILED,  // reported on standard error
    FWU_GONE,    // the log file was removed, like all before it, since it was listed
};

// File size and time, to see that a file has not changed.
struct fwu_stamp {
    int64_t size = -1;
    int64_t mtime_ns = 0;
    bool operator==(const fwu_stamp &) const = default;
};

// What stopped reading, and where.
struct fwu_verdict {
    int64_t at = 0;
    const char *reason = nullptr; // what is wrong there; null: the file ends there
    bool foreign = false;         // the file has a whole header, which does not belong here
    bool gap = false;             // its first record is not the one behind those before it
};

// Only the functions here change a cursor; others read what it found.
struct fwu_cursor {
    fwu_log_file file;
    int fd = -1;
    bool header_read = false;
    fwu_file_header header;
    fwu_file_header before;    // of an earlier file that this cursor has read, else as of version 1
    int32_t recnum_before = 0; // last record before the file that this cursor has read; 0: none

    std::vector<unsigned char> window; // grows only to the largest entry
    int64_t window_at = 0;             // its offset in the file
    size_t window_length = 0;          // bytes read into it
    int64_t keep_at = 0;               // bytes from here on stay in the window if they fit

    // The transaction found last; the next one begins at tx_end.
    int64_t tx_start = 0;
    int64_t tx_end = 0;
    int32_t tx_first_tag = 1;
    int32_t tx_last_tag = 0; // of its commit entry
    bool tx_in_window = false;
    fwu_commit_entry commit;
    int32_t first_recnum = 0;    // of the transactions found in the file; 0: no record yet
    int64_t first_recnum_at = 0; // where the transaction with it begins
    int32_t last_recnum = 0;

    // How far the transaction behind it has been scanned for its commit.
    int64_t scan_at = 0;
    int32_t scan_tag = 1;
    uint32_t scan_entries = 0;
    uint32_t scan_chain = 0;
    int32_t scan_first_recnum = 0; // 0: no record
    int32_t scan_last_recnum = 0;
    bool scan_in_window = true; // nothing scanned was dropped from the window and read again
    int64_t scan_last_at = 0;   // the entry before scan_at, whose header was
    unsigned char scan_last[FWU_ENTRY_HEADER_SIZE] = {};

    // The next entry that fwu_cursor_entry gives.
    int64_t read_at = 0;
    int32_t read_tag = 1;

    // At FWU_END and FWU_DAMAGED.
    int64_t size = 0; // of the file
    fwu_verdict verdict;
    fwu_stamp settled; // the file was like this, and nothing more to find in it
};

// Opens a log file; 0 or -1 (reported).  The cursor's window is kept; a file that
// comes behind the one it has read must belong to the same log, and its records must
// follow those of that one when it comes right behind it and that was read to its end.
int fwu_cursor_open(fwu_cursor &cursor, const fwu_log_file &file);
// The same without a report: -1 with errno, and the cursor is as it was.
int fwu_cursor_try_open(fwu_cursor &cursor, const fwu_log_file &file);
void fwu_cursor_close(fwu_cursor &cursor);

// What is wrong when a file's first record has this number and the last one before it that
// one; null: nothing.  Record numbers count through all files and begin again with 1 behind
// the largest.  The text is valid until the thread's next call; 0: no record.
const char *fwu_recnum_gap(int32_t before, int32_t first);

// Finds the next committed transaction.
fwu_found fwu_cursor_next(fwu_cursor &cursor);

// Takes what fwu_cursor_next has just called damage for a tail: until the file
// changes there is nothing more in it.
void fwu_cursor_tail(fwu_cursor &cursor);

// Next entry of the transaction found; FWU_END behind its commit entry.
// The entry is valid until the next call with this cursor.  Optional entries of a
// kind that this version does not know are passed over.
fwu_found fwu_cursor_entry(fwu_cursor &cursor, fwu_entry &entry);

#endif
