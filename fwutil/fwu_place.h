// A record of the log by all that tells it from another one with the same position,
// and whether the log that is there has it.
#ifndef FWUTIL_FWU_PLACE_H
#define FWUTIL_FWU_PLACE_H

#include "fwutil/fwu_identity.h"
#include "fwutil/fwu_start.h"

#include <cstdint>
#include <string>

struct fwu_cursor;

struct fwu_place {
    fwu_position position; // sequence 0: none, and nothing else is set
    int64_t time_us = 0;   // of its transaction: commit time, microseconds since 1970 UTC
    bool full = true;      // false: the two below are not known
    uint64_t lsn = 0;      // of its transaction: position of the source
    fwu_identity identity; // of its log file
    bool operator==(const fwu_place &) const = default;
};

inline bool fwu_place_named(const fwu_place &place)
{
    return place.position.sequence != 0;
}

// The options with which a program is told where to start: with a log file, or behind an entry.
struct fwu_start_options {
    const char *file = "-start";
    const char *entry = "-start";
};

// Whether the log in a directory has the record of this place: the file, its identity,
// and the transaction that holds the position.  what begins the message.  0, or -1
// after an error that says what differs and with which start position to go on.
int fwu_place_check(const std::string &directory, const fwu_place &place, const std::string &what,
                    const fwu_start_options &options = {});

// Whether the file that is being read is still the log's file of that name.  A file
// that was removed while newer ones are there is: old files are.  0, or -1 after an
// error that says how to go on from the place.
int fwu_place_look(const std::string &directory, const fwu_cursor &cursor, const fwu_place &place,
                   const std::string &what, const fwu_start_options &options = {});

#endif
