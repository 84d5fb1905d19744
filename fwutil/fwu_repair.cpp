// Repairing a log.  What goes is kept, on disk and with its name, before anything is
// taken away.  Then what was acknowledged is lowered and marked, so that from there on
// nobody goes on in silence; then files go, newest first, so that no step leaves a log
// with a hole that looks sound; the damaged file is cut last.
#include "fwutil/fwu_repair.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_log_end.h"
#include "fwutil/fwu_repair_look.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

struct file_end {
    bool damaged = false;
    int64_t whole = 0;    // offset behind what is whole; 0: not even the header is
    uint64_t commits = 0; // transactions up to there
    fwu_ack last;         // and the last of them
};

static int newer(const fwu_cursor &cursor)
{
    return fwu_error("%s: not repaired, since a newer version has written it: %s; nothing was "
                     "changed",
                     cursor.file.path.c_str(), cursor.verdict.reason);
}

static void set_damage(fwu_repair &repair, const fwu_log_file &file, int64_t at, const char *reason)
{
    repair.damaged = file.path;
    repair.damage_at = at;
    repair.reason = reason;
}

static void set_missing(fwu_repair &repair, int32_t generation, int32_t sequence)
{
    repair.damaged = repair.directory + "/" + fwu_log_file_name(generation, sequence);
    repair.damage_at = 0;
    repair.reason = "the log file is missing";
}

// Checks the entries of the transaction found.  FWU_END: they fit.
static fwu_found check_entries(fwu_repair &repair, fwu_cursor &cursor, fwu_layout_check &check)
{
    fwu_entry entry;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_entry(cursor, entry)) == FWU_FOUND) {
        const char *wrong = fwu_layout_check_entry(check, entry);
        if (wrong == nullptr)
            continue;
        set_damage(repair, cursor.file,
                   cursor.read_at - static_cast<int64_t>(fwu_entry_padded(entry.length)), wrong);
        return FWU_DAMAGED;
    }
    if (found == FWU_DAMAGED)
        set_damage(repair, cursor.file, cursor.verdict.at, cursor.verdict.reason);
    return found;
}

// Whether what stands behind a place of the last file counts as not there yet.
static bool may_be_tail(const fwu_repair &repair, const fwu_cursor &cursor)
{
    const fwu_log_file &file = cursor.file;
    const fwu_position &acked = repair.acked.position;
    if (cursor.verdict.foreign || cursor.verdict.gap)
        return false;
    if (!repair.have_ack)
        return !cursor.header_read && fwu_file_all_zero(file.path);
    const std::pair acked_file(acked.generation, acked.sequence);
    const std::pair this_file(file.generation, file.sequence);
    return acked_file < this_file || (acked_file == this_file && repair.acked.end <= cursor.tx_end);
}

// Reads one file up to its end or the first damage, which is set then.
static int look_at_file(fwu_repair &repair, fwu_cursor &cursor, const fwu_log_file &file, bool last,
                        file_end &end)
{
    fwu_layout_check check;
    if (fwu_cursor_open(cursor, file) != 0)
        return -1;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_next(cursor)) == FWU_FOUND) {
        end.whole = cursor.tx_start;
        found = check_entries(repair, cursor, check);
        if (found != FWU_END)
            break;
        end.whole = cursor.tx_end;
        end.commits++;
        end.last.position = {file.generation, file.sequence, cursor.tx_last_tag};
        end.last.end = cursor.tx_end;
        end.last.commit = cursor.commit.commit;
    }
    if (found == FWU_FAILED)
        return -1;
    if (repair.reason == nullptr) {
        end.whole = cursor.header_read ? cursor.tx_end : 0;
        fwu_verdict verdict = cursor.verdict;
        if (found == FWU_END && !last && !fwu_log_ends_whole(cursor, verdict))
            found = FWU_DAMAGED;
        if (found == FWU_DAMAGED && !(last && may_be_tail(repair, cursor)))
            set_damage(repair, file, verdict.at, verdict.reason);
    }
    end.damaged = repair.reason != nullptr;
    fwu_file_header header;
    if (repair.reason == FWU_UNKNOWN_KIND)
        return newer(cursor);
    const fwu_found good = cursor.verdict.foreign ? fwu_log_header(file, header) : FWU_FOUND;
    if (good == FWU_END)
        return newer(cursor);
    return good == FWU_FAILED ? -1 : 0;
}

