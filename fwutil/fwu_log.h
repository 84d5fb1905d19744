// A forward log as a directory of files, and its walk from entry to entry.  A reader
// gets whole transactions in the order of their commits, each once, and relies on what
// fwu_writer.cpp says of that order; what was acknowledged must be there.
// Calls report errors on standard error and return -1.
#ifndef FWUTIL_FWU_LOG_H
#define FWUTIL_FWU_LOG_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_entry.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Fills files with the directory's log files, oldest first; other names are
// passed over.
int fwu_log_list(const std::string &directory, std::vector<fwu_log_file> &files);

// Tells whoever begins with the log's oldest file, having no position of its own, that older ones
// were removed, if they were.
void fwu_log_warn_begins_late(const std::string &directory);

// Opens a file that was listed before.  FWU_FOUND; FWU_GONE: old files may be removed
// at any time, from the front; FWU_FAILED: reported, also that it is missing among
// others.
fwu_found fwu_log_open(fwu_cursor &cursor, const fwu_log_file &file);

// The header of a log file.  FWU_FOUND; FWU_END: it has no good one; FWU_FAILED: reported.
fwu_found fwu_log_header(const fwu_log_file &file, fwu_file_header &header);

// Reading a log transaction by transaction, from file to file.
struct fwu_log {
    std::string directory;
    fwu_cursor cursor;
    bool look = true;  // the directory may hold files that were not there before
    bool told = false; // that the file of what was acknowledged cannot be read
};

// Goes on to the next committed transaction, whose entries fwu_cursor_entry
// then gives.  FWU_END: no more for now.  FWU_FAILED: reported.
fwu_found fwu_log_next(fwu_log &log);

// Next entry of that transaction, its commit entry included; FWU_END behind it.
fwu_found fwu_log_entry(fwu_log &log, fwu_entry &entry);

// Whether a file that another one follows holds whole transactions and nothing else, as
// far as the cursor has found; false: the verdict says what is wrong.
bool fwu_log_ends_whole(const fwu_cursor &cursor, fwu_verdict &verdict);

// Reports damage in a file, or what the cursor found; returns -1.
int fwu_log_damage(const fwu_log_file &file, const fwu_verdict &verdict);
int fwu_log_damage(const fwu_cursor &cursor);

// For programs that show a log: what there is, in order.
enum fwu_walk_what {
    FWU_WALK_FILE,   // a log file begins: header is filled
    FWU_WALK_ENTRY,  // an entry of a committed transaction: entry is filled
    FWU_WALK_TAIL,   // length bytes at offset are not there yet
    FWU_WALK_DAMAGE, // reason says what is wrong at offset
};

struct fwu_walk_item {
    fwu_walk_what what = FWU_WALK_FILE;
    const fwu_log_file *file = nullptr;
    int64_t offset = 0;           // in the file
    int64_t length = 0;           // of a tail, in bytes
    const char *reason = nullptr; // of damage; of a tail, or null when it is merely unfinished
    fwu_file_header header;
    fwu_entry entry; // valid during the visit
};

// Visits the entries of the transaction that the cursor has found, until visit
// returns nonzero, which is then returned.  The caller has set item.file.  found:
// FWU_END behind the commit entry; FWU_DAMAGED: not reported; FWU_FAILED: reported.
int fwu_log_walk_transaction(fwu_cursor &cursor, fwu_walk_item &item,
                             const std::function<int(const fwu_walk_item &)> &visit,
                             fwu_found &found);

// Visits everything in one file, until visit returns nonzero, which then is result.
// last: no other file follows it, so that it may have a tail.  FWU_END: walked to the
// end; FWU_GONE: nothing visited; FWU_DAMAGED: visited, not reported; FWU_FAILED:
// reported.
fwu_found fwu_log_walk_file(fwu_cursor &cursor, const fwu_log_file &file, bool last,
                            const std::function<int(const fwu_walk_item &)> &visit, int &result);

// Visits everything from the log's oldest file on until visit returns nonzero,
// which it then returns.  Damage is visited, then reported, and ends the walk
// with -1.  0 at the end of the log.
int fwu_log_walk(const std::string &directory,
                 const std::function<int(const fwu_walk_item &)> &visit);

#endif
