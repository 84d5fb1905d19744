// A signal ends the wait, so that a program stops at once however long the pause is.
#include "feed/backoff.h"

#include "util/outcome.h"
#include "util/stop_signal.h"

#include <algorithm>

static constexpr int SLICE_MS = 1000;

void feed_backoff_tell(feed_backoff &backoff, const std::string &why)
{
    if (backoff.pause_ms == FEED_FIRST_PAUSE_MS || backoff.told != why)
        tell("%s; trying again", why.c_str());
    backoff.told = why;
}

bool feed_backoff_wait(feed_backoff &backoff, const std::function<void()> &meanwhile)
{
    for (int left = backoff.pause_ms; left > 0 && stop_signal_get() == 0; left -= SLICE_MS) {
        (void)stop_signal_wait(-1, std::min(left, SLICE_MS)); // a signal is looked at next
        if (meanwhile)
            meanwhile();
    }
    backoff.pause_ms = std::min(2 * backoff.pause_ms, FEED_LONGEST_PAUSE_MS);
    return stop_signal_get() == 0;
}
