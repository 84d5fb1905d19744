// What is kept of the last position that was brought to disk, behind everything
// that the program had written for it.  Described in docs/forward-log.md.
#ifndef FWUTIL_FWU_SYNCED_H
#define FWUTIL_FWU_SYNCED_H

#include "fwutil/fwu_place.h"

#include <cstddef>
#include <string>
#include <string_view>

struct fwu_synced {
    fwu_place place;  // none: the oldest record comes next
    std::string boot; // of the system that the run was on; or any, or unknown
    std::string mark; // the program's own text
};

constexpr size_t FWU_SYNCED_MAX = 16 * 1024 * 1024; // bytes of a text

std::string fwu_synced_put(const fwu_synced &synced);

// Decodes a whole text; false when these bytes are not one.
bool fwu_synced_get(fwu_synced &synced, std::string_view text);

#endif
