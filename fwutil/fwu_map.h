// A short text at the beginning of a file, kept up to date through memory: one
// part of it is replaced by stores alone, without a system call.  What another
// process or a full disk does to the file meanwhile is an error, not a signal.
#ifndef FWUTIL_FWU_MAP_H
#define FWUTIL_FWU_MAP_H

#include <csignal>
#include <cstddef>

struct fwu_map {
    char *at = nullptr; // null: not mapped
    size_t size = 0;
};

// Maps the first size bytes of a file open for reading and writing; false when
// the file system cannot.
bool fwu_map_open(fwu_map &map, int fd, size_t size);
void fwu_map_close(fwu_map &map);

// Replaces length bytes at an offset in an order that a reader can rely on
// whenever this process is killed: first the first byte becomes marker, then the
// rest changes, then the first byte.  False when the file has no such place any
// more; what it holds then is not known.
bool fwu_map_replace(const fwu_map &map, size_t offset, const char *bytes, size_t length,
                     char marker);

// Handles the signal of such a store as long as it lives; one of another origin
// goes to the handler before.
class fwu_map_faults {
  public:
    fwu_map_faults();
    ~fwu_map_faults();
    fwu_map_faults(const fwu_map_faults &) = delete;
    fwu_map_faults &operator=(const fwu_map_faults &) = delete;
};

#endif
