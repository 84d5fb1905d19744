// Records: framing, appending, reading, removing.
#ifndef MSGFILE_TMF_RECORD_H
#define MSGFILE_TMF_RECORD_H

#include "msgfile/tmf_handle.h"

// Appends a record of n bytes, 1 to max_record_len.  The common area is locked.
int tmf_write_record(tmf_handle *h, const void *buf, int n);

// Reads the first record into buf of len bytes and removes it unless flags has
// TMF_READ_KEEP.  Bytes copied, 0 without a record, or a code.
int tmf_read_record(tmf_handle *h, void *buf, int len, int flags);

// Reads the handle's next record in copy mode; changes nothing in the file.
int tmf_read_record_copy(tmf_handle *h, void *buf, int len);

// Removes the first record, which takes length bytes with its frame.
int tmf_delete_record(tmf_handle *h, int length);

#endif
