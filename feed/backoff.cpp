// A signal ends the wait, so that a program stops at once however long the pause is.
#include "feed/backoff.h"

#include "util/outcome.h"
#include "util/stop_signal.h"

#include <algorithm>

void feed_backoff_tell(feed_backoff &backoff, const std::string &why)
{
    if (backoff.pause_ms == FEED_FIRST_PAUSE_MS || backoff.told != why)
        tell("%s; trying again", why.c_str());
    backoff.told = why;
}

bool feed_backoff_wait(feed_backoff &backoff)
{
    (void)stop_signal_wait(-1, backoff.pause_ms); // a signal is looked at below
    backoff.pause_ms = std::min(2 * backoff.pause_ms, FEED_LONGEST_PAUSE_MS);
    return stop_signal_get() == 0;
}
