// Message capture files: a record a message, the images behind the header as they are.
#include "ascii/ascii_flags.h"
#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/syncmark.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"
#include "msgfile/tmf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <string>
#include <unistd.h>

static bool message_fits(const capfil *cf, const record_images &images)
{
    constexpr int64_t longest = std::numeric_limits<int32_t>::max() - RECBUF_SPARE;
    const int64_t body = int64_t{images.reclen} * images.n;
    return images.reclen >= 0 && body <= longest - cf->hdrsize;
}

static int32_t message_build(capfil *cf, const record_images &images, const dsetinfo *, int *)
{
    const int32_t size = cf->hdrsize + images.reclen * images.n;
    if (size > cf->bufsize) {
        cf->bufsize = size;
        cf->recbuf =
            static_cast<char *>(mem_realloc(cf->recbuf, static_cast<size_t>(size) + RECBUF_SPARE));
    }
    const auto reclen = static_cast<size_t>(images.reclen);
    char *out = cf->recbuf + cf->hdrsize;
    for (int i = 0; i < images.n && reclen != 0; i++) {
        memcpy(out, images.image[i], reclen);
        out += reclen;
    }
    return size;
}

static bool message_open(ebmf *file, const char *path, int tmf_mode)
{
    file->tmfh = tmf_fopen(path, tmf_mode);
    return file->tmfh != nullptr;
}

static int message_write(ebmf *file, char *buffer, int32_t length)
{
    return tmf_fwrite(file->tmfh, buffer, length);
}

static int message_getfnum(const ebmf *file, int32_t *number)
{
    return tmf_getinfo(file->tmfh, TMF_INFO_DESCRIPTOR, number, 0);
}

static int message_close(ebmf *file)
{
    return tmf_fclose(file->tmfh);
}

static int message_end(const ebmf *file, int32_t *end)
{
    return tmf_getinfo(file->tmfh, TMF_INFO_WRITE_OFFSET, end, 0);
}

static int message_record_end(const ebmf *file, int32_t *end)
{
    return tmf_finfo(file->tmfh, TMF_FINFO_RECORD_END, end, sizeof *end);
}

static void message_detail(const ebmf *file, char *detail)
{
    tmf_geterrmsg(file == nullptr ? nullptr : file->tmfh, detail);
}

static int message_open_error(const char *name)
{
    return set_error_mf(nullptr, "Error opening message capture file: %s", name);
}

// The checksum of a file whose records end at end; false with errno.  Of at most 64
// KiB, which are not the same by chance in a file that was emptied and
// has filled again: they hold sequence numbers and dates.
static bool tail_checksum(int fd, int64_t end, uint64_t *checksum)
{
    constexpr int64_t DATA_START = 4352; // before it stand counters, which change
    constexpr int64_t TAIL_SIZE = 65536;
    static unsigned char tail[TAIL_SIZE];
    const int64_t at = std::max(DATA_START, end - TAIL_SIZE);
    *checksum = 0xcbf29ce484222325; // FNV-1a
    for (int64_t done = 0; at + done < end;) {
        const ssize_t n = pread(fd, tail + done, static_cast<size_t>(end - at - done), at + done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0; // a file that ends before has another checksum
        for (int64_t i = done; i < done + n; i++)
            *checksum = (*checksum ^ tail[i]) * 0x100000001b3;
        done += n;
    }
    return true;
}

// The end of a message file that is open, and its checksum.
static int find_end(capfil *cf, mark_line &line)
{
    int32_t end = 0;
    const int code = message_end(cf->fp, &end);
    if (code != 0) // which the handle does not keep
        return set_error_detail(tmf_strerror(code), "Error bringing capture file to disk: %s",
                                cf->name);
    if (!tail_checksum(cf->fnum, end, &line.checksum))
        return set_error_detail(strerror(errno), "Error bringing capture file to disk: %s",
                                cf->name);
    cf->synced_end = end;
    cf->synced_sum = line.checksum;
    line.end = end < 0 ? -1 : end; // past 2 GiB it shows a negative one
    return 0;
}

// The same of one that is not open yet.  It is looked at as long as none is: the close
// drops the locks that the process has on a file of that name.
static void look_end(capfil *cf, mark_line &line, bool none_open)
{
    tmf_check_result found;
    if (cf->synced_end == 0 && none_open && tmf_check(cf->name, &found) == 0 && found.found == 0 &&
        found.end <= INT32_MAX) {
        const int fd = open(cf->name, O_RDONLY | O_CLOEXEC);
        if (fd >= 0 && tail_checksum(fd, found.end, &cf->synced_sum))
            cf->synced_end = static_cast<int32_t>(found.end);
        if (fd >= 0)
            (void)close(fd); // nothing was written to it
    }
    line.end = cf->synced_end != 0 ? cf->synced_end : -1;
    line.checksum = cf->synced_sum;
}

static int message_mark(capfil *cf, mark_line &line, bool none_open)
{
    if (cf->fp != nullptr)
        return find_end(cf, line);
    if (line.inode != 0)
        look_end(cf, line, none_open);
    return 0;
}

// Where the records end that do not come again: 0 for all that are whole, 1 for none.
static bool find_keep_end(const mark_line &line, const tmf_check_result &found, int *keep_end)
{
    *keep_end = 0;
    if (line.end < 0)
        return true;
    const int fd = open(line.path.c_str(), O_RDONLY | O_CLOEXEC);
    uint64_t checksum = 0;
    if (fd < 0)
        return false;
    const bool read = tail_checksum(fd, line.end, &checksum);
    const int error = errno;
    (void)close(fd); // nothing was written to it
    errno = error;
    // Emptied since, and perhaps filled again: all of it came behind the mark.
    const bool emptied = line.end == 0 || found.end < line.end || checksum != line.checksum;
    *keep_end = emptied ? 1 : static_cast<int>(line.end);
    return read;
}

static bool message_resume(const mark_line &line, int64_t, char *detail)
{
    const std::string aside = line.path + ".cut";
    tmf_check_result found;
    int keep_end = 0;
    if (tmf_check(line.path.c_str(), &found) != 0) {
        tmf_geterrmsg(nullptr, detail);
        return false;
    }
    if (!find_keep_end(line, found, &keep_end)) {
        strmcpy(detail, strerror(errno), EBMF_DETAIL_SIZE);
        return false;
    }
    if (tmf_repair(line.path.c_str(), keep_end, aside.c_str(), &found) != 0) {
        tmf_geterrmsg(nullptr, detail);
        return false;
    }
    if (found.changed != 0)
        logmsg(LOG_NOTICE | LOG_VERBOSE,
               "Capture file %s: cut back to what does not come again; as it was in %s.cut",
               line.path.c_str(), line.path.c_str());
    return true;
}

const cap_format message_format = {
    .name = "message",
    .chosen_by = 0,
    .limited = true,
    .longest = TMF_MAX_DATA,
    .fits = message_fits,
    .build = message_build,
    .open = message_open,
    .write = message_write,
    .getfnum = message_getfnum,
    .close = message_close,
    .reopen = nullptr,
    .end = message_end,
    .record_end = message_record_end,
    .detail = message_detail,
    .open_error = message_open_error,
    .cut_when_taken_up = nullptr,
    .mark = message_mark,
    .resume = message_resume,
};
