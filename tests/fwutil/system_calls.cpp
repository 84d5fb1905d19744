// The linker leads calls of these functions here.
#include "tests/fwutil/system_calls.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/mman.h>
#include <unistd.h>

system_calls calls;

// Numbers a call; whether it is one to fail, with errno set.
static bool fails(bool is_write)
{
    calls.numbered++;
    if (calls.numbered < calls.fail_from || calls.numbered > calls.fail_to ||
        (calls.fail_writes && !is_write))
        return false;
    calls.failures++;
    errno = calls.fail_errno;
    return true;
}

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
ssize_t __real_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length)
{
    calls.writes++;
    if (fails(true)) {
        const bool takes_half = calls.fail_short && calls.numbered == calls.fail_from;
        return takes_half ? __real_write(fd, data, length / 2) : -1;
    }
    if (calls.write_room < 0)
        return __real_write(fd, data, length);
    if (calls.write_room == 0) {
        errno = ENOSPC;
        return -1;
    }
    const ssize_t n =
        __real_write(fd, data, std::min(length, static_cast<size_t>(calls.write_room)));
    calls.write_room -= std::max<ssize_t>(n, 0);
    return n;
}

int __real_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length)
{
    if (fails(false))
        return -1;
    if (!calls.fail_ftruncate)
        return __real_ftruncate64(fd, length);
    errno = EIO;
    return -1;
}

ssize_t __real_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset)
{
    if (!calls.fail_pwrite)
        return __real_pwrite64(fd, data, length, offset);
    errno = ENOSPC;
    return -1;
}

int __real_fdatasync(int fd);
int __wrap_fdatasync(int fd);
int __wrap_fdatasync(int fd)
{
    calls.fdatasyncs++;
    if (fails(false))
        return -1;
    if (!calls.fail_fdatasync)
        return calls.skip_syncs ? 0 : __real_fdatasync(fd);
    errno = EIO;
    return -1;
}

ssize_t __real_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset)
{
    return fails(false) ? -1 : __real_pread64(fd, data, length, offset);
}

int __real_mkostemp64(char *name, int flags);
int __wrap_mkostemp64(char *name, int flags);
int __wrap_mkostemp64(char *name, int flags)
{
    return fails(false) ? -1 : __real_mkostemp64(name, flags);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd);
int __wrap_fsync(int fd)
{
    if (fails(false))
        return -1;
    return calls.skip_syncs ? 0 : __real_fsync(fd);
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to)
{
    return fails(false) ? -1 : __real_rename(from, to);
}

void *__real_mmap64(void *at, size_t length, int protection, int flags, int fd, off_t offset);
void *__wrap_mmap64(void *at, size_t length, int protection, int flags, int fd, off_t offset);
void *__wrap_mmap64(void *at, size_t length, int protection, int flags, int fd, off_t offset)
{
    if (!calls.fail_mmap)
        return __real_mmap64(at, length, protection, flags, fd, offset);
    errno = ENODEV;
    return MAP_FAILED;
}

int __real_clock_gettime(clockid_t clock, struct timespec *time);
int __wrap_clock_gettime(clockid_t clock, struct timespec *time);
int __wrap_clock_gettime(clockid_t clock, struct timespec *time)
{
    int64_t us = 0;
    if (clock == CLOCK_REALTIME)
        us = calls.clock_us;
    else if (clock == CLOCK_MONOTONIC)
        us = calls.monotonic_ms * 1000;
    if (us == 0)
        return __real_clock_gettime(clock, time);
    time->tv_sec = us / 1000000;
    time->tv_nsec = us % 1000000 * 1000;
    return 0;
}

ssize_t __real_getrandom(void *bytes, size_t length, unsigned flags);
ssize_t __wrap_getrandom(void *bytes, size_t length, unsigned flags);
ssize_t __wrap_getrandom(void *bytes, size_t length, unsigned flags)
{
    if (calls.random_from < 0)
        return __real_getrandom(bytes, length, flags);
    auto *p = static_cast<unsigned char *>(bytes);
    for (size_t i = 0; i < length; i++)
        p[i] = static_cast<unsigned char>(calls.random_from + (length == 16 ? 0 : 16) +
                                          static_cast<int>(i));
    return static_cast<ssize_t>(length);
}

int __real_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left)
{
    if (++calls.pauses == calls.stop_at_pause) {
        (void)raise(SIGTERM);
        errno = EINTR;
        return -1;
    }
    return calls.skip_pauses ? 0 : __real_nanosleep(time, left);
}

int __real_inotify_init1(int flags);
int __wrap_inotify_init1(int flags);
int __wrap_inotify_init1(int flags)
{
    if (!calls.fail_inotify)
        return __real_inotify_init1(flags);
    errno = EMFILE;
    return -1;
}
// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
