// The handler only notes the signal: the interrupted call is what ends.
#include "util/round_timer.h"

#include <csignal>
#include <sys/time.h>

static constexpr int again_ms = 50;
static volatile sig_atomic_t g_over = 0;

extern "C" {
static void note_over(int /*number*/)
{
    g_over = 1;
}
}

void round_timer_install()
{
    struct sigaction action = {};
    action.sa_handler = note_over; // and no SA_RESTART: it ends a wait
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
}

void round_timer_start(int seconds)
{
    g_over = 0;
    itimerval timer = {};
    timer.it_value.tv_sec = seconds;
    timer.it_interval.tv_usec = again_ms * 1000;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void round_timer_stop()
{
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
}

bool round_timer_over()
{
    return g_over != 0;
}
