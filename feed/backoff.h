// Attempts at a source that is gone: the time between them grows, and what keeps it away
// is told when it changes, not at every attempt.
#ifndef FEED_BACKOFF_H
#define FEED_BACKOFF_H

#include <functional>
#include <string>

constexpr int FEED_FIRST_PAUSE_MS = 100;
constexpr int FEED_LONGEST_PAUSE_MS = 10'000;

// Made anew after an attempt that went well for a while.
struct feed_backoff {
    int pause_ms = FEED_FIRST_PAUSE_MS; // before the next attempt
    std::string told = {};              // last
};

// Tells why the source is lost and that it is tried again, unless that was told last.
void feed_backoff_tell(feed_backoff &backoff, const std::string &why);

// Waits before the next attempt; every second at least, meanwhile is called, if there is one.
// False: a signal asks to stop.
bool feed_backoff_wait(feed_backoff &backoff, const std::function<void()> &meanwhile = {});

#endif
