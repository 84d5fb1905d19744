// The record buffer: the bytes in which a handle builds and reads records.
#ifndef MSGFILE_TMF_BUFFER_H
#define MSGFILE_TMF_BUFFER_H

#include "msgfile/tmf_handle.h"

// Size of the record buffer at open, and what it grows by beyond the need.
constexpr int TMF_FIRST_BUFFER = 1024;
constexpr int TMF_BUFFER_SLACK = 128;

// Makes the record buffer hold n bytes at least; its contents may change.  0, or
// TMF_EINTERNAL when memory is short.
int tmf_grow_record_buffer(tmf_handle *h, int n);

#endif
