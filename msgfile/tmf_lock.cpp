// POSIX record locks on ranges of a message file.
#include "msgfile/tmf_lock.h"

#include "msgfile/tmf.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

static bool held_by_another(int os_errno)
{
    return os_errno == EACCES || os_errno == EAGAIN;
}

static int lock_by_seek(int fd, off_t offset, off_t length, int command, int code)
{
    if (offset < 0 || lseek(fd, offset, SEEK_SET) != offset)
        return TMF_EHANDLE;
    if (lockf(fd, command, length) == 0)
        return 0;
    return held_by_another(errno) ? 1 : code;
}

int tf_lock_file_wait(int fd, off_t offset, off_t length)
{
    return lock_by_seek(fd, offset, length, F_LOCK, TMF_ELOCK_WAIT);
}

int tf_lock_file_nowait(int fd, off_t offset, off_t length)
{
    return lock_by_seek(fd, offset, length, F_TLOCK, TMF_ELOCK_NOWAIT);
}

int tf_lock_file_test(int fd, off_t offset, off_t length)
{
    return lock_by_seek(fd, offset, length, F_TEST, TMF_ELOCK_TEST);
}

int tf_unlock_file(int fd, off_t offset, off_t length)
{
    return lock_by_seek(fd, offset, length, F_ULOCK, TMF_EUNLOCK);
}

static int lock_range(int fd, off_t offset, off_t length, int command, short type, int code)
{
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = length;
    if (fcntl(fd, command, &range) == 0)
        return 0;
    if (errno == EBADF) // the seek would have failed
        return TMF_EHANDLE;
    return held_by_another(errno) ? 1 : code;
}

int tf_lock_range_wait(int fd, off_t offset, off_t length)
{
    return lock_range(fd, offset, length, F_SETLKW, F_WRLCK, TMF_ELOCK_WAIT);
}

int tf_unlock_range(int fd, off_t offset, off_t length)
{
    return lock_range(fd, offset, length, F_SETLK, F_UNLCK, TMF_EUNLOCK);
}
