// Waiting for the log to change, and for SIGTERM or SIGINT, which end a run.
#ifndef FWUTIL_FWU_WAIT_H
#define FWUTIL_FWU_WAIT_H

#include <csignal>
#include <string>

// The one of the two signals that came last while fwu_signals is in force; 0: none.
extern volatile sig_atomic_t fwu_stop;
constexpr int FWU_STOPPED = 1; // what a call gives that it has ended

// Handles the signals as long as it lives; the handlers before are then put back.
class fwu_signals {
  public:
    fwu_signals();
    ~fwu_signals();
    fwu_signals(const fwu_signals &) = delete;
    fwu_signals &operator=(const fwu_signals &) = delete;

  private:
    struct sigaction term_ = {};
    struct sigaction int_ = {};
};

// A log directory being watched; poll only when the system gives no watch.
struct fwu_watch {
    int fd = -1;
};

void fwu_watch_open(fwu_watch &watch, const std::string &directory);
void fwu_watch_close(fwu_watch &watch);

// Holds SIGTERM, SIGINT and SIGHUP back as long as it lives, so that one that comes
// behind a look at what their handlers note still ends the wait that follows.
class fwu_held_signals {
  public:
    fwu_held_signals();
    ~fwu_held_signals();
    fwu_held_signals(const fwu_held_signals &) = delete;
    fwu_held_signals &operator=(const fwu_held_signals &) = delete;
    sigset_t before;
};

enum fwu_wake {
    FWU_WAKE_DATA,    // a log file has grown
    FWU_WAKE_FILE,    // a log file may have been added
    FWU_WAKE_TIMEOUT, // milliseconds are over
    FWU_WAKE_SIGNAL,  // another signal was handled
    FWU_WAKE_STOP,    // fwu_stop is set
};

// Blocks until something happens to a log file, a signal comes or the time is
// over.  Changes before the call that nobody waited for are reported at once; the
// signals that held holds back come through while it blocks.
fwu_wake fwu_watch_wait(fwu_watch &watch, int milliseconds, const fwu_held_signals &held);

// The same for a caller that looks at no signals before.
fwu_wake fwu_watch_wait(fwu_watch &watch, int milliseconds);

#endif
