// Where a writer goes on: behind the last whole transaction of the log.
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_writer_state.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Takes layouts, record numbers and source position from a transaction found.
static fwu_found learn(fwu_writer &w, fwu_cursor &cursor, bool with_layouts)
{
    fwu_entry entry;
    fwu_change change;
    fwu_layout layout;
    fwu_found found = FWU_FOUND;
    w.last = cursor.commit.commit;
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

// Reads a file to its end; FWU_END when that went well.
static fwu_found learn_file(fwu_writer &w, fwu_cursor &cursor, const fwu_log_file &file, bool last)
{
    if (fwu_cursor_open(cursor, file) != 0)
        return FWU_FAILED;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_next(cursor)) == FWU_FOUND) {
        found = learn(w, cursor, last);
        if (found != FWU_END)
            break;
    }
    if (found == FWU_DAMAGED)
        fwu_log_damage(cursor);
    return found;
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
    if (st.st_size > w.end) {
        fwu_warn("%s: cut %lld bytes behind offset %lld: the rest of a transaction that was not "
                 "finished",
                 w.file.path.c_str(), static_cast<long long>(st.st_size - w.end),
                 static_cast<long long>(w.end));
        if (fwu_writer_cut_tail(w) != 0)
            return -1;
    }
    if (cursor.header_read) {
        w.header = cursor.header;
    } else {
        if (fwu_writer_put_header(w, w.fd, w.file, w.header) != 0)
            return -1;
        w.end = FWU_FILE_HEADER_SIZE;
    }
    if (cursor.header_read && cursor.header.big_endian != w.big_endian)
        return fwu_error("%s: the log holds images of %s-endian numbers, but the configuration "
                         "says otherwise; correct byte-order in it",
                         w.file.path.c_str(), cursor.header.big_endian ? "big" : "little");
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
    std::vector<unsigned char> bytes(size_t{1} << 20);
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
    return 0;
}

int fwu_recover(fwu_writer &w)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(w.directory, files) != 0)
        return -1;
    if (files.empty())
        return 0;
    if (find_identity(w, files) != 0)
        return -1;
    fwu_cursor cursor;
    if (learn_file(w, cursor, files.back(), true) != FWU_END || make_ready(w, cursor) != 0) {
        fwu_cursor_close(cursor);
        return -1;
    }
    fwu_found found = FWU_END;
    for (size_t i = files.size() - 1; i > 0 && w.last_recnum == 0 && found == FWU_END; i--)
        found = learn_file(w, cursor, files[i - 1], false);
    fwu_cursor_close(cursor);
    return found == FWU_END ? write_again(w) : -1;
}
