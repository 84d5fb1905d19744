// SIGUSR1 as a wish for a report, SIGHUP as one to read the configuration again, and SIGUSR2,
// which does nothing.
#ifndef UTIL_REPORT_SIGNAL_H
#define UTIL_REPORT_SIGNAL_H

// From now on these signals are noted instead of ending the program.
void report_signal_install();

// Whether a report was asked for since the last call.
bool report_signal_taken();

// Whether the configuration is to be read again since the last call.
bool reload_signal_taken();

#endif
