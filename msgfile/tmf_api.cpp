// The public calls, each a bracket around the work that another file does: take the
// common area, work, release it, keep the first error.  tmf_geterrno, tmf_geterrmsg
// and tmf_clearerr stand beside the error state that they show, tmf_check and
// tmf_repair beside their work.
#include "msgfile/tmf.h"

#include "msgfile/tmf_area.h"
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

int tmf_fwrite(tmf_handle *h, const void *buf, int len)
{
    if (h == nullptr)
        return no_handle();
    int code = 0;
    if (h->is_reader != 0) {
        code = TMF_EREAD_ACCESS;
    } else if (len < 1 || len > h->max_record_len || buf == nullptr) {
        code = TMF_ERECORD_SIZE;
    } else {
        code = tmf_get_common(h);
        if (code == 0)
            code = tmf_write_record(h, buf, len);
        // Readers are woken before the lock is given up.
        if (code == 0)
            code = tmf_signal_readers(h, TMF_SIGNAL_WRITE);
        const int release_code = tmf_release_common(h);
        if (code == 0)
            code = release_code;
    }
    if (code != 0)
        tmf_set_error(h, code);
    return code;
}

// Takes the record, having waited for it where that is called for, and gives the
// bytes copied.  code is the result of locking the area before and of the whole
// call behind it: a wait puts its own result in the place of the lock's.
static int next_record(tmf_handle *h, void *buf, int len, int flags, int timeout, int *code)
{
    int result = 0;
    if (h->copy_mode != 0) {
        result = tmf_read_record_copy(h, buf, len);
    } else {
        if (h->records_read == 0)
            flags |= TMF_READ_WAIT;
        if (tmfc_need_to_wait(h->common, flags))
            *code = tmf_fread_wait(h, flags, timeout);
        if (*code == 0)
            result = tmf_read_record(h, buf, len, flags);
    }
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

static int tmf_fread_record(tmf_handle *h, void *buf, int len, int flags, int timeout)
{
    int code = 0;
    int copied = 0;
    if (h->is_reader == 0) {
        code = TMF_EWRITE_ACCESS;
    } else if (len < 0 || (buf == nullptr && len > 0)) {
        code = TMF_EBUFFER_SIZE;
    } else {
        // Kept: a common area that cannot be had does not end the call at once;
        // what follows works on the copy read last.
        code = tmf_get_common(h);
        if (!is_foreign(code))
            copied = next_record(h, buf, len, flags, timeout, &code);
        const int release_code = tmf_release_common(h);
        if (code == 0)
            code = release_code;
    }
    if (code == 0)
        return copied;
    tmf_set_error(h, code);
    return code;
}

int tmf_fread(tmf_handle *h, void *buf, int len, int flags)
{
    return h == nullptr ? no_handle() : tmf_fread_record(h, buf, len, flags, fread_timeout);
}

int tmf_freadx(tmf_handle *h, void *buf, int len, int flags, int timeout_seconds)
{
    if (h == nullptr)
        return no_handle();
    const int result =
        tmf_fread_record(h, buf, len, flags | TMF_READ_LIMIT | TMF_READ_SIGNAL, timeout_seconds);
    return result == TMF_ETIMEOUT || result == TMF_ESIGNAL ? 0 : result;
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
