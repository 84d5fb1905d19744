// The handle behind every call: one per open file.
#ifndef MSGFILE_TMF_HANDLE_H
#define MSGFILE_TMF_HANDLE_H

#include "msgfile/tmf.h"
#include "msgfile/tmf_layout.h"

#include <netinet/in.h>

// Bytes of a text attached to an error, without the terminating NUL.
constexpr int TMF_ATTACHED_TEXT = 128;

constexpr int TMF_NO_USER = -1;

struct tmf_send_state {
    uint16_t port;      // last destination
    int socket;         // owned; 0 when there is none
    sockaddr_in addr;   // last destination
    socklen_t addr_len; // bytes of addr
};

struct tmf_receive_state {
    uint16_t port; // that the socket is bound to
    int socket;    // owned; 0 when there is none
};

struct tmf_file_row;

struct tmf_handle {
    int fd;                                 // owned; holds the process's locks on the file
    int error;                              // last code, 0 for none
    int os_errno;                           // system error attached to error, or 0
    char net_error_text[TMF_ATTACHED_TEXT]; // "#%d on %s" of the last network error, or empty
    int is_reader;                          // nonzero: opened with TMF_MODE_READ
    int copy_mode;                          // nonzero: opened with TMF_MODE_COPY
    int exclusive;                          // nonzero: opened with TMF_MODE_EXCLUSIVE
    char *path;                             // owned
    void *aux_buffer;                       // owned; null
    int record_pids;        // 1: the own slot holds the process id, dead users' slots are cleared
    int common_locked;      // 1 while the common area is locked by this handle
    int slot_locked;        // 1 while the own slot is locked
    int32_t slot_offset;    // of the own slot in the file
    int slot_size;          // bytes locked there
    tmf_common *common;     // common_copy once it has been read, null before
    tmf_common common_copy; // the area as last read, with changes not yet written
    int max_record_len;     // bytes of data
    int user_id;            // slot of the own kind; negative until registered
    uint16_t signal_port;   // UDP port that a reader waits on
    int record_overhead;    // bytes of a record's frame
    unsigned char *record_buffer; // owned; one framed record; only grows
    int record_buffer_size;       // its bytes
    int usual_frame;              // bytes that a read of a record asks for at first
    int usual_record;             // bytes of a record with its frame, in the last batch
    int records_read;             // by this handle; stays at INT_MAX once there
    int32_t copy_offset;          // copy mode: offset of the next record
    int copy_count;               // copy mode: records read
    int32_t last_record_end;      // writer: behind its last record; reader: its last one's start
    tmf_send_state send;
    tmf_receive_state receive;
    const tmf_file_row *file; // how locks, reads and writes get to their place: tmf_io.h
};

#endif
