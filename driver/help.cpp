// Version, banner, usage and help texts.
#include "driver/help.h"

#include <cstdio>

static const char PROGRAM_NAME[] = "Kestro";
const char PROGRAM_VERSION[] = "2.21";
static const char PLATFORM[] = "Linux x86";

// Kept: the help leaves out the options that are of no use in daily work
// (-pause, -versnum, -showsets, -dumprecs, -fga, -ascii, -asciirev, -dirty,
// -bwfmt, -?).
static const char help_text[] = R"(                    [ [capture-options] capture-file] [..]

General Options:
  -bg                   Run in background.
  -capstats             Show statistics for each capture file.
  -help                 Show this help.
  -pidfile <file>       Write PID to <file>
  -rollover             Rollover to next message file after 2GB.
  -showskip             Show statistics for records NOT captured.
  -synconly             Stop after processing current records.
  -verbose              Display diagnostic messages.
  -version              Display program version.

Vostrel Options:
  -cfg <vostrel cfg file>  Specify Vostrel cfg file.
  -showstat             Show contents of status file.
  -start <log spec>     Specify fwd log file number.
  -stat <status file>   Specify status file.

Capture file Options:
  -dset <dset pattern>  Data bases and sets to capture.
  -exthdr               Write capture records with extended header.
  -info <infopt>        Vostrel info to DBNAME, DBUSER, PROG or SESSION.
  -progterm <str>       Program name is terminated with <str>
  -recnum               Write capture records with record number.
  -yyyy                 Write capture records with YYYY dates.

Notes:
  . Options are case-insensitive.

  . Unless -synconly is specified, program runs continuously
    copying log records to the capture file while the database
    is updated.  Using -synconly stops after processing current
    log data.

  . If no -cfg is specified, default Vostrel configuration is used.

  . If no -stat is specified, default is fwutil.status.

  . -start should be specified first time (e.g. -start 25), to
    indicate which log file, but status file contains log
    position for subsequent runs.

  . One or more capture files may be specified with different
    capture file options.

  . -dset may be specified many times for a capture file.
    The format is DB.DATASET with "@" used as a wildcard.
    Example:  @.CUST@ selects all databases and all datasets
    beginning with "CUST".
)";

void print_banner()
{
    printf("%s - %s (%s)\n", PROGRAM_NAME, PROGRAM_VERSION, PLATFORM);
}

static void print_usage_line(const char *progname)
{
    printf("Usage: %s [options] [captopts] capture-file\n", progname);
}

void printusage(const char *progname)
{
    print_banner();
    printf("\n");
    print_usage_line(progname);
    printf("\n  To see more help: %s -help\n", progname);
}

void show_help(const char *progname)
{
    print_banner();
    printf("\n");
    print_usage_line(progname);
    fputs(help_text, stdout);
}
