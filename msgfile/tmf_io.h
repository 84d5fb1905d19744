// Positioned input and output on a handle's descriptor.
//
// The first record operation of a handle seeks and then reads or writes, so that
// a descriptor that cannot seek is found out with the seek's own code; from then
// on one system call does both (tmf_handle.seek_proven).
#ifndef MSGFILE_TMF_IO_H
#define MSGFILE_TMF_IO_H

#include "msgfile/tmf_handle.h"

#include <sys/types.h>

// Goes to offset at: 0, error when there is no such place (negative), eof when
// the descriptor ends up elsewhere.
int tmf_seek(const tmf_handle *h, int32_t at, int error, int eof);

// Read or write n bytes at offset at, to which tmf_seek has just gone.  The
// bytes moved, or negative.
ssize_t tmf_read_at(const tmf_handle *h, int32_t at, void *buf, size_t n);
ssize_t tmf_write_at(const tmf_handle *h, int32_t at, const void *buf, size_t n);

#endif
