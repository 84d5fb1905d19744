// What the library answers about the record being delivered: its position, the
// items of its dataset and the session behind it.
#ifndef FWUTIL_FWU_CURRENT_H
#define FWUTIL_FWU_CURRENT_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_start.h"

#include <cstdint>

// Forgets everything: a new run begins at this position.
void fwu_current_reset(const fwu_position &position);

// A new log file or transaction begins: forgets its layouts or its session.
void fwu_current_begin_file();
void fwu_current_begin_transaction();

// Keep what such an entry says; false when it is malformed.
bool fwu_current_take_layout(const fwu_entry &entry);
bool fwu_current_take_session(const fwu_entry &entry);

// The record about to be delivered; change must stay valid until it is over.
void fwu_current_set(const fwu_change &change, const fwu_position &position);
// No record is being delivered any more; the position stays.
void fwu_current_clear();

fwu_position fwu_current_position();
// Next item of the record's dataset, null behind the last one.
const fwu_item *fwu_current_next_item();
// The session of the record's transaction, empty when there is none.
const fwu_session_view &fwu_current_session();

#endif
