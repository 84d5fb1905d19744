// Preloaded into a program: notes in the file NOTING_SYNC each file that is brought to
// disk, its name without directories and its size, a line each; "everything" for sync.
// LOSING_SYNC, "NAME COUNT", makes one call fail, the COUNTth for the file of that name; of
// a capture file "cap..." the system then forgets what came since the call before.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static void note_line(const char *line)
{
    const char *notes = getenv("NOTING_SYNC");
    const int to =
        notes == nullptr ? -1 : open(notes, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (to < 0)
        return;
    dprintf(to, "%s\n", line);
    close(to);
}

// Whether this call is the one that fails.
static bool loses(int fd, const char *name, off_t size)
{
    static int calls = 0;
    static off_t size_before = 0;
    char which[64] = "";
    int number = 0;
    const char *losing = getenv("LOSING_SYNC");
    if (losing == nullptr || sscanf(losing, "%63s %d", which, &number) != 2 ||
        strcmp(which, name) != 0)
        return false;
    if (++calls == number && strncmp(name, "cap", 3) == 0 && ftruncate(fd, size_before) != 0)
        abort();
    size_before = size;
    return calls == number;
}

static int note(int fd, long call)
{
    const int rc = static_cast<int>(syscall(call, fd));
    char link[64];
    char path[PATH_MAX] = "";
    struct stat st = {};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0 || fstat(fd, &st) != 0)
        return rc;
    path[length] = '\0';
    const char *slash = strrchr(path, '/');
    char line[PATH_MAX + 32];
    snprintf(line, sizeof line, "%s %lld", slash == nullptr ? path : slash + 1,
             static_cast<long long>(st.st_size));
    note_line(S_ISDIR(st.st_mode) ? "directory" : line);
    if (loses(fd, slash == nullptr ? path : slash + 1, st.st_size)) {
        errno = EIO;
        return -1;
    }
    return rc;
}

extern "C" int fsync(int fd)
{
    return note(fd, SYS_fsync);
}

extern "C" int fdatasync(int fd)
{
    return note(fd, SYS_fdatasync);
}

extern "C" void sync()
{
    note_line("everything");
    syscall(SYS_sync);
}
