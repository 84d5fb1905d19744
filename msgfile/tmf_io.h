// File work: locks, reads and writes at a place of the file, in two rows.
//
// A handle begins with the seeking row, whose functions go to their place with a
// system call of its own, so that a descriptor that cannot seek is found out with
// the seek's own code.  Behind its first whole record it has the positioned row,
// where one system call does both.
#ifndef MSGFILE_TMF_IO_H
#define MSGFILE_TMF_IO_H

#include "msgfile/tmf_handle.h"

#include <sys/types.h>

// The codes of a read or a write that comes to nothing.
struct tmf_io_codes {
    int no_place;  // the offset is no place in a file: negative, or the seek failed
    int elsewhere; // the seek went to another place
    int failed;    // the system cannot read or write
    int cut;       // too few bytes were moved
};

struct tmf_file_row {
    // tmf_lock.h has the results.
    int (*lock_wait)(int fd, off_t offset, off_t length);
    int (*unlock)(int fd, off_t offset, off_t length);
    // Move n bytes at most at offset at.  The bytes moved, or a code.
    ssize_t (*read)(int fd, int32_t at, void *buf, size_t n, const tmf_io_codes &codes);
    ssize_t (*write)(int fd, int32_t at, const void *buf, size_t n, const tmf_io_codes &codes);
};

extern const tmf_file_row tmf_seeking_row;
extern const tmf_file_row tmf_positioned_row;

// Read or write by the handle's row; less than `least` bytes are too few.  The bytes
// moved, or a code.
inline ssize_t tmf_read_at(const tmf_handle *h, int32_t at, void *buf, size_t n, ssize_t least,
                           const tmf_io_codes &codes)
{
    const ssize_t got = h->file->read(h->fd, at, buf, n, codes);
    return got >= 0 && got < least ? codes.cut : got;
}

inline ssize_t tmf_write_at(const tmf_handle *h, int32_t at, const void *buf, size_t n,
                            ssize_t least, const tmf_io_codes &codes)
{
    const ssize_t written = h->file->write(h->fd, at, buf, n, codes);
    return written >= 0 && written < least ? codes.cut : written;
}

// The code of such a result: 0 when bytes were moved.
inline int tmf_code_of(ssize_t moved)
{
    return moved < 0 ? static_cast<int>(moved) : 0;
}

#endif
