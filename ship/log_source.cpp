// A message ends behind a change or mark, the last one of a transaction behind its commit entry;
// what is longer than a message may be is cut where it has to be.  So the same log always gives the
// same messages, and one that a stream has not got can be made again.
//
// What goes into a stream is on disk here before: a log that a power cut has made shorter would go
// on with other bytes at the same place.
#include "ship/log_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static outcome file_error(const fwu_log_file &file, const char *what)
{
    return outcome_failed("%s: %s: %s", file.path.c_str(), what, strerror(errno));
}

static bool same_commit(const fwu_commit &a, const fwu_commit &b)
{
    return a.time_us == b.time_us && a.lsn == b.lsn && a.xid == b.xid;
}

static outcome not_there(const std::string &directory, const ship_place &place, const char *why)
{
    return outcome_bad(directory + ": the stream ends at " + ship_place_text(place) + " of log " +
                       fwu_identity_text(place.log) + ", which the log here " + why +
                       "; push from the log that the stream is of, or into a new stream");
}

// The bytes from the end of those in the stream on are the next message's.
static void stand_behind(ship_log_source &source, const ship_place &place)
{
    source.file = place.file;
    source.size = place.to;
    source.has_commit = place.begin < place.end && place.to == place.end;
    source.commit = place.commit;
}

static outcome find_place(ship_log_source &source, const ship_place &place)
{
    const std::string &directory = source.log.directory;
    fwu_cursor &cursor = source.log.cursor;
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0)
        return OUTCOME_FAILED;
    const auto file = std::find_if(files.begin(), files.end(), [&place](const fwu_log_file &one) {
        return fwu_file_number_of(one) == place.file;
    });
    if (file == files.end())
        return not_there(directory, place, "does not have (any more)");
    fwu_file_header header;
    const fwu_found found = fwu_log_header(*file, header);
    const fwu_found opened = fwu_log_open(cursor, *file);
    if (opened == FWU_GONE)
        return not_there(directory, place, "does not have any more");
    if (found == FWU_FAILED || opened != FWU_FOUND)
        return OUTCOME_FAILED;
    if (found != FWU_FOUND || header.identity != place.log)
        return not_there(directory, place, "does not have: it is another one");
    stand_behind(source, place);
    source.place.log = place.log;
    if (place.begin == place.end) // a file without a transaction, at that time
        return {};
    do {
        const fwu_found next = fwu_cursor_next(cursor);
        if (next == FWU_FAILED)
            return OUTCOME_FAILED;
        if (next != FWU_FOUND)
            return not_there(directory, place, "ends before");
    } while (cursor.tx_end < place.end);
    if (cursor.tx_end != place.end || cursor.tx_start != place.begin ||
        !same_commit(cursor.commit.commit, place.commit))
        return not_there(directory, place, "has other transactions at");
    if (place.to < place.end) {
        source.inside = true;
        source.passed = place.to;
    }
    return {};
}

// Sets what is known of the transaction in hand.
static void begin(ship_log_source &source)
{
    const fwu_cursor &cursor = source.log.cursor;
    ship_place &place = source.place;
    const fwu_file_number file = fwu_file_number_of(cursor.file);
    const bool first = file != source.file;
    place = {.log = cursor.header.identity,
             .file = file,
             .begin = cursor.tx_start,
             .end = cursor.tx_end,
             .commit = cursor.commit.commit};
    place.from = first ? 0 : std::max(cursor.tx_start, source.passed);
    if (first) {
        place.file_before = source.file;
        place.size_before = source.size;
        source.synced = 0;
    } else if (place.from == cursor.tx_start && source.has_commit) {
        place.has_commit_before = true;
        place.commit_before = source.commit;
    }
    source.begun = true;
    source.bytes.clear();
    source.bytes_at = place.from;
    source.given = 0;
    source.whole = false;
    source.dbname.clear();
    source.dsetname.clear();
    if (first) {
        source.bytes.resize(FWU_FILE_HEADER_SIZE);
        fwu_file_header_put(source.bytes.data(), cursor.header);
    }
}

outcome ship_log_open(ship_log_source &source, const std::string &directory,
                      const ship_place &place, size_t most)
{
    ship_log_close(source);
    source = {};
    source.log.directory = directory;
    source.most = most;
    if (place.file.generation == 0) {
        fwu_log_warn_begins_late(directory);
        return {};
    }
    outcome found = find_place(source, place);
    if (found && source.inside)
        begin(source);
    return found;
}

void ship_log_close(ship_log_source &source)
{
    fwu_cursor_close(source.log.cursor);
}

// Files between the one that the stream has last and the one in hand hold no transactions.
static outcome find_empty(ship_log_source &source)
{
    const fwu_file_number here = fwu_file_number_of(source.log.cursor.file);
    if (here == source.file)
        return {};
    std::vector<fwu_log_file> files;
    if (fwu_log_list(source.log.directory, files) != 0)
        return OUTCOME_FAILED;
    for (fwu_log_file &file : files) {
        const fwu_file_number number = fwu_file_number_of(file);
        const auto behind = [](const fwu_file_number &a, const fwu_file_number &b) {
            return a.generation != b.generation ? a.generation > b.generation
                                                : a.sequence > b.sequence;
        };
        if (source.file.generation != 0 && behind(number, source.file) && behind(here, number))
            source.empty.push_back(std::move(file));
    }
    return {};
}

