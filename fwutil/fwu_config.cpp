// Reading the configuration file: one statement a line.  Whoever reads it, the whole file
// must be good: a reader does not go on with half of what its author meant.
#include "fwutil/fwu_config.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_statements.h"
#include "fwutil/fwu_wait.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <unistd.h>

constexpr size_t CONFIG_MAX = 16 * 1024 * 1024;

static int take_log_directory(fwu_reader_config &config, const fwu_config_at &at,
                              const fwu_words &w)
{
    if (w.size() != 2 || w[1].empty())
        return fwu_config_wrong(
            at, "log-directory takes one path (in double quotes when it holds blanks)");
    if (!config.log_directory.empty())
        return fwu_config_wrong(at, "log-directory is given twice");
    const std::filesystem::path here = std::filesystem::path(config.path).parent_path();
    config.log_directory = (here / w[1]).string();
    return 0;
}

static int take_line(fwu_reader_config &config, fwu_writing_lines &lines, std::string_view line)
{
    fwu_words w;
    bool quoted = false;
    for (const char c : line)
        if ((static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r') || c == 127)
            return fwu_config_wrong(lines.at, "the line holds a control character");
    const int split = fwu_writing_has_names(fwu_config_first(line))
                          ? fwu_config_split_names(lines.at, line, w)
                          : fwu_config_split(lines.at, line, w, quoted);
    if (split != 0)
        return -1;
    if (w.empty())
        return 0;
    if (w[0] == "log-directory")
        return take_log_directory(config, lines.at, w);
    if (!fwu_writing_knows(w[0]))
        return fwu_config_wrong(
            lines.at,
            "%s is not known here; a line begins with log-directory, log-file-size, "
            "byte-order, text-encoding, sync, log-mode, log-keep, values, truncate, default-width, "
            "skip-table, table, column, database, dataset or item",
            w[0].c_str());
    if (quoted)
        return fwu_config_wrong(
            lines.at,
            "only a path, a type and parts of a table's or column's name are written in quotes");
    return fwu_writing_take(lines, w);
}

// What comes next.  Of a pipe that is waited for here, where a signal ends it: opened or read by
// calls that wait, it would hold up a program that goes on behind a signal.
static ssize_t read_next(int fd, char *buffer, size_t size, bool first)
{
    for (bool waited = false;; waited = true) {
        const ssize_t n = fwu_read_some(fd, buffer, size);
        const bool nobody_yet = n == 0 && first && !waited; // or an empty file
        if (!nobody_yet && (n >= 0 || errno != EAGAIN))
            return n;
        const fwu_held_signals held; // none comes between the look and the wait
        struct pollfd wanted = {.fd = fd, .events = POLLIN, .revents = 0};
        errno = EINTR;
        if (fwu_stop != 0 || ppoll(&wanted, 1, nullptr, &held.before) < 0)
            return -1;
    }
}

static int read_text(const std::string &path, std::string &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return fwu_error("%s: cannot open the configuration file: %s; name it with the cfg "
                         "argument or in FWUTIL_CFG",
                         path.c_str(), strerror(errno));
    char buffer[16384];
    ssize_t n = 0;
    while ((n = read_next(fd, buffer, sizeof buffer, text.empty())) > 0 &&
           text.size() <= CONFIG_MAX)
        text.append(buffer, static_cast<size_t>(n));
    const int read_errno = errno;
    close(fd);
    if (n < 0 && read_errno == EINTR && fwu_stop != 0)
        return FWU_STOPPED;
    if (n < 0)
        return fwu_error("%s: cannot read the configuration file: %s", path.c_str(),
                         strerror(read_errno));
    if (text.size() > CONFIG_MAX)
        return fwu_error("%s: the configuration file is larger than 16 MiB", path.c_str());
    return 0;
}

int fwu_config_read(fwu_config &config, const char *path)
{
    if (path == nullptr)
        path = getenv("FWUTIL_CFG");
    config = fwu_config();
    config.path = path != nullptr && *path != '\0' ? path : "fwutil.cfg";
    config.big_endian = std::endian::native == std::endian::big;
    std::string text;
    if (const int result = read_text(config.path, text); result != 0)
        return result;
    fwu_writing_lines lines{.writing = config, .at = {config.path}};
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.at.line++;
        if (take_line(config, lines, std::string_view(text).substr(at, end - at)) != 0)
            return -1;
        at = end + 1;
    }
    if (config.log_directory.empty())
        return fwu_config_wrong(lines.at, "the log-directory line is missing");
    config.stops_at_truncate = fwu_writing_stops_at_truncate(config);
    return fwu_writing_check(lines);
}

int fwu_config_read(fwu_reader_config &config, const char *path)
{
    fwu_config whole;
    const int result = fwu_config_read(whole, path);
    config = whole;
    return result;
}
