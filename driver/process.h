// One run: the command line, one action, and the end-of-run totals.
#ifndef DRIVER_PROCESS_H
#define DRIVER_PROCESS_H

// Returns 0 or the first error code; every error has been reported.
int process(int argc, char **argv);

#endif
