// Records: framing, appending, reading, removing.
#ifndef MSGFILE_TMF_RECORD_H
#define MSGFILE_TMF_RECORD_H

#include "msgfile/tmf_handle.h"

// Size of the record buffer at open, and what it grows by beyond the need.
constexpr int TMF_FIRST_BUFFER = 1024;
constexpr int TMF_BUFFER_SLACK = 128;

// Makes the record buffer hold n bytes at least; its contents may change.  0, or
// TMF_EINTERNAL when memory is short.
int tmf_grow_record_buffer(tmf_handle *h, int n);

// Appends a record of n bytes, 1 to max_record_len.  The common area is locked.
int tmf_write_record(tmf_handle *h, const void *buf, int n);

// Reads the first record into buf of len bytes and removes it unless flags has
// TMF_READ_KEEP.  Bytes copied, 0 without a record, or a code.
int tmf_read_record(tmf_handle *h, void *buf, int len, int flags);

// Reads the handle's next record in copy mode; changes nothing in the file.
int tmf_read_record_copy(tmf_handle *h, void *buf, int len);

// Removes the first record, which takes length bytes with its frame.
int tmf_delete_record(tmf_handle *h, int length);

// Empties the data area and cuts a long file down.
int tmf_reset(tmf_handle *h);

// The body of tmf_fread and tmf_freadx.
int tmf_fread_record(tmf_handle *h, void *buf, int len, int flags, int timeout);

#endif
