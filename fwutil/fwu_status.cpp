// The status file is rewritten in place with one write of the same length for
// each record: a process that is killed leaves the text before or the text after
// that write, both whole.  It is brought to disk when reading rests, not for
// each record: after a power failure the position may be older than the records
// that were delivered, never newer than what the log on disk holds and was read.
#include "fwutil/fwu_status.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

// fwutil status 1
// log /var/lib/log
// position 0001-00000025.0000000340
// time 2026-11-21 03:33:52.123456 UTC
// crc 1a2b3c4d
static constexpr std::string_view FIRST_LINE = "fwutil status 1\n";
static constexpr std::string_view LOG_WORD = "log ";
static constexpr std::string_view POSITION_WORD = "position ";
static constexpr std::string_view TIME_WORD = "time ";
static constexpr std::string_view CRC_WORD = "crc ";
static constexpr std::string_view NO_POSITION = "none                    ";
static constexpr std::string_view NO_TIME = "none                          ";
static constexpr char POSITION_FORM[] = "0001-00000025.0000000340";
static constexpr char TIME_FORM[] = "2026-11-21 03:33:52.123456 UTC";
static constexpr size_t POSITION_SIZE = sizeof POSITION_FORM - 1;
static constexpr size_t TIME_SIZE = sizeof TIME_FORM - 1;
static constexpr size_t CRC_SIZE = 8;
static_assert(NO_POSITION.size() == POSITION_SIZE && NO_TIME.size() == TIME_SIZE);

// Bytes from the position line to the crc word's end.
static constexpr size_t VARYING_SIZE =
    POSITION_WORD.size() + POSITION_SIZE + 1 + TIME_WORD.size() + TIME_SIZE + 1;
static constexpr size_t CRC_LINE_SIZE = CRC_WORD.size() + CRC_SIZE + 1;

// The whole text stays within the first page of the file, which a write changes
// as one.
static constexpr size_t STATUS_SIZE_MAX = 4096;
static constexpr size_t DIRECTORY_MAX =
    STATUS_SIZE_MAX - FIRST_LINE.size() - LOG_WORD.size() - 1 - VARYING_SIZE - CRC_LINE_SIZE;

constexpr int64_t US_PER_S = 1000000;

static void put_digits(char *p, int64_t value, size_t digits)
{
    for (size_t i = digits; i > 0; i--, value /= 10)
        p[i - 1] = static_cast<char>('0' + value % 10);
}

static int64_t second_of(int64_t time_us)
{
    return time_us >= 0 ? time_us / US_PER_S : -((-(time_us + 1)) / US_PER_S) - 1;
}

static int64_t microsecond_of(int64_t time_us)
{
    const int64_t rest = time_us % US_PER_S;
    return rest < 0 ? rest + US_PER_S : rest;
}

// Formats a second of the years 0 to 9999; others become the nearest of them.
static void put_second(char *p, int64_t second)
{
    constexpr int64_t YEAR_0 = -62167219200;
    constexpr int64_t YEAR_9999_END = 253402300799;
    const time_t when = second < YEAR_0 ? YEAR_0 : second > YEAR_9999_END ? YEAR_9999_END : second;
    struct tm tm = {};
    (void)gmtime_r(&when, &tm); // in range
    memcpy(p, TIME_FORM, TIME_SIZE);
    put_digits(p, tm.tm_year + 1900, 4);
    put_digits(p + 5, tm.tm_mon + 1, 2);
    put_digits(p + 8, tm.tm_mday, 2);
    put_digits(p + 11, tm.tm_hour, 2);
    put_digits(p + 14, tm.tm_min, 2);
    put_digits(p + 17, tm.tm_sec, 2);
}

std::string fwu_time_text(int64_t time_us)
{
    std::string text(TIME_SIZE, ' ');
    const int64_t second = second_of(time_us);
    put_second(text.data(), second);
    put_digits(text.data() + 20, microsecond_of(time_us), 6);
    return text;
}

static void put_crc(char *p, uint32_t crc)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (size_t i = 0; i < CRC_SIZE; i++)
        p[i] = DIGITS[crc >> (28 - 4 * i) & 0xF];
}

static size_t prefix_size(const std::string &bytes)
{
    return bytes.size() - VARYING_SIZE - CRC_LINE_SIZE;
}

static void put_position(char *varying, const fwu_position &position)
{
    char *p = varying + POSITION_WORD.size();
    put_digits(p, position.generation, 4);
    p[4] = '-';
    put_digits(p + 5, position.sequence, 8);
    p[13] = '.';
    put_digits(p + 14, position.tag, 10);
}

