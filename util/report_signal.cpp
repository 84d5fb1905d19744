// The handler sets a flag and nothing else; whoever reports takes it back.
#include "util/report_signal.h"

#include <csignal>

static volatile sig_atomic_t g_report = 0;
static volatile sig_atomic_t g_reload = 0;

extern "C" {
static void note_wish(int number)
{
    (number == SIGHUP ? g_reload : g_report) = 1;
}
}

void report_signal_install()
{
    struct sigaction action = {};
    action.sa_handler = note_wish;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    signal(SIGUSR2, SIG_IGN);
}

static bool taken(volatile sig_atomic_t &flag)
{
    const bool asked = flag != 0;
    flag = 0;
    return asked;
}

bool report_signal_taken()
{
    return taken(g_report);
}

bool reload_signal_taken()
{
    return taken(g_reload);
}
