// The bracket around every operation: lock the common area, read it into the
// handle, work on the copy, write it back if it changed, unlock.
#ifndef MSGFILE_TMF_AREA_H
#define MSGFILE_TMF_AREA_H

#include "msgfile/tmf_handle.h"

// Waits for the common lock of the file by a row's function, and tries again what
// only looks like a deadlock.  0 or a code.
int tmf_wait_common(int fd, const tmf_file_row &row);

// The first read of a file: makes a new file of an empty one, checks the format,
// brings the area into this host's order and prepares the handle.  0 with the
// area locked, or a code with it unlocked.
int tmf_ensure_common(tmf_handle *h);

// Locks the area and reads it.  0, or a code with the area unlocked.
int tmf_get_common(tmf_handle *h);

// Writes the area back when it is dirty and unlocks it.  0 or a code; unlocked
// in every case.  TMF_EINTERNAL when changes were made without the lock.
int tmf_release_common(tmf_handle *h);

// Writes the locked area to the file and clears the dirty flag.
int tmf_write_common(tmf_handle *h);

// Empties the data area and cuts a long file down.
int tmf_reset(tmf_handle *h);

// Unlocks the area without writing it.
int tmf_unlock_common(tmf_handle *h);

#endif
