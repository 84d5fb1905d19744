// Text files and the PID file are emptied when they are opened, message files and status files
// changed in place: a name given twice would cost what has it already.
#include "driver/own_files.h"

#include "capture/capinfo.h"
#include "capture/copyname.h"
#include "capture/format.h"
#include "driver/base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

constexpr char MESSAGE_FILE_MAGIC[] = "TM01";
constexpr int MESSAGE_FILE_MAGIC_AT = 4;

const char *own_config_file(const char *cfgfile)
{
    const char *usual = getenv("FWUTIL_CFG");
    if (cfgfile != nullptr)
        return cfgfile;
    return usual != nullptr && *usual != '\0' ? usual : "fwutil.cfg";
}

const char *own_status_file(const char *statfile)
{
    return statfile != nullptr ? statfile : "fwutil.status";
}

bool is_log_file_name(const char *name)
{
    static const char form[] = "fw####-########.";
    for (const char *at = form; *at != '\0'; at++, name++) {
        if (*at == '#' ? *name < '0' || *name > '9' : *name != *at)
            return false;
    }
    return true;
}

bool holds_a_log(const std::string &directory)
{
    DIR *dir = opendir(directory.c_str());
    bool found = false;
    if (dir == nullptr)
        return false;
    while (const dirent *row = readdir(dir)) // one thread
        found = found || is_log_file_name(row->d_name) || strcmp(row->d_name, "writer.lock") == 0;
    (void)closedir(dir); // only read
    return found;
}

// What else the writer of a log and its readers keep beside its files.
static bool is_beside_log_name(const char *name)
{
    static const char *const names[] = {"acknowledged", "names",        "postgresql.json",
                                        "readers",      "readers.lock", "writer.lock"};
    return std::any_of(std::begin(names), std::end(names),
                       [&](const char *one) { return strcmp(name, one) == 0; });
}

namespace {
// A file of the run, as far as it can be named before it is opened.
struct own_file {
    own_file(const char *what, const std::string &given)
        : kind(what), name(given), path(resolved_name(given).string())
    {
        there = stat(given.c_str(), &st) == 0;
    }
    // A pipe or a device has room for several; a directory is refused by who opens it.
    bool may_be_shared() const
    {
        return there && !S_ISREG(st.st_mode);
    }
    bool is(const own_file &other) const
    {
        return path == other.path || (there && other.there && st.st_dev == other.st.st_dev &&
                                      st.st_ino == other.st.st_ino);
    }

    const char *kind;
    std::string name;
    std::string path;
    bool there = false;
    struct stat st = {};
};
} // namespace

static int check_log(const own_file &file)
{
    const size_t directory = file.path.rfind('/') + 1;
    const char *name = file.path.c_str() + directory;
    if ((is_log_file_name(name) || is_beside_log_name(name)) &&
        holds_a_log(file.path.substr(0, directory)))
        return set_error_f(
            "%s cannot be the %s, being a file of the forward log: name another file",
            file.name.c_str(), file.kind);
    return 0;
}

static int check_message_file(const own_file &file)
{
    char begin[MESSAGE_FILE_MAGIC_AT + sizeof MESSAGE_FILE_MAGIC - 1] = {};
    const int fd = open(file.name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return 0; // whoever opens it for writing tells
    const bool is_one = read(fd, begin, sizeof begin) == ssize_t{sizeof begin} &&
                        memcmp(begin + MESSAGE_FILE_MAGIC_AT, MESSAGE_FILE_MAGIC,
                               sizeof MESSAGE_FILE_MAGIC - 1) == 0;
    (void)close(fd); // only read
    if (is_one)
        return set_error_f("%s cannot be the %s, being a message file: name another file, or "
                           "remove it with its records",
                           file.name.c_str(), file.kind);
    return 0;
}

// emptied: when it is opened, whatever is in it.
static int check(const own_file &file, const std::vector<own_file> &others, bool emptied)
{
    if (file.may_be_shared())
        return 0;
    for (const own_file &other : others)
        if (file.is(other))
            return set_error_f("%s cannot be the %s, being the %s of this run: name another file",
                               file.name.c_str(), file.kind, other.kind);
    const int rc = check_log(file);
    return rc == 0 && emptied && file.there ? check_message_file(file) : rc;
}

int own_files_check(const capinfo *ci, const char *pidfile, const char *cfgfile,
                    const char *statfile)
{
    std::vector<own_file> files = {{"configuration file", own_config_file(cfgfile)}};
    files.emplace_back("status file", own_status_file(statfile));
    int rc = check(files.back(), {files.front()}, false);
    if (rc == 0 && pidfile != nullptr) {
        const own_file pid("PID file", pidfile);
        rc = check(pid, files, true);
        files.push_back(pid);
    }
    for (int i = 0; rc == 0 && i < ci_get_ncf(ci); i++) {
        const capfil *cf = ci->capfiles[i];
        const bool is_text = cf->format == &text_format;
        rc = check({"capture file", cf->name}, files, is_text);
        for (const char *end : {".cut", ".cut.part"})
            if (rc == 0 && is_text)
                rc = check({"copy of what is cut off a capture file", std::string(cf->name) + end},
                           files, true);
    }
    return rc;
}
