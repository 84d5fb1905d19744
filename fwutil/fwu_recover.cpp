// Where a writer goes on: behind the last whole transaction of the log, which must
// not be before what was acknowledged.  What it cuts off is kept aside.
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_writer_state.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

constexpr size_t COPY_SIZE = size_t{1} << 20;

// Takes layouts, record numbers and source position from a transaction found.
static fwu_found learn(fwu_writer &w, fwu_cursor &cursor, bool with_layouts)
{
    fwu_entry entry;
    fwu_change change;
    fwu_layout layout;
    fwu_found found = FWU_FOUND;
    w.last = cursor.commit.commit;
    w.here.position = {cursor.file.generation, cursor.file.sequence, cursor.tx_last_tag};
    w.here.end = cursor.tx_end;
    w.here.commit = w.last;
    while ((found = fwu_cursor_entry(cursor, entry)) == FWU_FOUND) {
        if (fwu_entry_change(entry, change)) {
            w.last_recnum = change.recnum;
        } else if (with_layouts && fwu_entry_layout(entry, layout)) {
            fwu_writer_key(w, layout.dbname, layout.dsetname);
            w.layouts[w.key] = layout;
        }
    }
    return found;
}

// Reads a file to its end: FWU_END, FWU_DAMAGED (not reported) or FWU_FAILED.
static fwu_found learn_file(fwu_writer &w, fwu_cursor &cursor, const fwu_log_file &file, bool last)
{
    fwu_cursor_close(cursor);
    cursor = fwu_cursor(); // files are read in any order
    if (fwu_cursor_open(cursor, file) != 0)
        return FWU_FAILED;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_next(cursor)) == FWU_FOUND) {
        found = learn(w, cursor, last);
        if (found != FWU_END)
            break;
    }
    return found;
}

bool fwu_all_zero(const fwu_log_file &file)
{
    std::vector<char> bytes(COPY_SIZE);
    const int fd = open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : 0;
    while (fd >= 0 && (n = read(fd, bytes.data(), bytes.size())) > 0)
        if (std::any_of(bytes.begin(), bytes.begin() + n, [](char c) { return c != 0; }))
            break;
    if (fd >= 0)
        close(fd);
    return n == 0;
}

// The last commit in files before the last one; no position: there is none.
static fwu_position last_commit_before(fwu_writer &w, const std::vector<fwu_log_file> &files)
{
    fwu_cursor older;
    fwu_position end;
    for (size_t i = files.size() - 1; i > 0 && end.tag == 0; i--) {
        if (learn_file(w, older, files[i - 1], false) == FWU_FAILED)
            break;
        if (older.tx_last_tag != 0)
            end = {older.file.generation, older.file.sequence, older.tx_last_tag};
    }
    fwu_cursor_close(older);
    return end;
}

