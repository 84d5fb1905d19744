// Text capture files as the system's files.  Nothing that may have been a record is
// thrown away: what is cut off stays in a file beside.
#include "capture/textfile.h"

#include "ascii/ascii_flags.h"
#include "capture/settings.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr int64_t BLOCK_SIZE = 65536;

// Closes a descriptor and keeps errno.
static void close_quietly(int fd)
{
    const int error = errno;
    (void)close(fd); // nothing was written to it, or it has been brought to disk
    errno = error;
}

// Reads exactly size bytes at offset; false with errno, EIO for an end before.
static bool read_at(int fd, char *bytes, int64_t size, int64_t offset)
{
    while (size > 0) {
        const ssize_t n = pread(fd, bytes, static_cast<size_t>(size), offset);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = EIO;
        if (n <= 0)
            return false;
        bytes += n;
        size -= n;
        offset += n;
    }
    return true;
}

static bool write_all(int fd, const char *bytes, int64_t size)
{
    while (size > 0) {
        const ssize_t n = write(fd, bytes, static_cast<size_t>(size));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        bytes += n;
        size -= n;
    }
    return true;
}

static bool copy_rest(int from, int to, int64_t at, int64_t end)
{
    static char block[BLOCK_SIZE];
    for (; at < end; at += BLOCK_SIZE) {
        const int64_t n = std::min(BLOCK_SIZE, end - at);
        if (!read_at(from, block, n, at) || !write_all(to, block, n))
            return false;
    }
    return true;
}

static bool cut_open_file(int fd, const std::string &path, int64_t at)
{
    struct stat st = {};
    if (fstat(fd, &st) != 0)
        return false;
    const std::string kept = path + ".cut";
    const std::string part = kept + ".part";
    // A name of its own first: a copy that fails leaves an older piece as it is.  What has
    // that name, of a run that was killed or a foreign one, is not written to.
    if (unlink(part.c_str()) != 0 && errno != ENOENT)
        return false;
    const int to =
        open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, st.st_mode & 0666);
    if (to < 0)
        return false;
    const bool copied = copy_rest(fd, to, at, st.st_size) && fsync(to) == 0;
    close_quietly(to);
    if (!copied || rename(part.c_str(), kept.c_str()) != 0) {
        const int error = errno;
        (void)unlink(part.c_str()); // half a copy is of no use
        errno = error;
        return false;
    }
    return ftruncate(fd, at) == 0 && fsync(fd) == 0;
}

int text_cut(const char *path, int64_t at, const char *why)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st = {};
    const bool cut = fstat(fd, &st) == 0 && cut_open_file(fd, path, at);
    close_quietly(fd);
    if (!cut)
        return -1;
    logmsg(LOG_NOTICE | LOG_VERBOSE, "Capture file %s: %s, %lld bytes, moved to %s.cut", path, why,
           static_cast<long long>(st.st_size - at), path);
    return 0;
}

// Finds the beginning of the line that holds the first zero byte; -1: none has one.
static bool find_zeros(int fd, int64_t size, int64_t *line)
{
    static char block[BLOCK_SIZE];
    int64_t begin = 0;
    *line = -1;
    for (int64_t at = 0; at < size; at += BLOCK_SIZE) {
        const int64_t n = std::min(BLOCK_SIZE, size - at);
        if (!read_at(fd, block, n, at))
            return false;
        for (int64_t i = 0; i < n; i++) {
            if (block[i] == '\n')
                begin = at + i + 1;
            if (block[i] == '\0') {
                *line = begin;
                return true;
            }
        }
    }
    return true;
}

int text_cut_zeros(const char *path)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st = {};
    int64_t line = -1;
    const bool read = fstat(fd, &st) == 0 && find_zeros(fd, st.st_size, &line);
    close_quietly(fd);
    if (!read)
        return -1;
    return line < 0 ? 0 : text_cut(path, line, "zeros that nobody wrote");
}

// Finds the offset behind the last line end of a file of size bytes.
static bool find_last_line(int fd, int64_t size, int64_t *end)
{
    static char block[BLOCK_SIZE];
    *end = 0;
    while (size > 0) {
        const int64_t n = std::min(BLOCK_SIZE, size);
        if (!read_at(fd, block, n, size - n))
            return false;
        for (int64_t i = n; i > 0; i--) {
            if (block[i - 1] == '\n') {
                *end = size - n + i;
                return true;
            }
        }
        size -= n;
    }
    return true;
}

// Where a run goes on in a file that is there; what a kill or a power cut left of a
// record behind its last whole line comes again.
static bool cut_torn_line(const char *path, int64_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    int64_t end = 0;
    const bool found = find_last_line(fd, size, &end);
    close_quietly(fd);
    return found && (end == size || text_cut(path, end, "a line without its end") == 0);
}

// The lock is shared by those who append to a file: one that may be in the middle of
// its line keeps others from cutting there.
static bool take_up(int fd, const char *path, uint32_t ascii_flags)
{
    struct stat st = {};
    bool good = true;
    const bool alone = flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    if (alone && (ascii_flags & ASCII_DIRTY) == 0)
        good = fstat(fd, &st) == 0 && (st.st_size == 0 || cut_torn_line(path, st.st_size));
    const int error = errno;
    (void)flock(fd, LOCK_SH | LOCK_NB); // refused only where another one looks right now
    errno = error;
    return good;
}

static int open_by_mode(const char *path)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_CLOEXEC;
    constexpr mode_t mode = 0666;
    switch (g_capture_settings.text) {
    case TEXT_APPEND:
        // Behind whatever is there at each write: the file may be open elsewhere, too.
        return open(path, flags | O_APPEND, mode);
    case TEXT_NEW: {
        const int fd = open(path, flags | O_EXCL, mode);
        struct stat st = {};
        if (fd >= 0 || errno != EEXIST)
            return fd;
        const bool regular = stat(path, &st) != 0 || S_ISREG(st.st_mode);
        errno = EEXIST;
        return regular ? -1 : open(path, O_WRONLY | O_CLOEXEC);
    }
    case TEXT_TRUNCATE:
        break;
    }
    return open(path, flags | O_TRUNC, mode);
}

int textfile_open(const char *path, uint32_t ascii_flags)
{
    const int fd = open_by_mode(path);
    struct stat st = {};
    if (fd < 0)
        return -1;
    if (fstat(fd, &st) == 0 && (!S_ISREG(st.st_mode) || g_capture_settings.text != TEXT_APPEND ||
                                take_up(fd, path, ascii_flags)))
        return fd;
    close_quietly(fd);
    return -1;
}

int textfile_reopen(const char *path, uint32_t ascii_flags)
{
    struct stat st = {};
    // Without a wait for the reader of a pipe that has taken the name.
    const int fd =
        open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    bool good = fstat(fd, &st) == 0;
    if (good && !S_ISREG(st.st_mode)) {
        errno = ENOTSUP;
        good = false;
    }
    if (good && take_up(fd, path, ascii_flags))
        return fd;
    close_quietly(fd);
    return -1;
}
