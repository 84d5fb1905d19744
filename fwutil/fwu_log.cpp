// A forward log as a directory of files.  The next file is looked for before the
// present one is read to its end for the last time: a writer that begins a new
// file never touches the old one again, so nothing is missed in between.
#include "fwutil/fwu_log.h"

#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_file_number.h"
#include "fwutil/fwu_wait.h"

#include <algorithm>
#include <cerrno>
#include <compare>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

int fwu_log_list(const std::string &directory, std::vector<fwu_log_file> &files)
{
    files.clear();
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return fwu_error("%s: cannot open the log directory: %s; check log-directory in the "
                         "configuration file",
                         directory.c_str(), strerror(errno));
    errno = 0;
    while (const dirent *row = readdir(dir)) {
        fwu_log_file file;
        if (fwu_log_file_parse(row->d_name, file.generation, file.sequence)) {
            file.name = row->d_name;
            file.path = directory + "/" + file.name;
            files.push_back(std::move(file));
        }
        errno = 0;
    }
    const int read_errno = errno;
    closedir(dir);
    if (read_errno != 0)
        return fwu_error("%s: cannot read the log directory: %s", directory.c_str(),
                         strerror(read_errno));
    // The numbers have leading zeros: order of names is order of files.
    std::sort(files.begin(), files.end(),
              [](const fwu_log_file &a, const fwu_log_file &b) { return a.name < b.name; });
    return 0;
}

void fwu_log_warn_begins_late(const std::string &directory)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0 || files.empty() ||
        files.front().name == fwu_log_file_name(1, 1))
        return;
    fwu_warn("warning: %s: beginning with %s, the log's oldest file: older ones were removed, and "
             "what they held is missing here",
             directory.c_str(), files.front().name.c_str());
}

int fwu_log_damage(const fwu_log_file &file, const fwu_verdict &verdict)
{
    if (verdict.gap)
        return fwu_error("%s: damaged at offset %lld: %s; restore the file before it from a copy, "
                         "cut the log back to what is whole (fwlog repair), or go on without what "
                         "is missing with this one as start position (%d-%d.0)%s",
                         file.path.c_str(), static_cast<long long>(verdict.at), verdict.reason,
                         file.generation, file.sequence, FWU_KEEP_FIRST);
    const fwu_file_number behind = fwu_file_number_behind(fwu_file_number_of(file));
    return fwu_error("%s: damaged at offset %lld: %s; restore the file from a copy, cut the "
                     "log back to what is whole (fwlog repair), or leave the rest of the file out "
                     "with the next one as start position (%d-%d.0)%s",
                     file.path.c_str(), static_cast<long long>(verdict.at), verdict.reason,
                     behind.generation, behind.sequence, FWU_KEEP_FIRST);
}

int fwu_log_damage(const fwu_cursor &cursor)
{
    return fwu_log_damage(cursor.file, cursor.verdict);
}

// Pauses before further looks at what seems damaged, and the length of the first;
// each is longer than the one before, 300 ms in all.
constexpr int PAUSES = 5;
constexpr long LOOK_NS = 20'000'000;

// Opens the file behind the one being read, the first one when there is none.
// FWU_END: there is no such file.
static fwu_found find_next_file(const fwu_log &log, fwu_log_file &next)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(log.directory, files) != 0)
        return FWU_FAILED;
    const fwu_log_file &present = log.cursor.file;
    const auto found =
        log.cursor.fd < 0 ? files.begin()
                          : std::find_if(files.begin(), files.end(), [&](const fwu_log_file &file) {
                                return file.name > present.name;
                            });
    if (found == files.end())
        return FWU_END;
    if (log.cursor.fd >= 0 && found->generation == present.generation &&
        found->sequence != present.sequence + 1) {
        fwu_error("%s/%s: the log file is missing, the next one there is %s; restore it, or begin "
                  "with that file (start position %d-%d.0)%s",
                  log.directory.c_str(),
                  fwu_log_file_name(present.generation, present.sequence + 1).c_str(),
                  found->name.c_str(), found->generation, found->sequence, FWU_KEEP_FIRST);
        return FWU_FAILED;
    }
    next = std::move(*found);
    return FWU_FOUND;
}

fwu_found fwu_log_open(fwu_cursor &cursor, const fwu_log_file &file)
{
    if (fwu_cursor_try_open(cursor, file) == 0)
        return FWU_FOUND;
    const int open_errno = errno;
    std::vector<fwu_log_file> files;
    if (open_errno == ENOENT) {
        if (fwu_log_list(fwu_directory_of(file.path), files) != 0)
            return FWU_FAILED;
        if (files.empty() || files.front().name > file.name)
            return FWU_GONE;
    }
    fwu_error("%s: cannot open the log file: %s", file.path.c_str(), strerror(open_errno));
    return FWU_FAILED;
}

