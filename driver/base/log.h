// Error messages, the levelled diagnostic log, and two small text and file
// helpers that go with them.
#ifndef DRIVER_BASE_LOG_H
#define DRIVER_BASE_LOG_H

#include <cstddef>
#include <cstdint>

// Prints the message and a newline on standard error; returns -1.
int set_error(const char *msg);

// The same of one whose detail has been printed before it, for g_error_told.
int set_error_because(const char *msg, const char *detail);

// Called with each message behind its printing, and with its detail or null; null: nobody
// asks.
extern void (*g_error_told)(const char *msg, const char *detail);

// The same for a formatted message ("%m" included), cut to 1,023 characters.
int set_error_f(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Writes a time-stamped line to the log file, or to standard error when there
// is none or it cannot be opened, if level shares a bit with g_loglevel.
void logmsg(uint32_t level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Copies the log file name into buf; empty when lines go to standard error.
void get_log_fname(char *buf, size_t size);

// Copies src into the size bytes at dst, cut where needed and always
// terminated; writes nothing when size is 0.
void strmcpy(char *dst, const char *src, size_t size);

// Removes a file and says so on standard output; returns 0 or -1.
int remove_file(const char *path);

#endif
