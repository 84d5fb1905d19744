// Version, banner, usage and help texts, on standard output.
#ifndef DRIVER_HELP_H
#define DRIVER_HELP_H

extern const char PROGRAM_VERSION[];

void print_banner();
void printusage(const char *progname);
void show_help(const char *progname);

#endif
