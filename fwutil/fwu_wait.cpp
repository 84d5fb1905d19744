// inotify tells of changes in the log directory; the signals that end a wait stay blocked
// except inside ppoll, so that one coming just before the wait still ends it.
#include "fwutil/fwu_wait.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

constexpr int POLL_WITHOUT_WATCH_MS = 200;

volatile sig_atomic_t fwu_stop = 0;

static void on_signal(int number)
{
    fwu_stop = number;
}

fwu_signals::fwu_signals()
{
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    fwu_stop = 0;
    (void)sigaction(SIGTERM, &action, &term_); // fails for no such signal only
    (void)sigaction(SIGINT, &action, &int_);
}

fwu_signals::~fwu_signals()
{
    (void)sigaction(SIGTERM, &term_, nullptr);
    (void)sigaction(SIGINT, &int_, nullptr);
}

void fwu_watch_open(fwu_watch &watch, const std::string &directory)
{
    watch.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch.fd >= 0 && inotify_add_watch(watch.fd, directory.c_str(),
                                           IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_ONLYDIR) >= 0)
        return;
    fwu_note("%s: cannot watch the log directory (%s), looking at it every %d ms instead",
             directory.c_str(), strerror(errno), POLL_WITHOUT_WATCH_MS);
    fwu_watch_close(watch);
}

void fwu_watch_close(fwu_watch &watch)
{
    if (watch.fd >= 0)
        close(watch.fd);
    watch.fd = -1;
}

// Reads all events at hand; FWU_WAKE_TIMEOUT when none was about a log file
// (the status file, a spill file or the writer's lock may share the directory).
static fwu_wake take_events(const fwu_watch &watch)
{
    alignas(inotify_event) char buffer[16384];
    fwu_wake wake = FWU_WAKE_TIMEOUT;
    ssize_t n = 0;
    while ((n = read(watch.fd, buffer, sizeof buffer)) > 0) {
        for (const char *p = buffer; p < buffer + n;) {
            inotify_event event;
            memcpy(&event, p, sizeof event);
            int32_t generation = 0;
            int32_t sequence = 0;
            if ((event.mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0)
                wake = FWU_WAKE_FILE;
            else if (event.len > 0 && fwu_log_file_parse(p + sizeof event, generation, sequence))
                wake = (event.mask & IN_MODIFY) == 0 ? FWU_WAKE_FILE
                       : wake == FWU_WAKE_TIMEOUT    ? FWU_WAKE_DATA
                                                     : wake;
            p += sizeof event + event.len;
        }
    }
    return wake;
}

fwu_held_signals::fwu_held_signals()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&held, number);
    (void)sigprocmask(SIG_BLOCK, &held, &before); // fails for no such way to change it only
}

fwu_held_signals::~fwu_held_signals()
{
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
}

fwu_wake fwu_watch_wait(fwu_watch &watch, int milliseconds, const fwu_held_signals &held)
{
    if (fwu_stop != 0)
        return FWU_WAKE_STOP;
    fwu_wake wake = watch.fd < 0 ? FWU_WAKE_FILE : FWU_WAKE_TIMEOUT;
    const int limit = watch.fd < 0 ? std::min(milliseconds, POLL_WITHOUT_WATCH_MS) : milliseconds;
    const int64_t end = fwu_monotonic_ms() + limit;
    pollfd row = {watch.fd, POLLIN, 0}; // a descriptor of -1 is passed over
    int64_t left = limit;
    do {
        const timespec time = {static_cast<time_t>(left / 1000),
                               static_cast<long>(left % 1000 * 1000000)};
        const int found = ppoll(&row, 1, &time, &held.before);
        if (found > 0)
            wake = take_events(watch);
        else if (found < 0 && errno == EINTR)
            wake = FWU_WAKE_SIGNAL;
        left = end - fwu_monotonic_ms();
    } while (wake == FWU_WAKE_TIMEOUT && fwu_stop == 0 && left > 0);
    return fwu_stop != 0 ? FWU_WAKE_STOP : wake;
}

fwu_wake fwu_watch_wait(fwu_watch &watch, int milliseconds)
{
    return fwu_watch_wait(watch, milliseconds, fwu_held_signals());
}
