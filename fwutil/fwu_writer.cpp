// Appending transactions.  Entries get their final bytes while the transaction
// is collected (its file and first tag are known when it begins), so that the
// commit writes them out as they are: a small transaction in one write.
//
// The order at a commit: what a failed write left is cut off; a new file, if one is due,
// is begun when the one before is on disk, and gets its name when its header is and what
// was acknowledged says so much; the entries, their commit entry last; only then what
// the writer knows of the log's end.  So a reader may rely on it that a file which has a
// next one never changes again, and that behind a commit entry everything before it
// stands there.
#include "fwutil/fwu_writer.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_file_number.h"
#include "fwutil/fwu_recover.h"
#include "fwutil/fwu_retention.h"
#include "fwutil/fwu_txn.h"
#include "fwutil/fwu_writer_check.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

struct fwu_writer {
    fwu_log_end log;
    fwu_retention retention;
    int lock_fd = -1;
    int64_t log_file_size = 0;
    fwu_sync_mode sync = FWU_SYNC_COMMIT;
    int64_t sync_interval_ms = 0;
    int64_t unsynced_since = 0; // when the first commit that is not known to be on disk was
                                // appended, monotonic milliseconds

    bool open = false;      // a transaction has begun
    bool failed = false;    // ... and one of its records was refused
    bool next_file = false; // it goes into a new file
    bool holds = false;     // it has records or marks
    int32_t recnum = 0;     // last one that it uses
    fwu_txn txn;
    fwu_layouts txn_layouts;  // that it puts into the log
    std::string key;          // scratch for the maps' keys
    std::vector<bool> valued; // scratch: the items whose whole value was given
};

static int take_lock(fwu_writer &w)
{
    w.lock_fd = fwu_log_end_lock(w.log.directory, w.log.file_mode);
    return w.lock_fd < 0 ? -1 : 0;
}

static void release(fwu_writer *w)
{
    fwu_txn_end(w->txn);
    if (w->log.fd >= 0)
        close(w->log.fd);
    if (w->lock_fd >= 0)
        close(w->lock_fd);
    delete w;
}

int fwu_writer_open(fwu_writer **writer, const fwu_config &config)
{
    *writer = nullptr;
    auto w = std::make_unique<fwu_writer>();
    w->log.directory = config.log_directory;
    w->log_file_size = config.log_file_size;
    w->log.big_endian = config.big_endian;
    w->log.wanted_encoding = config.encoding;
    w->log.encoding = config.encoding.value_or(config.new_log_encoding);
    w->sync = config.sync;
    w->sync_interval_ms = config.sync_interval_ms;
    w->retention.keep = config.keep;
    if (fwu_log_end_directory(w->log, config.log_mode) == 0 && take_lock(*w) == 0 &&
        fwu_recover(w->log) == 0) {
        fwu_writer_tend(w.get());
        *writer = w.release();
        return 0;
    }
    release(w.release());
    return -1;
}

void fwu_writer_configure(fwu_writer *writer, const fwu_config &config)
{
    writer->log_file_size = config.log_file_size;
    writer->retention.keep = config.keep;
    writer->retention.due_ms = 0;
    // What counts as logged would go back.
    if (writer->sync == FWU_SYNC_NONE || config.sync == FWU_SYNC_NONE)
        return;
    writer->sync = config.sync;
    writer->sync_interval_ms = config.sync_interval_ms;
}

uint64_t fwu_writer_last_lsn(const fwu_writer *writer)
{
    return writer->log.last.lsn;
}

const fwu_commit &fwu_writer_last_commit(const fwu_writer *writer)
{
    return writer->log.last;
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
                         w.log.directory.c_str());
    if (session != nullptr && fwu_check_session(*session) != 0)
        return -1;
    w.next_file = w.log.file.generation == 0 || w.log.header.version == FWU_VERSION_PLAIN ||
                  w.log.end >= w.log_file_size;
    fwu_txn_begin(w.txn, w.next_file ? 1 : w.log.last_tag + 1);
    fwu_layouts_clear(w.txn_layouts);
    w.recnum = w.log.last_recnum;
    w.open = true;
    w.failed = false;
    w.holds = false;
    if (session == nullptr)
        return 0;
    fwu_entry_put_session(w.txn.entries, w.txn.tag + 1, *session);
    return fwu_txn_added(w.txn, w.log.directory) != 0 ? refuse(w) : 0;
}