static int size_of(const fwu_log_file &file, int64_t &size)
{
    struct stat about = {};
    if (stat(file.path.c_str(), &about) != 0)
        return fwu_file_error(file.path, "cannot get the log file's size");
    size = about.st_size;
    return 0;
}

// The first of name, name.2, name.3, ... that the directory does not have: what an earlier repair
// has kept is not replaced.
static int free_name(const std::string &directory, const std::string &name, std::string &found)
{
    found = name;
    struct stat about = {};
    for (int n = 2; lstat((directory + "/" + found).c_str(), &about) == 0; n++)
        found = name + "." + std::to_string(n);
    return errno == ENOENT
               ? 0
               : fwu_file_error(directory + "/" + found, "cannot tell whether the file is there");
}

// Plans to take away what stands at and behind an offset of a file.
static int take_away(fwu_repair &repair, const fwu_log_file &file, int64_t offset)
{
    fwu_kept kept;
    int64_t size = 0;
    if (size_of(file, size) != 0 || fwu_lost_add(repair.lost, file, offset) != 0)
        return -1;
    kept.file = file;
    kept.offset = offset;
    kept.bytes = size - offset;
    std::string name = "cut-" + file.name;
    if (offset > 0)
        name += "-from-" + std::to_string(offset);
    if (free_name(repair.directory, name, kept.name) != 0)
        return -1;
    if (kept.bytes > 0 || offset == 0)
        repair.kept.push_back(kept);
    return 0;
}

static void take_end(fwu_repair &repair, const fwu_cursor &cursor, const file_end &end)
{
    if (end.whole > 0)
        repair.files++;
    repair.transactions += end.commits;
    const fwu_identity known = cursor.header_read && fwu_identity_known(cursor.header.identity)
                                   ? cursor.header.identity
                                   : repair.end.identity;
    if (end.commits > 0)
        repair.end = end.last;
    repair.end.identity = known;
}

// Reads files up to the first damage and plans to take away what comes from there on.
static int look(fwu_repair &repair, const std::vector<fwu_log_file> &files)
{
    fwu_cursor cursor;
    int result = 0;
    size_t i = 0;
    for (; i < files.size() && result == 0 && repair.reason == nullptr; i++) {
        const bool last = i + 1 == files.size();
        if (i > 0 && files[i].generation == files[i - 1].generation &&
            files[i].sequence != files[i - 1].sequence + 1) {
            set_missing(repair, files[i].generation, files[i - 1].sequence + 1);
            break;
        }
        file_end end;
        result = look_at_file(repair, cursor, files[i], last, end);
        if (result != 0)
            break;
        take_end(repair, cursor, end);
        if (end.damaged) {
            result = take_away(repair, files[i], end.whole);
        } else if (last) {
            repair.unfinished_at = end.whole;
            repair.unfinished = cursor.size - end.whole;
        }
    }
    fwu_cursor_close(cursor);
    for (; i < files.size() && result == 0; i++)
        result = take_away(repair, files[i], 0);
    return result;
}

// Compares the end that the log is going to have with what was acknowledged.
static int compare(fwu_repair &repair, const std::vector<fwu_log_file> &files)
{
    if (!repair.have_ack)
        return 0;
    const bool foreign =
        fwu_identity_known(repair.end.identity) && repair.end.identity != repair.acked.identity;
    if (foreign && repair.reason == nullptr)
        return fwu_ack_foreign(repair.directory, repair.acked, repair.end.identity);
    repair.below = foreign || repair.end.position < repair.acked.position;
    if (!repair.below || repair.reason != nullptr)
        return 0;
    const fwu_position &acked = repair.acked.position;
    if (files.empty() || files.back().name < fwu_log_file_name(acked.generation, acked.sequence)) {
        set_missing(repair, acked.generation, acked.sequence);
        return 0;
    }
    set_damage(repair, files.back(), repair.unfinished_at, "it ends before what was acknowledged");
    return take_away(repair, files.back(), repair.unfinished_at);
}

