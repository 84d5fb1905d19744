// The size limit of message capture files: when a file is full, and what comes
// after it.  Text files have no limit.
#ifndef CAPTURE_ROLLOVER_H
#define CAPTURE_ROLLOVER_H

#include <cstdint>

struct capfil;

// The limit in bytes: KESTRO_MAXCAP from the environment, or 64 KiB below 2 GiB.
int32_t get_cap_maxbytes();

// The mode for opening the capture file as a message file.
int cap_open_mode(const capfil *cf);

// Tests a message file that has just been opened, which others may have filled.  0,
// or the code of the message that it is full; rolls over where that is wanted.
int check_msg_full(capfil *cf);

// Tests the file after a record; the same results.  The record stays where it is.
int cap_check_eof(capfil *cf);

// Closes the file and opens the next free name.  0 or an error code, after which
// the file has no handle; the next record opens the name that it then has.
int cap_rollover(capfil *cf);

#endif
