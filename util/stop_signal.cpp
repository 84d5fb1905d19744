// The signals are blocked except inside ppoll, so that one that comes just
// before the wait is not missed.
#include "util/stop_signal.h"

#include <cerrno>
#include <csignal>
#include <poll.h>

static volatile sig_atomic_t g_stop_signal = 0;

extern "C" {
static void note_signal(int number)
{
    g_stop_signal = number;
}
}

void stop_signal_install()
{
    struct sigaction action = {};
    action.sa_handler = note_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int stop_signal_get()
{
    return g_stop_signal;
}

void stop_signal_note(int number)
{
    g_stop_signal = number;
}

stop_wait stop_signal_wait(int fd, int limit_ms, bool to_write)
{
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &both, &before);

    const short events = to_write ? POLLOUT : POLLIN;
    struct pollfd wanted = {.fd = fd, .events = events, .revents = 0};
    int found = 0;
    int code = 0;
    do {
        const int ms = g_stop_signal != 0 ? 0 : limit_ms;
        const timespec limit = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1'000'000L};
        found = ppoll(&wanted, 1, ms < 0 ? nullptr : &limit, &before);
        code = errno;
    } while (found < 0 && code == EINTR);

    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = code;
    if (found < 0)
        return STOP_ERROR;
    if (found > 0)
        return STOP_READABLE;
    return g_stop_signal != 0 ? STOP_ASKED : STOP_TIMEOUT;
}
