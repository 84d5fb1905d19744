// Whoever reads the file finds the old one or the new one; the checksum tells of what happened to
// it later, and of another program's file.
#include "feed/whole_file.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

static constexpr std::string_view LAST_WORD = "checksum ";

static std::string last_line(std::string_view text)
{
    char line[32];
    (void)snprintf(line, sizeof line, "checksum %08x\n", fwu_crc32c(0, text.data(), text.size()));
    return line;
}

int feed_file_read(std::string &text, const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // who knows what it is
    if (fd < 0)
        return -1;
    char buffer[16384];
    ssize_t n = 0;
    text.clear();
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    const int code = errno;
    close(fd);
    errno = code;
    return n < 0 ? -1 : 0;
}

feed_whole feed_whole_read(std::string &lines, const std::string &path, std::string_view first)
{
    std::string text;
    if (feed_file_read(text, path) != 0)
        return errno == ENOENT ? FEED_WHOLE_NONE : FEED_WHOLE_FAILED;
    const std::string_view all = text;
    const size_t last = all.rfind(LAST_WORD);
    if (!all.starts_with(first) || last == all.npos || last < first.size() ||
        all[last - 1] != '\n' || last_line(all.substr(0, last)) != all.substr(last))
        return FEED_WHOLE_DAMAGED;
    lines = all.substr(first.size(), last - first.size());
    return FEED_WHOLE;
}

bool feed_whole_write(const std::string &path, mode_t mode, std::string_view first,
                      std::string_view lines)
{
    std::string text(first);
    text += lines;
    text += last_line(text);
    const std::string fresh = path + ".new";
    const int fd = fwu_file_anew(fresh, O_WRONLY, mode);
    const bool written = fd >= 0 && fwu_write_all(fd, text.data(), text.size(), 0) == 0 &&
                         fsync(fd) == 0 && rename(fresh.c_str(), path.c_str()) == 0;
    const int code = errno;
    if (fd >= 0)
        close(fd);
    if (!written)
        (void)unlink(fresh.c_str()); // made anew by the next attempt
    errno = code;
    return written && fwu_path_sync(fwu_directory_of(path)) == 0;
}
