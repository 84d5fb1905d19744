// The status file: names the record that the callback acknowledged last, so that
// the next run goes on behind it.  Its text is described in docs/forward-log.md.
#ifndef FWUTIL_FWU_STATUS_H
#define FWUTIL_FWU_STATUS_H

#include "fwutil/fwu_start.h"

#include <cstdint>
#include <string>

#define FWU_STATUS_DEFAULT "fwutil.status"

// What a status file says.
struct fwu_status_text {
    bool fresh = true;          // empty: nothing else is known
    bool have_position = false; // false: no record acknowledged yet
    fwu_position position;
    int64_t time_us = 0;       // commit time of that record, microseconds since 1970 UTC
    std::string log_directory; // absolute
};

// Encodes and checks the file's whole text.
std::string fwu_status_put(const fwu_status_text &text);
// 0, or -1 when these bytes are not a whole status file.
int fwu_status_get(fwu_status_text &text, const std::string &bytes);

// Reads a status file without locking it.  0, or -1 (reported).
int fwu_status_read(const std::string &path, fwu_status_text &text);

// A status file held by a run.
struct fwu_status {
    std::string path;
    int fd = -1;
    fwu_status_text text;
    std::string bytes;       // the text as it is written next
    int64_t second = -1;     // whose time stands in bytes
    uint32_t prefix_crc = 0; // CRC of what stands before the position
    bool unsynced = false;   // written since the last fsync
    bool cut = false;        // longer than bytes: cut it after the next write
};

// Opens or creates and locks the file for reading a log in log_directory
// (absolute).  overridden: a start position is given, so what the file says does
// not matter.  0, or -1 (reported).
int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden);

// Names a record as acknowledged, with one write.  0, or -1 (reported).
int fwu_status_acknowledge(fwu_status &status, const fwu_position &position, int64_t time_us);

// Brings the file to disk when it has changed.  0, or -1 (reported).
int fwu_status_sync(fwu_status &status);

// Releases lock and file.
void fwu_status_close(fwu_status &status);

// "2026-11-21 03:33:52.123456 UTC"
std::string fwu_time_text(int64_t time_us);

#endif
