// The linker leads calls of these functions here.
#include "tests/msgfile/system_calls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

struct planned_answer {
    int after = 0;
    int times = 0;
    int os_errno = 0; // 0: give result
    int64_t result = 0;
};

static planned_answer plan[CALL_KINDS];
static std::function<void()> actions[CALL_KINDS];
static std::vector<call_made> log_of_calls;
static bool watching;

const std::vector<call_made> &calls_made()
{
    return log_of_calls;
}

std::vector<call_made> calls_made(call_kind kind)
{
    std::vector<call_made> found;
    for (const call_made &call : log_of_calls)
        if (call.kind == kind)
            found.push_back(call);
    return found;
}

static std::string call_as_text(const call_made &call)
{
    static const char *const lockf_names[] = {"unlock", "lock", "trylock", "testlock"};
    static_assert(F_ULOCK == 0 && F_LOCK == 1 && F_TLOCK == 2 && F_TEST == 3);
    static const char *const names[CALL_KINDS] = {
        "open",   "lseek", "read",   "write",    "pread", "pwrite", "ftruncate", "lockf",  "fcntl",
        "socket", "bind",  "sendto", "recvfrom", "poll",  "malloc", "calloc",    "strdup", "time"};
    const std::string number = std::to_string(call.a);
    switch (call.kind) {
    case CALL_OPEN:
    case CALL_SOCKET:
    case CALL_TIME:
        return names[call.kind];
    case CALL_PREAD:
    case CALL_PWRITE:
        return names[call.kind] + (" " + number) + " at " + std::to_string(call.b);
    case CALL_LOCKF:
        return lockf_names[call.a] + (" " + std::to_string(call.b));
    case CALL_FCNTL:
        if (call.a == F_SETLK || call.a == F_SETLKW)
            return (call.a == F_SETLK ? "setlk " : "setlkw ") + std::to_string(call.b);
        return "fcntl";
    default:
        return names[call.kind] + (" " + number);
    }
}

std::vector<std::string> calls_as_text()
{
    std::vector<std::string> texts;
    texts.reserve(log_of_calls.size());
    for (const call_made &call : log_of_calls)
        texts.push_back(call_as_text(call));
    return texts;
}

void forget_calls()
{
    log_of_calls.clear();
}

void fail_call(call_kind kind, int os_errno, int after, int times)
{
    plan[kind] = {after, times, os_errno, -1};
}

void answer_call(call_kind kind, int64_t result, int after, int times)
{
    plan[kind] = {after, times, 0, result};
}

void before_call(call_kind kind, std::function<void()> action)
{
    actions[kind] = std::move(action);
}

static void reset_all()
{
    std::fill(std::begin(plan), std::end(plan), planned_answer{});
    std::fill(std::begin(actions), std::end(actions), nullptr);
    log_of_calls.clear();
}

system_calls_guard::system_calls_guard()
{
    reset_all();
    watching = true;
}

system_calls_guard::~system_calls_guard()
{
    watching = false;
    reset_all();
}

// What a call is to give instead of its own result, if anything; errno is set.
static std::optional<int64_t> planned(call_kind kind, int fd, int64_t a, int64_t b)
{
    if (!watching)
        return std::nullopt;
    watching = false; // what follows is not the library's doing
    log_of_calls.push_back({kind, fd, a, b});
    if (const std::function<void()> action = actions[kind])
        action();
    watching = true;
    planned_answer &answer = plan[kind];
    if (answer.times == 0)
        return std::nullopt;
    if (answer.after > 0) {
        answer.after--;
        return std::nullopt;
    }
    if (answer.times > 0)
        answer.times--;
    errno = answer.os_errno != 0 ? answer.os_errno : errno;
    return answer.os_errno != 0 ? -1 : answer.result;
}

// Allocation is neither logged nor followed by an action, since both allocate.
static bool out_of_memory(call_kind kind)
{
    planned_answer &answer = plan[kind];
    if (!watching || answer.times == 0)
        return false;
    if (answer.after > 0) {
        answer.after--;
        return false;
    }
    if (answer.times > 0)
        answer.times--;
    errno = ENOMEM;
    return true;
}

// The bytes that a planned short transfer moves.
static size_t moved(const std::optional<int64_t> &result, size_t length)
{
    return result ? std::min(length, static_cast<size_t>(*result)) : length;
}

static int port_of(const sockaddr *address)
{
    return ntohs(reinterpret_cast<const sockaddr_in *>(address)->sin_port);
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
    const auto result = planned(CALL_OPEN, -1, flags, mode);
    return result ? static_cast<int>(*result) : __real_open64(path, flags, mode);
}

off_t __real_lseek64(int fd, off_t offset, int whence);
off_t __wrap_lseek64(int fd, off_t offset, int whence);
off_t __wrap_lseek64(int fd, off_t offset, int whence)
{
    const auto result = planned(CALL_LSEEK, fd, offset, whence);
    return result ? *result : __real_lseek64(fd, offset, whence);
}

