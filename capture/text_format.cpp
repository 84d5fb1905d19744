// Text capture files: a line a record, its columns from ascii/.
#include "ascii/ascii_flags.h"
#include "ascii/put_ascii.h"
#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/syncmark.h"
#include "capture/textfile.h"
#include "driver/base/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static int32_t text_build(capfil *cf, const record_images &images, const dsetinfo *dsets,
                          int *conversion)
{
    int32_t length = cf->hdrsize;
    *conversion = 0;
    for (int i = 0; i < images.n; i++) {
        const int rc = put_ascii(cf->ascii_flags, &cf->recbuf, &length, &cf->bufsize,
                                 images.image[i], images.reclen, dsets);
        if (*conversion == 0)
            *conversion = rc;
    }
    return length;
}

static bool text_open(ebmf *file, const char *path, int)
{
    const int fd = textfile_open(path, static_cast<uint32_t>(file->is_text));
    file->textfp = fd < 0 ? nullptr : fdopen(fd, "w");
    if (file->textfp != nullptr)
        return true;
    fil_open_os_errno = errno;
    if (fd >= 0)
        (void)close(fd); // nothing was written to it
    return false;
}

static bool text_reopen(ebmf *file, const char *path)
{
    const int fd = textfile_reopen(path, static_cast<uint32_t>(file->is_text));
    FILE *next = fd < 0 ? nullptr : fdopen(fd, "w");
    if (next == nullptr) {
        fil_open_os_errno = errno;
        if (fd >= 0)
            (void)close(fd); // nothing was written to it
        return false;
    }
    (void)fclose(file->textfp); // nothing is in its buffer, and its file has been synced
    file->textfp = next;
    return true;
}

// Takes back what a failed write left of its record, so that the next record begins a
// line: unless somebody else's lines came between its pieces or stand behind it.  A
// pipe or a device refuses, and has nothing to take back.
static void cut_to_whole_records(int fd, off_t begin, off_t end)
{
    struct stat st = {};
    if (begin == end || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return;
    if (st.st_size == end && ftruncate(fd, begin) == 0)
        (void)lseek(fd, begin, SEEK_SET); // regular: cannot fail
}

// Writes the whole text past the stream's buffer: it is there for a reader, and a
// full disk is seen, before the call returns.
static bool write_whole(int fd, const char *text, size_t size)
{
    off_t begin = 0; // of the piece that is there, and its end
    off_t end = 0;
    while (size != 0) {
        const ssize_t n = write(fd, text, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int error = errno;
            cut_to_whole_records(fd, begin, end);
            errno = error;
            return false;
        }
        text += n;
        size -= static_cast<size_t>(n);
        if (size != 0) {
            const off_t at = lseek(fd, 0, SEEK_CUR);
            if (begin == end || at - n != end)
                begin = at - n;
            end = at;
        }
    }
    return true;
}

static int text_write(ebmf *file, char *buffer, int32_t length)
{
    buffer[length] = '\n';
    buffer[length + 1] = '\0';
    // Kept: the line is written up to its first NUL; only -dirty lets one in.
    if (write_whole(fileno(file->textfp), buffer, strlen(buffer)))
        return 0;
    file->write_errno = errno;
    return 1;
}

static int text_getfnum(const ebmf *file, int32_t *number)
{
    *number = fileno(file->textfp);
    return 0;
}

static int text_close(ebmf *file)
{
    return fclose(file->textfp);
}

static void text_detail(const ebmf *file, char *detail)
{
    // Kept: nothing sets os_errno, so a failed write reads as error 0.
    strmcpy(detail, strerror(file == nullptr ? fil_open_os_errno : file->os_errno),
            EBMF_DETAIL_SIZE);
    if (file == nullptr)
        fil_open_os_errno = 0;
}

static int text_open_error(const char *name)
{
    return set_error_emf(nullptr, "Error opening ASCII capture file: %s", name);
}

static bool text_cut_when_taken_up(uint32_t ascii_flags)
{
    return (ascii_flags & ASCII_DIRTY) == 0;
}

// A file that is shorter than the mark says was emptied since, and holds only what
// comes again; but it may be its reader's doing, so that zeros alone are taken away,
// which no text file has.
static bool text_resume(const mark_line &line, int64_t size, char *detail)
{
    int rc = 0;
    if (size < line.end)
        rc = text_cut_zeros(line.path.c_str());
    else if (size > line.end)
        rc = text_cut(line.path.c_str(), line.end, "what comes again");
    if (rc != 0)
        strmcpy(detail, strerror(errno), EBMF_DETAIL_SIZE);
    return rc == 0;
}

const cap_format text_format = {
    .name = "text",
    .chosen_by = ASCII_ON | ASCII_REVERSE | ASCII_DIRTY | ASCII_BWFMT,
    .limited = false,
    .longest = 0,
    .fits = nullptr, // the conversion says
    .build = text_build,
    .open = text_open,
    .write = text_write,
    .getfnum = text_getfnum,
    .close = text_close,
    .reopen = text_reopen,
    .end = nullptr,
    .record_end = nullptr,
    .detail = text_detail,
    .open_error = text_open_error,
    .cut_when_taken_up = text_cut_when_taken_up,
    .mark = nullptr,
    .resume = text_resume,
};
