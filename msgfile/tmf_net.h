// Wake-up datagrams: sending them, and the socket that a reader waits on.
#ifndef MSGFILE_TMF_NET_H
#define MSGFILE_TMF_NET_H

#include "msgfile/tmf_handle.h"

#include <cstddef>

// Starting and stopping of the network layer: nothing on this platform; 0.
int tmf_start_net();
int tmf_net_cleanup();

// Moves a descriptor that took the number of a closed standard stream out of the
// way of what the program prints.  The new descriptor, or -1 with errno set and fd
// closed.
int tmf_above_standard(int fd);

// Fills the 12 bytes of the datagram of a kind, TMF_SIGNAL_WRITE or _CLOSE.
void tmfc_calc_msg(const tmf_common *common, char kind, unsigned char *message);

// Whether a datagram counts as a wake-up: every one does, since the reader looks
// for itself.
bool tmfc_valid_msg(const unsigned char *message, int length);

// Wakes all waiting readers.  0, or the code of the first send that failed, behind
// which no further reader is woken.
int tmf_signal_readers(tmf_handle *h, char kind);

// Sends n bytes to a port of the address.  0 or TMF_ESEND.
int tmf_udp_send(tmf_handle *h, const unsigned char addr[4], uint16_t port, const void *buf,
                 size_t n);

// Has the receive socket bound to port before a wait for seconds begins, so that no
// wake-up of that wait is lost.  0, or the code that tmf_udp_recv would give.
int tmf_udp_bind(tmf_handle *h, uint16_t port, int seconds);

// Receives a datagram of at most n bytes on port, waiting for seconds (below 1:
// without limit).  Its length, 0 when the time is over, TMF_EPORTBUSY, TMF_EINTERRUPT, or
// another code.  The socket stays bound for the next call.
int tmf_udp_recv(tmf_handle *h, uint16_t port, int seconds, void *buf, size_t n);

// Switches a socket to non-blocking or back.  0 or TMF_ENONBLOCK, which only
// switching on gives.
int tmf_set_nonblocking(tmf_handle *h, int socket, int on);

int tmf_close_socket(int socket);
// Closes the handle's sockets.
void tmf_net_close(tmf_handle *h);

#endif
