// The file of KESTRO_STATUS.  Who reads it finds the old one or the new one, whole; nothing
// but a file of its own kind is ever replaced by it.
#include "capture/copyname.h"
#include "driver/base/log.h"
#include "driver/own_files.h"
#include "driver/run_state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

struct status_file {
    std::string path;  // empty: not asked for
    std::string fresh; // beside it, the new one until it is whole
    bool prometheus = false;
    bool told = false; // that it could not be written
    int held = -1;     // owned; the file that stands there, locked as this run's; -1: none does
};
static status_file g_file;

static const char json_begins[] = "{\"program\":\"Kestro\"";
static const char prometheus_begins[] = "# HELP kestro_info ";

static bool ends_with(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether a regular file is empty or begins like one of ours, whole or not; errno is 0 where it
// could be read.
static bool is_ours(const std::string &path)
{
    char found[sizeof prometheus_begins] = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return false;
    const ssize_t n = read(fd, found, sizeof found - 1);
    const int read_errno = n < 0 ? errno : 0;
    (void)close(fd); // only read
    errno = read_errno;
    const auto begins = [&](const char *text) {
        return n >= 0 && strncmp(found, text, std::min(static_cast<size_t>(n), strlen(text))) == 0;
    };
    return begins(json_begins) || begins(prometheus_begins);
}

// One of the two names that the file has.
static int check_name(const std::string &path, const std::vector<std::string> &others)
{
    struct stat st = {};
    struct stat other_st = {};
    const int stat_errno = stat(path.c_str(), &st) == 0 ? 0 : errno;
    const bool there = stat_errno == 0;
    if (stat_errno != 0 && stat_errno != ENOENT && stat_errno != ELOOP &&
        lstat(path.c_str(), &st) == 0) // somebody's, for all that is known
        return set_error_f("KESTRO_STATUS: %s cannot be read: %s", path.c_str(),
                           strerror(stat_errno));
    for (const std::string &other : others) {
        if (resolved_name(other) == resolved_name(path) ||
            (there && stat(other.c_str(), &other_st) == 0 && st.st_dev == other_st.st_dev &&
             st.st_ino == other_st.st_ino))
            return set_error_f("KESTRO_STATUS: %s has the name of %s, which this run uses: name "
                               "another file",
                               path.c_str(), other.c_str());
    }
    if (there && !S_ISREG(st.st_mode))
        return set_error_f("KESTRO_STATUS: %s is no regular file: name another one", path.c_str());
    const bool ours = !there || is_ours(path);
    if (!ours && errno != 0)
        return set_error_f("KESTRO_STATUS: %s cannot be read: %s", path.c_str(), strerror(errno));
    if (!ours)
        return set_error_f("KESTRO_STATUS: %s is no status file of a run, and would be replaced by "
                           "one: name another file, or remove it",
                           path.c_str());
    return 0;
}

// Takes the file that a run before has left.  Each run has a lock on the one that it made
// last, so that two that were given the same name do not take turns in it: a file that may be
// another run's, and cannot be asked, is left alone.
static int take(const std::string &path)
{
    g_file.held = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (g_file.held < 0)
        return errno == ENOENT ? 0
                               : set_error_f("KESTRO_STATUS: %s cannot be read: %s", path.c_str(),
                                             strerror(errno));
    if (flock(g_file.held, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return 0;             // or nothing is locked on that file system
    (void)close(g_file.held); // another one's
    g_file.held = -1;
    return set_error_f("KESTRO_STATUS: %s is the file of another run that has not ended: name "
                       "another file",
                       path.c_str());
}

void run_state_file_release()
{
    if (g_file.held >= 0)
        (void)close(g_file.held); // only read
    g_file.held = -1;
}

int run_state_file_open(const std::string &path, const std::vector<std::string> &others)
{
    run_state_file_release(); // of a session before
    g_file = {};
    if (path.empty())
        return 0;
    std::string whole = resolved_name(path).string(); // a link stays, and what it leads to is made
    const std::string directory = whole.substr(0, whole.rfind('/') + 1);
    g_file = {whole, whole + ".new", ends_with(path, ".prom"), false, -1};
    struct stat st = {};
    const int stat_errno = stat(whole.c_str(), &st) == 0 ? 0 : errno;
    const bool leads_nowhere =
        (stat_errno == ENOENT || stat_errno == ELOOP) && lstat(whole.c_str(), &st) == 0;
    if (directory.size() == whole.size() || leads_nowhere ||
        (stat_errno == 0 && S_ISDIR(st.st_mode)))
        return set_error_f("KESTRO_STATUS: %s is no regular file: name another one", path.c_str());
    if (is_log_file_name(whole.c_str() + directory.size()) || holds_a_log(directory))
        return set_error_f("KESTRO_STATUS: %s: a log directory is no place for the status file of "
                           "a run: name one elsewhere",
                           path.c_str());
    int rc = check_name(g_file.path, others);
    if (rc == 0)
        rc = check_name(g_file.fresh, others);
    return rc != 0 ? rc : take(g_file.path);
}

static bool write_fresh(const std::string &text)
{
    // A new one: what a link or another run has under that name is not written to.
    if (unlink(g_file.fresh.c_str()) != 0 && errno != ENOENT)
        return false;
    const int fd = open(g_file.fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    const int error = errno;
    const bool closed = close(fd) == 0;
    if (done < text.size())
        errno = error;
    return done == text.size() && closed;
}

// The new file gets its name, locked before anybody finds it there.
static bool put_fresh()
{
    const int fd = open(g_file.fresh.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        (void)flock(fd, LOCK_EX | LOCK_NB); // without it all is well, too
    if (rename(g_file.fresh.c_str(), g_file.path.c_str()) != 0) {
        const int error = errno;
        if (fd >= 0)
            (void)close(fd); // only read
        errno = error;
        return false;
    }
    run_state_file_release(); // it has gone from there
    g_file.held = fd;
    return true;
}

void run_state_file_put(const run_state &state)
{
    if (g_file.path.empty())
        return;
    const std::string text =
        g_file.prometheus ? run_state_prometheus(state) : run_state_json(state);
    const int before = errno; // of what is being told, perhaps
    if (!write_fresh(text) || !put_fresh()) {
        const int error = errno;
        (void)unlink(g_file.fresh.c_str()); // half a file is of no use
        if (!g_file.told)
            fprintf(stderr, "KESTRO_STATUS: %s cannot be written: %s; the run goes on\n",
                    g_file.path.c_str(), strerror(error));
        g_file.told = true;
    }
    errno = before;
}
