// Opening and closing: the handle's life.
#ifndef MSGFILE_TMF_OPEN_H
#define MSGFILE_TMF_OPEN_H

#include "msgfile/tmf_handle.h"

// A handle that owns fd and a copy of path; null when memory is short.
tmf_handle *tmf_new(int fd, const char *path, int mode);

// Closes the descriptor, which drops the process's locks on the file, and frees
// the handle; the registration stays in the file.  Null does nothing.
void tmf_free_mf(tmf_handle *h);

// Opens or creates the file and reads its common area, which stays locked.  Null
// on failure, with the code as the open error.
tmf_handle *tmf_init_tmf_file(const char *path, int mode);

// Open and register.  Null on failure, with the code as the open error.
tmf_handle *tmf_fopen_read(const char *path, int mode);
tmf_handle *tmf_fopen_write(const char *path, int mode);

// Removes the registration and frees the handle; the caller has locked the common
// area.  The result of writing the area back.
int tmf_close_file(tmf_handle *h);

#endif
