// Appending transactions.  Entries get their final bytes while the transaction
// is collected (its file and first tag are known when it begins), so that the
// commit writes them out as they are: a small transaction in one write.
#include "fwutil/fwu_writer.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_writer_state.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

void fwu_writer_key(fwu_writer &w, const std::string &dbname, const std::string &dsetname)
{
    w.key = dbname;
    w.key += '\0';
    w.key += dsetname;
}

int fwu_writer_cut_tail(fwu_writer &w)
{
    if (ftruncate(w.fd, w.end) != 0) {
        w.torn = true;
        return fwu_file_error(w.file.path, "cannot cut the log file back to its last transaction");
    }
    w.torn = false;
    return 0;
}

int fwu_writer_put_header(fwu_writer &w, int fd, const fwu_log_file &file, fwu_file_header &header)
{
    unsigned char bytes[FWU_FILE_HEADER_SIZE];
    if (!fwu_identity_known(w.identity) &&
        fwu_random(w.identity.bytes, sizeof w.identity.bytes) != 0)
        return -1;
    if (fwu_random(header.salt.data(), header.salt.size()) != 0)
        return -1;
    header.version = FWU_VERSION_SALTED;
    header.identity = w.identity;
    header.big_endian = w.big_endian;
    header.generation = file.generation;
    header.sequence = file.sequence;
    header.created_us = fwu_now_us();
    fwu_file_header_put(bytes, header);
    if (fwu_write_all(fd, bytes, sizeof bytes, 0) != 0)
        return fwu_file_error(file.path, "cannot create the log file");
    return 0;
}

static int lock_error(const std::string &path, int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (errno != EACCES && errno != EAGAIN)
        return fwu_file_error(path, "cannot lock the log for writing");
    if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
        return fwu_error("%s: another writer, process %ld, has the log open; stop it first",
                         path.c_str(), static_cast<long>(lock.l_pid));
    return fwu_error("%s: another writer has the log open; stop it first", path.c_str());
}

int fwu_writer_lock(const std::string &directory, mode_t mode)
{
    const std::string path = directory + "/writer.lock";
    const int fd = fwu_file_open(path, O_RDWR, mode);
    if (fd < 0)
        return fwu_file_error(path, "cannot open the writer's lock file");
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lock) == 0)
        return fd;
    (void)lock_error(path, fd);
    close(fd);
    return -1;
}

int fwu_writer_mode(const std::string &directory, int log_mode, mode_t &mode)
{
    struct stat st = {};
    if (stat(directory.c_str(), &st) != 0)
        return fwu_file_error(directory, "cannot open the log directory");
    mode = log_mode >= 0 ? static_cast<mode_t>(log_mode) : 0600 | (st.st_mode & 0666);
    return 0;
}

// The directory, and the mode of the files that will be made in it.
static int make_directory(fwu_writer &w, int log_mode)
{
    const auto mode = static_cast<mode_t>(log_mode >= 0 ? log_mode : 0600);
    if (mkdir(w.directory.c_str(), 0700) == 0)
        (void)chmod(w.directory.c_str(), mode | (mode & 0444) >> 2); // who reads may enter
    else if (errno != EEXIST)
        return fwu_file_error(w.directory, "cannot create the log directory");
    return fwu_writer_mode(w.directory, log_mode, w.file_mode);
}

static int take_lock(fwu_writer &w)
{
    w.lock_fd = fwu_writer_lock(w.directory, w.file_mode);
    return w.lock_fd < 0 ? -1 : 0;
}

static void release(fwu_writer *w)
{
    fwu_txn_end(w->txn);
    if (w->fd >= 0)
        close(w->fd);
    if (w->lock_fd >= 0)
        close(w->lock_fd);
    delete w;
}

