// What the subcommands of tmf share: exit statuses, complaints, their entry
// points.
#ifndef TOOLS_TMF_TMF_TOOL_H
#define TOOLS_TMF_TMF_TOOL_H

#include "msgfile/tmf.h"

constexpr int TMFT_EXIT_OK = 0;
constexpr int TMFT_EXIT_FAILED = 1;
constexpr int TMFT_EXIT_USAGE = 2;
constexpr int TMFT_EXIT_SIGNAL = 128; // and the signal's number

// Subcommands; argv[0] is the first word behind the subcommand's name.
int tmft_info_main(int argc, char **argv);
int tmft_read_main(int argc, char **argv);
int tmft_write_main(int argc, char **argv);
int tmft_repair_main(int argc, char **argv);

// Prints "tmf: text: word" and where help is to be had; TMFT_EXIT_USAGE.
int tmft_usage_error(const char *text, const char *word);

// A decimal number from smallest to largest that is the whole word.
bool tmft_number(const char *word, int smallest, int largest, int &number);

// Print "tmf: file: text".  The library's text is that of the handle's last
// failure (null: of the last open), or of a code that no handle keeps.
void tmft_complain(const char *file, const char *text);
void tmft_complain_handle(const char *file, tmf_handle *h);
void tmft_complain_code(const char *file, int code);

// Flushes standard output; TMFT_EXIT_FAILED, reported, when it could not be
// written, else status.
int tmft_flush_output(int status);

// Closes the message file; TMFT_EXIT_FAILED, reported, when that failed and
// status told of nothing worse.
int tmft_close(tmf_handle *h, const char *file, int status);

// Whether the descriptor is the file itself, opened by somebody else.
bool tmft_same_file(int fd, const char *file);

#endif
