// Nothing is believed of what comes: each entry is checked as a reader would, at the place where it
// will stand, and a transaction is written when its commit entry agrees with all of them.  It is
// collected like a writer's (fwutil/fwu_txn.h), in a spill file once it is large.
#include "fwutil/fwu_replica.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_log_end.h"
#include "fwutil/fwu_recover.h"
#include "fwutil/fwu_retention.h"
#include "fwutil/fwu_txn.h"

#include <memory>
#include <unistd.h>
#include <vector>

struct fwu_replica {
    fwu_log_end log;
    fwu_retention retention;
    int lock_fd = -1;
    fwu_txn txn;
    std::vector<unsigned char> part; // of an entry that is not whole yet
};

static void release(fwu_replica *r)
{
    fwu_txn_end(r->txn);
    if (r->log.fd >= 0)
        close(r->log.fd);
    if (r->lock_fd >= 0)
        close(r->lock_fd);
    delete r;
}

// The byte order of a log that is there is its own.
static int take_byte_order(fwu_log_end &log)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(log.directory, files) != 0)
        return -1;
    fwu_file_header header;
    for (; !files.empty(); files.pop_back()) {
        const fwu_found found = fwu_log_header(files.back(), header);
        if (found == FWU_FAILED)
            return -1;
        if (found == FWU_FOUND) {
            log.big_endian = header.big_endian;
            return 0;
        }
    }
    return 0;
}

int fwu_replica_open(fwu_replica **replica, const fwu_config &config)
{
    *replica = nullptr;
    auto r = std::make_unique<fwu_replica>();
    r->log.directory = config.log_directory;
    r->retention.keep = config.keep;
    if (fwu_log_end_directory(r->log, config.log_mode) == 0) {
        r->lock_fd = fwu_log_end_lock(r->log.directory, r->log.file_mode);
        if (r->lock_fd >= 0 && take_byte_order(r->log) == 0 && fwu_recover(r->log) == 0) {
            fwu_txn_begin(r->txn, r->log.last_tag + 1);
            fwu_retention_look(r->retention, r->log, false);
            *replica = r.release();
            return 0;
        }
    }
    release(r.release());
    return -1;
}

// Bytes of the transaction in hand.
static int64_t collected(const fwu_replica &r)
{
    return r.txn.spill.size + static_cast<int64_t>(r.txn.entries.size());
}

fwu_replica_end fwu_replica_where(const fwu_replica *replica)
{
    const fwu_log_end &log = replica->log;
    fwu_replica_end end;
    end.file = fwu_file_number_of(log.file);
    end.header = log.header;
    end.end = log.end;
    end.taken = collected(*replica) + static_cast<int64_t>(replica->part.size());
    end.commit = log.last;
    end.commit_in_file = log.last_tag != 0;
    return end;
}

int fwu_replica_begin_file(fwu_replica *replica, const fwu_file_header &header)
{
    fwu_replica &r = *replica;
    const fwu_file_number number = fwu_file_number_of(header);
    const fwu_file_number last = fwu_file_number_of(r.log.file);
    const char *const directory = r.log.directory.c_str();
    const std::string name = fwu_log_file_name(number.generation, number.sequence);
    if (header.version != FWU_VERSION_SALTED || !fwu_identity_known(header.identity))
        return fwu_error("%s: %s has a format version that cannot be copied", directory,
                         name.c_str());
    if (number.generation < 1 || number.sequence < 1 ||
        (last.generation != 0 &&
         (number.generation < last.generation ||
          (number.generation == last.generation && number.sequence != last.sequence + 1))))
        return fwu_error("%s: %s does not come behind %s", directory, name.c_str(),
                         r.log.file.name.c_str());
    if (fwu_identity_known(r.log.identity) && r.log.identity != header.identity)
        return fwu_error("%s: %s is a file of log %s, this is log %s", directory, name.c_str(),
                         fwu_identity_text(header.identity).c_str(),
                         fwu_identity_text(r.log.identity).c_str());
    if (fwu_replica_where(replica).mid())
        return fwu_error("%s: %s begins inside a transaction", directory, name.c_str());
    r.log.identity = header.identity;
    r.log.big_endian = header.big_endian;
    r.log.encoding = header.encoding;
    if (fwu_log_end_begin_file(r.log, number, &header) != 0)
        return -1;
    fwu_txn_begin(r.txn, 1);
    fwu_retention_look(r.retention, r.log, true);
    return 0;
}

