// The file of names is made anew whole: its first line tells its form, its last one the checksum
// of what stands before, and between them stands a line for each name.
#include "feed/names.h"

#include "feed/names_log.h"
#include "fwutil/fwu_config_text.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_source_name.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static constexpr std::string_view FIRST_LINE = "fwlog names 1\n";
static constexpr std::string_view LAST_WORD = "checksum ";

static std::string last_line(std::string_view text)
{
    char line[32];
    (void)snprintf(line, sizeof line, "checksum %08x\n", fwu_crc32c(0, text.data(), text.size()));
    return line;
}

// The file's bytes; 0, or -1 with errno.
static int read_all(std::string &text, const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // who knows what it is
    if (fd < 0)
        return -1;
    char buffer[16384];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    const int code = errno;
    close(fd);
    errno = code;
    return n < 0 ? -1 : 0;
}

// Takes a line; false: it is none that is written here.
static bool take(feed_names &names, const fwu_words &w)
{
    std::vector<std::string> parts;
    if (w.size() < 3 || !fwu_source_name_parts(parts, w[1]))
        return false;
    if (w[0] == "column" && w.size() == 3 && parts.size() == 3)
        return names.items.emplace(w[1], w[2]).second;
    if (w[0] != "table" || w.size() != 4 || parts.size() != 2)
        return false;
    return names.tables.emplace(w[1], feed_dataset_name{w[2], w[3]}).second &&
           names.owners.emplace(w[2] + "." + w[3], w[1]).second;
}

static bool take_all(feed_names &names, std::string_view text)
{
    const size_t last = text.rfind(LAST_WORD);
    if (!text.starts_with(FIRST_LINE) || last == text.npos ||
        last_line(text.substr(0, last)) != text.substr(last))
        return false;
    text = text.substr(0, last);
    for (size_t at = FIRST_LINE.size(); at < text.size();) {
        const size_t end = text.find('\n', at);
        fwu_words words;
        if (end == text.npos ||
            fwu_config_split_names({names.path}, text.substr(at, end - at), words) != 0 ||
            !take(names, words))
            return false;
        at = end + 1;
    }
    return true;
}

outcome feed_names_open(feed_names &names, const std::string &directory, mode_t mode)
{
    names = {};
    names.mode = mode;
    if (directory.empty())
        return {};
    names.path = directory + "/names";
    std::string text;
    if (read_all(text, names.path) != 0)
        return errno == ENOENT
                   ? feed_names_from_log(names, directory)
                   : outcome_failed("%s: cannot read the names of datasets and items: %m",
                                    names.path.c_str());
    if (take_all(names, text))
        return {};
    return outcome_failed("%s: damaged: it says which dataset each table has; restore it from a "
                          "copy, or remove it: then they are taken from the layouts in the log",
                          names.path.c_str());
}

static std::string text_of(const feed_names &names)
{
    std::string text(FIRST_LINE);
    for (const auto &[table, name] : names.tables)
        text += "table " + table + " " + name.dbname + " " + name.dsetname + "\n";
    for (const auto &[column, item] : names.items)
        text += "column " + column + " " + item + "\n";
    return text + last_line(text);
}

outcome feed_names_keep(feed_names &names, bool all)
{
    if (!(all ? names.is_new : names.must_keep) || names.path.empty())
        return {};
    const std::string text = text_of(names);
    const std::string fresh = names.path + ".new";
    const int fd = fwu_file_open(fresh, O_WRONLY | O_TRUNC, names.mode);
    const bool written = fd >= 0 && fwu_write_all(fd, text.data(), text.size(), 0) == 0 &&
                         fsync(fd) == 0 && rename(fresh.c_str(), names.path.c_str()) == 0;
    const int code = errno;
    if (fd >= 0)
        close(fd);
    if (!written)
        (void)unlink(fresh.c_str()); // made anew by the next attempt
    if (!written || fwu_path_sync(fwu_directory_of(names.path)) != 0)
        return outcome_failed("%s: cannot keep the names of datasets and items: %s",
                              names.path.c_str(), strerror(written ? errno : code));
    names.is_new = names.must_keep = false;
    return {};
}
