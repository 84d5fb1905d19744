// Where a writer goes on: behind the last whole transaction of the log, which must
// not be before what was acknowledged.  What it cuts off is kept aside.
//
// Everything is looked at before anything is changed: a log that is refused stays as it
// is.  Then the piece that goes is on disk with its name before the file is cut, and what
// an earlier run could not bring to disk is written again before anything is appended.
#include "fwutil/fwu_recover.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_file_number.h"
#include "fwutil/fwu_log.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

constexpr size_t COPY_SIZE = size_t{1} << 20;

// Takes the layout or the source of one that an entry tells of.
static void learn_layout(fwu_layouts &layouts, const fwu_entry &entry)
{
    fwu_layout layout;
    fwu_layout_source of;
    std::string key;
    if (fwu_entry_layout(entry, layout)) {
        fwu_layout_key(key, layout.dbname, layout.dsetname);
        (void)fwu_layouts_put(layouts, key, std::move(layout)); // what is forgotten comes again
    } else if (fwu_entry_source(entry, of)) {
        fwu_layout_key(key, of.dbname, of.dsetname);
        if (fwu_layout *const known = fwu_layouts_find(layouts, key); known != nullptr)
            known->source = std::make_shared<const fwu_source>(std::move(of.source));
    }
}

// Takes layouts, record numbers and source position from a transaction found.
static fwu_found learn(fwu_log_end &log, fwu_cursor &cursor, bool with_layouts)
{
    fwu_entry entry;
    fwu_change change;
    fwu_found found = FWU_FOUND;
    log.last = cursor.commit.commit;
    log.here.position = {cursor.file.generation, cursor.file.sequence, cursor.tx_last_tag};
    log.here.end = cursor.tx_end;
    log.here.commit = log.last;
    while ((found = fwu_cursor_entry(cursor, entry)) == FWU_FOUND) {
        if (fwu_entry_change(entry, change)) {
            log.last_recnum = change.recnum;
            log.recnum_at = {cursor.file.generation, cursor.file.sequence, 0};
        } else if (with_layouts) {
            learn_layout(log.layouts, entry);
        }
    }
    return found;
}

// Reads a file to its end: FWU_END, FWU_DAMAGED (not reported) or FWU_FAILED.
static fwu_found learn_file(fwu_log_end &log, fwu_cursor &cursor, const fwu_log_file &file,
                            bool last)
{
    fwu_cursor_close(cursor);
    cursor = fwu_cursor(); // files are read in any order
    if (fwu_cursor_open(cursor, file) != 0)
        return FWU_FAILED;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_next(cursor)) == FWU_FOUND) {
        found = learn(log, cursor, last);
        if (found != FWU_END)
            break;
    }
    return found;
}

// The last commit in files before the last one; no position: there is none.
static fwu_position last_commit_before(fwu_log_end &log, const std::vector<fwu_log_file> &files)
{
    fwu_cursor older;
    fwu_position end;
    for (size_t i = files.size() - 1; i > 0 && end.tag == 0; i--) {
        if (learn_file(log, older, files[i - 1], false) == FWU_FAILED)
            break;
        if (older.tx_last_tag != 0)
            end = {older.file.generation, older.file.sequence, older.tx_last_tag};
    }
    fwu_cursor_close(older);
    return end;
}

// Whether the log, which is whole up to the cursor's last transaction, ends before
// what was acknowledged; reported.
static bool ends_too_early(fwu_log_end &log, const fwu_cursor &cursor,
                           const std::vector<fwu_log_file> &files)
{
    const fwu_position &acked = log.acked.position;
    fwu_position end = {cursor.file.generation, cursor.file.sequence, cursor.tx_last_tag};
    const auto order = [](const fwu_position &p) {
        return std::tuple(p.generation, p.sequence, p.tag);
    };
    if (!log.have_ack || order(end) >= order(acked))
        return false;
    if (end.tag == 0)
        end = last_commit_before(log, files);
    (void)fwu_ack_missing(log.directory, log.acked, end, cursor.verdict.reason);
    return true;
}

// Whether a recovery gave a file this name; what a repair has kept has another one.
static bool cut_by_recovery(const std::string &name)
{
    const size_t prefix = sizeof "cut-" - 1;
    const size_t dash = name.rfind('-');
    int32_t generation = 0;
    int32_t sequence = 0;
    return name.starts_with("cut-fw") && dash > prefix && dash + 1 < name.size() &&
           name.find_first_not_of("0123456789", dash + 1) == name.npos &&
           fwu_log_file_parse(name.substr(prefix, dash - prefix).c_str(), generation, sequence);
}

// Removes the pieces cut off by earlier recoveries but the newest.
static void drop_older_pieces(const fwu_log_end &log, const std::string &newest)
{
    DIR *dir = opendir(log.directory.c_str());
    while (const dirent *row = dir != nullptr ? readdir(dir) : nullptr) {
        const std::string name = row->d_name;
        if (cut_by_recovery(name) && name != newest)
            (void)unlink((log.directory + "/" + name).c_str()); // it only takes room
    }
    if (dir != nullptr)
        closedir(dir);
}

