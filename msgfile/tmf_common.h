// The common area in memory: first contents, byte order, dirty flag, stamp,
// slot offsets, wake-up ports, the wait list.  Nothing here touches a file.
#ifndef MSGFILE_TMF_COMMON_H
#define MSGFILE_TMF_COMMON_H

#include "msgfile/tmf_layout.h"

// Fills a new file's area; positions are left to tmf_reset.
void tmfc_init_tmc(tmf_common *common);

// Checks magic, byte order and version of an area just read and brings it into
// this host's order.  0, TMF_ENOTMSG, TMF_EINCOMPATIBLE or TMF_EFORMAT.
int tmfc_check(tmf_common *common);

// 0 when the area still has the magic and this host's byte order, as every
// area does behind an open; otherwise TMF_ENOTMSG or TMF_EINCOMPATIBLE.
int tmfc_recheck(const tmf_common *common);

// Puts the numbers right that every file has alike, in an area in this host's order.
// False when they were.
bool tmfc_mend_fixed_numbers(tmf_common *common);

// Turns all host-order words around and sets the dirty flag.
void tmfc_reverse_common_byte_order(tmf_common *common);

// Marks the copy as changed (on nonzero) or as equal to the file.
void tmfc_set_dirty(tmf_common *common, int on);
bool tmfc_is_dirty(const tmf_common *common);

// A new incarnation of the file: stamps the time and sets the dirty flag.
void tmfc_first_user_setup(tmf_common *common);

// Slots that the file offers and the bit maps can hold, 0 or more.
int tmfc_reader_slots(const tmf_common *common);
int tmfc_writer_slots(const tmf_common *common);

// File offset of a user's slot.  A damaged area gives any number, wrapped to 32
// bits; the caller's seek refuses the negative ones.
int32_t tmfc_calc_user_lock_offset(const tmf_common *common, int id, bool is_reader);

// UDP port of reader slot i; the slot's default when none is stored or i is no
// slot.
uint16_t tmc_get_signal_port(const tmf_common *common, int i);
// Stores the port of reader slot i, 0 to 15; the caller sets the dirty flag.
void tmc_set_signal_port(tmf_common *common, int i, uint16_t port);
// The port to try when this one is busy.
uint16_t tmc_new_signal_port(const tmf_common *common, uint16_t port);

// Enter reader slot id with its port in the wait list, or take it off.
void tmc_add_waitlist(tmf_common *common, int id, uint16_t port);
void tmc_remove_waitlist(tmf_common *common, int id);

// Whether there is no record and still reason to wait for one.
bool tmfc_need_to_wait(const tmf_common *common, int flags);

#endif
