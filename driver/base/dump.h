// Hex dumps on standard output.
#ifndef DRIVER_BASE_DUMP_H
#define DRIVER_BASE_DUMP_H

// Prints the title, then len bytes at buf as lines of 16 (offset modulo 65,536,
// hex, characters); only the title when len is 0 or negative or buf is null.
// Returns the result of the last puts.
int hexdump(const char *title, const void *buf, int len);

// The same with a formatted title, cut to 255 characters.
int dumprec(const void *buf, int len, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#endif