// Cuts off what stands behind the last transaction.  It is kept aside first, unless it is
// the good beginning of a transaction and nothing else: nobody misses that, and it may be
// larger than what the disk has left.
static int cut_off(fwu_log_end &log, const fwu_cursor &cursor, int64_t length)
{
    const std::string name = "cut-" + log.file.name + "-" + std::to_string(log.end);
    const char *what = cursor.verdict.reason == nullptr
                           ? "the rest of a transaction that was not finished"
                       : log.have_ack ? "never acknowledged, and not whole"
                                      : "not known whether it was acknowledged, and not whole";
    const auto cut = [&](const std::string &kept) {
        fwu_warn("%s: cut %lld bytes behind offset %lld: %s%s", log.file.path.c_str(),
                 static_cast<long long>(length), static_cast<long long>(log.end), what,
                 kept.c_str());
        return fwu_log_end_cut_tail(log);
    };
    if (cursor.verdict.reason == nullptr)
        return cut("");
    if (fwu_file_copy(log.file.path, log.end, INT64_MAX, log.directory + "/" + name,
                      log.file_mode) == 0) {
        drop_older_pieces(log, name);
        return cut("; kept in " + name);
    }
    (void)fwu_file_error(log.directory + "/" + name, "cannot keep what is cut off");
    return cut("");
}

// Makes the last file ready to go on with: nothing behind its last transaction.
static int make_ready(fwu_log_end &log, const fwu_cursor &cursor)
{
    log.file = cursor.file;
    log.fd = open(log.file.path.c_str(), O_RDWR | O_CLOEXEC);
    if (log.fd < 0)
        return fwu_file_error(log.file.path, "cannot open the log file for writing");
    log.end = cursor.tx_end;
    log.last_tag = cursor.tx_last_tag;
    // The process that wrote the file may have died before it was on disk.
    log.unsynced = true;
    log.new_name = true;
    struct stat st = {};
    if (fstat(log.fd, &st) != 0)
        return fwu_file_error(log.file.path, "cannot get the log file's size");
    if (cursor.header_read && cursor.header.big_endian != log.big_endian)
        return fwu_error("%s: the log holds images of %s-endian numbers, but the configuration "
                         "says otherwise; correct byte-order in it",
                         log.file.path.c_str(), cursor.header.big_endian ? "big" : "little");
    if (log.wanted_encoding.value_or(log.encoding) != log.encoding)
        return fwu_error("%s: the log holds texts in %s, but the configuration says otherwise; "
                         "correct text-encoding in it, or leave it out",
                         log.file.path.c_str(), fwu_encoding_name(log.encoding));
    if (st.st_size > log.end && cut_off(log, cursor, st.st_size - log.end) != 0)
        return -1;
    if (cursor.header_read) {
        log.header = cursor.header;
    } else {
        if (fwu_log_end_put_header(log, log.fd, log.file, log.header) != 0)
            return -1;
        log.end = FWU_FILE_HEADER_SIZE;
    }
    return 0;
}

// The system tells once that it could not bring a file to disk; after that it may
// take the bytes that it still shows for written.  Writes the same bytes again.
static int write_again(fwu_log_end &log)
{
    const std::string mark = log.directory + "/" + FWU_SYNC_FAILED;
    if (access(mark.c_str(), F_OK) != 0)
        return errno == ENOENT ? 0 : fwu_file_error(mark, "cannot tell whether the file is there");
    fwu_warn("%s: an earlier run could not bring it to disk: written again", log.file.path.c_str());
    std::vector<unsigned char> bytes(COPY_SIZE);
    for (int64_t at = 0; at < log.end;) {
        const auto wanted =
            static_cast<size_t>(std::min(log.end - at, static_cast<int64_t>(bytes.size())));
        const ssize_t n = fwu_read_all(log.fd, bytes.data(), wanted, at);
        if (n <= 0)
            return fwu_file_error(log.file.path, "cannot read the log file");
        if (fwu_write_all(log.fd, bytes.data(), static_cast<size_t>(n), at) != 0)
            return fwu_file_error(log.file.path, "cannot write to the log file");
        at += n;
    }
    if (fwu_log_end_sync(log) != 0)
        return -1;
    if (unlink(mark.c_str()) != 0)
        return fwu_file_error(mark, "cannot remove the file");
    return 0;
}

