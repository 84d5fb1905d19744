// A message file seen as a whole.  Nothing read from it is believed: every length
// is compared with the place that is left, and every step goes forward.
#include "msgfile/tmf_survey.h"

#include "msgfile/tmf_common.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// The bytes of the file are read in pieces that hold any record whole.
static constexpr int32_t window_size = 128 * 1024;
static_assert(window_size > TMF_MAX_FRAME);

struct window {
    int fd;
    long long size; // of the file
    long long at;   // of the bytes held
    long long held;
    unsigned char bytes[window_size];
};

// Has n bytes from offset at in the window, where the file has so many.  The bytes,
// or null when the system cannot read or the file ends before.
static const unsigned char *bytes_at(window *w, long long at, int32_t n, int *code)
{
    if (at + n > w->size)
        return nullptr;
    if (at < w->at || at + n > w->at + w->held) {
        w->at = at;
        w->held = 0;
        // The system may give less than there is: that is no end of the file, behind
        // which a repair would take sound records for torn ones.
        while (w->held < n) {
            const ssize_t got = pread(w->fd, w->bytes + w->held,
                                      static_cast<size_t>(window_size - w->held), at + w->held);
            if (got < 0)
                *code = TMF_EREAD_DATA;
            if (got <= 0)
                return nullptr;
            w->held += got;
        }
    }
    return w->bytes + (at - w->at);
}

// Length of the whole record at offset at, which ends at limit or before; 0 for none.
static int32_t record_at(window *w, long long at, long long limit, int *code)
{
    if (limit - at < TMF_FRAME_SIZE)
        return 0;
    const unsigned char *p = bytes_at(w, at, TMF_FRAME_DATA_AT, code);
    if (p == nullptr)
        return 0;
    const int32_t length = get_be16(p + TMF_FRAME_LENGTH_AT);
    const int user = get_be16(p + TMF_FRAME_USER_AT);
    if (length <= TMF_FRAME_SIZE || length > TMF_MAX_FRAME || length > limit - at || user < 1 ||
        user > TMF_MAX_READERS + TMF_MAX_WRITERS)
        return 0;
    p = bytes_at(w, at, length, code);
    return p != nullptr && get_be16(p + length - TMF_FRAME_TRAILER_SIZE) == length ? length : 0;
}

// Where the first hole from offset at on begins; the file's size for none, or where
// the system does not tell.
static long long hole_behind(const window *w, long long at)
{
    if (at >= w->size)
        return w->size;
    const off_t hole = lseek(w->fd, at, SEEK_HOLE);
    return hole < 0 ? w->size : hole;
}

// ---- records

// Where the records end by the file's word.  A file that has passed 2 GiB shows it
// as a negative number.
static long long stated_end(const tmf_common *common, long long size)
{
    const long long end = static_cast<uint32_t>(common->write_offset);
    return common->write_offset >= 0 || end <= size ? end : common->write_offset;
}

// Counts whole records from *at on, up to limit, and goes behind the last one.
static int count_records(window *w, long long *at, long long limit, int *code)
{
    int records = 0;
    for (int32_t length; (length = record_at(w, *at, limit, code)) != 0; records++)
        *at += length;
    return records;
}

// The end of what is no damage: whole records behind the end, each ending with the
// mark or the next one, where it is not an emptied file's old ones that stand there.
static int count_uncounted(window *w, const tmf_survey *survey, int *code)
{
    const tmf_check_result &r = survey->result;
    if (r.end <= survey->common.data_start)
        return 0;
    long long at = r.end;
    const int records = count_records(w, &at, w->size, code);
    const unsigned char *mark = bytes_at(w, at, TMF_END_MARK_SIZE, code);
    return mark != nullptr && get_be16(mark) == TMF_END_MARK ? records : 0;
}

