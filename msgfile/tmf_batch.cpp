// Many records at once.
#include "msgfile/tmf_batch.h"

#include "msgfile/tmf_buffer.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmf_record.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <climits>
#include <cstring>

// A piece of the file is at most so long: what is read ahead of what a batch takes is read again by
// the next one.
constexpr int WINDOW_MAX = 256 * 1024;

// ---- writing

int tmf_write_records(tmf_handle *h, const tmf_item *items, int count)
{
    const int32_t at = h->common->write_offset;
    int64_t length = 0;
    int32_t reached = INT32_MIN; // the greatest offset that one of them ends at
    for (int i = 0; i < count; i++) {
        if (at + length > INT32_MAX) // no record begins behind 2 GiB
            return TMF_ESEEK_DATA;
        length += h->record_overhead + items[i].length;
        reached = std::max(reached, static_cast<int32_t>(static_cast<uint32_t>(at + length)));
    }
    if (length > INT_MAX - TMF_END_MARK_SIZE - TMF_BUFFER_SLACK)
        return TMF_EINTERNAL;
    const int framed = static_cast<int>(length) + TMF_END_MARK_SIZE;
    int code = 0;
    if (h->record_buffer_size < framed)
        code = tmf_grow_record_buffer(h, framed + TMF_BUFFER_SLACK);
    if (code == 0)
        code = tmf_check_place(h, at);
    if (code != 0)
        return code;
    unsigned char *p = h->record_buffer;
    for (int i = 0; i < count; i++)
        p = tmf_put_frame(h, p, items[i].data, items[i].length);
    return tmf_append_frames(h, count, static_cast<int>(length), reached);
}

// ---- reading

// Bytes of the file in the record buffer.
struct window {
    int64_t at = 0; // offset in the file
    int64_t size = 0;
};

// The bytes at offset at, of which needed have to be there; asked is what may be read for them.
// Null behind a code.
static const unsigned char *look(tmf_handle *h, window &seen, int32_t at, int64_t needed,
                                 int64_t asked, int *code)
{
    if (at < seen.at || at + needed > seen.at + seen.size) {
        const int size = static_cast<int>(std::max(needed, asked));
        *code =
            h->record_buffer_size < size ? tmf_grow_record_buffer(h, size + TMF_BUFFER_SLACK) : 0;
        if (*code != 0)
            return nullptr;
        const ssize_t got = tmf_read_at(h, at, h->record_buffer, static_cast<size_t>(size),
                                        static_cast<ssize_t>(needed), tmf_read_codes);
        if (got < 0) {
            *code = static_cast<int>(got);
            return nullptr;
        }
        seen = {at, got};
    }
    return h->record_buffer + (at - seen.at);
}

// What a batch came to.
struct batch {
    int records = 0;
    int32_t end = 0;  // offset behind them
    int32_t last = 0; // where the last one begins
};

// Goes over up to most records from offset at on.  With items their data goes to buf of len bytes,
// as long as there is room; without, only their lengths are looked at.  0, or the code of the
// record that ended it; found are those before.
static int go_over(tmf_handle *h, int32_t at, int most, tmf_item *items, char *buf, int len,
                   batch *found)
{
    window seen;
    int room = len;
    *found = {0, at, at};
    for (int i = 0; i < most; i++) {
        int code = tmf_check_place(h, at);
        if (code != 0)
            return code;
        const int64_t used =
            static_cast<uint32_t>(h->common->write_offset) - static_cast<uint32_t>(at);
        int64_t wanted =
            std::min<int64_t>({used, WINDOW_MAX, int64_t{h->usual_record} * (most - i)});
        if (items != nullptr) // what the buffer cannot take is not read
            wanted = std::min(wanted, room + int64_t{TMF_FRAME_SIZE} * (most - i));
        const unsigned char *frame = look(h, seen, at, TMF_FRAME_SIZE, wanted, &code);
        if (frame == nullptr)
            return code;
        const int length = get_be16(frame + TMF_FRAME_LENGTH_AT);
        const int data = length - TMF_FRAME_SIZE;
        if (data < 0 || length > used) // damaged
            return TMF_EREAD_DATA_EOF;
        if (items != nullptr) {
            const int copied = std::min(data, room);
            if (i > 0 && copied < data)
                return 0;
            frame = look(h, seen, at, TMF_FRAME_DATA_AT + copied, wanted, &code);
            if (frame == nullptr)
                return code;
            if (copied > 0)
                memcpy(buf, frame + TMF_FRAME_DATA_AT, static_cast<size_t>(copied));
            items[i] = {buf, copied};
            buf += copied;
            room -= copied;
        }
        found->records++;
        found->last = at;
        at = tmf_wrapping_add(at, length);
        found->end = at;
    }
    return 0;
}

int tmf_read_records(tmf_handle *h, tmf_item *items, int count, void *buf, int len, int flags)
{
    const bool copies = h->copy_mode != 0;
    const tmf_common *common = h->common;
    int code = 0;
    const int there = copies ? tmf_records_to_copy(h, &code) : common->record_count;
    if (code != 0 || there == 0)
        return code;
    batch found;
    // A count below zero is damage, which the first record shows.
    const int most = there < 0 ? 1 : std::min(count, there);
    code = go_over(h, copies ? h->copy_offset : common->read_offset, most, items,
                   static_cast<char *>(buf), len, &found);
    // The code of a record behind the first is that of the next call.
    if (found.records == 0)
        return code;
    const auto bytes =
        static_cast<int32_t>(static_cast<uint32_t>(found.end) -
                             static_cast<uint32_t>(copies ? h->copy_offset : common->read_offset));
    h->usual_record = bytes / found.records + 1;
    tmf_count_read(h, found.records, found.last);
    code = 0;
    if (copies)
        tmf_copied(h, found.records, found.end);
    else if ((flags & TMF_READ_KEEP) == 0)
        code = tmf_delete_records(h, found.records, bytes);
    return code != 0 ? code : found.records;
}

// ---- removing

int tmf_remove_records(tmf_handle *h, int count)
{
    const tmf_common *common = h->common;
    if (count > common->record_count)
        return TMF_EREAD_DATA_EOF;
    batch found;
    const int code = go_over(h, common->read_offset, count, nullptr, nullptr, 0, &found);
    if (code != 0)
        return code;
    h->file = &tmf_positioned_row;
    return tmf_delete_records(h, count,
                              static_cast<int32_t>(static_cast<uint32_t>(found.end) -
                                                   static_cast<uint32_t>(common->read_offset)));
}
