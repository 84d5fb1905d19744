// POSIX record locks on ranges of a message file.
//
// The kernel keeps these locks per process: a process never conflicts with its
// own, loses them when it dies or closes any descriptor of the file, and hands
// none down to a child.
#ifndef MSGFILE_TMF_LOCK_H
#define MSGFILE_TMF_LOCK_H

#include <sys/types.h>

// Each seeks fd to offset and locks length bytes from there (an offset where fd
// cannot be positioned: TMF_EHANDLE).  0: acquired, or for test: no other process
// holds it; 1: another process holds it; otherwise a code.
int tf_lock_file_wait(int fd, off_t offset, off_t length);
int tf_lock_file_nowait(int fd, off_t offset, off_t length);
int tf_lock_file_test(int fd, off_t offset, off_t length);
int tf_unlock_file(int fd, off_t offset, off_t length);

// The waiting lock and the unlock in one system call, for a descriptor that is
// known to seek.  The same results.
int tf_lock_range_wait(int fd, off_t offset, off_t length);
int tf_unlock_range(int fd, off_t offset, off_t length);

#endif
