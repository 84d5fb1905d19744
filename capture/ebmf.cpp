// The file layer under a capture file: one way to the functions of its format.
#include "capture/ebmf.h"

#include "capture/format.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

int32_t fil_open_os_errno;

ebmf *ebmf_fopen(const char *path, int tmf_mode, uint32_t ascii_flags)
{
    fil_open_os_errno = 0;
    auto *file = mem_new<ebmf>();
    file->is_text = static_cast<int32_t>(ascii_flags);
    file->format = find_format(ascii_flags);
    if (file->format->open(file, path, tmf_mode))
        return file;
    free(file);
    return nullptr;
}

int ebmf_fwrite(ebmf *file, char *buffer, int32_t length)
{
    return file->format->write(file, buffer, length);
}

int ebmf_getfnum(const ebmf *file, int32_t *number)
{
    return file->format->getfnum(file, number);
}

int ebmf_end(const ebmf *file, int32_t *end)
{
    return file->format->end(file, end);
}

int ebmf_record_end(const ebmf *file, int32_t *end)
{
    return file->format->record_end(file, end);
}

int ebmf_fclose(ebmf *file)
{
    const int rc = file->format->close(file);
    free(file);
    return rc;
}

void ebmf_detail(const ebmf *file, char *detail)
{
    if (file == nullptr)
        ebmf_open_detail(&text_format, detail);
    else
        file->format->detail(file, detail);
}

void ebmf_open_detail(const cap_format *format, char *detail)
{
    format->detail(nullptr, detail);
}

// Prints the detail and then the message.  cause: known better than the detail says, or 0.
__attribute__((format(printf, 3, 0))) static int report(const char *detail, int cause,
                                                        const char *fmt, va_list args)
{
    char msg[EBMF_DETAIL_SIZE];
    fprintf(stderr, "CAPERR: %s\n", detail);
    vsnprintf(msg, sizeof msg, fmt, args);
    return set_error_because(msg, cause != 0 ? strerror(cause) : detail);
}

int set_error_mf(tmf_handle *tmfh, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    tmf_geterrmsg(tmfh, buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, 0, fmt, args);
    va_end(args);
    return rc;
}

int set_error_emf(const ebmf *file, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    ebmf_detail(file, buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, file != nullptr ? file->write_errno : 0, fmt, args);
    va_end(args);
    return rc;
}

int set_error_detail(const char *detail, const char *fmt, ...)
{
    char buf[EBMF_DETAIL_SIZE];
    strmcpy(buf, detail, sizeof buf);
    va_list args;
    va_start(args, fmt);
    const int rc = report(buf, 0, fmt, args);
    va_end(args);
    return rc;
}