int fwu_repair_open(fwu_repair &repair, const fwu_config &config, bool only_look)
{
    std::vector<fwu_log_file> files;
    repair.directory = config.log_directory;
    if (fwu_log_end_mode(repair.directory, config.log_mode, repair.file_mode) != 0)
        return -1;
    // Nobody writes where there is no lock file, or a file system that is only read.
    if (!only_look || access((repair.directory + "/writer.lock").c_str(), W_OK) == 0 ||
        (errno != ENOENT && errno != EROFS)) {
        repair.lock_fd = fwu_log_end_lock(repair.directory, repair.file_mode);
        if (repair.lock_fd < 0)
            return -1;
    }
    const fwu_found acked = fwu_ack_read(repair.directory, repair.acked);
    if (acked == FWU_FAILED || fwu_log_list(repair.directory, files) != 0)
        return -1;
    repair.have_ack = acked == FWU_FOUND;
    return look(repair, files) == 0 ? compare(repair, files) : -1;
}

// Copies the end of a file that is going to be cut; on disk when it has its name.
static int copy_end(const fwu_repair &repair, const fwu_kept &kept)
{
    const std::string temporary = repair.directory + "/new-cut-piece";
    const std::string path = repair.directory + "/" + kept.name;
    if (fwu_file_copy(kept.file.path, kept.offset, INT64_MAX, temporary, repair.file_mode) != 0)
        return fwu_file_error(path, "cannot keep what is cut off; nothing was changed");
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        (void)fwu_file_error(path, "cannot keep what is cut off; nothing was changed");
        (void)unlink(temporary.c_str()); // made anew by the next attempt
        return -1;
    }
    return fwu_directory_sync(repair.directory);
}

// Keeps the end that the log is going to have as what was acknowledged, and says of it
// that more was, or that nobody knows.
static int lower_acknowledged(fwu_repair &repair)
{
    if (repair.have_ack && !repair.below)
        return 0;
    fwu_ack next = repair.end;
    next.number = repair.acked.number;
    next.lost = true;
    next.commit.lsn = std::max(
        {next.commit.lsn, repair.acked.commit.lsn, repair.have_ack ? 0 : repair.lost.last_lsn});
    if (!fwu_identity_known(next.identity))
        next.identity = repair.acked.identity;
    if (!fwu_identity_known(next.identity) &&
        fwu_random(next.identity.bytes, sizeof next.identity.bytes) != 0)
        return -1;
    return repair.have_ack ? fwu_ack_write(repair.directory, next)
                           : fwu_ack_create(repair.directory, next, repair.file_mode);
}

static int rename_file(const fwu_repair &repair, const fwu_kept &kept)
{
    const std::string path = repair.directory + "/" + kept.name;
    if (rename(kept.file.path.c_str(), path.c_str()) != 0)
        return fwu_file_error(kept.file.path, "cannot rename the log file; repair again");
    return fwu_directory_sync(repair.directory);
}

// Puts what is whole of the damaged file in its place.  It becomes another file with the
// same name, so that who has read further in the old one sees that it was replaced.
static int cut_file(const fwu_repair &repair, const fwu_kept &kept)
{
    const std::string &path = kept.file.path;
    const std::string temporary = repair.directory + "/new-log-file";
    struct stat about = {};
    if (stat(path.c_str(), &about) == 0 &&
        fwu_file_copy(path, 0, kept.offset, temporary, repair.file_mode) == 0) {
        // As it was, if the system lets us; else it is ours like all that we make.
        (void)!chown(temporary.c_str(), about.st_uid, about.st_gid);
        (void)chmod(temporary.c_str(), about.st_mode & 07777);
        if (rename(temporary.c_str(), path.c_str()) == 0)
            return fwu_directory_sync(repair.directory);
    }
    (void)fwu_file_error(path, "cannot cut the log file back; repair again");
    (void)unlink(temporary.c_str()); // made anew by the next attempt
    return -1;
}

int fwu_repair_carry_out(fwu_repair &repair)
{
    const bool cuts = !repair.kept.empty() && repair.kept.front().offset > 0;
    if (cuts && copy_end(repair, repair.kept.front()) != 0)
        return -1;
    if (lower_acknowledged(repair) != 0)
        return -1;
    for (size_t i = repair.kept.size(); i > (cuts ? 1 : 0); i--)
        if (rename_file(repair, repair.kept[i - 1]) != 0)
            return -1;
    return cuts ? cut_file(repair, repair.kept.front()) : 0;
}

void fwu_repair_close(fwu_repair &repair)
{
    if (repair.lock_fd >= 0)
        close(repair.lock_fd);
    repair.lock_fd = -1;
}
