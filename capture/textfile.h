// Text capture files as the system's files: opened by KESTRO_TEXT, and cut back to
// whole records.
#ifndef CAPTURE_TEXTFILE_H
#define CAPTURE_TEXTFILE_H

#include <cstdint>

// Opens path for writing behind what stays of it; pipes and devices are written as they
// are.  ascii_flags: lines of a dirty file may lack their ends, so none of it is cut.
// The descriptor, or -1 with errno.
int textfile_open(const char *path, uint32_t ascii_flags);

// The same for a run that goes on, whatever KESTRO_TEXT says: behind what the file of that
// name holds, or in a new one.  Pipes, devices and directories are refused.
int textfile_reopen(const char *path, uint32_t ascii_flags);

// Moves what a regular file holds from offset at on into the file of that name and
// ".cut", in the place of an older one, and both to disk.  why: what is told of it.
// 0, or -1 with errno and the file as it was.
int text_cut(const char *path, int64_t at, const char *why);

// The same from the line on that holds the first zero byte, if there is one.
int text_cut_zeros(const char *path);

#endif
