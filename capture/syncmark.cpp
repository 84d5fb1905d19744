// The mark's text.
#include "capture/syncmark.h"

#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "driver/base/log.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// What the name of a file that is not there stands for from here on.
static std::string path_of_absent(const char *name)
{
    char path[PATH_MAX];
    if (name[0] == '/' || getcwd(path, sizeof path) == nullptr)
        return name;
    return std::string(path) + "/" + name;
}

std::string mark_path(const char *name)
{
    char path[PATH_MAX];
    return realpath(name, path) != nullptr ? path : path_of_absent(name);
}

static std::string escaped(const std::string &path)
{
    std::string text;
    for (const char c : path) {
        if (c == '%')
            text += "%25";
        else if (c == '\n')
            text += "%0A";
        else
            text += c;
    }
    return text;
}

static std::string unescaped(std::string text)
{
    for (size_t at = 0; (at = text.find('%', at)) != std::string::npos; at++)
        text.replace(at, 3, text.compare(at, 3, "%0A") == 0 ? "\n" : "%");
    return text;
}

// Whether a failed look at a name says that no file of the run is there.
static bool says_none(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP ||
           error == ENAMETOOLONG;
}

int mark_add(std::string &mark, capfil *cf, bool none_open, bool &absent)
{
    struct stat st = {};
    const bool there = (cf->fp != nullptr ? fstat(cf->fnum, &st) : stat(cf->name, &st)) == 0;
    // Taken for one that is not there, its records before the mark would be cut off with the rest.
    if (!there && (cf->fp != nullptr || !says_none(errno)))
        return set_error_detail(strerror(errno), "Error bringing capture file to disk: %s",
                                cf->name);
    absent = !there;
    if (there && !S_ISREG(st.st_mode))
        return 0;
    mark_line line;
    line.inode = there ? st.st_ino : 0;
    line.end = there ? st.st_size : 0;
    if (cf->format->mark != nullptr) {
        if (const int rc = cf->format->mark(cf, line, none_open); rc != 0)
            return rc;
    }
    char numbers[100];
    snprintf(numbers, sizeof numbers, "file %s %" PRIu64 " %" PRId64 " %016" PRIx64 " ",
             cf->format->name, line.inode, line.end, line.checksum);
    // Of many files most are not there at the beginning, when each new one makes another mark.
    mark += numbers + escaped(absent ? path_of_absent(cf->name) : mark_path(cf->name)) + "\n";
    return 0;
}

bool mark_next(const char **text, mark_line &line, bool *good)
{
    *good = true;
    const char *end = strchr(*text, '\n');
    if (**text == '\0')
        return false;
    char kind[8] = "";
    int path_at = 0;
    const bool read = end != nullptr &&
                      sscanf(*text, "file %7s %" SCNu64 " %" SCNd64 " %16" SCNx64 "%n", kind,
                             &line.inode, &line.end, &line.checksum, &path_at) == 4 &&
                      *text + path_at < end && (*text)[path_at] == ' ' && line.end >= -1;
    line.format = find_format_name(kind);
    *good = read && line.format != nullptr;
    if (!*good)
        return false;
    line.path = unescaped(std::string(*text + path_at + 1, end));
    *text = end + 1;
    return true;
}