int fwu_writer_session(fwu_writer *writer, const fwu_session &session)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a session outside a transaction", w.log.directory.c_str());
    if (fwu_check_session(session) != 0)
        return -1;
    fwu_entry_put_session(w.txn.entries, w.txn.tag + 1, session);
    return fwu_txn_added(w.txn, w.log.directory) != 0 ? refuse(w) : 0;
}

// Whether the layout is the one that is known.  One that is equal shares its source from then
// on: the next record's comparison is one of pointers.
static bool stands_there(fwu_layout *known, const fwu_layout &layout)
{
    if (known == nullptr || *known != layout)
        return false;
    if (known->source != layout.source)
        known->source = layout.source;
    return true;
}

// Puts the layout into the transaction unless it stands in the file already, its source
// right behind it.
static int put_layout(fwu_writer &w, const fwu_layout &layout)
{
    fwu_layout_key(w.key, layout.dbname, layout.dsetname);
    fwu_layout *known = fwu_layouts_find(w.txn_layouts, w.key);
    if (known == nullptr && !w.next_file)
        known = fwu_layouts_find(w.log.layouts, w.key);
    if (stands_there(known, layout))
        return 0;
    if (fwu_check_layout(layout) != 0)
        return -1;
    fwu_entry_put_layout(w.txn.entries, w.txn.tag + 1, layout);
    if (fwu_txn_added(w.txn, w.log.directory) != 0)
        return refuse(w);
    if (layout.source != nullptr) {
        fwu_entry_put_source(w.txn.entries, w.txn.tag + 1, layout);
        if (fwu_txn_added(w.txn, w.log.directory) != 0)
            return refuse(w);
    }
    if (!fwu_layouts_put(w.txn_layouts, w.key, layout))
        fwu_layouts_clear(w.log.layouts); // what it says of those that were forgotten is older
    return 0;
}

// The entries that a value takes.
static size_t pieces_of(const fwu_value &value)
{
    return std::max<size_t>((value.text.size() + FWU_VALUE_PIECE_MAX - 1) / FWU_VALUE_PIECE_MAX, 1);
}

// A layout, its source, the pieces of values, the change itself and the commit entry come at
// most.
static int check_room(const fwu_writer &w, std::span<const fwu_value> values = {})
{
    size_t pieces = 0;
    for (const fwu_value &value : values)
        pieces += pieces_of(value);
    if (pieces < INT32_MAX &&
        static_cast<int64_t>(w.txn.tag) + static_cast<int64_t>(pieces) <= INT32_MAX - 5)
        return 0;
    return fwu_error("%s: the transaction has too many entries for one log file",
                     w.log.directory.c_str());
}

static int check_values(fwu_writer &w, const fwu_layout &layout, const fwu_change &change,
                        std::span<const fwu_value> values)
{
    if (values.empty())
        return 0;
    const char *const db = layout.dbname.c_str();
    const char *const set = layout.dsetname.c_str();
    const size_t items = layout.items.size();
    w.valued.assign(2 * items, false);
    for (const fwu_value &value : values) {
        const auto item = static_cast<size_t>(value.item);
        const bool before = value.image == FWU_IMAGE_BEFORE;
        if (value.item < 0 || item >= items)
            return fwu_error("%s.%s: a whole value of item %d, but the layout has %zu items", db,
                             set, value.item, items);
        if (before ? change.before == nullptr
                   : value.image != FWU_IMAGE_AFTER || change.after == nullptr)
            return fwu_error("%s.%s: item %s: a whole value of an image that operation %d has not",
                             db, set, layout.items[item].name.c_str(), change.opcode);
        const size_t place = before ? item : items + item;
        if (w.valued[place])
            return fwu_error("%s.%s: item %s: two whole values for one image", db, set,
                             layout.items[item].name.c_str());
        w.valued[place] = true;
    }
    return 0;
}