fwu_found fwu_log_header(const fwu_log_file &file, fwu_file_header &header)
{
    unsigned char bytes[FWU_FILE_HEADER_SIZE];
    // As in fwu_cursor_try_open.
    const int fd = open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const ssize_t n = fd < 0 ? -1 : fwu_read_all(fd, bytes, sizeof bytes, 0);
    if (n < 0)
        fwu_error("%s: cannot read the log file: %s", file.path.c_str(), strerror(errno));
    if (fd >= 0)
        close(fd);
    if (n < 0)
        return FWU_FAILED;
    return n == static_cast<ssize_t>(sizeof bytes) && fwu_file_header_get(header, bytes) == nullptr
               ? FWU_FOUND
               : FWU_END;
}

bool fwu_log_ends_whole(const fwu_cursor &cursor, fwu_verdict &verdict)
{
    if (cursor.header_read && cursor.size == cursor.tx_end)
        return true;
    verdict = cursor.verdict;
    if (!cursor.header_read)
        verdict.reason = "its file header is incomplete, but a newer log file follows";
    else if (verdict.reason == nullptr)
        verdict.reason = "it ends inside a transaction, but a newer log file follows";
    return false;
}

// Whether no file follows the one being read.
static bool is_last(const fwu_log &log)
{
    std::vector<fwu_log_file> files;
    return fwu_log_list(log.directory, files) == 0 && !files.empty() &&
           files.back().name <= log.cursor.file.name;
}

// What was acknowledged says of a place in a log file.
enum acknowledged { UNKNOWN, BEFORE, BEHIND, LATER_FILE };

// Whether what was acknowledged ends before (or at) the place, behind it in the same
// file, or in a later file.  told: that it cannot be read has been.
static acknowledged acknowledged_at(const fwu_log_file &file, int64_t offset, bool &told)
{
    fwu_ack ack;
    const fwu_found found = fwu_ack_read(fwu_directory_of(file.path), ack, told);
    told = told || found == FWU_FAILED;
    if (found != FWU_FOUND)
        return UNKNOWN;
    const std::pair acked(ack.position.generation, ack.position.sequence);
    const std::pair asked(file.generation, file.sequence);
    if (acked == asked)
        return ack.end <= offset ? BEFORE : BEHIND;
    return acked < asked ? BEFORE : LATER_FILE;
}

// What the last file's end, or damage in it, is taken for.  What looks wrong may have
// been seen half written, by a system that shows the parts of a write in any order:
// it is looked at again before it counts, at once first: mostly the writer has
// committed and acknowledged since.  What was not acknowledged is not there yet,
// whatever it looks like; what was must be there.  A signal ends the looks.  At
// FWU_DAMAGED the verdict says what is wrong.
static fwu_found judge(fwu_cursor &cursor, fwu_found found, bool &told, fwu_verdict &verdict)
{
    for (int pauses = 0; found == FWU_END || found == FWU_DAMAGED; pauses++) {
        verdict = cursor.verdict;
        const acknowledged there = acknowledged_at(cursor.file, cursor.tx_end, told);
        if (found == FWU_END && there != BEHIND)
            return FWU_END;
        if (found == FWU_DAMAGED && there == BEFORE && !cursor.verdict.foreign &&
            !cursor.verdict.gap) {
            fwu_cursor_tail(cursor);
            return FWU_END;
        }
        if (pauses > PAUSES) {
            if (found == FWU_END && verdict.reason == nullptr) {
                verdict.at = cursor.tx_end;
                verdict.reason = "it ends before what was acknowledged";
            }
            return FWU_DAMAGED;
        }
        const timespec pause = {.tv_sec = 0, .tv_nsec = pauses * LOOK_NS};
        if (pauses > 0)
            (void)nanosleep(&pause, nullptr); // a signal makes it shorter
        if (fwu_stop != 0)
            return FWU_END;
        found = fwu_cursor_next(cursor);
    }
    return found;
}