// The encoding that the log's newest good file says, and the identity that the newest file
// has of those that have one.
static int take_headers(fwu_log_end &log, const std::vector<fwu_log_file> &files)
{
    bool known = false; // the encoding
    for (size_t i = files.size(); i > 0 && !fwu_identity_known(log.identity); i--) {
        fwu_file_header header;
        const fwu_found found = fwu_log_header(files[i - 1], header);
        if (found == FWU_FAILED)
            return -1;
        if (found != FWU_FOUND)
            continue;
        log.identity = header.identity;
        if (!known)
            log.encoding = header.encoding;
        known = true;
    }
    if (!log.have_ack)
        return 0;
    if (fwu_identity_known(log.identity) && log.identity != log.acked.identity)
        return fwu_ack_foreign(log.directory, log.acked, log.identity);
    log.identity = log.acked.identity;
    return 0;
}

// Reads the last file.  What is wrong in it counts only where something of it was
// acknowledged, or nobody knows what was.
static int read_last(fwu_log_end &log, fwu_cursor &cursor, const std::vector<fwu_log_file> &files)
{
    const fwu_log_file &file = files.back();
    fwu_found found = learn_file(log, cursor, file, true);
    if (found == FWU_FAILED)
        return -1;
    if (ends_too_early(log, cursor, files))
        return -1;
    if (found == FWU_DAMAGED &&
        (cursor.verdict.foreign ||
         (!log.have_ack && (cursor.header_read || !fwu_file_all_zero(file.path)))))
        return fwu_log_damage(cursor);
    return 0;
}

// Whether a file comes right behind another one.
static bool follows(const fwu_log_file &file, const fwu_log_file &before)
{
    return fwu_file_number_of(file) == fwu_file_number_behind(fwu_file_number_of(before));
}

// The file before the last one must be there.
static int check_there(const fwu_log_end &log, const std::vector<fwu_log_file> &files)
{
    const fwu_log_file &last = files.back();
    const fwu_log_file &before = files.size() > 1 ? files[files.size() - 2] : last;
    if (files.size() == 1 || before.generation != last.generation || follows(last, before))
        return 0;
    const std::string missing = fwu_log_file_name(before.generation, before.sequence + 1);
    return fwu_error("%s/%s: the log file is missing, the next one there is %s; restore it from a "
                     "copy, or cut the log back to what is whole: fwlog repair",
                     log.directory.c_str(), missing.c_str(), last.name.c_str());
}

int fwu_recover(fwu_log_end &log)
{
    std::vector<fwu_log_file> files;
    const fwu_found acked = fwu_ack_read(log.directory, log.acked);
    if (acked == FWU_FAILED || fwu_log_list(log.directory, files) != 0)
        return -1;
    log.have_ack = acked == FWU_FOUND;
    log.synced = log.acked; // it was on disk before it was acknowledged
    if (take_headers(log, files) != 0)
        return -1;
    if (files.empty())
        return log.have_ack && log.acked.position.generation != 0
                   ? fwu_ack_missing(log.directory, log.acked, {}, nullptr)
                   : 0;
    fwu_cursor cursor;
    fwu_cursor older;
    int result = read_last(log, cursor, files);
    if (result == 0)
        result = check_there(log, files);
    // The file before it must end whole, and its records where those of the last one begin;
    // older ones are asked for the last record when it has none.
    int32_t recnum_before = 0;
    bool joined = true; // no file is missing on the way
    for (size_t i = files.size() - 1;
         result == 0 && i > 0 && (log.last_recnum == 0 || (recnum_before == 0 && joined)); i--) {
        const fwu_ack here = log.here;
        const int32_t recnum = log.last_recnum;
        const fwu_position recnum_at = log.recnum_at;
        const fwu_commit last = log.last;
        const fwu_found found = learn_file(log, older, files[i - 1], false);
        if (found == FWU_FAILED)
            result = -1;
        else if (found == FWU_DAMAGED)
            result = fwu_log_damage(older);
        else if (fwu_verdict verdict; !fwu_log_ends_whole(older, verdict))
            result = fwu_log_damage(older.file, verdict);
        joined = joined && follows(files[i], files[i - 1]);
        if (joined && recnum_before == 0)
            recnum_before = older.last_recnum;
        if (here.position.tag != 0) {
            log.here = here;
            log.last = last;
        }
        if (recnum != 0) {
            log.last_recnum = recnum;
            log.recnum_at = recnum_at;
        }
    }
    const char *gap = result == 0 ? fwu_recnum_gap(recnum_before, cursor.first_recnum) : nullptr;
    if (gap != nullptr)
        result =
            fwu_log_damage(cursor.file, {.at = cursor.first_recnum_at, .reason = gap, .gap = true});
    // A log that is refused stays as it is.
    if (result == 0)
        result = make_ready(log, cursor);
    fwu_cursor_close(older);
    fwu_cursor_close(cursor);
    if (result != 0 || write_again(log) != 0)
        return -1;
    if (log.have_ack || log.header.version == FWU_VERSION_PLAIN)
        return 0;
    fwu_warn("%s/%s: the file is missing: the log is taken as it is", log.directory.c_str(),
             FWU_ACK_NAME);
    return fwu_log_end_sync(log) == 0 ? fwu_log_end_acknowledge(log) : -1;
}
