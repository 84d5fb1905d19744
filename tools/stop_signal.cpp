// The signals are blocked except inside ppoll, so that one that comes just
// before the wait is not missed.
#include "tools/stop_signal.h"

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

stop_wait stop_signal_wait(int fd)
{
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &both, &before);

    struct pollfd wanted = {.fd = fd, .events = POLLIN, .revents = 0};
    int found = 0;
    int code = 0;
    do {
        const timespec at_once = {};
        found = ppoll(&wanted, 1, g_stop_signal != 0 ? &at_once : nullptr, &before);
        code = errno;
    } while (found < 0 && code == EINTR);

    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = code;
    if (found < 0)
        return STOP_ERROR;
    return found > 0 ? STOP_READABLE : STOP_ASKED;
}
