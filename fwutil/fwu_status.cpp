// The status file is changed by stores into its mapped page: one line for each
// record, the two lines in turn, so that a process killed at any moment leaves a
// line that is whole.  Where the file cannot be mapped, or has lost its place,
// it is written instead.  It is brought to disk when reading rests, not for each
// record: after a power failure the position may be older than the records that
// were delivered.
#include "fwutil/fwu_status.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// A reader without the lock may see a line in the middle of a change.
constexpr int READ_TRIES = 100;

static int read_fd(const std::string &path, int fd, std::string &bytes)
{
    bytes.resize(FWU_STATUS_SIZE_MAX + 1);
    ssize_t n = 0;
    do
        n = pread(fd, bytes.data(), bytes.size(), 0);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return fwu_error("%s: cannot read the status file: %s", path.c_str(), strerror(errno));
    bytes.resize(static_cast<size_t>(n));
    return 0;
}

static int damaged(const std::string &path)
{
    return fwu_error("%s: the status file is damaged; give the position that you know as start "
                     "position, or remove the file to begin with the log's oldest record",
                     path.c_str());
}

int fwu_status_read(const std::string &path, fwu_status_text &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
    std::string bytes;
    int result = -1;
    int bad = -1;
    for (int i = 0; i < READ_TRIES && bad != 0; i++) {
        result = read_fd(path, fd, bytes);
        if (result != 0)
            break;
        bad = fwu_status_get(text, bytes);
    }
    close(fd);
    if (result != 0)
        return result;
    return bad != 0 ? damaged(path) : 0;
}

static int lock_file(const fwu_status &status)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(status.fd, F_SETLK, &lock) == 0)
        return 0;
    if (errno != EACCES && errno != EAGAIN)
        return fwu_error("%s: cannot lock the status file: %s", status.path.c_str(),
                         strerror(errno));
    if (fcntl(status.fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
        return fwu_error("%s: the status file is in use by process %ld; stop that, or name another "
                         "status file",
                         status.path.c_str(), static_cast<long>(lock.l_pid));
    return fwu_error("%s: the status file is in use by another process", status.path.c_str());
}

static int write_at(const fwu_status &status, const char *bytes, size_t size, size_t offset)
{
    ssize_t n = 0;
    do
        n = pwrite(status.fd, bytes, size, static_cast<off_t>(offset));
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(size))
        return fwu_error("%s: cannot write to the status file: %s", status.path.c_str(),
                         n < 0 ? strerror(errno) : "no space left");
    return 0;
}

// Writes the whole text, both lines naming the same record, and maps it.
static int write_whole(fwu_status &status)
{
    const std::string bytes = fwu_status_put(status.text);
    if (write_at(status, bytes.data(), bytes.size(), 0) != 0)
        return -1;
    if (ftruncate(status.fd, static_cast<off_t>(bytes.size())) != 0)
        return fwu_error("%s: cannot cut the status file to its length: %s", status.path.c_str(),
                         strerror(errno));
    status.number = FWU_STATUS_LINES - 1;
    status.written = true;
    status.unsynced = true;
    if (status.map.at == nullptr)
        (void)fwu_map_open(status.map, status.fd, bytes.size()); // else each line is written
    return 0;
}

static int open_locked(fwu_status &status, const std::string &log_directory, bool overridden,
                       bool created)
{
    std::string bytes;
    if (lock_file(status) != 0 || read_fd(status.path, status.fd, bytes) != 0)
        return -1;
    fwu_status_text text;
    // A file that was there and holds nothing has lost what it held.
    const int bad = bytes.empty() && !created ? -1 : fwu_status_get(text, bytes);
    if (bad != 0 && !overridden)
        return damaged(status.path);
    if (bad == 0 && !overridden && !text.fresh && text.log_directory != log_directory)
        return fwu_error("%s: the status file belongs to the log in %s, the configuration names "
                         "%s; use another status file, or give a start position",
                         status.path.c_str(), text.log_directory.c_str(), log_directory.c_str());
    status.text = bad == 0 && !overridden ? text : fwu_status_text();
    status.text.log_directory = log_directory;
    const std::string prefix = fwu_status_prefix(log_directory);
    status.prefix_size = prefix.size();
    status.line.prefix_crc = fwu_crc32c(0, prefix.data(), prefix.size());
    // A new file is written and brought to disk at once, so that a full disk shows
    // now; an existing one stays as it is until there is something better to say.
    if (!created)
        return 0;
    if (write_whole(status) == 0 && fwu_status_sync(status) == 0)
        return 0;
    (void)unlink(status.path.c_str()); // an empty file left behind would be refused
    return -1;
}

int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden)
{
    status = fwu_status();
    status.path = path;
    if (!fwu_status_fits(log_directory))
        return fwu_error("%s: the log directory's path is too long or holds a line end",
                         log_directory.c_str());
    status.fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    const bool created = status.fd >= 0;
    if (!created && errno == EEXIST)
        status.fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (status.fd < 0)
        return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
    if (open_locked(status, log_directory, overridden, created) == 0)
        return 0;
    fwu_status_close(status);
    return -1;
}

int fwu_status_acknowledge(fwu_status &status, const fwu_position &position, int64_t time_us)
{
    status.text.have_position = true;
    status.text.position = position;
    status.text.time_us = time_us;
    if (!status.written)
        return write_whole(status);
    status.number = status.number == 9 ? 0 : status.number + 1;
    fwu_status_line_set(status.line, status.number, position, time_us);
    const size_t offset =
        status.prefix_size + (status.number % FWU_STATUS_LINES == 0 ? 0 : FWU_STATUS_LINE_SIZE);
    status.unsynced = true;
    if (status.map.at == nullptr)
        return write_at(status, status.line.text, FWU_STATUS_LINE_SIZE, offset);
    if (fwu_map_replace(status.map, offset, status.line.text, FWU_STATUS_LINE_SIZE,
                        FWU_STATUS_CHANGING))
        return 0;
    // Somebody has cut the file, or there is no room for its page: writing it anew
    // mends the one and reports the other.
    return write_whole(status);
}

// The next run looks for the file by its name.
static int check_name(const fwu_status &status)
{
    struct stat named = {};
    struct stat held = {};
    if (stat(status.path.c_str(), &named) == 0 && fstat(status.fd, &held) == 0 &&
        named.st_dev == held.st_dev && named.st_ino == held.st_ino)
        return 0;
    return fwu_error("%s: the status file was removed or replaced while in use; the position is "
                     "%s, give it as start position",
                     status.path.c_str(),
                     status.text.have_position ? fwu_position_text(status.text.position).c_str()
                                               : "that of the oldest record");
}

int fwu_status_sync(fwu_status &status)
{
    if (!status.unsynced)
        return 0;
    if (check_name(status) != 0)
        return -1;
    if (fdatasync(status.fd) != 0)
        return fwu_error("%s: cannot bring the status file to disk: %s", status.path.c_str(),
                         strerror(errno));
    status.unsynced = false;
    return 0;
}

void fwu_status_close(fwu_status &status)
{
    fwu_map_close(status.map);
    if (status.fd >= 0)
        close(status.fd);
    status.fd = -1;
}
