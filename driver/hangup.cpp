// The handler sets a flag, and nothing else where no terminal is in play.
#include "driver/hangup.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

static volatile sig_atomic_t g_hangup = 0;
static volatile sig_atomic_t g_foreground = 0;

// A session that has lost its terminal has no such device any more.
static bool terminal_is_gone()
{
    const int fd = open("/dev/tty", O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0)
        (void)close(fd); // nothing was written to it
    return fd < 0 && errno != EMFILE && errno != ENFILE;
}

static bool in_foreground()
{
    const int fd = open("/dev/tty", O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ours = tcgetpgrp(fd) == getpgrp();
    (void)close(fd);
    return ours;
}

extern "C" {
static void note_hangup(int number)
{
    const int error = errno;
    if (g_foreground != 0 && terminal_is_gone()) {
        // Comes back as soon as the handler is left.
        (void)signal(number, SIG_DFL);
        (void)raise(number);
    }
    g_hangup = 1;
    errno = error;
}
}

void hangup_install()
{
    (void)signal(SIGUSR1, SIG_IGN); // fail for no such signal only
    (void)signal(SIGUSR2, SIG_IGN);
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = note_hangup;
    action.sa_flags = SA_RESTART; // a pipe's reader is waited for as before
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGHUP, &action, &before);
    g_foreground = before.sa_handler != SIG_IGN && in_foreground() ? 1 : 0;
}

void hangup_detach()
{
    g_foreground = 0;
}

bool hangup_taken()
{
    const bool taken = g_hangup != 0;
    if (taken)
        g_hangup = 0;
    return taken;
}
