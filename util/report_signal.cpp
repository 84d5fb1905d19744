// The handler sets a flag and nothing else; whoever reports takes it back.
#include "util/report_signal.h"

#include <csignal>

static volatile sig_atomic_t g_asked = 0;

extern "C" {
static void note_report(int)
{
    g_asked = 1;
}
}

void report_signal_install()
{
    struct sigaction action = {};
    action.sa_handler = note_report;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

bool report_signal_taken()
{
    const bool asked = g_asked != 0;
    g_asked = 0;
    return asked;
}
