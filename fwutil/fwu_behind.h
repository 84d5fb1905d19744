// How much of a log lies behind a place in it.
#ifndef FWUTIL_FWU_BEHIND_H
#define FWUTIL_FWU_BEHIND_H

#include "fwutil/fwu_place.h"

#include <cstdint>
#include <string>

struct fwu_behind {
    int64_t records = 0;
    int64_t bytes = 0;    // of the entries up to the last record
    int64_t first_us = 0; // commit time of the first of these records; 0: there is none
    fwu_position end;     // last record of the log
    int64_t end_us = 0;   // its commit time
};

// Measures it, of all of the log when the place names nothing.  0 or -1 (reported).
int fwu_behind_measure(const std::string &directory, const fwu_place &place, fwu_behind &b);

#endif