static void survey_records(window *w, int keep_end, tmf_survey *survey, int *code)
{
    const tmf_common &common = survey->common;
    tmf_check_result &r = survey->result;
    r.counted = common.record_count;
    r.end = stated_end(&common, w->size);
    r.first = common.read_offset;
    long long limit = r.end;
    if (r.end < common.data_start) {
        r.found |= TMF_FOUND_PLACE;
        limit = w->size; // up to the mark behind the newest record, which is none itself
    }
    if (r.first < common.data_start || r.first > limit) {
        // Records that were taken come again, rather than one not at all.
        r.found |= TMF_FOUND_PLACE;
        r.first = common.data_start;
    }
    if (limit > w->size) {
        // Without a record nothing is missing: its maker was killed before the slots were there.
        if (r.end != common.data_start)
            r.found |= TMF_FOUND_CUT;
        limit = w->size;
    }
    const long long hole = hole_behind(w, std::max<long long>(r.first, keep_end));
    if (hole < limit) {
        r.found |= TMF_FOUND_HOLE;
        limit = hole;
    }
    r.sound = r.first;
    r.records = count_records(w, &r.sound, limit, code);
    if ((r.found & (TMF_FOUND_PLACE | TMF_FOUND_CUT | TMF_FOUND_HOLE)) == 0) {
        if (r.sound < r.end)
            r.found |= TMF_FOUND_FRAME;
        else
            r.uncounted = count_uncounted(w, survey, code);
    }
    if (r.records != r.counted)
        r.found |= TMF_FOUND_COUNT;
    if (keep_end != 0 && r.sound > keep_end) {
        r.sound = r.first;
        r.records = count_records(w, &r.sound, keep_end, code);
    }
}

// ---- users

static int bits_in(const unsigned char *map, int slots)
{
    int bits = 0;
    for (int i = 0; i < slots; i++)
        bits += tmu_get_bit(map, i);
    return bits;
}

static void survey_users(tmf_survey *survey)
{
    const tmf_common &common = survey->common;
    tmf_check_result &r = survey->result;
    r.readers = bits_in(common.reader_map, tmfc_reader_slots(&common));
    r.writers = bits_in(common.writer_map, tmfc_writer_slots(&common));
    if (r.readers != common.num_readers || r.writers != common.num_writers)
        r.found |= TMF_FOUND_USERS;
}

// ---- the beginning

// Whether nothing but zeros stands before the records, and zeros or a record where
// the first one is: a file whose first page never came to the disk.  Zeros alone
// could be the beginning of any other file.
static bool is_unborn(window *w, int *code)
{
    const int32_t n = static_cast<int32_t>(std::min<long long>(w->size, TMF_DATA_START));
    const unsigned char *p = bytes_at(w, 0, n, code);
    if (p == nullptr || std::any_of(p, p + n, [](unsigned char byte) { return byte != 0; }))
        return false;
    const int32_t rest = static_cast<int32_t>(std::min<long long>(w->size - n, TMF_FRAME_DATA_AT));
    p = bytes_at(w, n, rest, code);
    return p != nullptr &&
           (std::all_of(p, p + rest, [](unsigned char byte) { return byte == 0; }) ||
            record_at(w, n, w->size, code) != 0);
}

static int survey_window(window *w, int keep_end, tmf_survey *survey)
{
    tmf_common &common = survey->common;
    tmf_check_result &r = survey->result;
    const ssize_t got = pread(w->fd, &common, TMF_COMMON_SIZE, 0);
    if (got < 0)
        return TMF_EREAD_COMMON;
    if (got == 0)
        return 0; // the next open makes a message file of it
    r.other_order = common.byte_order_mark == TMF_BYTE_ORDER_OTHER ? 1 : 0;
    survey->flags = common.flags;
    int code = tmfc_check(&common);
    if (code == TMF_ENOTMSG) {
        int read_code = 0;
        if (is_unborn(w, &read_code)) {
            r.found = TMF_FOUND_ZEROS;
            return 0;
        }
        return read_code != 0 ? read_code : code;
    }
    if (code == 0 && got < TMF_COMMON_SIZE)
        code = TMF_EREAD_COMMON_EOF;
    if (code == 0 && common.format_version != TMF_FORMAT_VERSION)
        code = TMF_EFORMAT;
    if (code != 0)
        return code;
    // Before records and slots are looked for by them.
    if (tmfc_mend_fixed_numbers(&common))
        r.found |= TMF_FOUND_FIXED;
    survey_records(w, keep_end, survey, &code);
    survey_users(survey);
    return code;
}

int tmf_survey_file(int fd, int keep_end, tmf_survey *survey)
{
    *survey = tmf_survey{};
    struct stat about;
    if (fstat(fd, &about) != 0)
        return TMF_EHANDLE;
    if (!S_ISREG(about.st_mode))
        return TMF_ENOTMSG;
    window *w = static_cast<window *>(calloc(1, sizeof(window)));
    if (w == nullptr)
        return TMF_EINTERNAL;
    w->fd = fd;
    w->size = about.st_size;
    const int code = survey_window(w, keep_end, survey);
    free(w);
    if (code != 0)
        survey->result = tmf_check_result{};
    survey->result.size = about.st_size;
    return code;
}
