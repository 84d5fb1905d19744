// What the subcommands of fwlog share: exit statuses, complaints about the
// command line, their entry points.
#ifndef TOOLS_FWLOG_FWLOG_H
#define TOOLS_FWLOG_FWLOG_H

constexpr int FWLOG_EXIT_OK = 0;
constexpr int FWLOG_EXIT_FAILED = 1;
constexpr int FWLOG_EXIT_USAGE = 2;
constexpr int FWLOG_EXIT_SIGNAL = 128; // and the signal's number

// Subcommands; argv[0] is the first word behind the subcommand's name.
int fwlog_load_main(int argc, char **argv);
int fwlog_dump_main(int argc, char **argv);
int fwlog_postgresql_main(int argc, char **argv);
int fwlog_verify_main(int argc, char **argv);
int fwlog_info_main(int argc, char **argv);
int fwlog_prune_main(int argc, char **argv);
int fwlog_repair_main(int argc, char **argv);
int fwlog_tail_main(int argc, char **argv);

// The options of subcommands that only look at a log.
struct fwlog_log_options {
    const char *cfg = nullptr;
    bool json = false;
};
// FWLOG_EXIT_OK, or FWLOG_EXIT_USAGE after a complaint.
int fwlog_scan_log_options(fwlog_log_options &options, int argc, char **argv);

// Prints "fwlog: text: word" and where help is to be had; FWLOG_EXIT_USAGE.
int fwlog_usage_error(const char *text, const char *word);

// Flushes standard output; FWLOG_EXIT_FAILED, reported, when it could not be
// written, else status.
int fwlog_flush_output(int status);

// Reports errno as that of a write to standard output; FWLOG_EXIT_FAILED.
int fwlog_output_error();

#endif
