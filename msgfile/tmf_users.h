// Users of a file: the registration maps of the common area, the lock slot that
// shows a user alive, and the purge of users that died.
#ifndef MSGFILE_TMF_USERS_H
#define MSGFILE_TMF_USERS_H

#include "msgfile/tmf_handle.h"

// Registers a reader or a writer in the common area's copy: its slot, 0 or more,
// or a code.  mode: the TMF_MODE_ bits of the open.
int tmfc_get_reader_user_id(tmf_common *common, int mode);
int tmfc_get_writer_user_id(tmf_common *common, int mode);

// Removes a registration; TMF_EINTERNAL when there is none.
int tmfc_clear_reader_user_id(tmf_common *common, int id);
int tmfc_clear_writer_user_id(tmf_common *common, int id);

// Lock the handle's own slot and write the process id into it.  0, a code, or 1
// when another process holds the slot.
int tmf_lock_user_reader(tmf_handle *h);
int tmf_lock_user_writer(tmf_handle *h);
// Write 0 into the own slot and unlock it.
int tmf_unlock_user_reader(tmf_handle *h);
int tmf_unlock_user_writer(tmf_handle *h);

// Process id in slot i of a kind.
int tmf_read_reader_data(tmf_handle *h, int i, int32_t *pid);
int tmf_write_reader_data(tmf_handle *h, int i, int32_t pid);
int tmf_read_writer_data(tmf_handle *h, int i, int32_t *pid);
int tmf_write_writer_data(tmf_handle *h, int i, int32_t pid);

// Frees slot i when nobody holds its lock any more.
int tmf_check_reader(tmf_handle *h, int i);
int tmf_check_writer(tmf_handle *h, int i);

// Free the slots of all dead users of a kind, or of both; stop at the first
// error.
int tmf_update_reader_info(tmf_handle *h);
int tmf_update_writer_info(tmf_handle *h);
int tmf_update_users(tmf_handle *h);

#endif
