// Locking, reading and writing of the common area; the making of a new file.
#include "msgfile/tmf_area.h"

#include "msgfile/tmf_buffer.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmu.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

// The pause before a lock is tried again: about as long as another process's call.
static constexpr timespec lock_pause = {.tv_sec = 0, .tv_nsec = 100'000};

int tmf_wait_common(int fd, const tmf_file_row &row)
{
    for (;;) {
        errno = 0; // the primitive may fail before it asks the system
        const int result = row.lock_wait(fd, 0, TMF_COMMON_SIZE);
        if (result != TMF_ELOCK_WAIT || errno != EDEADLK)
            // A waiting lock that reports another holder has failed; as a result of a
            // read its 1 would stand for one byte.
            return result > 0 ? TMF_ELOCK_WAIT : result;
        // The system looks for circles of processes, not of threads.  Who has a common
        // lock waits for no other lock, so that it comes free.
        (void)nanosleep(&lock_pause, nullptr); // a signal may make it shorter
    }
}

static int lock_common(tmf_handle *h)
{
    const int code = tmf_wait_common(h->fd, *h->file);
    if (code == 0)
        h->common_locked = 1;
    return code;
}

int tmf_unlock_common(tmf_handle *h)
{
    if (h->common_locked == 0)
        return 0;
    h->common_locked = 0;
    return h->file->unlock(h->fd, 0, TMF_COMMON_SIZE);
}

int tmf_write_common(tmf_handle *h)
{
    static constexpr tmf_io_codes codes = {.no_place = TMF_ESEEK_COMMON,
                                           .elsewhere = TMF_ESEEK_COMMON_EOF,
                                           .failed = TMF_EWRITE_COMMON,
                                           .cut = TMF_EWRITE_COMMON_EOF};
    const ssize_t written = h->file->write(h->fd, 0, h->common, TMF_COMMON_SIZE, codes);
    const bool cut = written >= 0 && written < TMF_COMMON_SIZE;
    // A part of it is put right: numbers of users without their slots would stay so, since
    // no purge finds a user that has no slot.
    if (cut && written > 0)
        (void)h->file->write(h->fd, 0, h->common, TMF_COMMON_SIZE, codes);
    tmfc_set_dirty(h->common, 0);
    return cut ? codes.cut : tmf_code_of(written);
}

int tmf_reset(tmf_handle *h)
{
    tmf_common *common = h->common;
    common->read_offset = common->data_start;
    common->write_offset = common->data_start;
    if (common->high_water <= TMF_EMPTY_SIZE_LIMIT)
        return 0;
    // The file says that it is empty before its records go, so that a reader that
    // is killed in between leaves no count of records that are not there.
    const int code = tmf_write_common(h);
    if (code != 0)
        return code;
    if (ftruncate(h->fd, TMF_EMPTY_SIZE_LIMIT) != 0)
        return TMF_ETRUNCATE;
    common->high_water = common->write_offset;
    return 0;
}

// Writes a new file's 4096 zero bytes behind the common area.
static int tmf_write_lock_area(tmf_handle *h)
{
    static const unsigned char zeros[TMF_LOCK_AREA_SIZE] = {};
    static constexpr tmf_io_codes codes = {.no_place = TMF_ESEEK_LOCKS,
                                           .elsewhere = TMF_ESEEK_LOCKS_EOF,
                                           .failed = TMF_EWRITE_LOCKS,
                                           .cut = TMF_EWRITE_LOCKS_EOF};
    // Kept: a short write passes from the size of the common area on.
    return tmf_code_of(tmf_write_at(h, h->common_copy.lock_area_offset, zeros, sizeof(zeros),
                                    TMF_COMMON_SIZE, codes));
}

// Makes a message file of the empty file.
static int init_file(tmf_handle *h)
{
    static constexpr tmf_io_codes codes = {.no_place = TMF_ESEEK_COMMON,
                                           .elsewhere = TMF_ESEEK_COMMON_EOF,
                                           .failed = TMF_EINIT_WRITE,
                                           .cut = TMF_EINIT_WRITE_EOF};
    tmfc_init_tmc(&h->common_copy);
    int code = tmf_reset(h);
    if (code == 0)
        code = tmf_code_of(
            tmf_write_at(h, 0, &h->common_copy, TMF_COMMON_SIZE, TMF_COMMON_SIZE, codes));
    if (code == 0)
        return tmf_write_lock_area(h);
    // A part of the area would be taken for a foreign file by the next user, who
    // may find room on the disk: leave the file as it was, empty.
    if (code == TMF_EINIT_WRITE_EOF) {
        [[maybe_unused]] const int ignored =
            ftruncate(h->fd, 0); // the write's error is the one to report
    }
    return code;
}

static int read_first(tmf_handle *h)
{
    // The lock has just positioned the descriptor at 0.
    const ssize_t got = read(h->fd, &h->common_copy, TMF_COMMON_SIZE);
    if (got < 0)
        return TMF_EINIT_READ;
    // A file may be as short as that.  Where the system has given but a part, what the
    // rest says of the users must not be taken for empty.
    if (got > 0 && got < TMF_COMMON_SIZE &&
        read(h->fd, reinterpret_cast<char *>(&h->common_copy) + got,
             static_cast<size_t>(TMF_COMMON_SIZE - got)) < 0)
        return TMF_EINIT_READ;
    h->common = &h->common_copy;
    if (got == 0) {
        const int code = init_file(h);
        if (code != 0)
            return code;
    }
    return tmfc_check(h->common);
}

int tmf_ensure_common(tmf_handle *h)
{
    int code = lock_common(h);
    if (code != 0)
        return code;
    code = read_first(h);
    if (code == 0) {
        // An area in the other byte order may have any version: a frame never has
        // less than its three words (version 2), nor so much that no data fits.
        h->record_overhead = tmu_within(TMF_OVERHEAD_UNIT * h->common->format_version,
                                        TMF_FRAME_SIZE, TMF_MAX_FRAME - 1);
        h->max_record_len = TMF_MAX_FRAME - h->record_overhead;
        code = tmf_grow_record_buffer(h, TMF_FIRST_BUFFER);
    }
    if (code != 0) {
        (void)tmf_unlock_common(h); // the first error is the one to report
        return code;
    }
    h->copy_offset = h->common->read_offset;
    h->copy_count = 0;
    h->last_record_end = 0;
    h->usual_frame = TMF_FIRST_BUFFER;
    h->usual_record = TMF_FIRST_BUFFER;
    return 0;
}

// Reads the area.  0, or a code; with that of a failed seek the area was read.
static int read_area(const tmf_handle *h, tmf_common *fresh)
{
    static constexpr tmf_io_codes codes = {.no_place = TMF_ESEEK_COMMON,
                                           .elsewhere = TMF_ESEEK_COMMON_EOF,
                                           .failed = TMF_EREAD_COMMON,
                                           .cut = TMF_EREAD_COMMON_EOF};
    const int code = tmf_code_of(tmf_read_at(h, 0, fresh, TMF_COMMON_SIZE, TMF_COMMON_SIZE, codes));
    if (code != codes.no_place && code != codes.elsewhere)
        return code;
    // Kept: a failed seek does not keep the area from being read, where the lock has
    // left the descriptor, and only a failed read takes the place of its code.
    const ssize_t got = read(h->fd, fresh, TMF_COMMON_SIZE);
    if (got < 0)
        return codes.failed;
    return got < TMF_COMMON_SIZE ? codes.cut : code;
}

int tmf_get_common(tmf_handle *h)
{
    int code = lock_common(h);
    if (code != 0)
        return code;
    tmf_common fresh;
    code = read_area(h, &fresh);
    if (code == 0 || code == TMF_ESEEK_COMMON || code == TMF_ESEEK_COMMON_EOF) {
        const int foreign = tmfc_recheck(&fresh);
        if (foreign == 0) {
            *h->common = fresh;
            tmfc_set_dirty(h->common, 0);
        } else if (code == 0) {
            code = foreign; // the copy stays that of a message file
        }
    }
    if (code != 0)
        (void)tmf_unlock_common(h); // the first error is the one to report
    return code;
}

int tmf_release_common(tmf_handle *h)
{
    const bool dirty = tmfc_is_dirty(h->common);
    if (h->common_locked == 0)
        return dirty ? TMF_EINTERNAL : 0;
    const int write_code = dirty ? tmf_write_common(h) : 0;
    const int unlock_code = tmf_unlock_common(h);
    return write_code != 0 ? write_code : unlock_code;
}
