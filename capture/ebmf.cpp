// The file layer under a capture file.  Message files are refused at open until
// the message-file library is linked in; text files are whole.
#include "capture/ebmf.h"

#include "driver/log.h"
#include "driver/mem.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

constexpr size_t DETAIL_SIZE = 1024;

// What the detail line says of any message-file call.
static const char no_message_files[] =
    "This build writes text capture files only: give -ascii before the file name.";

int32_t fil_open_os_errno;

ebmf *ebmf_fopen(const char *path, int /*tmf_mode*/, uint32_t ascii_flags)
{
    fil_open_os_errno = 0;
    if (ascii_flags == 0)
        return nullptr;
    FILE *fp = fopen(path, "we");
    if (fp == nullptr) {
        fil_open_os_errno = errno;
        return nullptr;
    }
    auto *file = mem_new<ebmf>();
    file->is_text = static_cast<int32_t>(ascii_flags);
    file->textfp = fp;
    return file;
}

// Takes back what a failed write left of its record, so that the next record
// begins a line.  A pipe or a device refuses, and has nothing to take back.
static void cut_to_whole_records(ebmf *file)
{
    struct stat st = {};
    if (fstat(fileno(file->textfp), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size <= file->text_size)
        return;
    if (ftruncate(fileno(file->textfp), file->text_size) == 0)
        (void)lseek(fileno(file->textfp), file->text_size, SEEK_SET); // regular: cannot fail
}

// Writes the whole text past the stream's buffer: it is there for a reader, and a
// full disk is seen, before the call returns.
static bool write_text(int fd, const char *text, size_t size)
{
    while (size != 0) {
        const ssize_t n = write(fd, text, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        text += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

int ebmf_fwrite(ebmf *file, char *buffer, int32_t length)
{
    buffer[length] = '\n';
    buffer[length + 1] = '\0';
    // Kept: the line is written up to its first NUL; only -dirty lets one in.
    const size_t size = strlen(buffer);
    if (!write_text(fileno(file->textfp), buffer, size)) {
        const int error = errno;
        cut_to_whole_records(file);
        errno = error;
        return 1;
    }
    file->text_size += static_cast<int64_t>(size);
    return 0;
}

int ebmf_getfnum(const ebmf *file, int32_t *number)
{
    *number = fileno(file->textfp);
    return 0;
}

int ebmf_fclose(ebmf *file)
{
    const int rc = fclose(file->textfp);
    free(file);
    return rc;
}

// Prints the detail, then reports the message in its place.
__attribute__((format(printf, 2, 0))) static int report(const char *detail, const char *fmt,
                                                        va_list args)
{
    char buf[DETAIL_SIZE];
    strmcpy(buf, detail, sizeof buf);
    fprintf(stderr, "CAPERR: %s\n", buf);
    vsnprintf(buf, sizeof buf, fmt, args);
    return set_error(buf);
}

int set_error_mf(const void * /*tmfh*/, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int rc = report(no_message_files, fmt, args);
    va_end(args);
    return rc;
}

int set_error_emf(const ebmf *file, const char *fmt, ...)
{
    const char *detail;
    if (file == nullptr) {
        detail = strerror(fil_open_os_errno);
        fil_open_os_errno = 0;
    } else {
        // Kept: nothing sets os_errno, so a failed write reads as error 0.
        detail = strerror(file->os_errno);
    }
    va_list args;
    va_start(args, fmt);
    const int rc = report(detail, fmt, args);
    va_end(args);
    return rc;
}
