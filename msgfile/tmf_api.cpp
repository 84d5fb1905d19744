// The public calls, each a bracket around the work that another file does: take the
// common area, work, release it, keep the first error.  tmf_geterrno, tmf_geterrmsg
// and tmf_clearerr stand beside the error state that they show, tmf_check and
// tmf_repair beside their work.
#include "msgfile/tmf.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_batch.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_error.h"
#include "msgfile/tmf_net.h"
#include "msgfile/tmf_open.h"
#include "msgfile/tmf_record.h"
#include "msgfile/tmf_users.h"
#include "msgfile/tmf_wait.h"

#include <cstdarg>
#include <cstring>

static_assert(TMF_MAX_DATA == TMF_MAX_FRAME - TMF_FRAME_SIZE);

// The default wait of a limited tmf_fread, in seconds.
static constexpr int fread_timeout = 4;

static int no_handle()
{
    tmf_set_error(nullptr, TMF_EHANDLE);
    return TMF_EHANDLE;
}

tmf_handle *tmf_fopen(const char *path, int mode)
{
    if (path == nullptr || *path == '\0') {
        tmf_set_error(nullptr, TMF_ENONAME);
        return nullptr;
    }
    return (mode & TMF_MODE_READ) != 0 ? tmf_fopen_read(path, mode) : tmf_fopen_write(path, mode);
}

int tmf_fclose(tmf_handle *h)
{
    if (h == nullptr)
        return no_handle();
    const int code = tmf_get_common(h);
    if (code != 0) {
        tmf_free_mf(h);
        return code;
    }
    if (h->is_reader == 0)
        (void)tmf_signal_readers(h, TMF_SIGNAL_CLOSE); // the close goes on without them
    tmf_net_close(h);
    return tmf_close_file(h);
}

static int append(tmf_handle *h, const tmf_item *items, int count)
{
    int code = tmf_get_common(h);
    if (code == 0)
        code = tmf_write_records(h, items, count);
    // Readers are woken before the lock is given up.
    if (code == 0)
        code = tmf_signal_readers(h, TMF_SIGNAL_WRITE);
    const int release_code = tmf_release_common(h);
    return code != 0 ? code : release_code;
}

static bool is_record(const tmf_handle *h, const tmf_item &item)
{
    return item.data != nullptr && item.length >= 1 && item.length <= h->max_record_len;
}

int tmf_fwrite_many(tmf_handle *h, const tmf_item *items, int count)
{
    if (h == nullptr)
        return no_handle();
    int code = 0;
    if (h->is_reader != 0)
        code = TMF_EREAD_ACCESS;
    else if (count < 0 || (items == nullptr && count > 0))
        code = TMF_ERECORD_SIZE;
    for (int i = 0; code == 0 && i < count; i++)
        if (!is_record(h, items[i]))
            code = TMF_ERECORD_SIZE;
    if (code == 0 && count > 0)
        code = append(h, items, count);
    if (code != 0)
        tmf_set_error(h, code);
    return code;
}

int tmf_fwrite(tmf_handle *h, const void *buf, int len)
{
    const tmf_item item = {buf, len};
    return tmf_fwrite_many(h, &item, 1);
}

// What a read is to give: up to count records in buf of len bytes, one without items.
struct wish {
    void *buf;
    int len;
    tmf_item *items;
    int count;
};

static int take(tmf_handle *h, const wish &wished, int flags)
{
    if (wished.items != nullptr)
        return tmf_read_records(h, wished.items, wished.count, wished.buf, wished.len, flags);
    return h->copy_mode != 0 ? tmf_read_record_copy(h, wished.buf, wished.len)
                             : tmf_read_record(h, wished.buf, wished.len, flags);
}

// Takes what is wished, having waited for it where that is called for, and gives the bytes or
// records that came.  code is the result of locking the area before and of the whole call behind
// it: a wait puts its own result in the place of the lock's.
static int next_record(tmf_handle *h, const wish &wished, int flags, int timeout, int *code)
{
    int result = 0;
    if (h->copy_mode == 0) {
        if (h->records_read == 0)
            flags |= TMF_READ_WAIT;
        if (tmfc_need_to_wait(h->common, flags))
            *code = tmf_fread_wait(h, flags, timeout);
    }
    if (h->copy_mode != 0 || *code == 0)
        result = take(h, wished, flags);
    if (result >= 0)
        return result;
    *code = result;
    return 0;
}

// Whether a common area that could not be had is that of no message file (any
// more); nothing may be done to the file then.
static bool is_foreign(int code)
{
    return code == TMF_ENOTMSG || code == TMF_EINCOMPATIBLE;
}

