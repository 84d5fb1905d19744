// Bringing capture files to disk: the moments, and the mark that says how far they
// were on disk then.
#include "capture/sync.h"

#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/settings.h"
#include "capture/syncmark.h"
#include "driver/base/log.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

static struct {
    bool asked;        // the library asks at its moments
    bool soon;         // behind the record in hand
    bool failed;       // what came since is not on disk; told, and no later call mends it
    int64_t synced_ms; // when the files were on disk last
    int records;       // since the clock was looked at
} g_sync;

// While records come without a pause to rest in, the minute is over within a few of them.
constexpr int CLOCK_EVERY = 16;

// A clock that costs next to nothing; it goes on by a few milliseconds at a time.
static int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void capture_sync_begin()
{
    g_sync = {false, false, false, now_ms(), 0};
}

void capture_sync_soon()
{
    g_sync.soon = true;
}

static bool interval_is_over()
{
    return now_ms() - g_sync.synced_ms >= g_capture_settings.interval_ms;
}

static bool due_behind_record()
{
    if (g_sync.soon || g_capture_settings.sync == SYNC_RECORD)
        return true;
    if (g_capture_settings.sync != SYNC_INTERVAL && ++g_sync.records < CLOCK_EVERY)
        return false;
    g_sync.records = 0;
    return interval_is_over();
}

int capture_sync_due(int when)
{
    g_sync.asked = true;
    if (g_capture_settings.sync == SYNC_OFF)
        return -1;
    switch (when) {
    case FWU_AT_RECORD:
        return due_behind_record() ? 1 : 0;
    case FWU_AT_REST:
        return g_capture_settings.sync != SYNC_INTERVAL || interval_is_over() ? 1 : 0;
    default:
        return 1;
    }
}

bool capture_sync_asked()
{
    return g_sync.asked;
}

static int report_failure(const capfil *cf)
{
    g_sync.failed = true;
    return set_error_detail(strerror(errno), "Error bringing capture file to disk: %s", cf->name);
}

// Brings the name of a file to disk with its directory.
static bool sync_directory(const std::string &path)
{
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 && errno == EACCES) { // one may write in it and not read it
        sync();
        return true;
    }
    if (fd < 0)
        return false;
    const bool synced = fsync(fd) == 0 || errno == EINVAL;
    const int error = errno;
    (void)close(fd); // nothing was written to it
    errno = error;
    return synced;
}

// Brings to disk that no file has a name any more.  A file that was moved away would have its name
// back behind a power cut, and be taken for one that was begun behind the mark.
static int sync_absence(capfil *cf)
{
    if (cf->absence_synced != 0)
        return 0;
    const bool synced = sync_directory(mark_path(cf->name));
    if (!synced && errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != ENAMETOOLONG)
        return report_failure(cf);
    if (!synced)
        sync(); // its directory is gone, too
    cf->absence_synced = 1;
    return 0;
}

int capture_sync_file(capfil *cf)
{
    struct stat st = {};
    if (g_capture_settings.sync == SYNC_OFF)
        return 0;
    if (fstat(cf->fnum, &st) != 0)
        return report_failure(cf);
    if (!S_ISREG(st.st_mode))
        return 0; // a pipe or a device
    if (fdatasync(cf->fnum) != 0)
        return report_failure(cf);
    if (cf->name_synced == 0 && !sync_directory(mark_path(cf->name)))
        return report_failure(cf);
    cf->name_synced = 1;
    return 0;
}

const char *capture_sync(capinfo *ci)
{
    static std::string mark;
    mark.clear();
    if (g_sync.failed)
        return nullptr;
    const bool none_open = std::all_of(ci->capfiles, ci->capfiles + ci->ncf,
                                       [](const capfil *cf) { return cf->fp == nullptr; });
    for (int i = 0; i < ci->ncf; i++) {
        capfil *cf = ci->capfiles[i];
        bool absent = false;
        // The end first: what it covers is on disk behind the call that follows.
        if (mark_add(mark, cf, none_open, absent) != 0)
            return nullptr;
        if (!absent)
            cf->absence_synced = 0;
        else if (sync_absence(cf) != 0)
            return nullptr;
        if (cf->fp == nullptr || cf->nsynced == cf->nwritten)
            continue;
        if (capture_sync_file(cf) != 0)
            return nullptr;
        cf->nsynced = cf->nwritten;
    }
    g_sync.soon = false;
    g_sync.synced_ms = now_ms();
    return mark.c_str();
}

// Brings the file of a line to disk.  moved: it is not to be had under that name.
static bool sync_line(const mark_line &line, bool *moved)
{
    const int fd = open(line.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat st = {};
    if (fd < 0) {
        *moved = *moved || line.inode != 0 || errno == EACCES;
        return errno == ENOENT || errno == ENOTDIR || errno == EACCES;
    }
    const bool synced = fstat(fd, &st) == 0 && (fdatasync(fd) == 0 || errno == EINVAL);
    const int error = errno;
    (void)close(fd); // nothing was written to it; no file of the run is open yet
    errno = error;
    *moved = *moved || (line.inode != 0 && line.inode != st.st_ino);
    return synced && sync_directory(line.path);
}

int capture_keep(const char *mark)
{
    mark_line line;
    bool good = true;
    bool moved = false;
    if (g_capture_settings.sync == SYNC_OFF)
        return 0;
    if (mark[0] == '\0')
        sync(); // nothing tells which files there are
    while (mark_next(&mark, line, &good)) {
        if (!sync_line(line, &moved))
            return set_error_detail(strerror(errno), "Error bringing capture file to disk: %s",
                                    line.path.c_str());
    }
    if (!good)
        return set_error_f("The status file's mark of the capture files cannot be read: %s", mark);
    if (moved)
        sync(); // it is somewhere on the system's disks
    return 0;
}

int capture_sync_end(capinfo *ci)
{
    if (g_sync.asked || g_capture_settings.sync == SYNC_OFF)
        return 0;
    return capture_sync(ci) != nullptr ? 0 : -1;
}

int capture_sync_record(capinfo *ci)
{
    if (g_sync.asked || g_capture_settings.sync == SYNC_OFF || !due_behind_record())
        return 0;
    return capture_sync(ci) != nullptr ? 0 : -1;
}
