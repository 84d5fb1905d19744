// The text form of a record image: every element of every item as a fixed-width
// column, one behind the other.
#ifndef ASCII_PUT_ASCII_H
#define ASCII_PUT_ASCII_H

#include <cstdint>

struct dsetinfo;

// Appends the text of one image at *length in the record buffer, which grows as
// needed and keeps RECBUF_SPARE bytes behind *bufsize, and moves *length behind the
// last column.  flags: ASCII_ bits.  Bytes of an element that the image does not
// hold read as zero.  Returns 0, or the code of the message reported; the columns
// written so far stay in the buffer then.
int put_ascii(uint32_t flags, char **buffer, int32_t *length, int32_t *bufsize, const void *image,
              int32_t image_length, const dsetinfo *dsets);

// Makes room for width bytes at length; 0, or the code of the message that
// refused a record too long to hold.
int check_buf(char **buffer, int32_t length, int32_t *bufsize, int64_t width);

#endif
