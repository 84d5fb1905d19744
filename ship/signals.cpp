// A thread begins with the signals that its maker holds back.
#include "ship/signals.h"

#include "util/stop_signal.h"

#include <csignal>

bool ship_signals::stopping() const
{
    return fwu_stop != 0;
}

static void note()
{
    if (fwu_stop != 0)
        stop_signal_note(fwu_stop);
}

void ship_signals::let_in()
{
    sigset_t held;
    (void)pthread_sigmask(SIG_SETMASK, &held_.before, &held);
    (void)pthread_sigmask(SIG_SETMASK, &held, nullptr);
    note();
}

fwu_wake ship_signals::wait(fwu_watch &watch, int milliseconds)
{
    const fwu_wake wake = fwu_watch_wait(watch, milliseconds, held_);
    note();
    return wake;
}

bool ship_signals::pause(feed_backoff &backoff)
{
    sigset_t held;
    (void)pthread_sigmask(SIG_SETMASK, &held_.before, &held);
    note();
    const bool go_on = feed_backoff_wait(backoff, note);
    (void)pthread_sigmask(SIG_SETMASK, &held, nullptr);
    note();
    return go_on && fwu_stop == 0;
}
