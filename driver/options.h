// The command line: one table of options and a scan that knows no option's
// name.  Fills the run flags, the run options and the capture configuration.
#ifndef DRIVER_OPTIONS_H
#define DRIVER_OPTIONS_H

// Options with a word that hold for the whole run.
enum run_word { RUN_PIDFILE, RUN_START, RUN_CFG, RUN_STAT, RUN_WORDS };

struct run_options {
    char *words[RUN_WORDS]; // owned; null when not given
};

// Scans the command line up to the first error, which it has reported; returns
// 0 or the error code.  Capture files go to g_ci, flags to g_flags.
int scan_options(int argc, char **argv, run_options *run);

void free_run_options(run_options *run);

// Compares without regard to case: -1, 0 or 1.
int istrcmp(const char *a, const char *b);

#endif
