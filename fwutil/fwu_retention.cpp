// A look lists the log, asks what keeps its oldest files, and removes some of those that nothing
// keeps, all under the lock of the readers.  What a reader needs is looked up in its status file
// alone as long as nothing would go; before something goes the log is searched for its place.
#include "fwutil/fwu_retention.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_removal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <vector>

constexpr int64_t LOOK_MS = 10'000;
constexpr int64_t GO_ON_MS = 1000; // while there is more to remove, or another process has the lock
constexpr int64_t LOCKED_MS = 60'000; // longer than that nobody has it who is well
constexpr size_t REMOVED_A_LOOK = 8;

// The log during a look.
struct look {
    std::vector<fwu_log_file> files;
    std::vector<int64_t> sizes;
    std::vector<int64_t> written; // seconds since 1970
    size_t spare = 0;             // the oldest so many are not kept by log-keep
    std::vector<fwu_reader> readers;
    std::string problem;
};

// As text for the problem; what was held is over.
static void take_problem(look &l, const fwu_error_hold &hold, const char *otherwise)
{
    if (l.problem.empty())
        l.problem = hold.text.empty() ? otherwise : hold.text;
}

static bool list_log(const fwu_retention &r, look &l)
{
    if (fwu_log_list(r.directory, l.files) != 0)
        return false;
    for (const fwu_log_file &file : l.files) {
        struct stat about = {};
        // One that is gone is of no size, and goes first.
        if (stat(file.path.c_str(), &about) != 0 && errno != ENOENT) {
            (void)fwu_file_error(file.path, "cannot get the log file's size");
            return false;
        }
        l.sizes.push_back(about.st_size);
        l.written.push_back(about.st_mtim.tv_sec);
    }
    // A clock that was ahead has made files of the future: they are as old as the next one.
    const int64_t now = time(nullptr);
    int64_t next = now;
    for (size_t i = l.written.size(); i > 0; i--) {
        int64_t &written = l.written[i - 1];
        written = written > now ? next : written;
        next = written;
    }
    return true;
}

// Files in front of the one that a position is in.
static size_t before_file(const look &l, const fwu_position &position)
{
    const std::string name = fwu_log_file_name(position.generation, position.sequence);
    return static_cast<size_t>(
        std::find_if(l.files.begin(), l.files.end(),
                     [&name](const fwu_log_file &file) { return file.name >= name; }) -
        l.files.begin());
}

// The oldest files that the writer does not ask for when it starts: that is the two newest ones,
// and those of the last commit, of the last record and of what was acknowledged.
static size_t free_of_writer(const look &l, const fwu_log_end &log)
{
    size_t count = l.files.size() < 2 ? 0 : l.files.size() - 2;
    for (const fwu_position &position :
         {log.here.position, log.recnum_at, log.have_ack ? log.acked.position : fwu_position()})
        if (position.sequence != 0)
            count = std::min(count, before_file(l, position));
    return log.here.position.sequence == 0 ? 0 : count;
}

// The oldest files that log-keep does not keep.
static size_t free_of_keep(const look &l, const fwu_keep &keep)
{
    if (keep.text.empty())
        return 0;
    size_t count = l.files.size();
    if (keep.bytes != 0) {
        int64_t behind = 0;
        while (count > 0 && behind < keep.bytes)
            behind += l.sizes[--count];
    }
    if (keep.seconds == 0)
        return count;
    const int64_t limit = time(nullptr) - keep.seconds;
    size_t old = 0;
    while (old < count && l.written[old] <= limit)
        old++;
    return old;
}

// How many of the spare files no reader needs; who needs most, and what is wrong, goes to found.
static size_t free_of_readers(fwu_retention &r, look &l)
{
    fwu_retained &found = r.found;
    size_t count = l.spare;
    for (const fwu_reader &reader : l.readers) {
        const size_t free = fwu_need_free(reader.need, l.files);
        const bool wrong = fwu_need_wrong(reader.need);
        const bool blind = reader.need.kind != FWU_NEED_FROM;
        if (l.problem.empty() && blind && (wrong || l.spare > 0))
            l.problem =
                wrong ? reader.need.why
                      : reader.path + ": the registered reader has " + fwu_need_text(reader.need);
        if (free < count) {
            count = free;
            found.held_by = reader.path;
            found.held_at = fwu_need_text(reader.need);
        }
    }
    found.readers = l.readers.size();
    if (r.keep.acknowledged && l.readers.empty()) {
        count = 0;
        if (l.problem.empty())
            l.problem = "log-keep acknowledged, and no reader is registered (fwlog readers --add)";
    }
    return count;
}

// Asks the readers, each as deep as asked.  The number of files that may go.
static size_t ask_readers(fwu_retention &r, look &l, bool checked)
{
    r.found.held_by.clear();
    r.found.held_at.clear();
    std::string why;
    fwu_found read = FWU_FAILED;
    {
        const fwu_error_hold hold;
        std::vector<std::string> paths;
        read = fwu_readers_read(r.directory, paths);
        why = hold.text;
        l.readers.clear();
        for (const std::string &path : paths)
            l.readers.push_back({path, {}});
    }
    if (read == FWU_FAILED) {
        l.problem = why;
        return 0;
    }
    for (fwu_reader &reader : l.readers)
        reader.need = fwu_need_of(reader.path, r.directory, l.files, checked);
    return free_of_readers(r, l);
}

