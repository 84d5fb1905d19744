// Reading one log file.  A transaction is scanned up to its commit entry first;
// only then are its entries given, from the window when all of it is there,
// else by reading it once more.  A writer that recovers may cut off what is
// scanned already and append other bytes: the header scanned last is compared
// with the file before a scan goes on, the chain CRC of the commit covers the
// rest, and whatever looks wrong is looked at afresh before it counts.
#include "fwutil/fwu_cursor.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_time.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr size_t WINDOW_SIZE = 1024 * 1024;
constexpr size_t NAME_LENGTH = sizeof "fw0001-00000025.log" - 1;

std::string fwu_log_file_name(int32_t generation, int32_t sequence)
{
    char name[40];
    (void)snprintf(name, sizeof name, "fw%04d-%08d.log", generation, sequence); // fits any int32
    return name;
}

bool fwu_log_file_parse(const char *name, int32_t &generation, int32_t &sequence)
{
    if (strlen(name) != NAME_LENGTH)
        return false;
    const auto number = [name](size_t from, size_t to) {
        int32_t value = 0;
        for (size_t i = from; i < to; i++) {
            if (name[i] < '0' || name[i] > '9')
                return -1;
            value = value * 10 + (name[i] - '0');
        }
        return value;
    };
    generation = number(2, 6);
    sequence = number(7, 15);
    return generation >= 1 && sequence >= 1 &&
           fwu_log_file_name(generation, sequence) == name; // the letters between the numbers
}

int fwu_cursor_open(fwu_cursor &cursor, const fwu_log_file &file)
{
    if (fwu_cursor_try_open(cursor, file) == 0)
        return 0;
    return fwu_error("%s: cannot open the log file: %s", file.path.c_str(), strerror(errno));
}

int fwu_cursor_try_open(fwu_cursor &cursor, const fwu_log_file &file)
{
    // A pipe that has the name is not waited for: reading it fails.
    const int fd = open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    fwu_cursor_close(cursor);
    const bool goes_on = cursor.header_read && cursor.file.name < file.name;
    const fwu_file_header before = goes_on ? cursor.header : fwu_file_header();
    const bool next =
        goes_on && cursor.size == cursor.tx_end &&
        fwu_file_number_of(file) == fwu_file_number_behind(fwu_file_number_of(cursor.file));
    const int32_t last = cursor.last_recnum != 0 ? cursor.last_recnum : cursor.recnum_before;
    std::vector<unsigned char> window = std::move(cursor.window);
    if (window.size() < WINDOW_SIZE)
        window.resize(WINDOW_SIZE);
    cursor = fwu_cursor();
    cursor.window = std::move(window);
    cursor.file = file;
    cursor.before = before;
    cursor.recnum_before = next ? last : 0;
    cursor.fd = fd;
    return 0;
}

void fwu_cursor_close(fwu_cursor &cursor)
{
    if (cursor.fd >= 0)
        close(cursor.fd);
    cursor.fd = -1;
}

static fwu_found read_error(const fwu_cursor &c)
{
    fwu_error("%s: cannot read the log file: %s", c.file.path.c_str(), strerror(errno));
    return FWU_FAILED;
}

static fwu_found file_stamp(const fwu_cursor &c, fwu_stamp &stamp)
{
    struct stat st = {};
    if (fstat(c.fd, &st) != 0)
        return read_error(c);
    stamp.size = st.st_size;
    stamp.mtime_ns = st.st_mtim.tv_sec * FWU_NS_PER_S + st.st_mtim.tv_nsec;
    return FWU_FOUND;
}

static void drop_window(fwu_cursor &c, int64_t from)
{
    if (c.window_at + static_cast<int64_t>(c.window_length) > from)
        c.window_length = from > c.window_at ? static_cast<size_t>(from - c.window_at) : 0;
}

// Reads on until the window has length bytes of the file at offset, or FWU_END.
// What stands from keep_at on stays in the window when all of it fits.
static fwu_found fill_window(fwu_cursor &c, int64_t at, size_t length)
{
    const auto need = static_cast<int64_t>(length);
    if (length > c.window.size()) {
        fwu_stamp stamp; // a length is believed only when the file has as much
        if (file_stamp(c, stamp) != FWU_FOUND)
            return FWU_FAILED;
        if (stamp.size < at + need)
            return FWU_END;
        c.window.resize(length);
    }
    const auto room = static_cast<int64_t>(c.window.size());
    const int64_t from = c.keep_at <= at && at + need - c.keep_at <= room ? c.keep_at : at;
    const int64_t end = c.window_at + static_cast<int64_t>(c.window_length);
    if (from >= c.window_at && from < end) {
        c.window_length = static_cast<size_t>(end - from);
        memmove(c.window.data(), c.window.data() + (from - c.window_at), c.window_length);
    } else {
        c.window_length = 0;
        if (from < at)
            c.scan_in_window = false; // bytes read anew have not been checked
    }
    c.window_at = from;
    while (c.window_at + static_cast<int64_t>(c.window_length) < at + need) {
        const ssize_t n =
            pread(c.fd, c.window.data() + c.window_length, c.window.size() - c.window_length,
                  c.window_at + static_cast<int64_t>(c.window_length));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return read_error(c);
        if (n == 0)
            return FWU_END;
        c.window_length += static_cast<size_t>(n);
    }
    return FWU_FOUND;
}

