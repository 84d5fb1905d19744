// Waiting for a record: the wait list and the rounds of a wait.
#ifndef MSGFILE_TMF_WAIT_H
#define MSGFILE_TMF_WAIT_H

#include "msgfile/tmf_handle.h"

// Results of tmf_wait beside the codes.
constexpr int TMF_WAIT_WOKEN = 1;
constexpr int TMF_WAIT_TIMEOUT = 2;
constexpr int TMF_WAIT_SIGNAL = 3;

// Waits on the port for a datagram; a busy port is changed for another one.
int tmf_wait(tmf_handle *h, uint16_t *port, int seconds);

// Waits until the caller should look for a record again (0), or gives a code.  The
// common area is locked before and, unless an error came between, afterwards.
int tmf_fread_wait(tmf_handle *h, int flags, int timeout);

#endif
