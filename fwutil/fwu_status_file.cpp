// A new status file is made under another name, by one process at a time since it is
// locked there too, and renamed: its bytes are on disk first, then it is named, then its
// directory is on disk.  So whoever finds the name finds a whole file.
#include "fwutil/fwu_status_file.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_synced.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The lines, and three texts at most: the one that counts and room around it.
constexpr size_t SIZE_MAX_READ = 3 * FWU_SYNCED_MAX + 4096;
constexpr size_t READ_SIZE = 4096;
constexpr int LINKS_MAX = 40;  // as many as the system follows
constexpr int OPEN_TRIES = 10; // others may be making and taking over the file meanwhile

int fwu_status_file_read(const std::string &path, int fd, std::string &bytes)
{
    size_t length = 0;
    bytes.resize(READ_SIZE);
    while (length < SIZE_MAX_READ) {
        const ssize_t n = fwu_read_all(fd, bytes.data() + length, bytes.size() - length,
                                       static_cast<int64_t>(length));
        if (n < 0)
            return fwu_error("%s: cannot read the status file: %s", path.c_str(), strerror(errno));
        length += static_cast<size_t>(n);
        if (length < bytes.size())
            break;
        bytes.resize(std::min(2 * bytes.size(), SIZE_MAX_READ));
    }
    bytes.resize(length);
    return 0;
}

static int lock_file(const std::string &path, int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lock) == 0)
        return 0;
    if (errno != EACCES && errno != EAGAIN)
        return fwu_error("%s: cannot lock the status file: %s", path.c_str(), strerror(errno));
    if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
        return fwu_error("%s: the status file is in use by process %ld; stop that, or name another "
                         "status file",
                         path.c_str(), static_cast<long>(lock.l_pid));
    return fwu_error("%s: the status file is in use by another process", path.c_str());
}

bool fwu_status_file_named(const std::string &path, int fd)
{
    struct stat named = {};
    struct stat held = {};
    errno = 0;
    return stat(path.c_str(), &named) == 0 && fstat(fd, &held) == 0 &&
           named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

int fwu_status_file_write(const std::string &path, int fd, const std::string &bytes, size_t at)
{
    ssize_t n = 0;
    do
        n = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at));
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(bytes.size()))
        return fwu_error("%s: cannot write to the status file: %s", path.c_str(),
                         n < 0 ? strerror(errno) : "no space left");
    return 0;
}

int fwu_status_file_cut(const std::string &path, int fd, size_t size)
{
    if (ftruncate(fd, static_cast<off_t>(size)) == 0)
        return 0;
    return fwu_error("%s: cannot cut the status file to its length: %s", path.c_str(),
                     strerror(errno));
}

int fwu_status_file_force(const std::string &path, int fd)
{
    if (fdatasync(fd) == 0)
        return 0;
    return fwu_error("%s: cannot bring the status file to disk: %s", path.c_str(), strerror(errno));
}

static int cannot_open(const std::string &path)
{
    return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
}

// The name is on disk once its directory is.
static int force_name(const std::string &path)
{
    // Some file systems have no such call, and then nothing to bring there.
    if (fwu_path_sync(fwu_directory_of(path)) == 0 || errno == EINVAL || errno == EROFS)
        return 0;
    return fwu_error("%s: cannot bring the status file's directory to disk: %s", path.c_str(),
                     strerror(errno));
}

static int make(const std::string &path, const std::string &unfinished, int fd,
                const std::function<int(int)> &fill)
{
    if (fwu_status_file_cut(path, fd, 0) != 0 || fill(fd) != 0 ||
        fwu_status_file_force(path, fd) != 0)
        return -1;
    if (rename(unfinished.c_str(), path.c_str()) != 0)
        return fwu_error("%s: cannot name the status file: %s", path.c_str(), strerror(errno));
    if (force_name(path) == 0)
        return 0;
    (void)unlink(path.c_str()); // what cannot be kept is not to be found either
    return -1;
}

// Where the file of a name is to be: a link leads there.
static std::string target_of(std::string path)
{
    char target[PATH_MAX];
    for (int i = 0; i < LINKS_MAX; i++) {
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        if (length <= 0 || length == sizeof target)
            break; // no link
        const size_t slash = path.rfind('/');
        const bool beside = target[0] != '/' && slash != path.npos;
        path = (beside ? path.substr(0, slash + 1) : "") +
               std::string(target, static_cast<size_t>(length));
    }
    return path;
}

// Whether a file is one that a run of this user may have left.
static bool is_own(const struct stat &st)
{
    return S_ISREG(st.st_mode) && st.st_nlink == 1 && st.st_uid == geteuid();
}

// Opens or makes the file that has no name of its own yet.  What a dead run left is
// taken up; what somebody else put there, and may lead elsewhere or stay theirs, is not
// written to.  1: it has changed meanwhile; look again.
static int open_unfinished(const std::string &unfinished, const std::string &path, int &fd)
{
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat st = {};
    if (lstat(unfinished.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) && !is_own(st) &&
        unlink(unfinished.c_str()) != 0 && errno != ENOENT)
        return cannot_open(unfinished);
    fd = open(unfinished.c_str(), flags | O_CREAT | O_EXCL, 0666);
    if (fd >= 0)
        return 0;
    if (errno != EEXIST)
        return cannot_open(path);
    fd = open(unfinished.c_str(), flags);
    if (fd < 0)
        return errno == ENOENT ? 1 : cannot_open(unfinished);
    return fstat(fd, &st) == 0 && is_own(st) ? 0 : 1;
}

// 1: somebody else has made it; look again.
static int create(const std::string &name, const std::function<int(int)> &fill, int &fd)
{
    const std::string path = target_of(name);
    const std::string unfinished = path + ".new";
    const int opened = open_unfinished(unfinished, path, fd);
    if (opened != 0)
        return opened;
    struct stat st = {};
    if (lock_file(path, fd) != 0)
        return -1;
    if (!fwu_status_file_named(unfinished, fd) || lstat(path.c_str(), &st) == 0)
        return 1;
    if (make(path, unfinished, fd, fill) == 0)
        return fwu_status_file_named(path, fd) ? 0 : 1;
    (void)unlink(unfinished.c_str()); // best effort: the next run takes it
    return -1;
}

int fwu_status_file_open(const std::string &path, const std::function<int(int)> &fill,
                         bool &created)
{
    int result = 1;
    int fd = -1;
    for (int i = 0; i < OPEN_TRIES && result == 1; i++) {
        created = false;
        fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) {
            created = true;
            result = create(path, fill, fd);
        } else if (fd < 0) {
            result = cannot_open(path);
        } else {
            result = lock_file(path, fd);
            if (result == 0 && !fwu_status_file_named(path, fd))
                result = 1; // replaced since it was opened
        }
        if (result != 0 && fd >= 0)
            close(fd);
    }
    if (result == 1)
        return fwu_error("%s: cannot open the status file: it is being replaced all the time",
                         path.c_str());
    return result == 0 ? fd : -1;
}
