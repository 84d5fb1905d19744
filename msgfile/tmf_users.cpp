// Registration, slots and purge.  Readers and writers differ by a row of data:
// which fields of the common area are theirs and which codes their slots give.
#include "msgfile/tmf_users.h"

#include "msgfile/tmf_common.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmf_lock.h"
#include "msgfile/tmu.h"

#include <unistd.h>

struct user_kind {
    bool is_reader;
    int16_t tmf_common::*count;
    int16_t tmf_common::*slot_size;
    int (*slots)(const tmf_common *);
    unsigned char *(*map)(tmf_common *);
    uint16_t exclusive_flag;
    int limit; // users; the format's number, whatever the area says
    int too_many;
    int exclusive;
    int present;
    int locked;
    tmf_io_codes read;
    tmf_io_codes write;
};

static constexpr user_kind reader_kind = {
    .is_reader = true,
    .count = &tmf_common::num_readers,
    .slot_size = &tmf_common::reader_slot_size,
    .slots = tmfc_reader_slots,
    .map = [](tmf_common *common) { return common->reader_map; },
    .exclusive_flag = TMF_FLAG_READER_EXCLUSIVE,
    .limit = TMF_MAX_READERS,
    .too_many = TMF_EMAXREADERS,
    .exclusive = TMF_EREADER_EXCLUSIVE,
    .present = TMF_EREADER_PRESENT,
    .locked = TMF_EREADER_LOCKED,
    .read = {TMF_ESEEK_READER, TMF_ESEEK_READER, TMF_EREAD_READER, TMF_EREAD_READER_EOF},
    .write = {TMF_ESEEK_READER, TMF_ESEEK_READER, TMF_EWRITE_READER, TMF_EWRITE_READER_EOF},
};

static constexpr user_kind writer_kind = {
    .is_reader = false,
    .count = &tmf_common::num_writers,
    .slot_size = &tmf_common::writer_slot_size,
    .slots = tmfc_writer_slots,
    .map = [](tmf_common *common) { return common->writer_map; },
    .exclusive_flag = TMF_FLAG_WRITER_EXCLUSIVE,
    .limit = TMF_MAX_WRITERS,
    .too_many = TMF_EMAXWRITERS,
    .exclusive = TMF_EWRITER_EXCLUSIVE,
    .present = TMF_EWRITER_PRESENT,
    .locked = TMF_EWRITER_LOCKED,
    .read = {TMF_ESEEK_WRITER, TMF_ESEEK_WRITER, TMF_EREAD_WRITER, TMF_EREAD_WRITER_EOF},
    .write = {TMF_ESEEK_WRITER, TMF_ESEEK_WRITER, TMF_EWRITE_WRITER, TMF_EWRITE_WRITER_EOF},
};

// ---- registration in the common area

static int get_user_id(tmf_common *common, int mode, const user_kind &kind)
{
    int16_t &count = common->*kind.count;
    if (count > kind.limit - 1)
        return kind.too_many;
    if ((common->flags & kind.exclusive_flag) != 0)
        return kind.exclusive;
    if ((mode & TMF_MODE_EXCLUSIVE) != 0) {
        if (count != 0)
            return kind.present;
        // Kept: the flag stays set when no slot is found below.
        common->flags = static_cast<uint16_t>(common->flags | kind.exclusive_flag);
    }
    unsigned char *map = kind.map(common);
    const int slots = kind.slots(common);
    for (int id = 0; id < slots; id++) {
        if (tmu_get_bit(map, id) != 0)
            continue;
        tmu_set_bit(map, id);
        count = static_cast<int16_t>(count + 1);
        tmfc_set_dirty(common, 1);
        return id;
    }
    return TMF_EINTERNAL;
}

static int clear_user_id(tmf_common *common, int id, const user_kind &kind)
{
    unsigned char *map = kind.map(common);
    if (id < 0 || id >= kind.limit || tmu_get_bit(map, id) == 0)
        return TMF_EINTERNAL;
    tmu_clear_bit(map, id);
    int16_t &count = common->*kind.count;
    count = static_cast<int16_t>(count - 1);
    if (count == 0)
        common->flags = static_cast<uint16_t>(common->flags & ~kind.exclusive_flag);
    tmfc_set_dirty(common, 1);
    return 0;
}

int tmfc_get_reader_user_id(tmf_common *common, int mode)
{
    return get_user_id(common, mode, reader_kind);
}

int tmfc_get_writer_user_id(tmf_common *common, int mode)
{
    return get_user_id(common, mode, writer_kind);
}

int tmfc_clear_reader_user_id(tmf_common *common, int id)
{
    return clear_user_id(common, id, reader_kind);
}

int tmfc_clear_writer_user_id(tmf_common *common, int id)
{
    return clear_user_id(common, id, writer_kind);
}

// ---- slot data

// Bytes of a slot that hold the process id; an area with another slot size
// leaves the rest of a slot unused.
static int pid_bytes(const tmf_handle *h, const user_kind &kind)
{
    return tmu_within(h->common->*kind.slot_size, 0, sizeof(int32_t));
}

// The place of slot i in the file.  0, or the code of a slot where none can be: a
// damaged area may put slots into the common area or among the records, or give them
// no size, which a lock would take for the rest of the file.
static int find_slot(const tmf_handle *h, int i, const user_kind &kind, int32_t *at)
{
    *at = tmfc_calc_user_lock_offset(h->common, i, kind.is_reader);
    const bool sound = h->common->*kind.slot_size > 0 && *at >= TMF_COMMON_SIZE &&
                       *at + int64_t{pid_bytes(h, kind)} <= h->common->data_start;
    return sound ? 0 : kind.read.no_place;
}

