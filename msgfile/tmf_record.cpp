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

// Positions and counts are signed 32-bit numbers that wrap.
static int32_t wrapping_add(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

static int saturating_increment(int count)
{
    return count < INT_MAX ? count + 1 : count;
}

// Whether a record may be at an offset.  A damaged area may name a place before the
// data area, where the bookkeeping lies, or none at all.  0 or a code.
static int check_place(const tmf_handle *h, int32_t at)
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

int tmf_write_record(tmf_handle *h, const void *buf, int n)
{
    tmf_common *common = h->common;
    const int user = h->user_id + 1 + (h->is_reader != 0 ? 0 : common->max_readers);
    const int length = h->record_overhead + n;
    const int framed = length + TMF_END_MARK_SIZE;
    int code = 0;
    if (h->record_buffer_size < framed)
        code = tmf_grow_record_buffer(h, framed + TMF_BUFFER_SLACK);
    if (code != 0)
        return code;
    unsigned char *p = h->record_buffer;
    put_be16(p + TMF_FRAME_LENGTH_AT, static_cast<uint16_t>(length));
    put_be16(p + TMF_FRAME_USER_AT, static_cast<uint16_t>(user));
    memcpy(p + TMF_FRAME_DATA_AT, buf, static_cast<size_t>(n));
    p += TMF_FRAME_DATA_AT + n;
    put_be16(p, static_cast<uint16_t>(length));
    p += TMF_FRAME_TRAILER_SIZE;
    put_be16(p, TMF_END_MARK);
    if (h->record_overhead > TMF_FRAME_SIZE) // another version in the other byte order
        memset(p + TMF_END_MARK_SIZE, 0, static_cast<size_t>(h->record_overhead - TMF_FRAME_SIZE));

    const int32_t at = common->write_offset;
    code = check_place(h, at);
    if (code == 0) // a part of the end mark is enough
        code = tmf_code_of(tmf_write_at(h, at, h->record_buffer, static_cast<size_t>(framed),
                                        length, write_codes));
    if (code != 0)
        return code;

    common->record_count = wrapping_add(common->record_count, 1);
    common->write_offset = wrapping_add(at, length);
    h->last_record_end = common->write_offset;
    common->high_water = std::max(common->high_water, common->write_offset);
    tmfc_set_dirty(common, 1);
    h->file = &tmf_positioned_row;
    return 0;
}

// ---- reading

struct record_view {
    int length; // with its frame
    int copied; // bytes given to the caller
};

static constexpr tmf_io_codes read_codes = {.no_place = TMF_ESEEK_DATA,
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
        tmf_read_at(h, at, frame, static_cast<size_t>(first), TMF_FRAME_SIZE, read_codes);
    const int needed = std::min<int>(get_be16(frame + TMF_FRAME_LENGTH_AT), wanted);
    if (got < first || needed <= first)
        return got;
    const ssize_t rest = tmf_read_at(h, at + first, frame + first,
                                     static_cast<size_t>(needed - first), 0, read_codes);
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
        code = check_place(h, at);
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
    h->file = &tmf_positioned_row;
    return 0;
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
    h->records_read = saturating_increment(h->records_read);
    h->last_record_end = at;
    if ((flags & TMF_READ_KEEP) == 0)
        code = tmf_delete_record(h, record.length);
    return code != 0 ? code : record.copied;
}

int tmf_read_record_copy(tmf_handle *h, void *buf, int len)
{
    const int32_t at = h->copy_offset;
    // A repair has cut the file below what was read: whatever is written from there on
    // would be passed over.  The difference is right on both sides of 2 GiB.
    const auto ahead = static_cast<int32_t>(static_cast<uint32_t>(h->common->write_offset) -
                                            static_cast<uint32_t>(at));
    if (h->copy_count > 0 && h->common->record_count > 0 && ahead < 0)
        return TMF_EREAD_DATA_EOF;
    if (h->copy_count >= h->common->record_count)
        return 0;
    record_view record = {};
    const int code = read_record_at(h, at, buf, len, &record);
    if (code != 0)
        return code;
    h->records_read = saturating_increment(h->records_read);
    h->copy_count = saturating_increment(h->copy_count);
    h->copy_offset = wrapping_add(at, record.length);
    h->last_record_end = at;
    return record.copied;
}

// ---- removing

int tmf_delete_record(tmf_handle *h, int length)
{
    tmf_common *common = h->common;
    common->read_offset = wrapping_add(common->read_offset, length);
    common->record_count = wrapping_add(common->record_count, -1);
    const int code = common->record_count == 0 ? tmf_reset(h) : 0;
    tmfc_set_dirty(common, 1);
    return code;
}
