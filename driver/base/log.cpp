// Error messages and the diagnostic log.  Nothing is kept between calls: the
// log file is opened for every line, so several processes can share it.
#include "driver/base/log.h"

#include "driver/base/globals.h"
#include "driver/base/zone.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

constexpr size_t ERROR_SIZE = 1024;
constexpr size_t LOG_SIZE = 256;

void (*g_error_told)(const char *msg, const char *detail) = nullptr;

int set_error_because(const char *msg, const char *detail)
{
    fprintf(stderr, "%s\n", msg);
    if (g_error_told != nullptr)
        g_error_told(msg, detail);
    return -1;
}

int set_error(const char *msg)
{
    return set_error_because(msg, nullptr);
}

int set_error_f(const char *fmt, ...)
{
    char msg[ERROR_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(msg, sizeof msg, fmt, args);
    va_end(args);
    return set_error(msg);
}

// The log line of a message: "MM-DD-YY hh:mm:ss pid message" and a newline,
// which a line that is cut keeps as well.
static void build_log_line(char (&line)[LOG_SIZE], const char *msg)
{
    struct tm tm = {};
    zone_local_time(time(nullptr), &tm);
    const int length = snprintf(line, sizeof line, "%02d-%02d-%02d %02d:%02d:%02d %ld %s\n",
                                tm.tm_mon + 1, tm.tm_mday, tm.tm_year - 100, tm.tm_hour, tm.tm_min,
                                tm.tm_sec, static_cast<long>(getpid()), msg);
    if (length >= static_cast<int>(sizeof line))
        line[sizeof line - 2] = '\n';
}

static bool append_to_log(const char *fname, const char *line)
{
    FILE *log = fopen(fname, "a");
    if (log == nullptr) {
        const int error = errno;
        fprintf(stderr, "Error opening log file: %s\n", fname);
        fprintf(stderr, "%s\n", strerror(error));
        return false;
    }
    fputs(line, log);
    fclose(log);
    return true;
}

void logmsg(uint32_t level, const char *fmt, ...)
{
    if ((level & g_loglevel) == 0)
        return;

    char msg[LOG_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(msg, sizeof msg, fmt, args);
    va_end(args);

    char line[LOG_SIZE];
    build_log_line(line, msg);

    char fname[LOG_FNAME_SIZE];
    get_log_fname(fname, sizeof fname);
    if (fname[0] != '\0' && append_to_log(fname, line))
        return;
    fputs(line, stderr);
}

void get_log_fname(char *buf, size_t size)
{
    strmcpy(buf, g_logfname, size);
}

void strmcpy(char *dst, const char *src, size_t size)
{
    if (size == 0)
        return;
    const size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

int remove_file(const char *path)
{
    if (remove(path) != 0) {
        printf("Error \"%s\" removing file %s\n", strerror(errno), path);
        return -1;
    }
    printf("%s removed.\n", path);
    return 0;
}
