// The status file: names the record that the callback acknowledged last, and the last
// one whose output is on disk, so that the next run goes on behind the one that counts.
//
// From the ground up: fwu_place (a record, by all that tells it from others),
// fwu_status_line (the lines that name one), fwu_synced (the text behind them),
// fwu_status_text (all of that as one file's bytes); fwu_status_file (the file itself)
// and fwu_map (stores into it) know nothing of what stands there; fwu_status, here, is
// the file during a run, and fwu_report prints one.
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
    fwu_status_text found;      // what it said when it was opened; fresh where that does not matter
    fwu_status_text overridden; // what it said, where a start position stands in for that
    bool damaged = false;       // it said nothing, and a start position stands in for that
    std::string log_directory;
    std::string prefix;   // what stands before the lines
    fwu_place place;      // acknowledged last; at first as found, a run may go back from that
    fwu_status_line line; // the line written last
    int number = 0;       // its number
    std::string synced;   // the text that counts
    fwu_pointer pointer;  // where it stands
    int pointer_number = 0;
    fwu_map map;           // not mapped before the first record, or if it cannot be
    bool written = false;  // the file holds this run's lines
    bool unsynced = false; // changed since it was brought to disk
    bool lost = false;     // it has its name no more, which was told
};

// Opens or creates and locks the file for reading a log in log_directory
// (absolute).  overridden: a start position is given, so what the file says does
// not matter.  0, or -1 (reported).
int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden);

// Names a record as acknowledged.  Nothing is written before the first
// fwu_status_force.  0, or -1 (reported).
int fwu_status_acknowledge(fwu_status &status, const fwu_place &place);

// Brings the file to disk, with the place acknowledged last as the one whose output is
// there; the program's mark and the boot are kept along with it.  0, or -1 (reported).
int fwu_status_force(fwu_status &status, const std::string &boot, const char *mark);

// Makes the next run go on behind the place whose output is on disk: what came after
// it could not be brought there, and the system may have dropped it.  Nothing more is
// written to the file then.  Failures are reported, with the place.
void fwu_status_distrust(fwu_status &status);

// Writes the file anew, and says so, when somebody has cut or changed it.  0, or -1
// (reported): so it is when it was removed or replaced, which is told once.
int fwu_status_look(fwu_status &status);

// Releases lock and file.
void fwu_status_close(fwu_status &status);

#endif
