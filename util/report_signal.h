// SIGUSR1 as a wish for a report.
#ifndef UTIL_REPORT_SIGNAL_H
#define UTIL_REPORT_SIGNAL_H

// From now on SIGUSR1 is noted instead of ending the program.
void report_signal_install();

// Whether a report was asked for since the last call.
bool report_signal_taken();

#endif