static int read_data(tmf_handle *h, int i, int32_t *pid, const user_kind &kind)
{
    int32_t at;
    const int code = find_slot(h, i, kind, &at);
    if (code != 0)
        return code;
    *pid = 0;
    const int n = pid_bytes(h, kind);
    return tmf_code_of(tmf_read_at(h, at, pid, static_cast<size_t>(n), n, kind.read));
}

static int write_data(tmf_handle *h, int i, int32_t pid, const user_kind &kind)
{
    int32_t at;
    const int code = find_slot(h, i, kind, &at);
    if (code != 0)
        return code;
    const int n = pid_bytes(h, kind);
    return tmf_code_of(tmf_write_at(h, at, &pid, static_cast<size_t>(n), n, kind.write));
}

int tmf_read_reader_data(tmf_handle *h, int i, int32_t *pid)
{
    return read_data(h, i, pid, reader_kind);
}

int tmf_write_reader_data(tmf_handle *h, int i, int32_t pid)
{
    return write_data(h, i, pid, reader_kind);
}

int tmf_read_writer_data(tmf_handle *h, int i, int32_t *pid)
{
    return read_data(h, i, pid, writer_kind);
}

int tmf_write_writer_data(tmf_handle *h, int i, int32_t pid)
{
    return write_data(h, i, pid, writer_kind);
}

// ---- the own slot

static int lock_user(tmf_handle *h, const user_kind &kind)
{
    if (h->slot_locked != 0)
        return 0;
    const int code = find_slot(h, h->user_id, kind, &h->slot_offset);
    if (code != 0)
        return code;
    h->slot_size = h->common->*kind.slot_size;
    const int result = tf_lock_file_nowait(h->fd, h->slot_offset, h->slot_size);
    if (result > 1)
        return kind.locked;
    // Kept: a slot that another process holds counts as locked, too, so that the
    // close behind this failed open writes 0 into it.
    h->slot_locked = 1;
    if (result == 0 && h->record_pids != 0)
        return write_data(h, h->user_id, getpid(), kind);
    return result;
}

static int unlock_user(tmf_handle *h, const user_kind &kind)
{
    if (h->slot_locked == 0)
        return 0;
    const int write_code = h->record_pids != 0 ? write_data(h, h->user_id, 0, kind) : 0;
    const int unlock_code = h->file->unlock(h->fd, h->slot_offset, h->slot_size);
    h->slot_locked = 0;
    return unlock_code != 0 ? unlock_code : write_code;
}

int tmf_lock_user_reader(tmf_handle *h)
{
    return lock_user(h, reader_kind);
}

int tmf_lock_user_writer(tmf_handle *h)
{
    return lock_user(h, writer_kind);
}

int tmf_unlock_user_reader(tmf_handle *h)
{
    return unlock_user(h, reader_kind);
}

int tmf_unlock_user_writer(tmf_handle *h)
{
    return unlock_user(h, writer_kind);
}

// ---- purge

// 1 while the slot's owner lives; 0 once its registration is removed; or a code.
static int purge_slot(tmf_handle *h, int i, const user_kind &kind)
{
    int32_t at;
    const int code = find_slot(h, i, kind, &at);
    if (code != 0)
        return code;
    const int held = tf_lock_file_test(h->fd, at, h->common->*kind.slot_size);
    if (held != 0)
        return held;
    int32_t pid;
    if (h->record_pids != 0 && read_data(h, i, &pid, kind) == 0)
        (void)write_data(h, i, 0, kind); // a slot that keeps its number is free all the same
    return clear_user_id(h->common, i, kind);
}

int tmf_check_reader(tmf_handle *h, int i)
{
    const int result = purge_slot(h, i, reader_kind);
    if (result < 0)
        return result;
    if (result == 0)
        tmc_remove_waitlist(h->common, i);
    return 0;
}

int tmf_check_writer(tmf_handle *h, int i)
{
    const int result = purge_slot(h, i, writer_kind);
    return result < 0 ? result : 0;
}

static int update_info(tmf_handle *h, const user_kind &kind, int (*check)(tmf_handle *, int))
{
    const bool own_kind = (h->is_reader != 0) == kind.is_reader;
    const int slots = kind.slots(h->common);
    for (int i = 0; i < slots; i++) {
        if (tmu_get_bit(kind.map(h->common), i) == 0 || (own_kind && i == h->user_id))
            continue;
        const int code = check(h, i);
        if (code != 0)
            return code;
    }
    return 0;
}

int tmf_update_reader_info(tmf_handle *h)
{
    const int code = update_info(h, reader_kind, tmf_check_reader);
    // Kept: only the readers' flag is looked after here, and the change alone is
    // no reason to write the area.
    if (code == 0 && h->common->num_readers == 0)
        h->common->flags = static_cast<uint16_t>(h->common->flags & ~TMF_FLAG_READER_EXCLUSIVE);
    return code;
}

int tmf_update_writer_info(tmf_handle *h)
{
    return update_info(h, writer_kind, tmf_check_writer);
}

int tmf_update_users(tmf_handle *h)
{
    const int code = tmf_update_reader_info(h);
    return code != 0 ? code : tmf_update_writer_info(h);
}
