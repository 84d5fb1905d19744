// The status file: names the record that the callback acknowledged last, so that
// the next run goes on behind it.
#ifndef FWUTIL_FWU_STATUS_H
#define FWUTIL_FWU_STATUS_H

#include "fwutil/fwu_map.h"
#include "fwutil/fwu_status_text.h"

#include <cstdint>
#include <string>

#define FWU_STATUS_DEFAULT "fwutil.status"

// Reads a status file without locking it.  0, or -1 (reported).
int fwu_status_read(const std::string &path, fwu_status_text &text);

// A status file held by a run.  fwu_map_faults must be in force meanwhile.
struct fwu_status {
    std::string path;
    int fd = -1;
    fwu_status_text text;
    fwu_status_line line;   // the line written last
    int number = 0;         // its number
    size_t prefix_size = 0; // bytes before the two lines
    fwu_map map;            // not mapped before the first record, or if it cannot be
    bool written = false;   // the file holds this run's text
    bool unsynced = false;  // changed since it was brought to disk
};

// Opens or creates and locks the file for reading a log in log_directory
// (absolute).  overridden: a start position is given, so what the file says does
// not matter.  0, or -1 (reported).
int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden);

// Names a record as acknowledged.  0, or -1 (reported).
int fwu_status_acknowledge(fwu_status &status, const fwu_position &position, int64_t time_us);

// Brings the file to disk when it has changed.  0, or -1 (reported).
int fwu_status_sync(fwu_status &status);

// Releases lock and file.
void fwu_status_close(fwu_status &status);

#endif
