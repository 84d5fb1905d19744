// The text of a status file: a head, two lines that name the record that was
// acknowledged last, two that say where the synced text stands, and that text.
// Described in docs/forward-log.md.  What changes in it, in which order, is fwu_status's.
#ifndef FWUTIL_FWU_STATUS_TEXT_H
#define FWUTIL_FWU_STATUS_TEXT_H

#include "fwutil/fwu_status_line.h"
#include "fwutil/fwu_synced.h"

#include <cstddef>
#include <string>

// What a status file says.
struct fwu_status_text {
    bool fresh = true;         // empty: nothing else is known
    int version = 2;           // 1: no synced text, places without identity and source position
    std::string log_directory; // absolute
    bool have_live = false;    // a line was whole
    fwu_place live;            // the record acknowledged last; none: no record yet
    int live_number = 0;       // of the line taken
    bool distrusted = false;   // both lines say that they do not count
    bool torn = false;         // a line was neither whole nor being changed
    bool have_synced = false;  // never in version 1
    fwu_synced synced;         // the newest
    fwu_pointer pointer;       // where it stands
    int pointer_number = 0;    // of the line that says so
    fwu_place on_disk;         // the synced place that is known to be on disk
};

// The lines stay within the first page of the file.
constexpr size_t FWU_STATUS_HEAD_MAX = 4096;
constexpr size_t FWU_STATUS_LINES_SIZE =
    FWU_STATUS_LINES * (FWU_STATUS_LINE_SIZE + FWU_POINTER_SIZE);

// What stands before the lines.
std::string fwu_status_prefix(const std::string &log_directory);

// True when the text for this log directory has a place in the file.
bool fwu_status_fits(const std::string &log_directory);

// Where a line of each kind stands behind the prefix.
constexpr size_t fwu_status_live_at(int number)
{
    return number % FWU_STATUS_LINES == 0 ? 0 : FWU_STATUS_LINE_SIZE;
}
constexpr size_t fwu_status_pointer_at(int number)
{
    return FWU_STATUS_LINES * FWU_STATUS_LINE_SIZE +
           (number % FWU_STATUS_LINES == 0 ? 0 : FWU_POINTER_SIZE);
}

// The whole text: lines of each kind with the numbers 0 and 1 that say the same, and
// the synced text behind them.
std::string fwu_status_put(const std::string &log_directory, const fwu_place &live,
                           const std::string &synced_text);

// Checks and decodes a whole text; 0, or -1 when these bytes are not one, or nothing
// in them tells a position that is sure not to be ahead.
int fwu_status_get(fwu_status_text &text, const std::string &bytes);

// Whether the live place counts on this boot of the system; else the synced one does.
bool fwu_status_live_counts(const fwu_status_text &text, const std::string &boot);

#endif
