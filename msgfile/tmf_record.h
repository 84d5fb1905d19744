// Records: framing, appending, reading, removing.
#ifndef MSGFILE_TMF_RECORD_H
#define MSGFILE_TMF_RECORD_H

#include "msgfile/tmf_handle.h"

struct tmf_io_codes;

// The codes of a read of records.
extern const tmf_io_codes tmf_read_codes;

// Positions and counts are signed 32-bit numbers that wrap.
int32_t tmf_wrapping_add(int32_t a, int32_t b);

// Whether a record may be at an offset.  A damaged area may name a place before the
// data area, where the bookkeeping lies, or none at all.  0 or a code.
int tmf_check_place(const tmf_handle *h, int32_t at);

// ---- writing

// Puts the frame of a record of n bytes at p, and an end mark behind it, which are
// record_overhead + n + TMF_END_MARK_SIZE bytes.  Returns where the next frame goes.
unsigned char *tmf_put_frame(const tmf_handle *h, unsigned char *p, const void *data, int n);

// Appends the record buffer, count frames of length bytes in all and the end mark, and takes them
// into the common area; reached is the greatest offset that one of them ends at.  0, or a code and
// none of them.
int tmf_append_frames(tmf_handle *h, int count, int length, int32_t reached);

// ---- reading

// Reads the first record into buf of len bytes and removes it unless flags has
// TMF_READ_KEEP.  Bytes copied, 0 without a record, or a code.
int tmf_read_record(tmf_handle *h, void *buf, int len, int flags);

// Reads the handle's next record in copy mode; changes nothing in the file.
int tmf_read_record_copy(tmf_handle *h, void *buf, int len);

// Records that a handle in copy mode has not read yet; 0 with a code behind a repair that cut off
// what it had read.
int tmf_records_to_copy(const tmf_handle *h, int *code);

// What a handle has read: so many records more, the last one at offset last; in copy mode the next
// one is at offset end.
void tmf_count_read(tmf_handle *h, int records, int32_t last);
void tmf_copied(tmf_handle *h, int records, int32_t end);

// ---- removing

// Removes the first records, which take so many bytes with their frames.
int tmf_delete_records(tmf_handle *h, int records, int32_t bytes);

#endif
