// Preloaded into a program: the calls that change files are numbered 1, 2, 3, ..., and at
// the one that the environment variable ENDING_CALL names the program is killed before it
// ("kill:N") or asked to end ("term:N"), or that call and all behind it fail ("fail:N").
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

static bool fails()
{
    static int number = 0;
    const char *const when = getenv("ENDING_CALL");
    if (when == nullptr || strlen(when) < 6 || ++number < atoi(when + 5))
        return false;
    if (strncmp(when, "kill:", 5) == 0)
        (void)raise(SIGKILL);
    if (strncmp(when, "term:", 5) == 0) {
        (void)raise(SIGTERM);
        return false;
    }
    errno = EIO;
    return true;
}

extern "C" {

ssize_t write(int fd, const void *data, size_t length)
{
    if (fd > STDERR_FILENO && fails())
        return -1;
    return syscall(SYS_write, fd, data, length);
}

int fsync(int fd)
{
    return fails() ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

int fdatasync(int fd)
{
    return fails() ? -1 : static_cast<int>(syscall(SYS_fdatasync, fd));
}

int rename(const char *from, const char *to) noexcept
{
    return fails() ? -1 : static_cast<int>(syscall(SYS_renameat2, -100, from, -100, to, 0));
}

} // extern "C"
