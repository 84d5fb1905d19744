// Behind a power cut: what capture files hold behind the mark may have holes, and all
// of it comes again.  It is taken out of the way and kept in a file beside.
#include "capture/sync.h"

#include "capture/capinfo.h"
#include "capture/copyname.h"
#include "capture/syncmark.h"
#include "capture/textfile.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "msgfile/tmf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

static int failed(const char *detail, const mark_line &line)
{
    fprintf(stderr, "CAPERR: %s\n", detail);
    return set_error_f("Error taking back what capture file %s holds behind the position; the part "
                       "is to go to %s.cut",
                       line.path.c_str(), line.path.c_str());
}

// A file that is shorter than the mark says was emptied since, and holds only what
// comes again; but it may be its reader's doing, so that zeros alone are taken away,
// which no text file has.
static int resume_text(const mark_line &line, int64_t size)
{
    if (size < line.end)
        return text_cut_zeros(line.path.c_str()) == 0 ? 0 : failed(strerror(errno), line);
    if (size == line.end)
        return 0;
    return text_cut(line.path.c_str(), line.end, "what comes again") == 0
               ? 0
               : failed(strerror(errno), line);
}

// Where the records end that do not come again: 0 for all that are whole, 1 for none.
static bool find_keep_end(const mark_line &line, const tmf_check_result &found, int *keep_end)
{
    *keep_end = 0;
    if (line.end < 0)
        return true;
    const int fd = open(line.path.c_str(), O_RDONLY | O_CLOEXEC);
    uint64_t checksum = 0;
    if (fd < 0)
        return false;
    const bool read = mark_checksum(fd, line.end, &checksum);
    const int error = errno;
    (void)close(fd); // nothing was written to it
    errno = error;
    // Emptied since, and perhaps filled again: all of it came behind the mark.
    const bool emptied = line.end == 0 || found.end < line.end || checksum != line.checksum;
    *keep_end = emptied ? 1 : static_cast<int>(line.end);
    return read;
}

static int resume_message(const mark_line &line)
{
    const std::string aside = line.path + ".cut";
    tmf_check_result found;
    int keep_end = 0;
    char detail[TMF_ERRMSG_SIZE];
    if (tmf_check(line.path.c_str(), &found) != 0)
        return failed(tmf_geterrmsg(nullptr, detail), line);
    if (!find_keep_end(line, found, &keep_end))
        return failed(strerror(errno), line);
    if (tmf_repair(line.path.c_str(), keep_end, aside.c_str(), &found) != 0)
        return failed(tmf_geterrmsg(nullptr, detail), line);
    if (found.changed != 0)
        logmsg(LOG_NOTICE | LOG_VERBOSE,
               "Capture file %s: cut back to what does not come again; as it was in %s.cut",
               line.path.c_str(), line.path.c_str());
    return 0;
}

// The file of a line as it is now, if it is still that one.  1: it is, 0: it is gone or
// another one, -1: failed (reported).
static int look_at(const mark_line &line, struct stat &st)
{
    if (stat(line.path.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            return failed(strerror(errno), line);
        return 0; // somebody has taken it
    }
    return S_ISREG(st.st_mode) && (line.inode == 0 || line.inode == st.st_ino) ? 1 : 0;
}

int capture_resume(const char *mark)
{
    mark_line line;
    std::vector<mark_line> lines;
    std::vector<std::string> files;
    struct stat st = {};
    bool good = true;
    while (mark_next(&mark, line, &good)) {
        const int there = look_at(line, st);
        if (there < 0)
            return there;
        if (there == 0)
            continue;
        lines.push_back(line);
        files.push_back(line.path);
    }
    if (!good)
        return set_error_f("The status file's mark of the capture files cannot be read: %s", mark);
    std::vector<std::string> others = files;
    for (int i = 0; i < ci_get_ncf(g_ci); i++)
        others.emplace_back(g_ci->capfiles[i]->name);
    if (const int rc = check_copy_names(files, others); rc != 0)
        return rc;
    for (const mark_line &each : lines) {
        int rc = look_at(each, st);
        if (rc > 0)
            rc = each.is_text ? resume_text(each, st.st_size) : resume_message(each);
        if (rc != 0)
            return rc;
    }
    return 0;
}
