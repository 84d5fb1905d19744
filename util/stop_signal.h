// SIGINT and SIGTERM as a wish to stop: noted when they come, looked at between
// two steps of the work, and able to end a wait for input.
#ifndef UTIL_STOP_SIGNAL_H
#define UTIL_STOP_SIGNAL_H

// From now on the two signals are noted instead of ending the program.
void stop_signal_install();

// The signal that came last, 0 for none.
int stop_signal_get();

// Notes a signal that another handler has caught.
void stop_signal_note(int number);

enum stop_wait { STOP_READABLE, STOP_ASKED, STOP_TIMEOUT, STOP_ERROR };

// Waits until fd can be read, limit_ms at most (negative: without limit).  Once a
// signal has come it does not wait any more: STOP_ASKED unless there is something
// to read at this moment.  STOP_ERROR: errno.  to_write: until it can be written.
stop_wait stop_signal_wait(int fd, int limit_ms, bool to_write = false);

#endif
