// The end of a log that is being written: what stands there, what of it is on disk and
// what was acknowledged.  Recovery finds it, the writer moves it on, both by what is here.
//
// What is on disk comes before what is told of it: the transactions, then the directory
// that names their file, then the file of what was acknowledged.
#ifndef FWUTIL_FWU_LOG_END_H
#define FWUTIL_FWU_LOG_END_H

#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_file_number.h"
#include "fwutil/fwu_layouts.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

struct fwu_log_end {
    std::string directory;
    bool big_endian = false;
    fwu_encoding encoding = FWU_LATIN1;          // of a log that has a file: what that says
    std::optional<fwu_encoding> wanted_encoding; // what the configuration says
    mode_t file_mode = 0600;

    // The last log file; its generation is 0 until there is one.
    fwu_log_file file;
    fwu_file_header header;
    fwu_identity identity; // of the log; none before its first file
    int fd = -1;
    int64_t end = 0;       // offset behind its last transaction
    int32_t last_tag = 0;  // tag of its last commit entry
    bool torn = false;     // bytes behind end could not be cut off yet
    bool new_name = false; // the directory has not been synced since the file was made
    fwu_layouts layouts;   // that stand in it

    bool unsynced = false;    // a commit is not known to be on disk
    bool sync_failed = false; // what the system did not write it may have dropped

    fwu_ack here;          // the last commit and where it stands
    fwu_ack synced;        // the last one that is on disk
    fwu_ack acked;         // what the file "acknowledged" says
    bool have_ack = false; // ... which is there

    fwu_commit last;         // commit of the last transaction; all 0: there is none
    uint64_t synced_lsn = 0; // last commit that this process has brought to disk
    int32_t last_recnum = 0; // 0: no record in the log
    fwu_position recnum_at;  // that record's file; sequence 0: not known
};

// Mode of the files in the log directory, by the configuration's log-mode or the
// directory's own mode; 0 or -1 (reported).
int fwu_log_end_mode(const std::string &directory, int log_mode, mode_t &mode);

// Makes the log directory where it is missing, and finds the mode of the files in it.
// 0 or -1 (reported).
int fwu_log_end_directory(fwu_log_end &log, int log_mode);

// Takes the writer's lock, which closing the descriptor releases.  The descriptor, or
// -1 (reported, with the process that has it).
int fwu_log_end_lock(const std::string &directory, mode_t mode);

// Cuts off what stands behind the last transaction; 0 or -1 (reported).
int fwu_log_end_cut_tail(fwu_log_end &log);

// Writes a log file's header, which it makes; 0, or -1 (reported).
int fwu_log_end_put_header(fwu_log_end &log, int fd, const fwu_log_file &file,
                           fwu_file_header &header);

// Makes the file of this number, behind the last one, with the header that is given or one of its
// own.  Whatever is said of syncing, the last one is on disk before, so that a power cut leaves no
// hole in front of good files; and the new one's header is, before it gets its name, so that
// nobody sees less of it.  0 or -1 (reported).
int fwu_log_end_begin_file(fwu_log_end &log, const fwu_file_number &number,
                           const fwu_file_header *given = nullptr);

// Notes a transaction that was written behind the end: so many bytes, the last of them its
// commit entry with this tag.
void fwu_log_end_advance(fwu_log_end &log, int64_t bytes, int32_t tag, const fwu_commit &commit);

// Brings the log to disk.  0 or -1 (reported): once that has failed it fails for good,
// in the next run too, before that has written the file again.
int fwu_log_end_sync(fwu_log_end &log);

// Name of the file in the log directory that remembers a failed sync.
constexpr char FWU_SYNC_FAILED[] = "sync-failed";

// Keeps what is on disk as acknowledged, in a file made for it where there is none.
// 0 or -1 (reported).
int fwu_log_end_keep(fwu_log_end &log);

// The same when it is not kept already.
int fwu_log_end_acknowledge(fwu_log_end &log);

#endif