fwu_found fwu_log_next(fwu_log &log)
{
    fwu_cursor &cursor = log.cursor;
    for (;;) {
        fwu_found found = cursor.fd >= 0 ? fwu_cursor_next(cursor) : FWU_END;
        if (found == FWU_FOUND)
            return found;
        fwu_verdict verdict = cursor.verdict;
        fwu_log_file next;
        bool last = found == FWU_END ? !log.look : found == FWU_DAMAGED && is_last(log);
        if (found == FWU_END && log.look) {
            const fwu_found file = find_next_file(log, next);
            if (file == FWU_FAILED)
                return file;
            log.look = file == FWU_FOUND;
            last = !log.look;
            if (!last && cursor.fd >= 0) {
                found = fwu_cursor_next(cursor);
                verdict = cursor.verdict;
                if (found == FWU_END && !fwu_log_ends_whole(cursor, verdict))
                    found = FWU_DAMAGED;
            }
        }
        if (last) {
            found = cursor.fd >= 0 ? judge(cursor, found, log.told, verdict) : FWU_END;
            if (found == FWU_END)
                return FWU_END;
        }
        if (found == FWU_DAMAGED) {
            fwu_log_damage(cursor.file, verdict);
            return FWU_FAILED;
        }
        if (found != FWU_END)
            return found;
        found = fwu_log_open(cursor, next);
        if (found == FWU_FAILED)
            return FWU_FAILED;
        if (found == FWU_FOUND)
            fwu_note("reading %s", next.path.c_str());
    }
}

fwu_found fwu_log_entry(fwu_log &log, fwu_entry &entry)
{
    const fwu_found found = fwu_cursor_entry(log.cursor, entry);
    if (found != FWU_DAMAGED)
        return found;
    fwu_log_damage(log.cursor);
    return FWU_FAILED;
}

int fwu_log_walk_transaction(fwu_cursor &cursor, fwu_walk_item &item,
                             const std::function<int(const fwu_walk_item &)> &visit,
                             fwu_found &found)
{
    int result = 0;
    item.what = FWU_WALK_ENTRY;
    do {
        found = fwu_cursor_entry(cursor, item.entry);
        item.offset = cursor.read_at - static_cast<int64_t>(fwu_entry_padded(item.entry.length));
        if (found == FWU_FOUND)
            result = visit(item);
    } while (found == FWU_FOUND && result == 0);
    return result;
}

// As fwu_log_walk_file; at FWU_DAMAGED the verdict says what is wrong.
static fwu_found walk_file(fwu_cursor &cursor, const fwu_log_file &file, bool last,
                           const std::function<int(const fwu_walk_item &)> &visit, int &result,
                           fwu_verdict &verdict)
{
    fwu_walk_item item;
    item.file = &file;
    bool announced = false;
    bool told = false;
    result = 0;
    fwu_found found = fwu_log_open(cursor, file);
    while (found == FWU_FOUND && result == 0) {
        found = fwu_cursor_next(cursor);
        verdict = cursor.verdict;
        if (last)
            found = judge(cursor, found, told, verdict);
        if (cursor.header_read && !announced) {
            announced = true;
            item.what = FWU_WALK_FILE;
            item.header = cursor.header;
            result = visit(item);
        }
        if (found == FWU_FOUND && result == 0) {
            result = fwu_log_walk_transaction(cursor, item, visit, found);
            found = found == FWU_END ? FWU_FOUND : found;
            verdict = cursor.verdict;
        }
    }
    if (result != 0 || found == FWU_GONE)
        return found;
    if (found == FWU_END && !last && !fwu_log_ends_whole(cursor, verdict))
        found = FWU_DAMAGED;
    item.offset = cursor.tx_end;
    item.length = cursor.size - cursor.tx_end;
    item.reason = verdict.reason;
    if (found == FWU_END && item.length > 0) {
        item.what = FWU_WALK_TAIL;
        result = visit(item);
    } else if (found == FWU_DAMAGED) {
        item.what = FWU_WALK_DAMAGE;
        item.offset = verdict.at;
        item.length = 0;
        result = visit(item);
    }
    return found;
}

fwu_found fwu_log_walk_file(fwu_cursor &cursor, const fwu_log_file &file, bool last,
                            const std::function<int(const fwu_walk_item &)> &visit, int &result)
{
    fwu_verdict verdict;
    return walk_file(cursor, file, last, visit, result, verdict);
}

int fwu_log_walk(const std::string &directory,
                 const std::function<int(const fwu_walk_item &)> &visit)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0)
        return -1;
    fwu_cursor cursor;
    int result = 0;
    for (size_t i = 0; i < files.size() && result == 0; i++) {
        const bool last = i + 1 == files.size();
        fwu_verdict verdict;
        const fwu_found found = walk_file(cursor, files[i], last, visit, result, verdict);
        if (found == FWU_DAMAGED)
            result = fwu_log_damage(files[i], verdict);
        else if (found == FWU_FAILED)
            result = -1;
    }
    fwu_cursor_close(cursor);
    return result;
}
