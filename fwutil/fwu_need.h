// What the run of a status file still needs of a log: the file that it may have to go on in, and
// all behind it.  Whoever removes log files asks here first.
#ifndef FWUTIL_FWU_NEED_H
#define FWUTIL_FWU_NEED_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_place.h"

#include <string>
#include <vector>

enum fwu_need_kind {
    FWU_NEED_FROM,     // the file of its place, and all behind it
    FWU_NEED_NO_PLACE, // everything: it names no record yet that is known to be on disk
    FWU_NEED_UNKNOWN,  // everything: it cannot be read
    FWU_NEED_FOREIGN,  // everything: it belongs to another log
    FWU_NEED_LOST,     // everything: the log does not have its place
};

struct fwu_need {
    fwu_need_kind kind = FWU_NEED_UNKNOWN;
    std::string why;                // what is wrong, whole; empty with the first two kinds
    std::string log_directory;      // that it belongs to; empty: not known
    bool absent = false;            // there is no such file
    bool has_live = false;          // it names a record, whether that is on disk or not
    fwu_place place;                // behind which its run may have to go on
    const char *which = "position"; // what place is: that, or "position on disk"
    fwu_log_file file;              // FWU_NEED_FROM: in which the place is
};

// Finds it for the log in a directory (absolute) with these files.  Nothing is reported.
// checked: before something goes by it.  The log is searched for the place as a start does, which
// reads the file that it is in up to there, and a last position is brought to disk; else the
// file alone must be there and belong to that log.
fwu_need fwu_need_of(const std::string &path, const std::string &directory,
                     const std::vector<fwu_log_file> &files, bool checked = true);

// Whether something is wrong with it: it needs a hand, and keeps everything meanwhile.  One that
// is not there may be of a run that is still to come.
inline bool fwu_need_wrong(const fwu_need &need)
{
    return !need.absent && need.kind != FWU_NEED_FROM && need.kind != FWU_NEED_NO_PLACE;
}

// How many of the files it can do without, the oldest ones.
size_t fwu_need_free(const fwu_need &need, const std::vector<fwu_log_file> &files);

// "position on disk 1-3.40", "no position yet", "no status file yet", or what is wrong.
std::string fwu_need_text(const fwu_need &need);

#endif
