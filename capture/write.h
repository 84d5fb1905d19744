// Writing log records to the capture files, and opening and closing them.
#ifndef CAPTURE_WRITE_H
#define CAPTURE_WRITE_H

#include <cstdint>

struct capfil;
struct capinfo;
struct log_record;

// Write one record to every capture file that selects it, in command-line
// order.  Return 0; the conversion result of the last text file when that is not
// 0; otherwise -1 when a file could not be written.
int capture_write_insert(capinfo *ci, const log_record *record);
int capture_write_update(capinfo *ci, const log_record *record);
int capture_write_delete(capinfo *ci, const log_record *record);

// Writes the length bytes of the record buffer, opening the file first when it
// is not open; 0 or an error code.
int cap_write_buf(capfil *cf, int32_t length);

int cap_open_capture_file(capfil *cf);

// Releases the record buffer, closes the file and reports how many records it
// got; 0 or the close result.
int cap_close_capture_file(capfil *cf);

// Closes all capture files and releases the capture configuration; 0 or the
// first close result that is not.
int capture_close(capinfo *ci);

#endif
