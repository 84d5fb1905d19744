// Making, copying and bringing to disk.  A descriptor that fails is closed with the errno
// that tells why kept for whoever reports it.
#include "fwutil/fwu_file.h"

#include "fwutil/fwu_error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

constexpr size_t COPY_SIZE = size_t{1} << 20;

int fwu_file_error(const std::string &path, const char *what)
{
    return fwu_error("%s: %s: %s", path.c_str(), what, strerror(errno));
}

int fwu_file_open(const std::string &path, int flags, mode_t mode)
{
    int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT)
        return fd;
    // A link that leads nowhere yet would have it made elsewhere.
    fd = open(path.c_str(), flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0)
        (void)fchmod(fd, mode); // a file system without modes is no reason to stop
    return fd;
}

mode_t fwu_file_lock_mode(mode_t mode)
{
    mode_t kept = mode & S_IRWXU;
    for (const mode_t whose : {mode_t{S_IRWXG}, mode_t{S_IRWXO}})
        if ((mode & whose & (S_IWGRP | S_IWOTH)) != 0)
            kept |= mode & whose;
    return kept;
}

int fwu_file_anew(const std::string &path, int flags, mode_t mode)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        return -1;
    const int fd = open(path.c_str(), flags | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0)
        (void)fchmod(fd, mode); // a file system without modes is no reason to stop
    return fd;
}

int fwu_write_all(int fd, const void *data, size_t length, int64_t offset)
{
    const auto *p = static_cast<const unsigned char *>(data);
    if (lseek(fd, offset, SEEK_SET) < 0)
        return -1;
    while (length > 0) {
        const ssize_t n = write(fd, p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            errno = n == 0 ? ENOSPC : errno;
            return -1;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

ssize_t fwu_read_some(int fd, void *data, size_t length)
{
    ssize_t n = 0;
    do
        n = read(fd, data, length);
    while (n < 0 && errno == EINTR);
    return n;
}

ssize_t fwu_read_all(int fd, void *data, size_t length, int64_t offset)
{
    size_t held = 0;
    while (held < length) {
        const ssize_t n = pread(fd, static_cast<unsigned char *>(data) + held, length - held,
                                offset + static_cast<int64_t>(held));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        held += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(held);
}

std::string fwu_directory_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == path.npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

int fwu_path_sync(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const int result = fd < 0 ? -1 : fsync(fd);
    const int sync_errno = errno;
    if (fd >= 0)
        close(fd);
    errno = sync_errno;
    return result;
}

int fwu_directory_sync(const std::string &directory)
{
    return fwu_path_sync(directory) == 0
               ? 0
               : fwu_file_error(directory, "cannot bring the log directory to disk");
}

bool fwu_file_all_zero(const std::string &path)
{
    std::vector<char> bytes(COPY_SIZE);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : 0;
    while (fd >= 0 && (n = fwu_read_some(fd, bytes.data(), bytes.size())) > 0)
        if (std::any_of(bytes.begin(), bytes.begin() + n, [](char c) { return c != 0; }))
            break;
    if (fd >= 0)
        close(fd);
    return n == 0;
}

int fwu_file_copy(const std::string &from, int64_t offset, int64_t end, const std::string &to,
                  mode_t mode)
{
    std::vector<unsigned char> bytes(COPY_SIZE);
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = in < 0 ? -1 : fwu_file_anew(to, O_WRONLY, mode);
    bool good = out >= 0;
    int64_t at = offset;
    for (ssize_t n = 1; good && n > 0 && at < end; at += n) {
        const auto wanted = static_cast<size_t>(std::min(end - at, int64_t{COPY_SIZE}));
        n = fwu_read_all(in, bytes.data(), wanted, at);
        good = n >= 0 && fwu_write_all(out, bytes.data(), static_cast<size_t>(n), at - offset) == 0;
    }
    good = good && fsync(out) == 0;
    const int failed = errno;
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
    if (out >= 0 && !good)
        (void)unlink(to.c_str()); // part of it is of no use
    errno = failed;
    return good ? 0 : -1;
}
