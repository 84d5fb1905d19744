// Many records at once: appended, read and removed under one lock.
#ifndef MSGFILE_TMF_BATCH_H
#define MSGFILE_TMF_BATCH_H

#include "msgfile/tmf_handle.h"

// Appends the records, each of 1 to max_record_len bytes: all of them, or none behind a code.
// The common area is locked.
int tmf_write_records(tmf_handle *h, const tmf_item *items, int count);

// Reads up to count records, 1 or more, into buf of len bytes, one behind the other: the first cut
// at len, those behind it only as long as they fit whole.  Removes them unless flags has
// TMF_READ_KEEP; a handle in copy mode goes on behind them.  items tells where they are; the others
// stay as they were.  The number of records, 0 without one, or a code.
int tmf_read_records(tmf_handle *h, tmf_item *items, int count, void *buf, int len, int flags);

// Removes the first count records, 1 or more: all of them, or none behind a code.
int tmf_remove_records(tmf_handle *h, int count);

#endif