// Points p to length bytes of the file at offset.  FWU_END: the file ends before
// that.
static inline fwu_found fetch(fwu_cursor &c, int64_t at, size_t length, const unsigned char *&p)
{
    const int64_t end = c.window_at + static_cast<int64_t>(c.window_length);
    if (at < c.window_at || at + static_cast<int64_t>(length) > end) {
        const fwu_found found = fill_window(c, at, length);
        if (found != FWU_FOUND)
            return found;
    }
    p = c.window.data() + (at - c.window_at);
    return FWU_FOUND;
}

// Reads and checks the file header; FWU_END: it is not all there yet.
static fwu_found read_file_header(fwu_cursor &c)
{
    const unsigned char *p = nullptr;
    drop_window(c, 0);
    c.verdict.at = 0;
    c.verdict.reason = nullptr;
    const fwu_found found = fetch(c, 0, FWU_FILE_HEADER_SIZE, p);
    if (found != FWU_FOUND)
        return found;
    const char *wrong = fwu_file_header_get(c.header, p);
    if (wrong == nullptr &&
        (c.header.generation != c.file.generation || c.header.sequence != c.file.sequence))
        wrong = "its file header names another generation or sequence than its file name";
    if (wrong == nullptr && c.before.version != FWU_VERSION_PLAIN &&
        c.header.identity != c.before.identity)
        wrong = "it belongs to another log than the files before it: its identity differs";
    if (wrong != nullptr) {
        c.verdict.foreign = fwu_file_header_whole(p);
        c.verdict.reason = wrong;
        return FWU_DAMAGED;
    }
    c.header_read = true;
    c.tx_end = FWU_FILE_HEADER_SIZE;
    return FWU_FOUND;
}

// No entry has the tag behind the largest.
static int32_t tag_behind(int32_t tag)
{
    return tag < INT32_MAX ? tag + 1 : 0;
}

static void begin_scan(fwu_cursor &c)
{
    c.keep_at = c.tx_end;
    c.scan_at = c.tx_end;
    c.scan_tag = tag_behind(c.tx_last_tag);
    c.scan_entries = 0;
    c.scan_chain = 0;
    c.scan_first_recnum = 0;
    c.scan_last_recnum = 0;
    c.scan_in_window = true;
}

// Begins again with what the file holds now.
static void restart_scan(fwu_cursor &c)
{
    drop_window(c, c.tx_end);
    begin_scan(c);
}

// Reads and checks the entry at an offset, payload included.  FWU_END: the file
// ends in it.  FWU_DAMAGED: the verdict says why.
static fwu_found read_entry(fwu_cursor &c, int64_t at, int32_t tag, fwu_entry &entry)
{
    const unsigned char *p = nullptr;
    c.verdict.reason = nullptr;
    c.verdict.at = at;
    fwu_found found = fetch(c, at, FWU_ENTRY_HEADER_SIZE, p);
    if (found != FWU_FOUND)
        return found;
    c.verdict.reason = fwu_entry_header_get(entry, p, tag, c.header, at);
    if (c.verdict.reason != nullptr)
        return FWU_DAMAGED;
    found = fetch(c, at, fwu_entry_padded(entry.length), p);
    if (found != FWU_FOUND)
        return found;
    c.verdict.reason = fwu_entry_body_get(entry, p, c.header, at);
    return c.verdict.reason != nullptr ? FWU_DAMAGED : FWU_FOUND;
}

static bool check_commit(fwu_cursor &c, const fwu_entry &entry)
{
    if (!fwu_entry_commit(entry, c.commit))
        c.verdict.reason = "the commit entry is malformed";
    else if (c.commit.entries != c.scan_entries || c.commit.chain != c.scan_chain)
        c.verdict.reason = "the commit entry does not belong to the entries before it";
    return c.verdict.reason == nullptr;
}

const char *fwu_recnum_gap(int32_t before, int32_t first)
{
    thread_local char text[64];
    if (before == 0 || first == 0)
        return nullptr;
    const int64_t missing =
        (static_cast<int64_t>(first) - 1 - before % INT32_MAX + INT32_MAX) % INT32_MAX;
    if (missing == 0 || missing > INT32_MAX / 2)
        return nullptr; // numbers that are used again say nothing of records missing
    (void)snprintf(text, sizeof text, "%lld %s missing before it", static_cast<long long>(missing),
                   missing == 1 ? "record is" : "records are");
    return text;
}