static int wrong(const fwu_replica &r, const char *what)
{
    const int64_t offset = r.log.end + collected(r);
    return fwu_error("%s: what would come at offset %lld is no part of a log: %s",
                     r.log.file.path.c_str(), static_cast<long long>(offset), what);
}

// Writes the transaction, whose commit entry stands behind the others.
static int append(fwu_replica &r, const fwu_commit &commit)
{
    if (r.log.torn && fwu_log_end_cut_tail(r.log) != 0)
        return -1;
    if (fwu_txn_write(r.txn, r.log.fd, r.log.file.path, r.log.end) != 0) {
        (void)fwu_log_end_cut_tail(r.log); // reported, and tried again before the next transaction
        return -1;
    }
    fwu_log_end_advance(r.log, collected(r), r.txn.tag + 1, commit);
    fwu_txn_begin(r.txn, r.log.last_tag + 1);
    return 0;
}

// Takes an entry that is whole; bytes are its padded ones.
static int take_entry(fwu_replica &r, const fwu_entry &entry, const unsigned char *bytes,
                      size_t padded)
{
    fwu_commit_entry commit;
    const bool ends = entry.kind == FWU_KIND_COMMIT;
    if (ends && (!fwu_entry_commit(entry, commit) || commit.entries != r.txn.count ||
                 commit.chain != r.txn.chain))
        return wrong(r, "a commit entry of another transaction");
    if (fwu_txn_room(r.txn, padded, r.log.directory) != 0)
        return -1;
    r.txn.entries.insert(r.txn.entries.end(), bytes, bytes + padded);
    return ends ? append(r, commit.commit) : fwu_txn_added(r.txn, r.log.directory);
}

// Takes the entries that are whole from the front; taken: how many bytes that were.
static int take_entries(fwu_replica &r, const unsigned char *bytes, size_t length, size_t &taken)
{
    taken = 0;
    while (length - taken >= FWU_ENTRY_HEADER_SIZE) {
        const unsigned char *const in = bytes + taken;
        const int64_t at = r.log.end + collected(r);
        fwu_entry entry;
        const char *bad = fwu_entry_header_get(entry, in, r.txn.tag + 1, r.log.header, at);
        if (bad != nullptr)
            return wrong(r, bad);
        const size_t padded = fwu_entry_padded(entry.length);
        if (length - taken < padded)
            return 0;
        bad = fwu_entry_body_get(entry, in, r.log.header, at);
        if (bad != nullptr)
            return wrong(r, bad);
        if (take_entry(r, entry, in, padded) != 0)
            return -1;
        taken += padded;
    }
    return 0;
}

int fwu_replica_take(fwu_replica *replica, const unsigned char *bytes, size_t length)
{
    fwu_replica &r = *replica;
    if (r.log.file.generation == 0)
        return fwu_error("%s: bytes of a log file that has not begun", r.log.directory.c_str());
    size_t taken = 0;
    if (r.part.empty()) {
        if (take_entries(r, bytes, length, taken) != 0)
            return -1;
        r.part.assign(bytes + taken, bytes + length);
        return 0;
    }
    r.part.insert(r.part.end(), bytes, bytes + length);
    if (take_entries(r, r.part.data(), r.part.size(), taken) != 0)
        return -1;
    r.part.erase(r.part.begin(), r.part.begin() + static_cast<std::ptrdiff_t>(taken));
    return 0;
}

void fwu_replica_drop(fwu_replica *replica)
{
    replica->part.clear();
    fwu_txn_begin(replica->txn, replica->log.last_tag + 1);
}

int fwu_replica_acknowledge(fwu_replica *replica)
{
    if (replica->log.unsynced && fwu_log_end_sync(replica->log) != 0)
        return -1;
    return fwu_log_end_acknowledge(replica->log);
}

void fwu_replica_tend(fwu_replica *replica)
{
    fwu_retention_look(replica->retention, replica->log, false);
}

int fwu_replica_close(fwu_replica *replica)
{
    if (replica == nullptr)
        return 0;
    const int result = replica->log.sync_failed ? 0 : fwu_log_end_sync(replica->log);
    release(replica);
    return result;
}