std::string fwu_status_put(const fwu_status_text &text)
{
    std::string bytes(FIRST_LINE);
    bytes.append(LOG_WORD).append(text.log_directory).append("\n");
    bytes.append(POSITION_WORD).append(NO_POSITION).append("\n");
    bytes.append(TIME_WORD);
    bytes.append(text.have_position ? fwu_time_text(text.time_us) : std::string(NO_TIME));
    bytes.append("\n");
    if (text.have_position)
        put_position(bytes.data() + bytes.size() - VARYING_SIZE, text.position);
    const uint32_t crc = fwu_crc32c(0, bytes.data(), bytes.size());
    bytes.append(CRC_WORD).append(CRC_SIZE, '0').append("\n");
    put_crc(bytes.data() + bytes.size() - CRC_SIZE - 1, crc);
    return bytes;
}

// Takes "WORD value\n" off the front.
static bool take_line(std::string_view &rest, std::string_view word, std::string_view &value)
{
    const size_t end = rest.find('\n');
    if (end == rest.npos || rest.substr(0, word.size()) != word)
        return false;
    value = rest.substr(word.size(), end - word.size());
    rest.remove_prefix(end + 1);
    return true;
}

// Reads a value in which digits stand where form has digits, and the same
// characters elsewhere.
static bool has_form(std::string_view value, std::string_view form)
{
    if (value.size() != form.size())
        return false;
    for (size_t i = 0; i < form.size(); i++) {
        const bool digit = value[i] >= '0' && value[i] <= '9';
        const bool wants_digit = form[i] >= '0' && form[i] <= '9';
        if (digit != wants_digit || (!digit && value[i] != form[i]))
            return false;
    }
    return true;
}

static int64_t get_digits(std::string_view value, size_t at, size_t digits)
{
    int64_t number = 0;
    for (size_t i = at; i < at + digits; i++)
        number = number * 10 + (value[i] - '0');
    return number;
}

static int64_t get_time_us(std::string_view value)
{
    struct tm tm = {};
    tm.tm_year = static_cast<int>(get_digits(value, 0, 4)) - 1900;
    tm.tm_mon = static_cast<int>(get_digits(value, 5, 2)) - 1;
    tm.tm_mday = static_cast<int>(get_digits(value, 8, 2));
    tm.tm_hour = static_cast<int>(get_digits(value, 11, 2));
    tm.tm_min = static_cast<int>(get_digits(value, 14, 2));
    tm.tm_sec = static_cast<int>(get_digits(value, 17, 2));
    return timegm(&tm) * US_PER_S + get_digits(value, 20, 6);
}

int fwu_status_get(fwu_status_text &text, const std::string &bytes)
{
    text = fwu_status_text();
    if (bytes.empty())
        return 0;
    text.fresh = false;
    std::string_view rest = bytes;
    std::string_view none;
    std::string_view directory;
    std::string_view position;
    std::string_view time;
    std::string_view crc;
    if (!take_line(rest, FIRST_LINE.substr(0, FIRST_LINE.size() - 1), none) || !none.empty() ||
        !take_line(rest, LOG_WORD, directory) || !take_line(rest, POSITION_WORD, position) ||
        !take_line(rest, TIME_WORD, time))
        return -1;
    const size_t covered = bytes.size() - rest.size();
    char expected[CRC_SIZE];
    put_crc(expected, fwu_crc32c(0, bytes.data(), covered));
    if (!take_line(rest, CRC_WORD, crc) || crc != std::string_view(expected, CRC_SIZE))
        return -1;
    text.log_directory = directory;
    text.have_position = position != NO_POSITION;
    if (!text.have_position)
        return time == NO_TIME ? 0 : -1;
    if (!has_form(position, POSITION_FORM) || !has_form(time, TIME_FORM))
        return -1;
    const int64_t tag = get_digits(position, 14, 10);
    if (tag > INT32_MAX)
        return -1;
    text.position.generation = static_cast<int32_t>(get_digits(position, 0, 4));
    text.position.sequence = static_cast<int32_t>(get_digits(position, 5, 8));
    text.position.tag = static_cast<int32_t>(tag);
    text.time_us = get_time_us(time);
    return 0;
}

static int read_fd(const std::string &path, int fd, std::string &bytes)
{
    bytes.resize(STATUS_SIZE_MAX + 1);
    ssize_t n = 0;
    do
        n = pread(fd, bytes.data(), bytes.size(), 0);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return fwu_error("%s: cannot read the status file: %s", path.c_str(), strerror(errno));
    bytes.resize(static_cast<size_t>(n));
    return 0;
}