// Takes the numbers of the transaction's records.  False: they do not follow those before.
static bool take_recnums(fwu_cursor &c)
{
    if (c.scan_first_recnum == 0)
        return true;
    if (c.first_recnum == 0) {
        c.verdict.reason = fwu_recnum_gap(c.recnum_before, c.scan_first_recnum);
        c.verdict.gap = c.verdict.reason != nullptr;
        c.verdict.at = c.tx_end;
        if (c.verdict.gap)
            return false;
        c.first_recnum = c.scan_first_recnum;
        c.first_recnum_at = c.tx_end;
    }
    c.last_recnum = c.scan_last_recnum;
    return true;
}

// Goes on from scan_at to the commit entry of the transaction.
static fwu_found scan(fwu_cursor &c)
{
    fwu_entry entry;
    for (;;) {
        const fwu_found found = read_entry(c, c.scan_at, c.scan_tag, entry);
        if (found != FWU_FOUND)
            return found;
        const unsigned char *header = entry.payload - FWU_ENTRY_HEADER_SIZE;
        const int64_t end = c.scan_at + static_cast<int64_t>(fwu_entry_padded(entry.length));
        if (entry.kind == FWU_KIND_COMMIT) {
            if (!check_commit(c, entry) || !take_recnums(c))
                return FWU_DAMAGED;
            c.tx_start = c.tx_end;
            c.tx_first_tag = tag_behind(c.tx_last_tag);
            c.tx_end = end;
            c.tx_last_tag = c.scan_tag;
            c.tx_in_window = c.scan_in_window && c.window_at <= c.tx_start;
            return FWU_FOUND;
        }
        if (entry.kind == FWU_KIND_SESSION && c.scan_entries > 0 &&
            c.header.version == FWU_VERSION_PLAIN) {
            c.verdict.reason = "a session entry does not begin its transaction";
            return FWU_DAMAGED;
        }
        if (fwu_entry_is_change(entry)) {
            c.scan_last_recnum = fwu_entry_recnum(entry);
            if (c.scan_first_recnum == 0)
                c.scan_first_recnum = c.scan_last_recnum;
        }
        c.scan_chain = fwu_crc32c(c.scan_chain, header + FWU_ENTRY_CRC_AT, FWU_ENTRY_CRC_SIZE);
        memcpy(c.scan_last, header, FWU_ENTRY_HEADER_SIZE);
        c.scan_last_at = c.scan_at;
        c.scan_entries++;
        c.scan_tag = tag_behind(c.scan_tag);
        c.scan_at = end;
    }
}

// Whether the entry scanned last still stands in the file as it was.
static fwu_found scanned_still_there(const fwu_cursor &c, bool &there)
{
    unsigned char now[FWU_ENTRY_HEADER_SIZE];
    const ssize_t n = fwu_read_all(c.fd, now, sizeof now, c.scan_last_at);
    if (n < 0)
        return read_error(c);
    there = n == static_cast<ssize_t>(sizeof now) && memcmp(now, c.scan_last, sizeof now) == 0;
    return FWU_FOUND;
}

// Looks for a commit entry at or behind an offset.
static fwu_found find_commit(fwu_cursor &c, int64_t at)
{
    drop_window(c, at); // as the file is now
    const unsigned char *p = nullptr;
    for (;; at += FWU_ENTRY_ALIGN) {
        c.keep_at = at;
        const fwu_found found = fetch(c, at, FWU_COMMIT_SIZE, p);
        if (found != FWU_FOUND || fwu_entry_is_commit(p, c.header, at))
            return found;
    }
}

// Remembers that there is nothing more in the file as it was in the stamp, unless
// its time is so recent that another change might leave the same time.
static fwu_found nothing_more(fwu_cursor &c, const fwu_stamp &before)
{
    drop_window(c, c.scan_at);
    c.size = before.size;
    if (fwu_now_us() * (FWU_NS_PER_S / FWU_US_PER_S) - before.mtime_ns > FWU_NS_PER_S)
        c.settled = before;
    return FWU_END;
}

void fwu_cursor_tail(fwu_cursor &c)
{
    fwu_stamp stamp;
    if (c.header_read && file_stamp(c, stamp) == FWU_FOUND)
        (void)nothing_more(c, stamp);
}

// The first step: the file header.
static fwu_found next_header(fwu_cursor &c)
{
    fwu_stamp stamp;
    if (file_stamp(c, stamp) != FWU_FOUND)
        return FWU_FAILED;
    c.size = stamp.size;
    return read_file_header(c);
}

