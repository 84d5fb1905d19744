// The file layer under a capture file: hides whether it is a message file or a
// text file, and prints the detail of file errors.
#ifndef CAPTURE_EBMF_H
#define CAPTURE_EBMF_H

#include <cstdint>
#include <cstdio>

struct ebmf {
    int32_t is_text;   // the ascii_flags given at open; nonzero: a text file
    void *tmfh;        // owned; message-file handle, null for a text file
    FILE *textfp;      // owned; stream of a text file; its buffer stays empty
    int32_t os_errno;  // error number shown for text files; nothing sets it
    int64_t text_size; // bytes of whole records written to the text file
};

// errno of the last failed open of a text file; cleared by the next open and
// when it has been shown.
extern int32_t fil_open_os_errno;

// Opens a capture file; null on failure.  A text file (ascii_flags nonzero) is
// emptied when it exists.
ebmf *ebmf_fopen(const char *path, int tmf_mode, uint32_t ascii_flags);

// Writes one record; 0, or nonzero on failure, after which no part of the record
// is left in the file.  For a text file the two bytes behind the record must be
// there: they receive the line end and a NUL.
int ebmf_fwrite(ebmf *file, char *buffer, int32_t length);

// File number of the open file; 0 or an error code.
int ebmf_getfnum(const ebmf *file, int32_t *number);

// Closes the file and frees the handle in every case; nonzero on failure.
int ebmf_fclose(ebmf *file);

// Print the detail of a file error as "CAPERR: ..." and then the formatted
// message through set_error, whose result they return.  set_error_mf takes a
// message-file handle, or null for the last failed open; set_error_emf takes
// the file layer's handle, or null for the last failed open of a text file.
int set_error_mf(const void *tmfh, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int set_error_emf(const ebmf *file, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