static int damaged(const std::string &path)
{
    return fwu_error("%s: the status file is damaged; give the position that you know as start "
                     "position, or remove the file to begin with the log's oldest record",
                     path.c_str());
}

int fwu_status_read(const std::string &path, fwu_status_text &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
    std::string bytes;
    const int result = read_fd(path, fd, bytes);
    close(fd);
    if (result != 0)
        return result;
    return fwu_status_get(text, bytes) != 0 ? damaged(path) : 0;
}

static int lock_file(const fwu_status &status)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(status.fd, F_SETLK, &lock) == 0)
        return 0;
    if (errno != EACCES && errno != EAGAIN)
        return fwu_error("%s: cannot lock the status file: %s", status.path.c_str(),
                         strerror(errno));
    if (fcntl(status.fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
        return fwu_error("%s: the status file is in use by process %ld; stop that, or name another "
                         "status file",
                         status.path.c_str(), static_cast<long>(lock.l_pid));
    return fwu_error("%s: the status file is in use by another process", status.path.c_str());
}

static int write_bytes(fwu_status &status)
{
    ssize_t n = 0;
    do
        n = pwrite(status.fd, status.bytes.data(), status.bytes.size(), 0);
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(status.bytes.size()))
        return fwu_error("%s: cannot write to the status file: %s", status.path.c_str(),
                         n < 0 ? strerror(errno) : "no space left");
    status.unsynced = true;
    if (status.cut && ftruncate(status.fd, n) != 0)
        return fwu_error("%s: cannot cut the status file to its length: %s", status.path.c_str(),
                         strerror(errno));
    status.cut = false;
    return 0;
}

static int open_locked(fwu_status &status, const std::string &log_directory, bool overridden)
{
    std::string bytes;
    if (lock_file(status) != 0 || read_fd(status.path, status.fd, bytes) != 0)
        return -1;
    fwu_status_text text;
    const int bad = fwu_status_get(text, bytes);
    if (bad != 0 && !overridden)
        return damaged(status.path);
    if (bad == 0 && !overridden && !text.fresh && text.log_directory != log_directory)
        return fwu_error("%s: the status file belongs to the log in %s, the configuration names "
                         "%s; use another status file, or give a start position",
                         status.path.c_str(), text.log_directory.c_str(), log_directory.c_str());
    status.text = bad == 0 && !overridden ? text : fwu_status_text();
    status.text.log_directory = log_directory;
    status.bytes = fwu_status_put(status.text);
    status.prefix_crc = fwu_crc32c(0, status.bytes.data(), prefix_size(status.bytes));
    status.cut = bytes.size() > status.bytes.size();
    // A new file is written at once, so that a full disk shows now; an existing
    // one stays as it is until there is something better to say.
    return bytes.empty() ? write_bytes(status) : 0;
}

int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden)
{
    status = fwu_status();
    status.path = path;
    if (log_directory.size() > DIRECTORY_MAX || log_directory.find('\n') != log_directory.npos)
        return fwu_error("%s: the log directory's path is too long or holds a line end",
                         log_directory.c_str());
    status.fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (status.fd < 0)
        return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
    if (open_locked(status, log_directory, overridden) == 0)
        return 0;
    fwu_status_close(status);
    return -1;
}

int fwu_status_acknowledge(fwu_status &status, const fwu_position &position, int64_t time_us)
{
    char *varying = status.bytes.data() + prefix_size(status.bytes);
    char *time = varying + VARYING_SIZE - 1 - TIME_SIZE;
    const int64_t second = second_of(time_us);
    if (second != status.second || !status.text.have_position) {
        put_second(time, second);
        status.second = second;
    }
    put_digits(time + 20, microsecond_of(time_us), 6);
    put_position(varying, position);
    status.text.have_position = true;
    status.text.position = position;
    status.text.time_us = time_us;
    put_crc(varying + VARYING_SIZE + CRC_WORD.size(),
            fwu_crc32c(status.prefix_crc, varying, VARYING_SIZE));
    return write_bytes(status);
}

int fwu_status_sync(fwu_status &status)
{
    if (!status.unsynced)
        return 0;
    if (fsync(status.fd) != 0)
        return fwu_error("%s: cannot bring the status file to disk: %s", status.path.c_str(),
                         strerror(errno));
    status.unsynced = false;
    return 0;
}

void fwu_status_close(fwu_status &status)
{
    if (status.fd >= 0)
        close(status.fd);
    status.fd = -1;
}
