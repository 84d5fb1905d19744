// The mark's text.
#include "capture/syncmark.h"

#include "capture/capfil.h"
#include "capture/ebmf.h"
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

std::string mark_path(const char *name)
{
    char path[PATH_MAX];
    if (realpath(name, path) != nullptr)
        return path;
    // Not there: what the name stands for from here on.
    if (name[0] == '/' || getcwd(path, sizeof path) == nullptr)
        return name;
    return std::string(path) + "/" + name;
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

// Of at most 64 KiB, which are not the same by chance in a file that was emptied and
// has filled again: they hold sequence numbers and dates.
bool mark_checksum(int fd, int64_t end, uint64_t *checksum)
{
    constexpr int64_t DATA_START = 4352; // before it stand counters, which change
    constexpr int64_t TAIL_SIZE = 65536;
    static unsigned char tail[TAIL_SIZE];
    const int64_t at = std::max(DATA_START, end - TAIL_SIZE);
    *checksum = 0xcbf29ce484222325; // FNV-1a
    for (int64_t done = 0; at + done < end;) {
        const ssize_t n = pread(fd, tail + done, static_cast<size_t>(end - at - done), at + done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0; // a file that ends before has another checksum
        for (int64_t i = done; i < done + n; i++)
            *checksum = (*checksum ^ tail[i]) * 0x100000001b3;
        done += n;
    }
    return true;
}

// The end of a message file that is open, and its checksum.
static int find_end(capfil *cf, mark_line &line)
{
    int32_t end = 0;
    if (tmf_getinfo(cf->fp->tmfh, TMF_INFO_WRITE_OFFSET, &end, 0) != 0)
        return set_error_emf(cf->fp, "Error bringing capture file to disk: %s", cf->name);
    if (!mark_checksum(cf->fnum, end, &line.checksum))
        return set_error_detail(strerror(errno), "Error bringing capture file to disk: %s",
                                cf->name);
    cf->synced_end = end;
    cf->synced_sum = line.checksum;
    line.end = end < 0 ? -1 : end; // past 2 GiB it shows a negative one
    return 0;
}

// The same of one that is not open yet.  It is looked at as long as none is: the close
// drops the locks that the process has on a file of that name.
static void look_end(capfil *cf, mark_line &line, bool none_open)
{
    tmf_check_result found;
    if (cf->synced_end == 0 && none_open && tmf_check(cf->name, &found) == 0 && found.found == 0 &&
        found.end <= INT32_MAX) {
        const int fd = open(cf->name, O_RDONLY | O_CLOEXEC);
        if (fd >= 0 && mark_checksum(fd, found.end, &cf->synced_sum))
            cf->synced_end = static_cast<int32_t>(found.end);
        if (fd >= 0)
            (void)close(fd); // nothing was written to it
    }
    line.end = cf->synced_end != 0 ? cf->synced_end : -1;
    line.checksum = cf->synced_sum;
}

int mark_add(std::string &mark, capfil *cf, bool none_open)
{
    struct stat st = {};
    const bool there = (cf->fp != nullptr ? fstat(cf->fnum, &st) : stat(cf->name, &st)) == 0;
    if (there && !S_ISREG(st.st_mode))
        return 0;
    mark_line line;
    line.inode = there ? st.st_ino : 0;
    line.end = there ? st.st_size : 0;
    if (cf->ascii_flags == 0) {
        if (cf->fp != nullptr) {
            if (const int rc = find_end(cf, line); rc != 0)
                return rc;
        } else if (there) {
            look_end(cf, line, none_open);
        }
    }
    char numbers[100];
    snprintf(numbers, sizeof numbers, "file %s %" PRIu64 " %" PRId64 " %016" PRIx64 " ",
             cf->ascii_flags != 0 ? "text" : "message", line.inode, line.end, line.checksum);
    mark += numbers + escaped(mark_path(cf->name)) + "\n";
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
    *good = end != nullptr &&
            sscanf(*text, "file %7s %" SCNu64 " %" SCNd64 " %16" SCNx64 "%n", kind, &line.inode,
                   &line.end, &line.checksum, &path_at) == 4 &&
            *text + path_at < end && (*text)[path_at] == ' ' && line.end >= -1 &&
            (strcmp(kind, "text") == 0 || strcmp(kind, "message") == 0);
    if (!*good)
        return false;
    line.is_text = strcmp(kind, "text") == 0;
    line.path = unescaped(std::string(*text + path_at + 1, end));
    *text = end + 1;
    return true;
}
