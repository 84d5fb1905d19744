// SIGINT and SIGTERM beside a library that has threads of its own: they are held back in all of
// them, and let in where the program looks.
#ifndef SHIP_SIGNALS_H
#define SHIP_SIGNALS_H

#include "feed/backoff.h"
#include "fwutil/fwu_wait.h"

// Made before the library's first thread.
class ship_signals {
  public:
    // Whether one has come, as far as they were let in.
    bool stopping() const;
    // Lets those in that wait.
    void let_in();
    // As fwu_watch_wait.
    fwu_wake wait(fwu_watch &watch, int milliseconds);
    // As feed_backoff_wait.
    bool pause(feed_backoff &backoff);

  private:
    fwu_signals handlers_;
    fwu_held_signals held_;
};

#endif
