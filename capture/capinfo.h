// Making, filling and releasing the records of the capture configuration.
#ifndef CAPTURE_CAPINFO_H
#define CAPTURE_CAPINFO_H

#include "capture/capfil.h"

capinfo *new_capinfo();
int32_t ci_get_ncf(const capinfo *ci); // 0 for null

void init_capcfg(capcfg *cfg); // all fields zero

// Adds a pattern; returns 0, or the code of the message that refused it.
int add_capcfg_dset(capcfg *cfg, const char *pattern);

// Releases what the options own; init_capcfg comes next.
void free_capcfg_data(capcfg *cfg);

capfil *new_capfil();
void capfile_init(capfil *cf, const char *name, const capcfg *cfg);

// Adds a capture file with the pending options.  The file itself is not
// touched before its first record.
void add_capfile(capinfo *ci, const char *name, const capcfg *cfg);

// Releases a file's record; recbuf and fp belong to closing the file.
void free_capfil(capfil *cf);

void free_ci(capinfo *ci); // null is allowed

#endif
