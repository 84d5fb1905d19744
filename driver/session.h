// The capture session: background, PID file, the forward-log library's loop
// and the dispatch of each of its records.
#ifndef DRIVER_SESSION_H
#define DRIVER_SESSION_H

#include <cstdint>

struct capinfo;
struct log_record;

// Runs the session; the four file and position arguments may be null.  Returns
// 0 or -1.  Under -bg only the child returns.
int processfile(capinfo *ci, const char *pidfile, const char *cfgfile, const char *statfile,
                const char *startspec);

int write_pidfile(const char *path); // 0 or -1

// The record callback: 0 to go on, -1 when the record was not captured.
extern "C" int kestro_cb(uint32_t reserved, const char *dbname, const char *dsetname,
                         int32_t logtime, int32_t opcode, int32_t recnum, int32_t reclen,
                         const void *before_image, const void *after_image);

// Prints the item layout of the record's dataset for -showsets.
void show_sets(const capinfo *ci, const log_record *record);

// The log position as "generation-sequence.tag", valid until the next call.
const char *get_fwlog_gst();

#endif
