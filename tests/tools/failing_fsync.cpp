// Preloaded into a program: fsync fails for directories, or for other files, as the
// environment variable FAILING_FSYNC ("directory" or "file") says.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" int fsync(int fd)
{
    struct stat about = {};
    const char *const which = getenv("FAILING_FSYNC");
    if (which != nullptr && fstat(fd, &about) == 0 &&
        S_ISDIR(about.st_mode) == (strcmp(which, "directory") == 0)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}
