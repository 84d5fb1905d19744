// The register as lines of text between a head and a checksum: a register that was cut short must
// not look like one with fewer readers, whose files would go.
#include "fwutil/fwu_readers.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

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

// fwutil readers 1
// /var/lib/orders/orders.status
// crc 1a2b3c4d
static constexpr std::string_view HEAD = "fwutil readers 1\n";
static constexpr std::string_view CRC_WORD = "crc ";
constexpr size_t CRC_LINE_SIZE = sizeof "crc 1a2b3c4d\n" - 1;
constexpr size_t SIZE_MAX_READ = 16 * 1024 * 1024;
constexpr int64_t LOCK_WAIT_MS = 10'000;
constexpr long LOCK_LOOK_NS = 20'000'000;

static std::string last_line(std::string_view text)
{
    char line[2 * CRC_LINE_SIZE];
    (void)snprintf(line, sizeof line, "crc %08x\n",
                   fwu_crc32c(0, text.data(), text.size())); // fits
    return line;
}

std::string fwu_reader_path(const std::string &path)
{
    std::string found;
    char *real = realpath(path.c_str(), nullptr);
    if (real == nullptr && errno == ENOENT) { // its directory is there, or it is wrong
        const size_t slash = path.rfind('/');
        const std::string name = path.substr(slash == path.npos ? 0 : slash + 1);
        if (name.empty() || name == "." || name == "..")
            errno = ENOENT;
        else if ((real = realpath(fwu_directory_of(path).c_str(), nullptr)) != nullptr)
            found = std::string(strcmp(real, "/") == 0 ? "" : real) + "/" + name;
    } else if (real != nullptr) {
        found = real;
    }
    free(real);
    if (found.empty()) {
        (void)fwu_file_error(path, "cannot find the status file's directory");
        return found;
    }
    for (const char c : found)
        if (static_cast<unsigned char>(c) < ' ' || c == 127) {
            fwu_error("%s: a status file with a control character in its path cannot be registered",
                      path.c_str());
            return "";
        }
    return found;
}

static fwu_found damaged(const std::string &path)
{
    fwu_error(
        "%s: damaged: it says which readers need the log; restore it from a copy, or remove it "
        "and register them again (fwlog readers --add)",
        path.c_str());
    return FWU_FAILED;
}

static bool parse(std::string_view text, std::vector<std::string> &paths)
{
    if (!text.starts_with(HEAD) || text.size() < HEAD.size() + CRC_LINE_SIZE ||
        text.substr(text.size() - CRC_LINE_SIZE, CRC_WORD.size()) != CRC_WORD ||
        last_line(text.substr(0, text.size() - CRC_LINE_SIZE)) !=
            text.substr(text.size() - CRC_LINE_SIZE))
        return false;
    text.remove_suffix(CRC_LINE_SIZE);
    text.remove_prefix(HEAD.size());
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (end == text.npos || end == 0 || text[0] != '/')
            return false;
        paths.emplace_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    return true;
}

// Opens a file beside the log's that all who write there may open: what the superuser makes belongs
// to whom the directory belongs to.  Who that is must not lead the superuser elsewhere: no link is
// followed, and only an empty file without another name is given away.  A descriptor, or -1 with
// errno.
static int open_beside(const std::string &directory, const std::string &path, int flags,
                       bool to_lock = false)
{
    struct stat about = {};
    struct stat made = {};
    if (stat(directory.c_str(), &about) != 0)
        return -1;
    const mode_t mode = 0600 | (about.st_mode & 0666);
    const int fd = fwu_file_open(path, flags | O_NOFOLLOW | O_NONBLOCK, // who knows what it is
                                 to_lock ? fwu_file_lock_mode(mode) : mode);
    if (fd >= 0 && geteuid() == 0 && fstat(fd, &made) == 0 && S_ISREG(made.st_mode) &&
        made.st_uid == 0 && made.st_nlink == 1 && made.st_size == 0)
        (void)!fchown(fd, about.st_uid, about.st_gid); // a file system without owners is no reason
    return fd;
}

