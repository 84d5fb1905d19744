// The calls of the library that the tests of failing system calls have beyond those of all.
#include "tests/fwutil/failing_fixture.h"

#include <cerrno>
#include <cstdarg>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

bool no_getrandom = false;

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    void *const argument = va_arg(rest, void *);
    va_end(rest);
    return strike_call("fcntl") ? -1 : __real_fcntl64(fd, command, argument);
}

#define FURTHER_CALL(result, name, told, failed, parameters, arguments) \
    result __real_##name parameters;                                    \
    result __wrap_##name parameters;                                    \
    result __wrap_##name parameters                                     \
    {                                                                   \
        return strike_call(told) ? failed : __real_##name arguments;    \
    }

FURTHER_CALL(off_t, lseek64, "lseek", -1, (int fd, off_t at, int whence), (fd, at, whence))
FURTHER_CALL(int, mkdir, "mkdir", -1, (const char *path, mode_t mode), (path, mode))
FURTHER_CALL(int, chmod, "chmod", -1, (const char *path, mode_t mode), (path, mode))
FURTHER_CALL(int, fchmod, "fchmod", -1, (int fd, mode_t mode), (fd, mode))
FURTHER_CALL(int, access, "access", -1, (const char *path, int mode), (path, mode))
FURTHER_CALL(int, statvfs64, "statvfs", -1, (const char *path, struct statvfs64 *about),
             (path, about))
FURTHER_CALL(int, mkostemp64, "mkostemp", -1, (char *name, int flags), (name, flags))
FURTHER_CALL(int, inotify_init1, "inotify_init", -1, (int flags), (flags))
FURTHER_CALL(int, inotify_add_watch, "inotify_add_watch", -1,
             (int fd, const char *path, uint32_t mask), (fd, path, mask))
FURTHER_CALL(ssize_t, readlink, "readlink", -1, (const char *path, char *to, size_t size),
             (path, to, size))
// What open is in a hardened build where its flags are no constant.
FURTHER_CALL(int, __open64_2, "open", -1, (const char *path, int flags), (path, flags))
FURTHER_CALL(char *, realpath, "realpath", nullptr, (const char *path, char *to), (path, to))
FURTHER_CALL(DIR *, opendir, "opendir", nullptr, (const char *path), (path))
FURTHER_CALL(struct dirent64 *, readdir64, "readdir", nullptr, (DIR * dir), (dir))
FURTHER_CALL(void *, mmap64, "mmap", MAP_FAILED,
             (void *at, size_t length, int protection, int flags, int fd, off_t offset),
             (at, length, protection, flags, fd, offset))

ssize_t __real_getrandom(void *bytes, size_t length, unsigned flags);
ssize_t __wrap_getrandom(void *bytes, size_t length, unsigned flags);
ssize_t __wrap_getrandom(void *bytes, size_t length, unsigned flags)
{
    if (!no_getrandom)
        return strike_call("getrandom") ? -1 : __real_getrandom(bytes, length, flags);
    errno = ENOSYS;
    return -1;
}
// NOLINTEND(bugprone-reserved-identifier)
}
