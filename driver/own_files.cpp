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
    own_file(const char *what, const char *given)
        : kind(what), name(given), path(resolved_name(given).string())
    {
        there = stat(given, &st) == 0;
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
    const char *name;
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
            "%s cannot be the %s, being a file of the forward log: name another file", file.name,
            file.kind);
    return 0;
}

static int check_message_file(const own_file &file)
{
    char begin[MESSAGE_FILE_MAGIC_AT + sizeof MESSAGE_FILE_MAGIC - 1] = {};
    const int fd = open(file.name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return 0; // whoever opens it for writing tells
    const bool is_one = read(fd, begin, sizeof begin) == ssize_t{sizeof begin} &&
                        memcmp(begin + MESSAGE_FILE_MAGIC_AT, MESSAGE_FILE_MAGIC,
                               sizeof MESSAGE_FILE_MAGIC - 1) == 0;
    (void)close(fd); // only read
    if (is_one)
        return set_error_f("%s cannot be the %s, being a message file: name another file, or "
                           "remove it with its records",
                           file.name, file.kind);
    return 0;
}

int own_files_check(const capinfo *ci, const char *pidfile, const char *cfgfile,
                    const char *statfile)
{
    // Those that come last have their names by right.
    std::vector<own_file> files = {{"configuration file", own_config_file(cfgfile)},
                                   {"status file", own_status_file(statfile)}};
    if (pidfile != nullptr)
        files.emplace_back("PID file", pidfile);
    const size_t named = files.size();
    for (size_t i = 1; i < named + static_cast<size_t>(ci_get_ncf(ci)); i++) {
        const capfil *cf = i < named ? nullptr : ci->capfiles[i - named];
        const own_file file = cf == nullptr ? files[i] : own_file("capture file", cf->name);
        if (file.may_be_shared())
            continue;
        for (size_t j = 0; j < std::min(i, named); j++)
            if (file.is(files[j]))
                return set_error_f(
                    "%s cannot be the %s, being the %s of this run: name another file", file.name,
                    file.kind, files[j].kind);
        int rc = check_log(file);
        if (rc == 0 && file.there && (cf == nullptr ? pidfile == file.name : !cf->format->limited))
            rc = check_message_file(file);
        if (rc != 0)
            return rc;
    }
    return 0;
}