fwu_found fwu_readers_read(const std::string &directory, std::vector<std::string> &paths)
{
    const std::string path = directory + "/" + FWU_READERS_NAME;
    paths.clear();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // who knows what it is
    if (fd < 0 && errno == ENOENT)
        return FWU_END;
    std::string text;
    char bytes[16384];
    ssize_t n = fd < 0 ? -1 : 0;
    while (fd >= 0 && text.size() <= SIZE_MAX_READ &&
           (n = fwu_read_some(fd, bytes, sizeof bytes)) > 0)
        text.append(bytes, static_cast<size_t>(n));
    if (n < 0)
        (void)fwu_file_error(path, "cannot read the register of readers");
    if (fd >= 0)
        close(fd);
    if (n < 0)
        return FWU_FAILED;
    if (parse(text, paths))
        return FWU_FOUND;
    paths.clear();
    return damaged(path);
}

int fwu_readers_write(const std::string &directory, const std::vector<std::string> &paths)
{
    const std::string path = directory + "/" + FWU_READERS_NAME;
    const std::string temporary = directory + "/new-readers";
    std::string text(HEAD);
    for (const std::string &reader : paths)
        text.append(reader).append("\n");
    text += last_line(text);
    (void)unlink(temporary.c_str()); // left by one that was killed, of whatever owner
    const int fd = open_beside(directory, temporary, O_WRONLY | O_TRUNC);
    const bool written = fd >= 0 && fwu_write_all(fd, text.data(), text.size(), 0) == 0 &&
                         fsync(fd) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
    int result = 0;
    if (!written) {
        result = fwu_file_error(path, "cannot write the register of readers");
        (void)unlink(temporary.c_str());
    }
    if (fd >= 0)
        close(fd);
    return result == 0 ? fwu_directory_sync(directory) : result;
}

fwu_readers_lock::~fwu_readers_lock()
{
    if (fd >= 0)
        close(fd);
}

fwu_found fwu_readers_take_lock(fwu_readers_lock &held, const std::string &directory, bool wait)
{
    const std::string path = directory + "/" + FWU_READERS_NAME + ".lock";
    held.fd = open_beside(directory, path, O_RDWR, true);
    if (held.fd < 0) {
        (void)fwu_file_error(path, "cannot open the lock file of the register of readers");
        return FWU_FAILED;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const int64_t until_ms = fwu_monotonic_ms() + LOCK_WAIT_MS;
    while (fcntl(held.fd, F_SETLK, &lock) != 0) {
        if (errno != EACCES && errno != EAGAIN) {
            (void)fwu_file_error(path, "cannot lock the register of readers");
            return FWU_FAILED;
        }
        if (!wait)
            return FWU_END;
        if (fwu_monotonic_ms() >= until_ms) {
            if (fcntl(held.fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
                lock.l_pid = 0;
            fwu_error("%s: another process%s%s holds the lock; wait until it is done", path.c_str(),
                      lock.l_pid != 0 ? ", " : "",
                      lock.l_pid != 0 ? std::to_string(lock.l_pid).c_str() : "");
            return FWU_END;
        }
        const timespec pause = {.tv_sec = 0, .tv_nsec = LOCK_LOOK_NS};
        (void)nanosleep(&pause, nullptr);
    }
    return FWU_FOUND;
}

fwu_found fwu_readers_needs(const std::string &directory, const std::vector<fwu_log_file> &files,
                            std::vector<fwu_reader> &readers, bool checked)
{
    std::vector<std::string> paths;
    readers.clear();
    const fwu_found found = fwu_readers_read(directory, paths);
    for (const std::string &path : paths)
        readers.push_back({path, fwu_need_of(path, directory, files, checked)});
    return found;
}
