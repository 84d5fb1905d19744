// Preloaded into a program: fsync fails for directories, or for other files, as the
// environment variable FAILING_FSYNC ("directory" or "file") says; with "log" fdatasync
// fails for files that hold something.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static bool fails(int fd, const char *call)
{
    struct stat about = {};
    const char *const which = getenv("FAILING_FSYNC");
    if (which == nullptr || fstat(fd, &about) != 0)
        return false;
    if (strcmp(which, "log") == 0)
        return strcmp(call, "fdatasync") == 0 && about.st_size > 64; // a log file with entries
    return strcmp(call, "fsync") == 0 &&
           S_ISDIR(about.st_mode) == (strcmp(which, "directory") == 0);
}

extern "C" int fsync(int fd)
{
    if (!fails(fd, "fsync"))
        return static_cast<int>(syscall(SYS_fsync, fd));
    errno = EIO;
    return -1;
}

extern "C" int fdatasync(int fd)
{
    if (!fails(fd, "fdatasync"))
        return static_cast<int>(syscall(SYS_fdatasync, fd));
    errno = EIO;
    return -1;
}