int fwu_writer_open(fwu_writer **writer, const fwu_config &config)
{
    *writer = nullptr;
    auto w = std::make_unique<fwu_writer>();
    w->directory = config.log_directory;
    w->log_file_size = config.log_file_size;
    w->big_endian = config.big_endian;
    w->sync = config.sync;
    w->sync_interval_ms = config.sync_interval_ms;
    if (make_directory(*w, config.log_mode) == 0 && take_lock(*w) == 0 && fwu_recover(*w) == 0) {
        *writer = w.release();
        return 0;
    }
    release(w.release());
    return -1;
}

uint64_t fwu_writer_last_lsn(const fwu_writer *writer)
{
    return writer->last.lsn;
}

const fwu_commit &fwu_writer_last_commit(const fwu_writer *writer)
{
    return writer->last;
}

static bool text_ok(const std::string &text)
{
    return text.find('\0') == text.npos;
}

static int check_session(const fwu_session &session)
{
    bool ok = true;
    for (const char *key : FWU_SESSION_KEYS)
        if (const std::optional<std::string> &text = *fwu_session_entry(session, key))
            ok = ok && text_ok(*text);
    for (const std::string &text : session.data)
        ok = ok && text_ok(text);
    if (!ok)
        return fwu_error("a session text holds a zero byte");
    if (fwu_entry_session_length(session) > FWU_ENTRY_MAX)
        return fwu_error("the session's texts are too long for a log entry (%zu bytes)",
                         FWU_ENTRY_MAX);
    return 0;
}

// A transaction that an entry failed to join cannot be committed any more.
static int refuse(fwu_writer &w)
{
    w.failed = true;
    return -1;
}

int fwu_writer_begin(fwu_writer *writer, const fwu_session *session)
{
    fwu_writer &w = *writer;
    if (w.open)
        return fwu_error("%s: a transaction is open already; commit it or roll it back first",
                         w.directory.c_str());
    if (session != nullptr && check_session(*session) != 0)
        return -1;
    w.next_file =
        w.file.generation == 0 || w.header.version == FWU_VERSION_PLAIN || w.end >= w.log_file_size;
    fwu_txn_begin(w.txn, w.next_file ? 1 : w.last_tag + 1);
    w.txn_layouts.clear();
    w.recnum = w.last_recnum;
    w.open = true;
    w.failed = false;
    w.records = false;
    if (session == nullptr)
        return 0;
    fwu_entry_put_session(w.txn.entries, w.txn.tag + 1, *session);
    return fwu_txn_added(w.txn, w.directory) != 0 ? refuse(w) : 0;
}

int fwu_writer_session(fwu_writer *writer, const fwu_session &session)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a session outside a transaction", w.directory.c_str());
    if (check_session(session) != 0)
        return -1;
    fwu_entry_put_session(w.txn.entries, w.txn.tag + 1, session);
    return fwu_txn_added(w.txn, w.directory) != 0 ? refuse(w) : 0;
}

static int check_layout(const fwu_layout &layout)
{
    const auto name_ok = [](const std::string &name, size_t max) {
        return !name.empty() && name.size() <= max && text_ok(name);
    };
    if (!name_ok(layout.dbname, FWU_NAME_MAX) || !name_ok(layout.dsetname, FWU_NAME_MAX))
        return fwu_error("\"%s\".\"%s\": database and dataset names have 1 to %d bytes, none zero",
                         layout.dbname.c_str(), layout.dsetname.c_str(), FWU_NAME_MAX);
    for (const fwu_item &item : layout.items) {
        if (!name_ok(item.name, FWU_ITEM_NAME_MAX))
            return fwu_error("%s.%s: item name \"%s\": item names have 1 to %d bytes, none zero",
                             layout.dbname.c_str(), layout.dsetname.c_str(), item.name.c_str(),
                             FWU_ITEM_NAME_MAX);
        if (item.size < 1 || item.count < 1)
            return fwu_error("%s.%s: item %s: size and count must be at least 1",
                             layout.dbname.c_str(), layout.dsetname.c_str(), item.name.c_str());
    }
    if (fwu_entry_layout_length(layout) > FWU_ENTRY_MAX)
        return fwu_error("%s.%s: too many items for a log entry", layout.dbname.c_str(),
                         layout.dsetname.c_str());
    return 0;
}

