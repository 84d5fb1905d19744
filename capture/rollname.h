// Names of the files that a full capture file rolls over to.
#ifndef CAPTURE_ROLLNAME_H
#define CAPTURE_ROLLNAME_H

// The first name after this one that no file has, at most 1,024 names on; null when
// all of them exist.  The caller frees it.
char *rollover_fname(const char *name);

// The name with its number counted up; a name without a number gets a 1.  The
// number ends in front of the extension.  The caller frees it.
char *calc_rollfname(const char *name);

// 1 when there is a file of any kind, else 0.
int file_exists(const char *path);

#endif
