// The linker leads calls of these functions here.
#include "tests/procs/call_hooks.h"

#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static int calls_left;  // until the process dies; 0: it lives on
static int writes_left; // across a page's end, likewise
static wait_style waits = WAIT_AS_ASKED;
static bool newly_bound;
static call_counts *counts;

void die_before_call(int n)
{
    calls_left = n;
}

void die_inside_write(int n)
{
    writes_left = n;
}

void set_wait_style(wait_style style)
{
    waits = style;
}

calls_counted::calls_counted(call_counts *where)
{
    counts = where;
}

calls_counted::~calls_counted()
{
    counts = nullptr;
}

static void die()
{
    raise(SIGKILL);
}

static void before_call()
{
    if (calls_left > 0 && --calls_left == 0)
        die();
}

constexpr off_t PAGE = 4096;

// The bytes to write before dying inside this write; 0 when it is not the one.
static size_t last_bytes(off_t at, size_t n)
{
    const size_t in_page = static_cast<size_t>(PAGE - at % PAGE);
    if (writes_left == 0 || n <= in_page || --writes_left > 0)
        return 0;
    return in_page;
}

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    before_call();
    return __real_open64(path, flags, mode);
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to)
{
    before_call();
    return __real_rename(from, to);
}

int __real_unlink(const char *path);
int __wrap_unlink(const char *path);
int __wrap_unlink(const char *path)
{
    before_call();
    return __real_unlink(path);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd);
int __wrap_fsync(int fd)
{
    before_call();
    return __real_fsync(fd);
}

int __real_fdatasync(int fd);
int __wrap_fdatasync(int fd);
int __wrap_fdatasync(int fd)
{
    before_call();
    return __real_fdatasync(fd);
}

int __real_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode)
{
    before_call();
    return __real_fchmod(fd, mode);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    before_call();
    return __real_close(fd);
}

off_t __real_lseek64(int fd, off_t offset, int whence);
off_t __wrap_lseek64(int fd, off_t offset, int whence);
off_t __wrap_lseek64(int fd, off_t offset, int whence)
{
    before_call();
    return __real_lseek64(fd, offset, whence);
}

ssize_t __real_read(int fd, void *data, size_t length);
ssize_t __wrap_read(int fd, void *data, size_t length);
ssize_t __wrap_read(int fd, void *data, size_t length)
{
    before_call();
    return __real_read(fd, data, length);
}

ssize_t __real_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset)
{
    before_call();
    return __real_pread64(fd, data, length, offset);
}

ssize_t __real_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset)
{
    before_call();
    if (const size_t part = last_bytes(offset, length); part != 0) {
        [[maybe_unused]] const ssize_t written = __real_pwrite64(fd, data, part, offset);
        die();
    }
    return __real_pwrite64(fd, data, length, offset);
}

ssize_t __real_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length)
{
    before_call();
    const off_t at = writes_left != 0 ? __real_lseek64(fd, 0, SEEK_CUR) : 0;
    if (const size_t part = at < 0 ? 0 : last_bytes(at, length); part != 0) {
        [[maybe_unused]] const ssize_t written = __real_write(fd, data, part);
        die();
    }
    return __real_write(fd, data, length);
}

int __real_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length)
{
    before_call();
    if (counts != nullptr)
        counts->truncations++;
    return __real_ftruncate64(fd, length);
}

int __real_lockf64(int fd, int command, off_t length);
int __wrap_lockf64(int fd, int command, off_t length);
int __wrap_lockf64(int fd, int command, off_t length)
{
    before_call();
    return __real_lockf64(fd, command, length);
}

int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    before_call();
    va_list rest;
    va_start(rest, command);
    if (command == F_SETLK || command == F_SETLKW || command == F_GETLK) {
        struct flock *range = va_arg(rest, struct flock *);
        va_end(rest);
        return __real_fcntl64(fd, command, range);
    }
    const int number = va_arg(rest, int);
    va_end(rest);
    return __real_fcntl64(fd, command, number);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    before_call();
    return __real_socket(domain, type, protocol);
}

int __real_bind(int fd, const sockaddr *address, socklen_t length);
int __wrap_bind(int fd, const sockaddr *address, socklen_t length);
int __wrap_bind(int fd, const sockaddr *address, socklen_t length)
{
    before_call();
    newly_bound = true;
    return __real_bind(fd, address, length);
}

ssize_t __real_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length);
ssize_t __wrap_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length);
ssize_t __wrap_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length)
{
    before_call();
    return __real_sendto(fd, data, length, flags, to, to_length);
}

ssize_t __real_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length);
ssize_t __wrap_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length);
ssize_t __wrap_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length)
{
    before_call();
    return __real_recvfrom(fd, data, length, flags, from, from_length);
}

int __real_poll(pollfd *fds, nfds_t count, int milliseconds);
int __wrap_poll(pollfd *fds, nfds_t count, int milliseconds);
int __wrap_poll(pollfd *fds, nfds_t count, int milliseconds)
{
    before_call();
    if (counts != nullptr)
        counts->waits++;
    if (waits == WAIT_NOT_AT_ALL)
        milliseconds = 0;
    else if (waits == WAIT_FOR_EVER || (waits == WAIT_FOR_EVER_ONCE_BOUND && !newly_bound))
        milliseconds = -1;
    newly_bound = false;
    return __real_poll(fds, count, milliseconds);
}
// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
