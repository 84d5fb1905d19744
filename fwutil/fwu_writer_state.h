// The state of a log's writer and what its parts share: fwu_writer appends,
// fwu_recover finds where to go on.
#ifndef FWUTIL_FWU_WRITER_STATE_H
#define FWUTIL_FWU_WRITER_STATE_H

#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_txn.h"
#include "fwutil/fwu_writer.h"

#include <string>
#include <unordered_map>

using fwu_layout_map = std::unordered_map<std::string, fwu_layout>;

struct fwu_writer {
    std::string directory;
    int64_t log_file_size = 0;
    bool big_endian = false;
    mode_t file_mode = 0600;
    int lock_fd = -1;

    // The last log file; its generation is 0 until there is one.
    fwu_log_file file;
    fwu_file_header header;
    fwu_identity identity; // of the log; none before its first file
    int fd = -1;
    int64_t end = 0;        // offset behind its last transaction
    int32_t last_tag = 0;   // tag of its last commit entry
    bool torn = false;      // bytes behind end could not be cut off yet
    bool new_name = false;  // the directory has not been synced since the file was made
    fwu_layout_map layouts; // that stand in it

    fwu_sync_mode sync = FWU_SYNC_COMMIT;
    int64_t sync_interval_ms = 0;
    bool unsynced = false;      // a commit is not known to be on disk
    int64_t unsynced_since = 0; // when the first of those was appended, monotonic milliseconds
    bool sync_failed = false;   // what the system did not write it may have dropped
    uint64_t synced_lsn = 0;    // last commit that is on disk as far as the setting asks

    fwu_ack here;          // the last commit and where it stands
    fwu_ack synced;        // the last one that is on disk
    fwu_ack acked;         // what the file "acknowledged" says
    bool have_ack = false; // ... which is there

    fwu_commit last;         // commit of the last transaction; all 0: there is none
    int32_t last_recnum = 0; // 0: no record in the log

    bool open = false;      // a transaction has begun
    bool failed = false;    // ... and one of its records was refused
    bool next_file = false; // it goes into a new file
    bool records = false;   // it has some
    int32_t recnum = 0;     // last one that it uses
    fwu_txn txn;
    fwu_layout_map txn_layouts; // that it puts into the log
    std::string key;            // scratch for the maps' keys
};

// Sets the scratch key to that of a dataset.
void fwu_writer_key(fwu_writer &w, const std::string &dbname, const std::string &dsetname);

// Mode of the files in the log directory, by the configuration's log-mode or the
// directory's own mode; 0 or -1 (reported).
int fwu_writer_mode(const std::string &directory, int log_mode, mode_t &mode);

// Takes the writer's lock, which closing the descriptor releases.  The descriptor, or
// -1 (reported, with the process that has it).
int fwu_writer_lock(const std::string &directory, mode_t mode);

// Cuts off what stands behind the last transaction; 0 or -1 (reported).
int fwu_writer_cut_tail(fwu_writer &w);

// Writes a log file's header, which it makes; 0, or -1 (reported).
int fwu_writer_put_header(fwu_writer &w, int fd, const fwu_log_file &file, fwu_file_header &header);

// Whether the file holds zeros only: a system that went down before it wrote it.
bool fwu_all_zero(const fwu_log_file &file);

// Copies what stands between two offsets of a file, or up to its end, into a file of its
// own, on disk; 0, or -1 with errno and nothing left.
int fwu_keep_piece(const std::string &from, int64_t offset, int64_t end, const std::string &to,
                   mode_t mode);

// Name of the file in the log directory that remembers a failed sync.
constexpr char FWU_SYNC_FAILED[] = "sync-failed";

// Finds the log's end: reads the last file for its layouts, cuts a torn tail off
// and, when that file holds no transaction, asks older ones for the last record.
// 0 or -1 (reported).
int fwu_recover(fwu_writer &w);

#endif
