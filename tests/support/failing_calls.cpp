// The calls that the linker leads here: struck, or passed on.
#include "tests/support/failing_calls.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

struct strike_plan {
    bool watching = false;
    int left = 0; // calls that go through before the one that is struck
    blow_told told;
};

static strike_plan plan;

// Whether this call is the one: moves says whether it moves bytes, waits whether it may be
// interrupted.
static bool struck(const char *name, bool moves, bool waits)
{
    if (!plan.watching)
        return false;
    if (!plan.told.call.empty())
        return plan.told.kind == BLOW_GONE;
    if (plan.told.kind == BLOW_HALF ? !moves : plan.told.kind == BLOW_INTERRUPT && !waits)
        return false;
    if (--plan.left > 0)
        return false;
    plan.told.call = name;
    return plan.told.kind != BLOW_HALF;
}

static int give_error()
{
    errno = plan.told.kind == BLOW_INTERRUPT ? EINTR : EIO;
    return -1;
}

bool strike_call(const char *name)
{
    if (!struck(name, false, false))
        return false;
    (void)give_error();
    return true;
}

// How many of the bytes move.
static size_t share(size_t n, const std::string &before)
{
    const bool half = plan.told.kind == BLOW_HALF && before.empty() && !plan.told.call.empty();
    return half && n > 1 ? n / 2 : n;
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
    return struck("open", false, false) ? give_error() : __real_open64(path, flags, mode);
}

#define PLAIN_CALL(name, parameters, arguments)                                      \
    int __real_##name parameters;                                                    \
    int __wrap_##name parameters;                                                    \
    int __wrap_##name parameters                                                     \
    {                                                                                \
        return struck(#name, false, false) ? give_error() : __real_##name arguments; \
    }

PLAIN_CALL(fstat64, (int fd, struct stat64 *st), (fd, st))
PLAIN_CALL(stat64, (const char *path, struct stat64 *st), (path, st))
PLAIN_CALL(lstat64, (const char *path, struct stat64 *st), (path, st))
PLAIN_CALL(fsync, (int fd), (fd))
PLAIN_CALL(fdatasync, (int fd), (fd))
PLAIN_CALL(ftruncate64, (int fd, off_t size), (fd, size))
PLAIN_CALL(rename, (const char *from, const char *to), (from, to))
PLAIN_CALL(unlink, (const char *path), (path))

#define MOVING_CALL(name, buffer, rest, arguments)          \
    ssize_t __real_##name(int fd, buffer b, size_t n rest); \
    ssize_t __wrap_##name(int fd, buffer b, size_t n rest); \
    ssize_t __wrap_##name(int fd, buffer b, size_t n rest)  \
    {                                                       \
        const std::string before = plan.told.call;          \
        if (struck(#name, true, true))                      \
            return give_error();                            \
        n = share(n, before);                               \
        return __real_##name arguments;                     \
    }
#define NOTHING
#define AND_PLACE , off_t at

MOVING_CALL(read, void *, NOTHING, (fd, b, n))
MOVING_CALL(write, const void *, NOTHING, (fd, b, n))
MOVING_CALL(pread64, void *, AND_PLACE, (fd, b, n, at))
MOVING_CALL(pwrite64, const void *, AND_PLACE, (fd, b, n, at))
// NOLINTEND(bugprone-reserved-identifier)
}

// Runs the operation with the call of the number, from 1, struck.
static blow_told run_struck(int number, blow_kind kind, const std::function<void()> &operation)
{
    plan = {true, number, {"", kind}};
    operation();
    plan.watching = false;
    return plan.told;
}

int strike_each(const std::function<void()> &prepare, const std::function<void()> &operation,
                const std::function<void(const blow_told &)> &look,
                const std::vector<blow_kind> &kinds)
{
    int blows = 0;
    for (const blow_kind kind : kinds) {
        for (int number = 1;; number++) {
            prepare();
            const blow_told told = run_struck(number, kind, operation);
            SCOPED_TRACE(told.call + " " + std::to_string(number) + ", kind " +
                         std::to_string(kind));
            look(told);
            if (told.call.empty() || testing::Test::HasFatalFailure())
                break;
            blows++;
        }
    }
    return blows;
}