static int put_value(fwu_writer &w, const fwu_value &value)
{
    std::string_view rest = value.text;
    for (size_t pieces = pieces_of(value); pieces > 0; pieces--) {
        const std::string_view bytes = rest.substr(0, FWU_VALUE_PIECE_MAX);
        rest.remove_prefix(bytes.size());
        fwu_entry_put_value(w.txn.entries, w.txn.tag + 1,
                            {value.item, value.image, pieces > 1, bytes});
        if (fwu_txn_added(w.txn, w.log.directory) != 0)
            return refuse(w);
    }
    return 0;
}

int fwu_writer_record(fwu_writer *writer, int32_t opcode, const fwu_layout &layout, int64_t logtime,
                      int32_t reclen, const void *before_image, const void *after_image,
                      std::span<const fwu_value> values)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a record outside a transaction", w.log.directory.c_str());
    fwu_change change;
    change.dbname = layout.dbname.c_str();
    change.dsetname = layout.dsetname.c_str();
    change.logtime = logtime;
    change.opcode = opcode;
    change.recnum = w.recnum == INT32_MAX ? 1 : w.recnum + 1;
    change.reclen = reclen;
    change.before = static_cast<const unsigned char *>(before_image);
    change.after = static_cast<const unsigned char *>(after_image);
    if (fwu_check_change(layout, change) != 0 || check_values(w, layout, change, values) != 0 ||
        check_room(w, values) != 0 || put_layout(w, layout) != 0)
        return -1;
    for (const fwu_value &value : values)
        if (put_value(w, value) != 0)
            return -1;
    if (fwu_txn_room(w.txn, fwu_entry_change_length(change), w.log.directory) != 0)
        return refuse(w);
    fwu_entry_put_change(w.txn.entries, w.txn.tag + 1, change);
    if (fwu_txn_added(w.txn, w.log.directory) != 0)
        return refuse(w);
    w.recnum = change.recnum;
    w.holds = true;
    return 0;
}

int fwu_writer_mark(fwu_writer *writer, const fwu_mark &mark)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a mark outside a transaction", w.log.directory.c_str());
    if (fwu_check_mark(mark) != 0 || check_room(w) != 0)
        return -1;
    fwu_entry_put_mark(w.txn.entries, w.txn.tag + 1, mark);
    if (fwu_txn_added(w.txn, w.log.directory) != 0)
        return refuse(w);
    w.holds = true;
    return 0;
}

int fwu_writer_acknowledge(fwu_writer *writer)
{
    fwu_writer &w = *writer;
    if (w.sync == FWU_SYNC_NONE && w.log.unsynced && fwu_log_end_sync(w.log) != 0)
        return -1;
    return fwu_log_end_acknowledge(w.log);
}

bool fwu_writer_lost(const fwu_writer *writer, uint64_t *lsn)
{
    *lsn = writer->log.acked.commit.lsn;
    return writer->log.acked.lost;
}

int fwu_writer_accept_loss(fwu_writer *writer)
{
    if (!writer->log.acked.lost)
        return 0;
    writer->log.acked.lost = false;
    return fwu_log_end_keep(writer->log);
}

fwu_encoding fwu_writer_encoding(const fwu_writer *writer)
{
    return writer->log.encoding;
}

mode_t fwu_writer_file_mode(const fwu_writer *writer)
{
    return writer->log.file_mode;
}

// Makes the file behind the last one.
static int begin_file(fwu_writer &w)
{
    fwu_file_number number = fwu_file_number_behind(fwu_file_number_of(w.log.file));
    number.generation = std::max(number.generation, 1);
    return fwu_log_end_begin_file(w.log, number);
}