static int check_change(const fwu_layout &layout, const fwu_change &change)
{
    const char *db = layout.dbname.c_str();
    const char *set = layout.dsetname.c_str();
    const bool wants_before = change.opcode != FWU_OP_INSERT;
    const bool wants_after = change.opcode != FWU_OP_DELETE;
    if (change.opcode != FWU_OP_INSERT && change.opcode != FWU_OP_UPDATE &&
        change.opcode != FWU_OP_DELETE)
        return fwu_error("%s.%s: operation %d is none of update (1), insert (3) and delete (5)", db,
                         set, change.opcode);
    if ((change.before != nullptr) != wants_before || (change.after != nullptr) != wants_after)
        return fwu_error("%s.%s: operation %d takes %s", db, set, change.opcode,
                         !wants_before  ? "an after image only"
                         : !wants_after ? "a before image only"
                                        : "a before and an after image");
    if (change.reclen < 0 || change.reclen != fwu_layout_image_length(layout))
        return fwu_error("%s.%s: a record of %d bytes, but the layout's items add up to %lld", db,
                         set, change.reclen,
                         static_cast<long long>(fwu_layout_image_length(layout)));
    if (fwu_entry_change_length(change) > FWU_ENTRY_MAX)
        return fwu_error("%s.%s: a record of %d bytes is too long for a log entry (%zu bytes)", db,
                         set, change.reclen, FWU_ENTRY_MAX);
    return 0;
}

// Puts the layout into the transaction unless it stands in the file already.
static int put_layout(fwu_writer &w, const fwu_layout &layout)
{
    fwu_writer_key(w, layout.dbname, layout.dsetname);
    auto known = w.txn_layouts.find(w.key);
    if (known == w.txn_layouts.end() && !w.next_file) {
        known = w.layouts.find(w.key);
        if (known != w.layouts.end() && known->second == layout)
            return 0;
    } else if (known != w.txn_layouts.end() && known->second == layout) {
        return 0;
    }
    if (check_layout(layout) != 0)
        return -1;
    fwu_entry_put_layout(w.txn.entries, w.txn.tag + 1, layout);
    if (fwu_txn_added(w.txn, w.directory) != 0)
        return refuse(w);
    w.txn_layouts[w.key] = layout;
    return 0;
}

int fwu_writer_record(fwu_writer *writer, int32_t opcode, const fwu_layout &layout, int64_t logtime,
                      int32_t reclen, const void *before_image, const void *after_image)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a record outside a transaction", w.directory.c_str());
    fwu_change change;
    change.dbname = layout.dbname.c_str();
    change.dsetname = layout.dsetname.c_str();
    change.logtime = logtime;
    change.opcode = opcode;
    change.recnum = w.recnum == INT32_MAX ? 1 : w.recnum + 1;
    change.reclen = reclen;
    change.before = static_cast<const unsigned char *>(before_image);
    change.after = static_cast<const unsigned char *>(after_image);
    if (check_change(layout, change) != 0)
        return -1;
    if (w.txn.tag > INT32_MAX - 4)
        return fwu_error("%s: the transaction has too many entries for one log file",
                         w.directory.c_str());
    if (put_layout(w, layout) != 0)
        return -1;
    fwu_entry_put_change(w.txn.entries, w.txn.tag + 1, change);
    if (fwu_txn_added(w.txn, w.directory) != 0)
        return refuse(w);
    w.recnum = change.recnum;
    w.records = true;
    return 0;
}

// Nothing counts as logged any more, neither here nor in the next run before the
// file has been written again.
static int sync_failed(fwu_writer &w, int result)
{
    w.sync_failed = true;
    const std::string mark = w.directory + "/" + FWU_SYNC_FAILED;
    const int fd = fwu_file_open(mark, O_WRONLY, w.file_mode);
    if (fd >= 0)
        close(fd);
    return result;
}

