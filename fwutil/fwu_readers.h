// The readers of a log that are registered with it, each by its status file: what removes log files
// by itself leaves them what they need (fwutil/fwu_need.h).
//
// They stand in the file "readers" of the log directory, which is replaced whole.  Whoever changes
// it, or removes log files by it, holds the lock "readers.lock" meanwhile: so what a registration
// has found in the log stays there from then on.
#ifndef FWUTIL_FWU_READERS_H
#define FWUTIL_FWU_READERS_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_need.h"

#include <string>
#include <vector>

constexpr char FWU_READERS_NAME[] = "readers";

// A status file's path as the register has it: absolute, without links as far as it exists.  A file
// that is not there yet needs its directory only.  Empty: reported.
std::string fwu_reader_path(const std::string &path);

// The paths of all readers, in the order in which they were registered.  FWU_FOUND; FWU_END: there
// is no register; FWU_FAILED: reported.
fwu_found fwu_readers_read(const std::string &directory, std::vector<std::string> &paths);

// Replaces the register, on disk; the lock is held.  0 or -1 (reported).
int fwu_readers_write(const std::string &directory, const std::vector<std::string> &paths);

// Takes the lock, which whoever has it holds for a moment only.  wait: for some seconds at
// most.  FWU_FOUND; FWU_END: another process has it (reported when waited for); FWU_FAILED:
// reported.
struct fwu_readers_lock {
    int fd = -1;
    fwu_readers_lock() = default;
    ~fwu_readers_lock();
    fwu_readers_lock(const fwu_readers_lock &) = delete;
    fwu_readers_lock &operator=(const fwu_readers_lock &) = delete;
};
fwu_found fwu_readers_take_lock(fwu_readers_lock &lock, const std::string &directory, bool wait);

// A registered reader, and what it needs of the log.
struct fwu_reader {
    std::string path;
    fwu_need need;
};

// All of them, with what each of them needs; directory as in fwu_need_of.  As fwu_readers_read.
fwu_found fwu_readers_needs(const std::string &directory, const std::vector<fwu_log_file> &files,
                            std::vector<fwu_reader> &readers, bool checked = true);

#endif