static outcome give_empty(ship_log_source &source, ship_message &message)
{
    const fwu_log_file file = source.empty.front();
    source.empty.erase(source.empty.begin());
    fwu_file_header header;
    const fwu_found found = fwu_log_header(file, header);
    if (found == FWU_FAILED)
        return OUTCOME_FAILED;
    if (found != FWU_FOUND)
        return outcome_failed("%s: the file has no header", file.path.c_str());
    const auto size = static_cast<int64_t>(FWU_FILE_HEADER_SIZE);
    source.bytes.resize(FWU_FILE_HEADER_SIZE);
    fwu_file_header_put(source.bytes.data(), header);
    message = {.place = {.log = header.identity,
                         .file = fwu_file_number_of(file),
                         .to = size,
                         .begin = size,
                         .end = size,
                         .file_before = source.file,
                         .size_before = source.size},
               .data = source.bytes.data(),
               .length = source.bytes.size()};
    stand_behind(source, message.place);
    return {};
}

// Brings the transaction in hand to disk.
static outcome sync(ship_log_source &source)
{
    const fwu_cursor &cursor = source.log.cursor;
    if (cursor.tx_end <= source.synced)
        return {};
    struct stat st = {};
    if (fstat(cursor.fd, &st) != 0)
        return file_error(cursor.file, "cannot get the log file's size");
    if (fdatasync(cursor.fd) != 0)
        return file_error(cursor.file, "cannot bring the log file to disk");
    source.synced = st.st_size;
    return {};
}

static void take_names(ship_log_source &source, const fwu_entry &entry)
{
    fwu_change change;
    fwu_mark mark;
    if (fwu_entry_is_change(entry) && fwu_entry_change(entry, change)) {
        source.dbname = change.dbname;
        source.dsetname = change.dsetname;
    } else if (fwu_entry_mark(entry, mark)) {
        source.dbname = mark.dbname;
        source.dsetname = mark.dsetname;
    }
}

// Collects up to the next change.
static outcome collect(ship_log_source &source)
{
    fwu_cursor &cursor = source.log.cursor;
    const auto commit_size = static_cast<int64_t>(fwu_entry_padded(FWU_COMMIT_SIZE));
    while (!source.whole) {
        fwu_entry entry;
        if (fwu_log_entry(source.log, entry) != FWU_FOUND)
            return OUTCOME_FAILED;
        const auto padded = static_cast<int64_t>(fwu_entry_padded(entry.length));
        const int64_t end = cursor.read_at;
        if (end <= source.passed)
            continue;
        const int64_t skipped = std::max<int64_t>(source.passed - (end - padded), 0);
        const int64_t expected = source.bytes_at + static_cast<int64_t>(source.bytes.size());
        if (end - padded + skipped != expected)
            return outcome_failed("%s: entry %d is preceded by one that this version does not "
                                  "know; install a newer one",
                                  cursor.file.path.c_str(), entry.tag);
        const unsigned char *const raw = entry.payload - FWU_ENTRY_HEADER_SIZE;
        source.bytes.insert(source.bytes.end(), raw + skipped, raw + padded);
        take_names(source, entry);
        source.whole = entry.kind == FWU_KIND_COMMIT ||
                       ((fwu_entry_is_change(entry) || entry.kind == FWU_KIND_MARK) &&
                        end + commit_size != cursor.tx_end);
    }
    return {};
}

// Goes on to the next transaction; found: false when there is none for now.
static outcome next_transaction(ship_log_source &source, bool &found)
{
    const fwu_found next = fwu_log_next(source.log);
    found = next == FWU_FOUND;
    if (next == FWU_END)
        return {};
    if (!found)
        return OUTCOME_FAILED;
    if (source.log.cursor.header.version != FWU_VERSION_SALTED)
        return outcome_failed("%s: log files of format version 1 have no identity and cannot be "
                              "pushed; begin a new log",
                              source.log.cursor.file.path.c_str());
    source.inside = true;
    source.begun = false;
    source.passed = 0;
    return find_empty(source);
}

outcome ship_log_next(ship_log_source &source, ship_message &message, bool &found)
{
    found = true;
    if (!source.inside)
        if (outcome next = next_transaction(source, found); !next || !found)
            return next;
    if (!source.empty.empty())
        return give_empty(source, message);
    if (!source.begun)
        begin(source);
    if (outcome synced = sync(source); !synced)
        return synced;
    ship_place &place = source.place;
    if (source.given == source.bytes.size() && source.given != 0) {
        source.bytes.clear();
        source.bytes_at = place.from;
        source.given = 0;
        source.whole = false;
    }
    if (outcome collected = collect(source); !collected)
        return collected;
    const size_t length = std::min(source.bytes.size() - source.given, source.most);
    place.to = place.from + static_cast<int64_t>(length);
    message = {.place = place,
               .dbname = source.dbname,
               .dsetname = source.dsetname,
               .data = source.bytes.data() + source.given,
               .length = length};
    source.given += length;
    stand_behind(source, place);
    place.from = place.to;
    place.file_before = {};
    place.has_commit_before = false;
    source.inside = place.to != place.end;
    return {};
}