// Whether the log, which is whole up to the cursor's last transaction, ends before
// what was acknowledged; reported.
static bool ends_too_early(fwu_writer &w, const fwu_cursor &cursor,
                           const std::vector<fwu_log_file> &files)
{
    const fwu_position &acked = w.acked.position;
    fwu_position end = {cursor.file.generation, cursor.file.sequence, cursor.tx_last_tag};
    const auto order = [](const fwu_position &p) {
        return std::tuple(p.generation, p.sequence, p.tag);
    };
    if (!w.have_ack || order(end) >= order(acked))
        return false;
    if (end.tag == 0)
        end = last_commit_before(w, files);
    (void)fwu_ack_missing(w.directory, w.acked, end, cursor.verdict.reason);
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
static void drop_older_pieces(const fwu_writer &w, const std::string &newest)
{
    DIR *dir = opendir(w.directory.c_str());
    while (const dirent *row = dir != nullptr ? readdir(dir) : nullptr) {
        const std::string name = row->d_name;
        if (cut_by_recovery(name) && name != newest)
            (void)unlink((w.directory + "/" + name).c_str()); // it only takes room
    }
    if (dir != nullptr)
        closedir(dir);
}

int fwu_keep_piece(const std::string &from, int64_t offset, int64_t end, const std::string &to,
                   mode_t mode)
{
    std::vector<unsigned char> bytes(COPY_SIZE);
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = in < 0 ? -1 : fwu_file_open(to, O_WRONLY | O_TRUNC, mode);
    bool good = out >= 0;
    int64_t at = offset;
    for (ssize_t n = 1; good && n > 0 && at < end; at += n) {
        const auto wanted = static_cast<size_t>(std::min(end - at, int64_t{COPY_SIZE}));
        n = pread(in, bytes.data(), wanted, at);
        good = n >= 0 && fwu_write_all(out, bytes.data(), static_cast<size_t>(n), at - offset) == 0;
    }
    good = good && fsync(out) == 0;
    const int failed = errno;
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
    if (out >= 0 && !good)
        (void)unlink(to.c_str()); // part of it is of no use
    errno = failed;
    return good ? 0 : -1;
}

// Cuts off what stands behind the last transaction.  It is kept aside first, unless it is
// the good beginning of a transaction and nothing else: nobody misses that, and it may be
// larger than what the disk has left.
static int cut_off(fwu_writer &w, const fwu_cursor &cursor, int64_t length)
{
    const std::string name = "cut-" + w.file.name + "-" + std::to_string(w.end);
    const char *what = cursor.verdict.reason == nullptr
                           ? "the rest of a transaction that was not finished"
                       : w.have_ack ? "never acknowledged, and not whole"
                                    : "not known whether it was acknowledged, and not whole";
    const auto cut = [&](const std::string &kept) {
        fwu_warn("%s: cut %lld bytes behind offset %lld: %s%s", w.file.path.c_str(),
                 static_cast<long long>(length), static_cast<long long>(w.end), what, kept.c_str());
        return fwu_writer_cut_tail(w);
    };
    if (cursor.verdict.reason == nullptr)
        return cut("");
    if (fwu_keep_piece(w.file.path, w.end, INT64_MAX, w.directory + "/" + name, w.file_mode) == 0) {
        drop_older_pieces(w, name);
        return cut("; kept in " + name);
    }
    (void)fwu_file_error(w.directory + "/" + name, "cannot keep what is cut off");
    return cut("");
}

// Makes the last file ready to go on with: nothing behind its last transaction.
static int make_ready(fwu_writer &w, const fwu_cursor &cursor)
{
    w.file = cursor.file;
    w.fd = open(w.file.path.c_str(), O_RDWR | O_CLOEXEC);
    if (w.fd < 0)
        return fwu_file_error(w.file.path, "cannot open the log file for writing");
    w.end = cursor.tx_end;
    w.last_tag = cursor.tx_last_tag;
    // The process that wrote the file may have died before it was on disk.
    w.unsynced = true;
    w.new_name = true;
    struct stat st = {};
    if (fstat(w.fd, &st) != 0)
        return fwu_file_error(w.file.path, "cannot get the log file's size");
    if (cursor.header_read && cursor.header.big_endian != w.big_endian)
        return fwu_error("%s: the log holds images of %s-endian numbers, but the configuration "
                         "says otherwise; correct byte-order in it",
                         w.file.path.c_str(), cursor.header.big_endian ? "big" : "little");
    if (st.st_size > w.end && cut_off(w, cursor, st.st_size - w.end) != 0)
        return -1;
    if (cursor.header_read) {
        w.header = cursor.header;
    } else {
        if (fwu_writer_put_header(w, w.fd, w.file, w.header) != 0)
            return -1;
        w.end = FWU_FILE_HEADER_SIZE;
    }
    return 0;
}

// The system tells once that it could not bring a file to disk; after that it may
// take the bytes that it still shows for written.  Writes the same bytes again.
static int write_again(fwu_writer &w)
{
    const std::string mark = w.directory + "/" + FWU_SYNC_FAILED;
    if (access(mark.c_str(), F_OK) != 0)
        return 0;
    fwu_warn("%s: an earlier run could not bring it to disk: written again", w.file.path.c_str());
    std::vector<unsigned char> bytes(COPY_SIZE);
    for (int64_t at = 0; at < w.end;) {
        const auto wanted =
            static_cast<size_t>(std::min(w.end - at, static_cast<int64_t>(bytes.size())));
        const ssize_t n = pread(w.fd, bytes.data(), wanted, at);
        if (n <= 0)
            return fwu_file_error(w.file.path, "cannot read the log file");
        if (fwu_write_all(w.fd, bytes.data(), static_cast<size_t>(n), at) != 0)
            return fwu_file_error(w.file.path, "cannot write to the log file");
        at += n;
    }
    if (fwu_writer_sync(&w) != 0)
        return -1;
    if (unlink(mark.c_str()) != 0)
        return fwu_file_error(mark, "cannot remove the file");
    return 0;
}

// The identity that the log's newest file has of those that have one.
static int find_identity(fwu_writer &w, const std::vector<fwu_log_file> &files)
{
    for (size_t i = files.size(); i > 0 && !fwu_identity_known(w.identity); i--) {
        fwu_file_header header;
        const fwu_found found = fwu_log_header(files[i - 1], header);
        if (found == FWU_FAILED)
            return -1;
        if (found == FWU_FOUND)
            w.identity = header.identity;
    }
    if (!w.have_ack)
        return 0;
    if (fwu_identity_known(w.identity) && w.identity != w.acked.identity)
        return fwu_ack_foreign(w.directory, w.acked, w.identity);
    w.identity = w.acked.identity;
    return 0;
}

// Reads the last file.  What is wrong in it counts only where something of it was
// acknowledged, or nobody knows what was.
static int read_last(fwu_writer &w, fwu_cursor &cursor, const std::vector<fwu_log_file> &files)
{
    const fwu_log_file &file = files.back();
    fwu_found found = learn_file(w, cursor, file, true);
    if (found == FWU_FAILED)
        return -1;
    if (ends_too_early(w, cursor, files))
        return -1;
    if (found == FWU_DAMAGED &&
        (cursor.verdict.foreign || (!w.have_ack && (cursor.header_read || !fwu_all_zero(file)))))
        return fwu_log_damage(cursor);
    return 0;
}

// Whether a file comes right behind another one.
static bool follows(const fwu_log_file &file, const fwu_log_file &before)
{
    return file.generation == before.generation && file.sequence == before.sequence + 1;
}

// The file before the last one must be there.
static int check_there(const fwu_writer &w, const std::vector<fwu_log_file> &files)
{
    const fwu_log_file &last = files.back();
    const fwu_log_file &before = files.size() > 1 ? files[files.size() - 2] : last;
    if (files.size() == 1 || before.generation != last.generation || follows(last, before))
        return 0;
    const std::string missing = fwu_log_file_name(before.generation, before.sequence + 1);
    return fwu_error("%s/%s: the log file is missing, the next one there is %s; restore it from a "
                     "copy, or cut the log back to what is whole: fwlog repair",
                     w.directory.c_str(), missing.c_str(), last.name.c_str());
}

int fwu_recover(fwu_writer &w)
{
    std::vector<fwu_log_file> files;
    const fwu_found acked = fwu_ack_read(w.directory, w.acked);
    if (acked == FWU_FAILED || fwu_log_list(w.directory, files) != 0)
        return -1;
    w.have_ack = acked == FWU_FOUND;
    w.synced = w.acked; // it was on disk before it was acknowledged
    if (find_identity(w, files) != 0)
        return -1;
    if (files.empty())
        return w.have_ack && w.acked.position.generation != 0
                   ? fwu_ack_missing(w.directory, w.acked, {}, nullptr)
                   : 0;
    fwu_cursor cursor;
    fwu_cursor older;
    int result = read_last(w, cursor, files);
    if (result == 0)
        result = check_there(w, files);
    // The file before it must end whole, and its records where those of the last one begin;
    // older ones are asked for the last record when it has none.
    int32_t recnum_before = 0;
    bool joined = true; // no file is missing on the way
    for (size_t i = files.size() - 1;
         result == 0 && i > 0 && (w.last_recnum == 0 || (recnum_before == 0 && joined)); i--) {
        const fwu_ack here = w.here;
        const int32_t recnum = w.last_recnum;
        const fwu_commit last = w.last;
        const fwu_found found = learn_file(w, older, files[i - 1], false);
        if (found == FWU_FAILED)
            result = -1;
        else if (found == FWU_DAMAGED)
            result = fwu_log_damage(older);
        else if (fwu_verdict verdict; !fwu_log_ends_whole(older, verdict))
            result = fwu_log_damage(older.file, verdict);
        joined = joined && follows(files[i], files[i - 1]);
        if (joined && recnum_before == 0)
            recnum_before = older.last_recnum;
        if (recnum != 0) {
            w.here = here;
            w.last_recnum = recnum;
            w.last = last;
        }
    }
    const char *gap = result == 0 ? fwu_recnum_gap(recnum_before, cursor.first_recnum) : nullptr;
    if (gap != nullptr) // it is at the beginning: no transaction is without records
        result =
            fwu_log_damage(cursor.file, {.at = FWU_FILE_HEADER_SIZE, .reason = gap, .gap = true});
    // A log that is refused stays as it is.
    if (result == 0)
        result = make_ready(w, cursor);
    fwu_cursor_close(older);
    fwu_cursor_close(cursor);
    if (result != 0 || write_again(w) != 0)
        return -1;
    if (w.have_ack || w.header.version == FWU_VERSION_PLAIN)
        return 0;
    fwu_warn("%s/%s: the file is missing: the log is taken as it is", w.directory.c_str(),
             FWU_ACK_NAME);
    return fwu_writer_sync(&w) == 0 ? fwu_writer_acknowledge(&w) : -1;
}
