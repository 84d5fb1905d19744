// The file "acknowledged".  Its two lines are written in turn, each by one call
// and brought to disk, so that whatever interrupts that leaves the other one.  Who writes
// it has brought to disk before what it names; who reads it may rely on that being there.
#include "fwutil/fwu_ack.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// fwutil acknowledged 1
// 0000000007 position 0001-00000025.0000000340 end 0000000000019320 lsn 0000000001BC8080
//   time +0001700000004000005 log 101112131415161718191a1b1c1d1e1f lost no  crc 1a2b3c4d
static constexpr char FIRST_LINE[] = "fwutil acknowledged 1\n";
constexpr size_t FIRST_SIZE = sizeof FIRST_LINE - 1;
constexpr size_t LINE_SIZE = 172;
constexpr size_t LINES = 2;
constexpr size_t FILE_SIZE = FIRST_SIZE + LINES * LINE_SIZE;

constexpr uint64_t NUMBERS = 10'000'000'000; // what ten digits hold

static std::string path_of(const std::string &directory)
{
    return directory + "/" + FWU_ACK_NAME;
}

// The line that the file gets.
static std::string line_of(const fwu_ack &ack)
{
    char line[2 * LINE_SIZE];
    const int length = snprintf(
        line, sizeof line,
        "%010" PRIu64 " position %04" PRId32 "-%08" PRId32 ".%010" PRId32 " end %016" PRId64
        " lsn %016" PRIX64 " time %+020" PRId64 " log %-32s lost %-3s crc ",
        ack.number % NUMBERS, ack.position.generation, ack.position.sequence, ack.position.tag,
        ack.end, ack.commit.lsn, ack.commit.time_us, fwu_identity_text(ack.identity).c_str(),
        ack.lost ? "yes" : "no");
    std::string text(line, static_cast<size_t>(length));
    const uint32_t crc =
        fwu_crc32c(fwu_crc32c(0, FIRST_LINE, FIRST_SIZE), text.data(), text.size());
    (void)snprintf(line, sizeof line, "%08" PRIx32 "\n", crc);
    return text + line;
}

// Whether a line is one; it is when the same is written for what was read from it.
static bool parse(fwu_ack &ack, const std::string &line)
{
    char identity[33] = {};
    char lost[4] = {};
    fwu_ack found;
    if (sscanf(line.c_str(),
               "%10" SCNu64 " position %4" SCNd32 "-%8" SCNd32 ".%10" SCNd32 " end %16" SCNd64
               " lsn %16" SCNx64 " time %20" SCNd64 " log %32s lost %3s crc ",
               &found.number, &found.position.generation, &found.position.sequence,
               &found.position.tag, &found.end, &found.commit.lsn, &found.commit.time_us, identity,
               lost) != 9 ||
        !fwu_identity_parse(found.identity, identity))
        return false;
    found.lost = strcmp(lost, "yes") == 0;
    if (line_of(found) != line)
        return false;
    ack = found;
    return true;
}

// Whether a line was written behind another one; numbers go round.
static bool is_newer(const fwu_ack &line, const fwu_ack &other)
{
    const uint64_t ahead = (line.number + NUMBERS - other.number) % NUMBERS;
    return ahead != 0 && ahead < NUMBERS / 2;
}

int fwu_ack_missing(const std::string &directory, const fwu_ack &ack, const fwu_position &end,
                    const char *reason)
{
    const fwu_position &p = ack.position;
    return fwu_error(
        "%s: the log ends %s%s%s%s%s, but it was acknowledged up to position %s (source position "
        "%s) in %s; restore the log from a copy, or go on without what is missing: fwlog repair "
        "--accept-loss",
        directory.c_str(), end.tag != 0 ? "behind position " : "before its first transaction",
        end.tag != 0 ? fwu_position_text(end).c_str() : "", reason != nullptr ? " (" : "",
        reason != nullptr ? reason : "", reason != nullptr ? ")" : "", fwu_position_text(p).c_str(),
        fwu_lsn_text(ack.commit.lsn).c_str(), fwu_log_file_name(p.generation, p.sequence).c_str());
}

int fwu_ack_foreign(const std::string &directory, const fwu_ack &ack, const fwu_identity &there)
{
    return fwu_error("%s/%s: it belongs to the log %s, but the log files there are those of %s; "
                     "restore what belongs together from a copy, or remove the file: then the log "
                     "is taken as it is",
                     directory.c_str(), FWU_ACK_NAME, fwu_identity_text(ack.identity).c_str(),
                     fwu_identity_text(there).c_str());
}

fwu_found fwu_ack_read(const std::string &directory, fwu_ack &ack, bool quiet)
{
    const std::string path = path_of(directory);
    char bytes[FILE_SIZE + 1];
    struct stat about = {};
    ack = fwu_ack();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // who knows what it is
    if (fd < 0 && errno == ENOENT)
        return FWU_END;
    const bool other = fd >= 0 && fstat(fd, &about) == 0 && !S_ISREG(about.st_mode);
    const ssize_t n = other ? 0 : fd < 0 ? -1 : fwu_read_all(fd, bytes, sizeof bytes, 0);
    if (n < 0 && !quiet)
        (void)fwu_file_error(path, "cannot read what was acknowledged");
    if (fd >= 0)
        close(fd);
    if (n < 0)
        return FWU_FAILED;
    bool good = false;
    const std::string text(bytes, static_cast<size_t>(n));
    for (size_t i = 0; i < LINES && text.compare(0, FIRST_SIZE, FIRST_LINE) == 0; i++) {
        const size_t at = FIRST_SIZE + i * LINE_SIZE;
        fwu_ack line;
        if (at + LINE_SIZE > text.size() || !parse(line, text.substr(at, LINE_SIZE)))
            continue;
        if (!good || is_newer(line, ack))
            ack = line;
        good = true;
    }
    if (good)
        return FWU_FOUND;
    if (!quiet)
        fwu_error("%s: %s; restore it from a copy, or remove it: then nobody can tell whether the "
                  "end of the log is missing",
                  path.c_str(),
                  other ? "it is not a regular file"
                        : "damaged: it says what of the log was acknowledged");
    return FWU_FAILED;
}

int fwu_ack_create(const std::string &directory, fwu_ack &ack, mode_t mode)
{
    const std::string path = path_of(directory);
    const std::string temporary = directory + "/new-acknowledged";
    ack.number++;
    const std::string line = line_of(ack);
    const std::string text = FIRST_LINE + line + line;
    const int fd = fwu_file_anew(temporary, O_RDWR, mode);
    const bool written = fd >= 0 && fwu_write_all(fd, text.data(), text.size(), 0) == 0 &&
                         fsync(fd) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
    int result = 0;
    if (!written) {
        result = fwu_file_error(path, "cannot create the file of what was acknowledged");
        (void)unlink(temporary.c_str()); // made anew by the next attempt
    }
    if (fd >= 0)
        close(fd);
    return result == 0 ? fwu_directory_sync(directory) : result;
}

int fwu_ack_write(const std::string &directory, fwu_ack &ack)
{
    const std::string path = path_of(directory);
    fwu_ack next = ack;
    next.number++;
    const std::string line = line_of(next);
    const int fd = open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    const auto at = static_cast<int64_t>(FIRST_SIZE + next.number % LINES * LINE_SIZE);
    const bool written =
        fd >= 0 && fwu_write_all(fd, line.data(), line.size(), at) == 0 && fdatasync(fd) == 0;
    int result = 0;
    if (!written)
        result = fwu_file_error(path, "cannot keep what was acknowledged");
    else
        ack = next;
    if (fd >= 0)
        close(fd);
    return result;
}
