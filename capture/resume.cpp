// Behind a power cut: what capture files hold behind the mark may have holes, and all
// of it comes again.  It is taken out of the way and kept in a file beside.
#include "capture/sync.h"

#include "capture/capinfo.h"
#include "capture/copyname.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/syncmark.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <vector>

static int failed(const char *detail, const mark_line &line)
{
    fprintf(stderr, "CAPERR: %s\n", detail);
    return set_error_f("Error taking back what capture file %s holds behind the position; the part "
                       "is to go to %s.cut",
                       line.path.c_str(), line.path.c_str());
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

// The same where a file of the format may have been moved while the run had it open: to
// its name with a number or a date behind it ("NAME.1", "NAME-20260131"), which the line
// has then.
static int find(mark_line &line, struct stat &st)
{
    namespace fs = std::filesystem;
    const int there = look_at(line, st);
    if (there != 0 || line.inode == 0 || line.format->reopen == nullptr)
        return there;
    const fs::path path = line.path;
    const std::string begin = path.filename();
    std::error_code error; // a directory that cannot be looked through has no such file
    for (fs::directory_iterator it(path.parent_path(), error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename();
        if (name.size() < begin.size() + 2 || name.compare(0, begin.size(), begin) != 0 ||
            strchr(".-", name[begin.size()]) == nullptr ||
            strchr("0123456789", name[begin.size() + 1]) == nullptr ||
            lstat(it->path().c_str(), &st) != 0 || st.st_ino != line.inode || !S_ISREG(st.st_mode))
            continue;
        line.path = it->path();
        return 1;
    }
    return 0;
}

int capture_resume(const char *mark)
{
    mark_line line;
    std::vector<mark_line> lines;
    std::vector<std::string> files;
    struct stat st = {};
    char detail[EBMF_DETAIL_SIZE];
    bool good = true;
    while (mark_next(&mark, line, &good)) {
        const std::string name = line.path;
        const int there = find(line, st);
        if (there < 0)
            return there;
        if (there == 0)
            continue;
        lines.push_back(line);
        files.push_back(line.path);
        if (line.path == name)
            continue;
        // Its file had the name when the position was brought to disk: the one that has it now was
        // begun behind that, by a run that found the name free at its first record.
        const mark_line begun = {line.format, 0, 0, 0, name};
        const int rc = look_at(begun, st);
        if (rc < 0)
            return rc;
        if (rc > 0) {
            lines.push_back(begun);
            files.push_back(name);
        }
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
            rc = each.format->resume(each, st.st_size, detail) ? 0 : failed(detail, each);
        if (rc != 0)
            return rc;
    }
    return 0;
}