static void count_found(fwu_retention &r, const look &l, size_t free)
{
    fwu_retained &found = r.found;
    found.keep = r.keep.text;
    found.files = l.files.size();
    found.bytes = 0;
    found.held_files = l.spare - free;
    found.held_bytes = 0;
    for (size_t i = 0; i < l.files.size(); i++) {
        found.bytes += l.sizes[i];
        found.held_bytes += i >= free && i < l.spare ? l.sizes[i] : 0;
    }
}

// Removes what nothing keeps, some files at most.  More is left: true.
static bool remove_some(fwu_retention &r, look &l, size_t free)
{
    fwu_removal removal;
    const size_t count = std::min(free, REMOVED_A_LOOK);
    const fwu_error_hold hold;
    const int removed =
        fwu_remove_oldest(l.files, count, false, removal, [](const fwu_log_file &, int64_t) {});
    if (removal.files > 0 && fwu_directory_sync(r.directory) != 0)
        take_problem(l, hold, "");
    if (removed != 0)
        take_problem(l, hold, "");
    fwu_retained &found = r.found;
    found.removed_files += removal.files;
    found.removed_bytes += removal.bytes;
    found.files -= removal.gone;
    found.bytes -= removal.bytes;
    return removed == 0 && free > count;
}

// Once, and again when it has changed.
static void tell_problem(fwu_retention &r, const std::string &problem)
{
    r.found.problem = problem;
    if (problem == r.told)
        return;
    r.told = problem;
    if (!problem.empty())
        fwu_warn("warning: old log files stay: %s", problem.c_str());
}

// What keeps the log as large as it is.
static std::string keeper_text(const fwu_retention &r)
{
    const fwu_retained &found = r.found;
    if (found.held_files > 0 && !found.held_by.empty())
        return std::to_string(found.held_files) + " of them, " + fwu_room_text(found.held_bytes) +
               ", stay for the reader " + found.held_by + " (" + found.held_at + ")";
    if (!found.problem.empty())
        return "none is removed: " + found.problem;
    if (r.keep.text.empty())
        return "none is removed by itself, since the configuration has no line log-keep (fwlog "
               "prune removes some)";
    return "log-keep " + r.keep.text + " keeps them";
}

static void look_at_room(fwu_retention &r)
{
    fwu_retained &found = r.found;
    const bool was = found.little_room;
    found.room = fwu_room_of(r.directory);
    found.little_room = fwu_room_is_little(found.room, was);
    if (found.little_room && !was)
        fwu_warn("warning: %s: its file system has %s left of %s; the log has %llu files with %s: "
                 "%s",
                 r.directory.c_str(), fwu_room_text(found.room.free).c_str(),
                 fwu_room_text(found.room.size).c_str(),
                 static_cast<unsigned long long>(found.files), fwu_room_text(found.bytes).c_str(),
                 keeper_text(r).c_str());
}

static bool find_directory(fwu_retention &r, const std::string &named)
{
    char *real = r.directory.empty() ? realpath(named.c_str(), nullptr) : nullptr;
    if (real != nullptr)
        r.directory = real;
    free(real);
    return !r.directory.empty();
}

// Under the lock.  True: there is more to do soon.
static bool look_and_remove(fwu_retention &r, look &l, const fwu_log_end &log)
{
    bool listed = false;
    {
        const fwu_error_hold hold;
        listed = list_log(r, l);
        if (!listed)
            take_problem(l, hold, "");
    }
    if (!listed)
        return false;
    l.spare = std::min(free_of_keep(l, r.keep), free_of_writer(l, log));
    size_t free = ask_readers(r, l, false); // also where nothing is spare, for what is told of them
    if (free > 0 && !l.readers.empty())
        free = std::min(free, ask_readers(r, l, true));
    count_found(r, l, free);
    return free > 0 && remove_some(r, l, free);
}

void fwu_retention_look(fwu_retention &r, const fwu_log_end &log, bool now)
{
    const int64_t now_ms = fwu_monotonic_ms();
    if ((!now && now_ms < r.due_ms) || !find_directory(r, log.directory))
        return;
    r.due_ms = now_ms + LOOK_MS;
    look l;
    fwu_readers_lock lock;
    fwu_found locked = FWU_FOUND;
    if (!r.keep.text.empty()) { // else nothing goes
        const fwu_error_hold hold;
        locked = fwu_readers_take_lock(lock, r.directory, false);
        if (locked == FWU_FAILED)
            take_problem(l, hold, "");
    }
    if (locked == FWU_END) {
        r.due_ms = now_ms + GO_ON_MS;
        r.locked_ms = r.locked_ms == 0 ? now_ms : r.locked_ms;
        if (now_ms - r.locked_ms >= LOCKED_MS)
            tell_problem(r, r.directory + "/" + FWU_READERS_NAME +
                                ".lock: another process has held the lock for a minute; end it if "
                                "it hangs");
        look_at_room(r);
        return;
    }
    r.locked_ms = 0;
    if (locked == FWU_FOUND && look_and_remove(r, l, log))
        r.due_ms = now_ms + GO_ON_MS;
    tell_problem(r, r.keep.text.empty() ? "" : l.problem);
    look_at_room(r);
}

int fwu_retention_due_in(const fwu_retention &r)
{
    return static_cast<int>(std::clamp<int64_t>(r.due_ms - fwu_monotonic_ms(), 0, LOOK_MS));
}