static int append(fwu_writer &w, const fwu_commit &commit)
{
    if (w.log.torn && fwu_log_end_cut_tail(w.log) != 0)
        return -1;
    if (w.next_file && begin_file(w) != 0)
        return -1;
    fwu_commit_entry entry;
    entry.commit = commit;
    entry.entries = w.txn.count;
    entry.chain = w.txn.chain;
    fwu_entry_put_commit(w.txn.entries, w.txn.tag + 1, entry, w.log.header,
                         w.log.end + w.txn.spill.size + static_cast<int64_t>(w.txn.entries.size()));
    if (fwu_txn_write(w.txn, w.log.fd, w.log.file.path, w.log.end) != 0) {
        (void)fwu_log_end_cut_tail(w.log); // reported, and tried again before the next transaction
        return -1;
    }
    if (w.recnum != w.log.last_recnum)
        w.log.recnum_at = {w.log.file.generation, w.log.file.sequence, 0};
    w.log.last_recnum = w.recnum;
    if (!w.log.unsynced)
        w.unsynced_since = fwu_monotonic_ms();
    fwu_log_end_advance(w.log, w.txn.spill.size + static_cast<int64_t>(w.txn.entries.size()),
                        w.txn.tag + 1, commit);
    for (auto &[key, layout] : w.txn_layouts.known)
        (void)fwu_layouts_put(w.log.layouts, key, std::move(layout)); // forgotten for good
    if (w.next_file)
        fwu_retention_look(w.retention, w.log, true);
    return 0;
}

int fwu_writer_commit(fwu_writer *writer, const fwu_commit &commit)
{
    fwu_writer &w = *writer;
    if (!w.open)
        return fwu_error("%s: a commit outside a transaction", w.log.directory.c_str());
    int result = 0;
    if (w.failed)
        result = fwu_error("%s: the transaction is given up: part of it could not be kept",
                           w.log.directory.c_str());
    else if (w.holds)
        result = append(w, commit);
    fwu_writer_rollback(writer);
    return result;
}

void fwu_writer_rollback(fwu_writer *writer)
{
    writer->open = false;
    fwu_txn_end(writer->txn);
    fwu_layouts_clear(writer->txn_layouts);
}

int fwu_writer_sync(fwu_writer *writer)
{
    return fwu_log_end_sync(writer->log);
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
    if (!w.log.unsynced || w.sync == FWU_SYNC_NONE)
        return 0;
    const int64_t longest = longest_wait_ms(w, more_waits);
    if (longest > 0 && fwu_monotonic_ms() - w.unsynced_since < longest)
        return 0;
    return fwu_writer_sync(writer);
}

int fwu_writer_settle_in(const fwu_writer *writer)
{
    const fwu_writer &w = *writer;
    if (!w.log.unsynced || w.sync == FWU_SYNC_NONE)
        return -1;
    const int64_t waited = fwu_monotonic_ms() - w.unsynced_since;
    return static_cast<int>(std::max<int64_t>(longest_wait_ms(w, false) - waited, 0));
}

uint64_t fwu_writer_logged_lsn(const fwu_writer *writer)
{
    return writer->sync == FWU_SYNC_NONE ? writer->log.last.lsn : writer->log.synced_lsn;
}

uint64_t fwu_writer_durable_lsn(const fwu_writer *writer)
{
    return writer->log.synced_lsn;
}

void fwu_writer_tend(fwu_writer *writer)
{
    fwu_retention_look(writer->retention, writer->log, false);
}

int fwu_writer_tend_in(const fwu_writer *writer)
{
    return fwu_retention_due_in(writer->retention);
}

const fwu_retained &fwu_writer_retained(const fwu_writer *writer)
{
    return writer->retention.found;
}

int fwu_writer_close(fwu_writer *writer)
{
    if (writer == nullptr)
        return 0;
    const bool wants_sync = writer->sync != FWU_SYNC_NONE && !writer->log.sync_failed;
    const int result = wants_sync ? fwu_writer_sync(writer) : 0;
    release(writer);
    return result;
}
