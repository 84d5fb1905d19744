// A file of bytes that are too many for memory.  It has no name in its directory, so that nothing
// is left behind whatever happens to the process.
#ifndef FWUTIL_FWU_SPILL_H
#define FWUTIL_FWU_SPILL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

struct fwu_spill {
    const char *of = ""; // what it holds, in messages: "a large transaction"
    int fd = -1;         // -1: nothing was spilled
    int64_t size = 0;    // bytes in it
};

// Appends to it; a file in directory is made for the first bytes.  0, or -1 (reported).
int fwu_spill_add(fwu_spill &spill, const std::string &directory, const void *data, size_t length);

// Reads bytes from an offset below its size on, at most as many as asked for; how many, or -1
// (reported, for what path names).
ssize_t fwu_spill_read(const fwu_spill &spill, int64_t at, void *data, size_t length,
                       const std::string &path);

// Gives the file's room back; it is empty then.
void fwu_spill_end(fwu_spill &spill);

#endif