static int read_wished(tmf_handle *h, const wish &wished, int flags, int timeout)
{
    int code = 0;
    int result = 0;
    if (h->is_reader == 0) {
        code = TMF_EWRITE_ACCESS;
    } else if (wished.len < 0 || wished.count < 0 || (wished.buf == nullptr && wished.len > 0)) {
        code = TMF_EBUFFER_SIZE;
    } else if (wished.count > 0) {
        // Kept: a common area that cannot be had does not end the read of one record at
        // once; what follows works on the copy read last.
        code = tmf_get_common(h);
        if (code == 0 || (wished.items == nullptr && !is_foreign(code)))
            result = next_record(h, wished, flags, timeout, &code);
        const int release_code = tmf_release_common(h);
        if (code == 0)
            code = release_code;
    }
    if (code == 0)
        return result;
    tmf_set_error(h, code);
    return code;
}

int tmf_fread(tmf_handle *h, void *buf, int len, int flags)
{
    return h == nullptr ? no_handle()
                        : read_wished(h, {buf, len, nullptr, 1}, flags, fread_timeout);
}

int tmf_fread_many(tmf_handle *h, tmf_item *items, int count, void *buf, int len, int flags)
{
    if (h == nullptr)
        return no_handle();
    const int wanted = items == nullptr && count > 0 ? -1 : count;
    for (int i = 0; i < wanted; i++)
        items[i] = {};
    return read_wished(h, {buf, len, items, wanted}, flags, fread_timeout);
}

int tmf_freadx(tmf_handle *h, void *buf, int len, int flags, int timeout_seconds)
{
    if (h == nullptr)
        return no_handle();
    const int result = read_wished(h, {buf, len, nullptr, 1},
                                   flags | TMF_READ_LIMIT | TMF_READ_SIGNAL, timeout_seconds);
    return result == TMF_ETIMEOUT || result == TMF_ESIGNAL ? 0 : result;
}

int tmf_fremove(tmf_handle *h, int count)
{
    if (h == nullptr)
        return no_handle();
    int code = 0;
    if (h->is_reader == 0)
        code = TMF_EWRITE_ACCESS;
    else if (h->exclusive == 0 || h->copy_mode != 0)
        code = TMF_ECOPYMODE;
    else if (count < 0)
        code = TMF_EBUFFER_SIZE;
    if (code == 0 && count > 0) {
        code = tmf_get_common(h);
        if (code == 0)
            code = tmf_remove_records(h, count);
        const int release_code = tmf_release_common(h);
        if (code == 0)
            code = release_code;
    }
    if (code != 0)
        tmf_set_error(h, code);
    return code;
}

// The value of an item; false for an unknown one.
static bool info_value(const tmf_handle *h, int item, int32_t *value)
{
    switch (item) {
    case TMF_INFO_RECORDS:
        *value = h->common->record_count;
        return true;
    case TMF_INFO_READERS:
        *value = h->common->num_readers;
        return true;
    case TMF_INFO_WRITERS:
        *value = h->common->num_writers;
        return true;
    case TMF_INFO_DESCRIPTOR:
        *value = h->fd;
        return true;
    case TMF_INFO_WRITE_OFFSET:
        *value = h->common->write_offset;
        return true;
    default:
        return false;
    }
}

static int tmf_getmsginfo(tmf_handle *h, va_list pairs)
{
    int code = tmf_get_common(h);
    if (code == 0)
        code = tmf_update_users(h);
    while (code == 0) {
        const int item = va_arg(pairs, int);
        if (item == 0)
            break;
        int32_t value = 0;
        if (!info_value(h, item, &value)) {
            code = TMF_EINFO; // and what stands behind the item is not looked at
            break;
        }
        int32_t *out = va_arg(pairs, int32_t *);
        if (out != nullptr)
            *out = value;
    }
    const int release_code = tmf_release_common(h);
    return code != 0 ? code : release_code;
}

int tmf_getinfo(tmf_handle *h, ...)
{
    if (h == nullptr)
        return no_handle();
    va_list pairs;
    va_start(pairs, h);
    const int code = tmf_getmsginfo(h, pairs);
    va_end(pairs);
    return code;
}

int tmf_finfo(tmf_handle *h, int item, void *out, int len)
{
    if (h == nullptr || out == nullptr)
        return 0;
    if (item == TMF_FINFO_ZERO || item == TMF_FINFO_RECORD_END) {
        const int32_t value = item == TMF_FINFO_RECORD_END ? h->last_record_end : 0;
        if (len >= int{sizeof(value)})
            memcpy(out, &value, sizeof(value));
    } else if (len > 0) {
        memset(out, 0, static_cast<size_t>(len));
    }
    return 0;
}

// Every change was written when its call released the common area.
static int tmf_commit(tmf_handle * /*h*/)
{
    return 0;
}

int tmf_fflush(tmf_handle *h)
{
    return tmf_commit(h);
}

int tmf_fctl(tmf_handle * /*h*/, ...)
{
    return 0;
}