ssize_t __real_read(int fd, void *data, size_t length);
ssize_t __wrap_read(int fd, void *data, size_t length);
ssize_t __wrap_read(int fd, void *data, size_t length)
{
    const auto result = planned(CALL_READ, fd, static_cast<int64_t>(length), 0);
    return result && *result < 0 ? -1 : __real_read(fd, data, moved(result, length));
}

ssize_t __real_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length);
ssize_t __wrap_write(int fd, const void *data, size_t length)
{
    const auto result = planned(CALL_WRITE, fd, static_cast<int64_t>(length), 0);
    return result && *result < 0 ? -1 : __real_write(fd, data, moved(result, length));
}

ssize_t __real_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void *data, size_t length, off_t offset)
{
    const auto result = planned(CALL_PREAD, fd, static_cast<int64_t>(length), offset);
    return result && *result < 0 ? -1 : __real_pread64(fd, data, moved(result, length), offset);
}

ssize_t __real_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *data, size_t length, off_t offset)
{
    const auto result = planned(CALL_PWRITE, fd, static_cast<int64_t>(length), offset);
    return result && *result < 0 ? -1 : __real_pwrite64(fd, data, moved(result, length), offset);
}

int __real_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length)
{
    const auto result = planned(CALL_FTRUNCATE, fd, length, 0);
    return result ? static_cast<int>(*result) : __real_ftruncate64(fd, length);
}

int __real_lockf64(int fd, int command, off_t length);
int __wrap_lockf64(int fd, int command, off_t length);
int __wrap_lockf64(int fd, int command, off_t length)
{
    const auto result = planned(CALL_LOCKF, fd, command, length);
    return result ? static_cast<int>(*result) : __real_lockf64(fd, command, length);
}

int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    if (command == F_SETLK || command == F_SETLKW) {
        struct flock *range = va_arg(rest, struct flock *);
        va_end(rest);
        const auto result = planned(CALL_FCNTL, fd, command, range->l_start);
        return result ? static_cast<int>(*result) : __real_fcntl64(fd, command, range);
    }
    if (command == F_GETLK) { // a test's own question
        struct flock *range = va_arg(rest, struct flock *);
        va_end(rest);
        return __real_fcntl64(fd, command, range);
    }
    const int number = va_arg(rest, int);
    va_end(rest);
    const auto result = planned(CALL_FCNTL, fd, command, number);
    return result ? static_cast<int>(*result) : __real_fcntl64(fd, command, number);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    const auto result = planned(CALL_SOCKET, -1, type, protocol);
    return result ? static_cast<int>(*result) : __real_socket(domain, type, protocol);
}

int __real_bind(int fd, const sockaddr *address, socklen_t length);
int __wrap_bind(int fd, const sockaddr *address, socklen_t length);
int __wrap_bind(int fd, const sockaddr *address, socklen_t length)
{
    const auto result = planned(CALL_BIND, fd, port_of(address), 0);
    return result ? static_cast<int>(*result) : __real_bind(fd, address, length);
}

ssize_t __real_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length);
ssize_t __wrap_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length);
ssize_t __wrap_sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length)
{
    const auto result = planned(CALL_SENDTO, fd, static_cast<int64_t>(length), port_of(to));
    return result ? *result : __real_sendto(fd, data, length, flags, to, to_length);
}

ssize_t __real_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length);
ssize_t __wrap_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length);
ssize_t __wrap_recvfrom(int fd, void *data, size_t length, int flags, sockaddr *from,
                        socklen_t *from_length)
{
    const auto result = planned(CALL_RECVFROM, fd, static_cast<int64_t>(length), 0);
    return result ? *result : __real_recvfrom(fd, data, length, flags, from, from_length);
}

int __real_poll(pollfd *fds, nfds_t count, int milliseconds);
int __wrap_poll(pollfd *fds, nfds_t count, int milliseconds);
int __wrap_poll(pollfd *fds, nfds_t count, int milliseconds)
{
    const auto result = planned(CALL_POLL, fds->fd, milliseconds, 0);
    return result ? static_cast<int>(*result) : __real_poll(fds, count, milliseconds);
}

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return out_of_memory(CALL_MALLOC) ? nullptr : __real_malloc(size);
}

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return out_of_memory(CALL_CALLOC) ? nullptr : __real_calloc(count, size);
}

char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text);
char *__wrap_strdup(const char *text)
{
    return out_of_memory(CALL_STRDUP) ? nullptr : __real_strdup(text);
}

time_t __real_time(time_t *out);
time_t __wrap_time(time_t *out);
time_t __wrap_time(time_t *out)
{
    const auto result = planned(CALL_TIME, -1, 0, 0);
    return result ? *result : __real_time(out);
}
// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