static int sync_file(fwu_writer &w)
{
    if (fdatasync(w.fd) == 0)
        return 0;
    return sync_failed(w, fwu_file_error(w.file.path, "cannot bring the log file to disk"));
}

// Keeps what is on disk as acknowledged, in a file made for it where there is none.
static int keep_acknowledged(fwu_writer &w)
{
    // A log of version 1 has no identity; the first file of version 2 takes this one.
    if (!fwu_identity_known(w.identity) &&
        fwu_random(w.identity.bytes, sizeof w.identity.bytes) != 0)
        return -1;
    fwu_ack next = w.synced;
    next.identity = w.identity;
    next.number = w.acked.number;
    next.lost = w.acked.lost;
    next.commit.lsn = std::max(next.commit.lsn, w.acked.lost ? w.acked.commit.lsn : 0);
    const int result = w.have_ack ? fwu_ack_write(w.directory, next)
                                  : fwu_ack_create(w.directory, next, w.file_mode);
    if (result != 0)
        return result;
    w.acked = next;
    w.have_ack = true;
    return 0;
}

int fwu_writer_acknowledge(fwu_writer *writer)
{
    fwu_writer &w = *writer;
    if (w.sync == FWU_SYNC_NONE && w.unsynced && fwu_writer_sync(writer) != 0)
        return -1;
    if (w.synced.position == w.acked.position)
        return 0;
    return keep_acknowledged(w);
}

bool fwu_writer_lost(const fwu_writer *writer, uint64_t *lsn)
{
    *lsn = writer->acked.commit.lsn;
    return writer->acked.lost;
}

int fwu_writer_accept_loss(fwu_writer *writer)
{
    if (!writer->acked.lost)
        return 0;
    writer->acked.lost = false;
    return keep_acknowledged(*writer);
}

mode_t fwu_writer_file_mode(const fwu_writer *writer)
{
    return writer->file_mode;
}

// Makes the file behind the last one.  Whatever sync says, the last one is on disk
// before, so that a power cut leaves no hole in front of good files; and the new
// one's header is, before it gets its name, so that nobody sees less of it.
static int begin_file(fwu_writer &w)
{
    fwu_log_file file;
    file.generation = w.file.generation == 0 ? 1 : w.file.generation;
    file.sequence = w.file.sequence + 1;
    if (file.sequence > FWU_SEQUENCE_MAX)
        return fwu_error("%s: the log has used all its %d file numbers", w.directory.c_str(),
                         FWU_SEQUENCE_MAX);
    file.name = fwu_log_file_name(file.generation, file.sequence);
    file.path = w.directory + "/" + file.name;
    const std::string temporary = w.directory + "/new-log-file";
    if (w.fd >= 0 && fwu_writer_sync(&w) != 0)
        return -1;
    const int fd = fwu_file_open(temporary, O_RDWR | O_TRUNC, w.file_mode);
    if (fd < 0)
        return fwu_file_error(temporary, "cannot create a log file");
    fwu_file_header header;
    int result = fwu_writer_put_header(w, fd, file, header);
    if (result == 0 && fdatasync(fd) != 0)
        result = fwu_file_error(file.path, "cannot bring the log file to disk");
    if (result == 0 && (!w.have_ack || w.synced.position != w.acked.position))
        result = keep_acknowledged(w);
    if (result == 0 && rename(temporary.c_str(), file.path.c_str()) != 0)
        result = fwu_file_error(file.path, "cannot create the log file");
    if (result != 0) {
        close(fd);
        (void)unlink(temporary.c_str()); // the next attempt would truncate it
        return result;
    }
    if (w.fd >= 0)
        close(w.fd);
    w.fd = fd;
    w.file = file;
    w.header = header;
    w.end = FWU_FILE_HEADER_SIZE;
    w.last_tag = 0;
    w.torn = false;
    w.new_name = true;
    w.layouts.clear();
    return 0;
}

