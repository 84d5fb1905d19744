// Signals that do not end a run: SIGHUP is a wish to open the text capture files anew,
// SIGUSR1 and SIGUSR2 do nothing.
#ifndef DRIVER_HANGUP_H
#define DRIVER_HANGUP_H

// From now on the signals are taken so.  A program in the foreground of a terminal still
// ends, as by default, when that terminal is closed.
void hangup_install();

// The program is in no terminal's foreground any more.
void hangup_detach();

// Whether SIGHUP came since the last call that said so.
bool hangup_taken();

#endif