// The second step: mostly the whole next transaction has been read along with the last
// one.  FWU_END or FWU_DAMAGED: the file has to be asked.
static fwu_found next_in_window(fwu_cursor &c)
{
    const bool some =
        c.scan_at == c.tx_end && c.window_at + static_cast<int64_t>(c.window_length) > c.tx_end;
    return some ? scan(c) : FWU_END;
}

// Whether the file is to be read on.  FWU_END: nothing has changed.  fresh: the scan
// begins at the transaction's start, with nothing read before.
static fwu_found take_stamp(fwu_cursor &c, fwu_stamp &stamp, bool &fresh)
{
    if (file_stamp(c, stamp) != FWU_FOUND)
        return FWU_FAILED;
    if (stamp == c.settled)
        return FWU_END;
    if (stamp.size < c.tx_end) {
        fwu_error("%s: the log file has become shorter than what was read from it already "
                  "(%lld of %lld bytes); restore it from a copy",
                  c.file.path.c_str(), static_cast<long long>(stamp.size),
                  static_cast<long long>(c.tx_end));
        return FWU_FAILED;
    }
    bool there = true;
    if (c.scan_at > c.tx_end && scanned_still_there(c, there) != FWU_FOUND)
        return FWU_FAILED;
    fresh = c.scan_at == c.tx_end || !there;
    if (fresh)
        restart_scan(c);
    return FWU_FOUND;
}

// The third step: the file as it is now.
static fwu_found next_in_file(fwu_cursor &c)
{
    fwu_stamp stamp;
    bool fresh = false;
    fwu_found found = take_stamp(c, stamp, fresh);
    if (found != FWU_FOUND)
        return found;
    int64_t suspect = -1; // a commit was seen behind this offset, which looked wrong
    for (;;) {
        found = scan(c);
        if (found == FWU_FOUND || found == FWU_FAILED)
            return found;
        if (found == FWU_DAMAGED && !fresh) {
            restart_scan(c);
            fresh = true;
            continue;
        }
        if (suspect == c.verdict.at) {
            if (c.verdict.reason == nullptr)
                c.verdict.reason = "the entry ends behind the end of the file";
            return FWU_DAMAGED;
        }
        found = find_commit(c, c.verdict.at);
        if (found == FWU_FAILED)
            return found;
        if (found == FWU_END)
            return nothing_more(c, stamp);
        suspect = c.verdict.at;
        restart_scan(c);
        fresh = true;
    }
}

// What is found, case by case:
//
//   the file header is not all there yet              FWU_END
//   it is wrong, or of another log                    FWU_DAMAGED
//   the window holds the transaction up to its end    FWU_FOUND, no call for it
//   the file is as it was when it held nothing more   FWU_END, nothing read
//   it is shorter than what was given already         FWU_FAILED
//   it holds the transaction, all of it good          FWU_FOUND
//   it ends in the transaction, or something in it
//     is wrong: no commit entry stands behind that    FWU_END, the verdict says where
//   a commit entry does, and the next look from the
//     transaction's start on stops at the same place  FWU_DAMAGED
//   that look gets further                            as if it were the first
//   record numbers do not follow those before         FWU_DAMAGED, by the last two rows
fwu_found fwu_cursor_next(fwu_cursor &c)
{
    if (!c.header_read) {
        const fwu_found header = next_header(c);
        if (header != FWU_FOUND)
            return header;
    }
    c.keep_at = c.tx_end;
    if (c.scan_at <= c.tx_end)
        begin_scan(c);
    const fwu_found found = next_in_window(c);
    return found == FWU_FOUND || found == FWU_FAILED ? found : next_in_file(c);
}

fwu_found fwu_cursor_entry(fwu_cursor &c, fwu_entry &entry)
{
    if (c.read_at < c.tx_start || c.read_at > c.tx_end) {
        c.read_at = c.tx_start;
        c.read_tag = c.tx_first_tag;
    }
    do {
        if (c.read_at == c.tx_end)
            return FWU_END;
        if (c.tx_in_window) {
            fwu_entry_fields(entry,
                             c.window.data() + (c.read_at - c.window_at)); // scanned before
        } else {
            c.keep_at = c.read_at;
            const fwu_found found = read_entry(c, c.read_at, c.read_tag, entry);
            if (found == FWU_END)
                c.verdict.reason = "the log file has become shorter";
            if (found != FWU_FOUND)
                return found == FWU_END ? FWU_DAMAGED : found;
        }
        c.read_at += static_cast<int64_t>(fwu_entry_padded(entry.length));
        c.read_tag = tag_behind(c.read_tag);
    } while (!fwu_entry_known(entry));
    return FWU_FOUND;
}
