// Records: framing, appending, reading, removing.
#include "msgfile/tmf_record.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_buffer.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <climits>
#include <cstring>

int32_t tmf_wrapping_add(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

static int saturating_add(int count, int more)
{
    return count < INT_MAX - more ? count + more : INT_MAX;
}

int tmf_check_place(const tmf_handle *h, int32_t at)
{
    if (at < 0)
        return TMF_ESEEK_DATA;
    const int32_t first = std::max(h->common->data_start, TMF_COMMON_SIZE);
    return at < first ? TMF_ESEEK_DATA_EOF : 0;
}

// ---- writing

static constexpr tmf_io_codes write_codes = {.no_place = TMF_ESEEK_DATA,
                                             .elsewhere = TMF_ESEEK_DATA_EOF,
                                             .failed = TMF_EWRITE_DATA,
                                             .cut = TMF_EWRITE_DATA_EOF};

unsigned char *tmf_put_frame(const tmf_handle *h, unsigned char *p, const void *data, int n)
{
    const int user = h->user_id + 1 + (h->is_reader != 0 ? 0 : h->common->max_readers);
    const auto length = static_cast<uint16_t>(h->record_overhead + n);
    put_be16(p + TMF_FRAME_LENGTH_AT, length);
    put_be16(p + TMF_FRAME_USER_AT, static_cast<uint16_t>(user));
    memcpy(p + TMF_FRAME_DATA_AT, data, static_cast<size_t>(n));
    p += TMF_FRAME_DATA_AT + n;
    put_be16(p, length);
    p += TMF_FRAME_TRAILER_SIZE;
    put_be16(p, TMF_END_MARK); // the next frame takes its place
    const int longer =
        h->record_overhead - TMF_FRAME_SIZE; // another version in the other byte order
    memset(p + TMF_END_MARK_SIZE, 0, static_cast<size_t>(longer));
    return p + longer;
}

int tmf_append_frames(tmf_handle *h, int count, int length, int32_t reached)
{
    tmf_common *common = h->common;
    const int32_t at = common->write_offset;
    const size_t framed = static_cast<size_t>(length) + TMF_END_MARK_SIZE;
    // A part of the end mark is enough.
    const int code =
        tmf_code_of(tmf_write_at(h, at, h->record_buffer, framed, length, write_codes));
    if (code != 0)
        return code;
    common->record_count = tmf_wrapping_add(common->record_count, count);
    common->write_offset = tmf_wrapping_add(at, length);
    h->last_record_end = common->write_offset;
    common->high_water = std::max(common->high_water, reached);
    tmfc_set_dirty(common, 1);
    h->file = &tmf_positioned_row;
    return 0;
}

// ---- reading

struct record_view {
    int length; // with its frame
    int copied; // bytes given to the caller
};

const tmf_io_codes tmf_read_codes = {.no_place = TMF_ESEEK_DATA,
                                     .elsewhere = TMF_ESEEK_DATA_EOF,
                                     .failed = TMF_EREAD_DATA,
                                     .cut = TMF_EREAD_DATA_EOF};

// Reads the beginning of the record at offset at into the record buffer, wanted bytes of it or all
// that it has: as much as the record before took, since a read costs by what it moves, and the rest
// when that was too little.  The bytes read, or a code.
static ssize_t read_frame(const tmf_handle *h, int32_t at, int wanted)
{
    unsigned char *const frame = h->record_buffer;
    // At the end of the offsets the rest would have none of its own.
    const int first = at > INT_MAX - wanted ? wanted : std::min(wanted, h->usual_frame);
    const ssize_t got =
        tmf_read_at(h, at, frame, static_cast<size_t>(first), TMF_FRAME_SIZE, tmf_read_codes);
    if (got < first) // the file ends there
        return got;
    const int needed = std::min<int>(get_be16(frame + TMF_FRAME_LENGTH_AT), wanted);
    if (needed <= first)
        return got;
    const ssize_t rest = tmf_read_at(h, at + first, frame + first,
                                     static_cast<size_t>(needed - first), 0, tmf_read_codes);
    return rest < 0 ? rest : first + rest;
}

// Reads the record at offset at into buf of len bytes.
static int read_record_at(tmf_handle *h, int32_t at, void *buf, int len, record_view *record)
{
    // No record is longer than its length can say.
    const int wanted = std::min(len, TMF_MAX_LENGTH) + TMF_FRAME_SIZE;
    int code = 0;
    if (h->record_buffer_size < wanted)
        code = tmf_grow_record_buffer(h, wanted + TMF_BUFFER_SLACK);
    if (code == 0)
        code = tmf_check_place(h, at);
    if (code != 0)
        return code;
    const ssize_t got = read_frame(h, at, wanted);
    if (got < 0)
        return static_cast<int>(got);
    record->length = get_be16(h->record_buffer + TMF_FRAME_LENGTH_AT);
    record->copied = std::min(record->length - TMF_FRAME_SIZE, len);
    // A damaged length: less than a frame, beyond the newest record (the distance
    // is right on both sides of 2 GiB), or of data that the file does not have.
    const uint32_t used =
        static_cast<uint32_t>(h->common->write_offset) - static_cast<uint32_t>(at);
    if (record->copied < 0 || static_cast<uint32_t>(record->length) > used ||
        got < TMF_FRAME_DATA_AT + record->copied)
        return TMF_EREAD_DATA_EOF;
    if (record->copied > 0)
        memcpy(buf, h->record_buffer + TMF_FRAME_DATA_AT, static_cast<size_t>(record->copied));
    h->usual_frame = std::max(record->length, TMF_FIRST_BUFFER);
    return 0;
}

void tmf_count_read(tmf_handle *h, int records, int32_t last)
{
    h->records_read = saturating_add(h->records_read, records);
    h->last_record_end = last;
    h->file = &tmf_positioned_row;
}

int tmf_read_record(tmf_handle *h, void *buf, int len, int flags)
{
    if (h->common->record_count == 0)
        return 0;
    const int32_t at = h->common->read_offset;
    record_view record = {};
    int code = read_record_at(h, at, buf, len, &record);
    if (code != 0)
        return code;
    tmf_count_read(h, 1, at);
    if ((flags & TMF_READ_KEEP) == 0)
        code = tmf_delete_records(h, 1, record.length);
    return code != 0 ? code : record.copied;
}

int tmf_records_to_copy(const tmf_handle *h, int *code)
{
    // A repair has cut the file below what was read: whatever is written from there on
    // would be passed over.  The difference is right on both sides of 2 GiB.
    const auto ahead = static_cast<int32_t>(static_cast<uint32_t>(h->common->write_offset) -
                                            static_cast<uint32_t>(h->copy_offset));
    *code = h->copy_count > 0 && h->common->record_count > 0 && ahead < 0 ? TMF_EREAD_DATA_EOF : 0;
    const int count = h->common->record_count;
    return *code == 0 && h->copy_count < count ? count - h->copy_count : 0;
}

void tmf_copied(tmf_handle *h, int records, int32_t end)
{
    h->copy_count = saturating_add(h->copy_count, records);
    h->copy_offset = end;
}

int tmf_read_record_copy(tmf_handle *h, void *buf, int len)
{
    const int32_t at = h->copy_offset;
    int code = 0;
    if (tmf_records_to_copy(h, &code) == 0)
        return code;
    record_view record = {};
    code = read_record_at(h, at, buf, len, &record);
    if (code != 0)
        return code;
    tmf_count_read(h, 1, at);
    tmf_copied(h, 1, tmf_wrapping_add(at, record.length));
    return record.copied;
}

// ---- removing

int tmf_delete_records(tmf_handle *h, int records, int32_t bytes)
{
    tmf_common *common = h->common;
    common->read_offset = tmf_wrapping_add(common->read_offset, bytes);
    common->record_count = tmf_wrapping_add(common->record_count, -records);
    const int code = common->record_count == 0 ? tmf_reset(h) : 0;
    tmfc_set_dirty(common, 1);
    return code;
}
