// The file layer under a capture file: hides of which format it is, and prints the
// detail of file errors.
#ifndef CAPTURE_EBMF_H
#define CAPTURE_EBMF_H

#include "msgfile/tmf.h"

#include <cstdint>
#include <cstdio>

struct cap_format;

struct ebmf {
    int32_t is_text;          // the ascii_flags given at open
    tmf_handle *tmfh;         // owned; message-file handle, null for a text file
    FILE *textfp;             // owned; stream of a text file; its buffer stays empty
    int32_t os_errno;         // error number shown for text files; nothing sets it
    int32_t write_errno;      // of the last failed write of a text file; told beside it
    const cap_format *format; // that ascii_flags chose
};

// errno of the last failed open of a text file; cleared by the next open and
// when it has been shown.
extern int32_t fil_open_os_errno;

// Bytes that a detail takes at most, with its terminating NUL.
constexpr size_t EBMF_DETAIL_SIZE = 1024;
static_assert(EBMF_DETAIL_SIZE >= TMF_ERRMSG_SIZE);

// Opens a capture file; null on failure.  A text file (ascii_flags nonzero) that
// exists is emptied, appended to or refused by g_capture_settings; a message file is
// created or joined as a writer, with the mode of tmf_fopen.
ebmf *ebmf_fopen(const char *path, int tmf_mode, uint32_t ascii_flags);

// Writes one record; 0, or nonzero on failure (for a message file the library's
// code), after which no part of the record is left in the file.  For a text file
// the two bytes behind the record must be there: they receive the line end and a
// NUL.
int ebmf_fwrite(ebmf *file, char *buffer, int32_t length);

// File number of the open file; 0 or an error code.
int ebmf_getfnum(const ebmf *file, int32_t *number);

// Of a file with a limit: where its next record goes, whoever writes it, and where the
// record ends that this handle wrote last.  Past 2 GiB it shows negative.  0 or an error
// code.
int ebmf_end(const ebmf *file, int32_t *end);
int ebmf_record_end(const ebmf *file, int32_t *end);

// Closes the file and frees the handle in every case; nonzero on failure.
int ebmf_fclose(ebmf *file);

// What the library or the system says of the file's last error, in detail of
// EBMF_DETAIL_SIZE bytes.  file may be null: the last failed open of a text file,
// which is forgotten then.
void ebmf_detail(const ebmf *file, char *detail);

// The same of the last failed open of a file of that format.
void ebmf_open_detail(const cap_format *format, char *detail);

// Print the detail of a file error as "CAPERR: ..." and then the formatted
// message through set_error, whose result they return.  set_error_mf takes a
// message-file handle, or null for the last failed open; set_error_emf takes
// the file layer's handle, or null for the last failed open of a text file;
// set_error_detail takes a detail that was asked for before the file was closed.
int set_error_mf(tmf_handle *tmfh, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int set_error_emf(const ebmf *file, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int set_error_detail(const char *detail, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#endif