static int append(fwu_writer &w, const fwu_commit &commit)
{
    if (w.torn && fwu_writer_cut_tail(w) != 0)
        return -1;
    if (w.next_file && begin_file(w) != 0)
        return -1;
    fwu_commit_entry entry;
    entry.commit = commit;
    entry.entries = w.txn.count;
    entry.chain = w.txn.chain;
    fwu_entry_put_commit(w.txn.entries, w.txn.tag + 1, entry, w.header,
                         w.end + w.txn.spilled + static_cast<int64_t>(w.txn.entries.size()));
    if (fwu_txn_write(w.txn, w.fd, w.file.path, w.end) != 0) {
        (void)fwu_writer_cut_tail(w); // reported, and tried again before the next transaction
        return -1;
    }
    w.end += w.txn.spilled + static_cast<int64_t>(w.txn.entries.size());
    w.last_tag = w.txn.tag + 1;
    w.last_recnum = w.recnum;
    w.last = commit;
    w.here.position = {w.file.generation, w.file.sequence, w.last_tag};
    w.here.end = w.end;
    w.here.commit = commit;
    if (!w.unsynced)
        w.unsynced_since = fwu_monotonic_ms();
    w.unsynced = true;
    for (auto &[key, layout] : w.txn_layouts)
        w.layouts[key] = std::move(layout);
    return 0;
}

int fwu_writer_commit(fwu_writer *writer, const fwu_commit &commit)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a commit outside a transaction", w.directory.c_str());
    int result = 0;
    if (w.failed)
        result = fwu_error("%s: the transaction is given up: part of it could not be kept",
                           w.directory.c_str());
    else if (w.records)
        result = append(w, commit);
    fwu_writer_rollback(writer);
    return result;
}

void fwu_writer_rollback(fwu_writer *writer)
{
    writer->open = false;
    fwu_txn_end(writer->txn);
    writer->txn_layouts.clear();
}

int fwu_writer_sync(fwu_writer *writer)
{
    fwu_writer &w = *writer;
    if (w.sync_failed)
        return fwu_error("%s: the log file could not be brought to disk before; start anew",
                         w.file.path.c_str());
    if (w.fd >= 0 && sync_file(w) != 0)
        return -1;
    if (w.new_name && fwu_directory_sync(w.directory) != 0)
        return sync_failed(w, -1);
    w.new_name = false;
    w.unsynced = false;
    w.synced = w.here;
    w.synced_lsn = w.last.lsn;
    return 0;
}

// How long a commit may wait for its sync.
static int64_t longest_wait_ms(const fwu_writer &w, bool more_waits)
{
    constexpr int64_t longest_group_ms = 1000;
    if (w.sync == FWU_SYNC_INTERVAL)
        return w.sync_interval_ms;
    return more_waits ? longest_group_ms : 0;
}

int fwu_writer_settle(fwu_writer *writer, bool more_waits)
{
    const fwu_writer &w = *writer;
    if (!w.unsynced || w.sync == FWU_SYNC_NONE)
        return 0;
    const int64_t longest = longest_wait_ms(w, more_waits);
    if (longest > 0 && fwu_monotonic_ms() - w.unsynced_since < longest)
        return 0;
    return fwu_writer_sync(writer);
}

int fwu_writer_settle_in(const fwu_writer *writer)
{
    const fwu_writer &w = *writer;
    if (!w.unsynced || w.sync == FWU_SYNC_NONE)
        return -1;
    const int64_t waited = fwu_monotonic_ms() - w.unsynced_since;
    return static_cast<int>(std::max<int64_t>(longest_wait_ms(w, false) - waited, 0));
}

uint64_t fwu_writer_logged_lsn(const fwu_writer *writer)
{
    return writer->sync == FWU_SYNC_NONE ? writer->last.lsn : writer->synced_lsn;
}

int fwu_writer_close(fwu_writer *writer)
{
    if (writer == nullptr)
        return 0;
    const bool wants_sync = writer->sync != FWU_SYNC_NONE && !writer->sync_failed;
    const int result = wants_sync ? fwu_writer_sync(writer) : 0;
    release(writer);
    return result;
}
