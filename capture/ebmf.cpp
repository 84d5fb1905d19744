// The file layer under a capture file: message files through the message-file
// library, text files a line a record.
#include "capture/ebmf.h"

#include "capture/textfile.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

int32_t fil_open_os_errno;

static ebmf *new_ebmf(uint32_t ascii_flags)
{
    auto *file = mem_new<ebmf>();
    file->is_text = static_cast<int32_t>(ascii_flags);
    return file;
}

ebmf *ebmf_fopen(const char *path, int tmf_mode, uint32_t ascii_flags)
{
    fil_open_os_errno = 0;
    if (ascii_flags == 0) {
        tmf_handle *tmfh = tmf_fopen(path, tmf_mode);
        if (tmfh == nullptr)
            return nullptr;
        ebmf *file = new_ebmf(ascii_flags);
        file->tmfh = tmfh;
        return file;
    }
    const int fd = text_open(path, ascii_flags);
    FILE *fp = fd < 0 ? nullptr : fdopen(fd, "w");
    if (fp == nullptr) {
        fil_open_os_errno = errno;
        if (fd >= 0)
            (void)close(fd); // nothing was written to it
        return nullptr;
    }
    ebmf *file = new_ebmf(ascii_flags);
    file->textfp = fp;
    return file;
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
static bool write_text(int fd, const char *text, size_t size)
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

static int write_line(ebmf *file, char *buffer, int32_t length)
{
    buffer[length] = '\n';
    buffer[length + 1] = '\0';
    // Kept: the line is written up to its first NUL; only -dirty lets one in.
    return write_text(fileno(file->textfp), buffer, strlen(buffer)) ? 0 : 1;
}

int ebmf_fwrite(ebmf *file, char *buffer, int32_t length)
{
    return file->is_text != 0 ? write_line(file, buffer, length)
                              : tmf_fwrite(file->tmfh, buffer, length);
}

int ebmf_getfnum(const ebmf *file, int32_t *number)
{
    if (file->is_text == 0)
        return tmf_getinfo(file->tmfh, TMF_INFO_DESCRIPTOR, number, 0);
    *number = fileno(file->textfp);
    return 0;
}

int ebmf_fclose(ebmf *file)
{
    const int rc = file->is_text != 0 ? fclose(file->textfp) : tmf_fclose(file->tmfh);
    free(file);
    return rc;
}

void ebmf_detail(const ebmf *file, char *detail)
{
    if (file == nullptr) {
        strmcpy(detail, strerror(fil_open_os_errno), EBMF_DETAIL_SIZE);
        fil_open_os_errno = 0;
    } else if (file->is_text != 0) {
        // Kept: nothing sets os_errno, so a failed write reads as error 0.
        strmcpy(detail, strerror(file->os_errno), EBMF_DETAIL_SIZE);
    } else {
        tmf_geterrmsg(file->tmfh, detail);
    }
}

// Prints the detail and then, from the same buffer, the message.
__attribute__((format(printf, 2, 0))) static int report(char *detail, const char *fmt, va_list args)
{
    fprintf(stderr, "CAPERR: %s\n", detail);
    vsnprintf(detail, EBMF_DETAIL_SIZE, fmt, args);
    return set_error(detail);
}

int set_error_mf(tmf_handle *tmfh, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    tmf_geterrmsg(tmfh, buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, fmt, args);
    va_end(args);
    return rc;
}

int set_error_emf(const ebmf *file, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    ebmf_detail(file, buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, fmt, args);
    va_end(args);
    return rc;
}

int set_error_detail(const char *detail, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    strmcpy(buf, detail, sizeof buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, fmt, args);
    va_end(args);
    return rc;
}
