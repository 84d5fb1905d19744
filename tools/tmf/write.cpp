// tmf write: records from standard input to the end of a message file, those that one read of
// the input has brought in one call.  One that is refused ends it; those before it are in the file,
// and the message has its number.
#include "tools/tmf/tmf_tool.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

struct write_options {
    const char *file = nullptr;
    bool null = false;   // records end with a NUL byte
    int size = 0;        // of every record; 0: they have an end
    bool framed = false; // the length of each record stands in front of it
    bool all_users = false;
    bool verbose = false;
};
static write_options options;

static constexpr cli_option rows[] = {
    {"--null", CLI_FLAG, &options.null},
    {"--size", tmft_number("N", "not a size of records (1 to 32761)", 1, TMF_MAX_DATA),
     &options.size},
    {"--framed", CLI_FLAG, &options.framed},
    {"--all-users", CLI_FLAG, &options.all_users},
    {"-v", CLI_FLAG, &options.verbose},
    {"FILE", TMFT_ONE_FILE, &options.file},
};

// ---- input

// Standard input cut into records.
struct record_source {
    char mark;   // ends a record
    size_t size; // of every record; 0: mark ends them
    bool framed; // each has its length in front instead
    std::vector<char> buffer = std::vector<char>(size_t{2} * (TMF_MAX_DATA + 1));
    size_t begin = 0;   // of the bytes not given yet
    size_t scanned = 0; // no mark before here
    size_t end = 0;     // of the bytes read
    bool at_end = false;
    bool held = false; // nothing more is read: records given before are still needed
};

static outcome reading_failed()
{
    return outcome_failed("reading standard input: %s", strerror(errno));
}

// Reads more.
static outcome fill(record_source &source)
{
    if (source.begin > 0) {
        memmove(source.buffer.data(), source.buffer.data() + source.begin,
                source.end - source.begin);
        source.scanned -= source.begin;
        source.end -= source.begin;
        source.begin = 0;
    }
    for (;;) {
        const stop_wait wait = stop_signal_wait(STDIN_FILENO, -1);
        if (wait == STOP_ASKED)
            return OUTCOME_STOPPED;
        if (wait == STOP_ERROR)
            return reading_failed();
        const ssize_t got = read(STDIN_FILENO, source.buffer.data() + source.end,
                                 source.buffer.size() - source.end);
        if (got >= 0) {
            source.end += static_cast<size_t>(got);
            source.at_end = got == 0;
            return {};
        }
        if (errno != EINTR && errno != EAGAIN)
            return reading_failed();
    }
}

static outcome give(record_source &source, std::string_view &record, size_t length, size_t with_end)
{
    record = {source.buffer.data() + source.begin, length};
    source.begin += with_end;
    source.scanned = source.begin;
    return {};
}

// Looks for the end of a record among the bytes read and not scanned.
static const char *find_mark(record_source &source)
{
    const void *const found =
        memchr(source.buffer.data() + source.scanned, source.mark, source.end - source.scanned);
    source.scanned = source.end;
    return static_cast<const char *>(found);
}

static std::string longer_text()
{
    return "is longer than " + std::to_string(TMF_MAX_DATA) + " bytes";
}

static std::string part_text(size_t there, size_t whole)
{
    return "has " + std::to_string(there) + " of " + std::to_string(whole) + " bytes";
}

// next_record of a framed stream.
static outcome next_framed(record_source &source, std::string_view &record)
{
    for (;;) {
        const size_t there = source.end - source.begin;
        const bool has_length = there >= TMFT_LENGTH_SIZE;
        const size_t length = has_length ? tmft_get_length(source.buffer.data() + source.begin) : 0;
        if (has_length && length == 0)
            return outcome_bad("is empty");
        if (length > TMF_MAX_DATA)
            return outcome_bad(longer_text());
        if (has_length && there - TMFT_LENGTH_SIZE >= length) {
            source.begin += TMFT_LENGTH_SIZE;
            return give(source, record, length, length);
        }
        if (source.at_end) {
            if (there == 0)
                return {};
            return outcome_bad(has_length ? part_text(there - TMFT_LENGTH_SIZE, length)
                                          : part_text(there, TMFT_LENGTH_SIZE) + " of its length");
        }
        if (source.held)
            return {};
        if (outcome filled = fill(source); !filled)
            return filled;
    }
}

// Gives the next record, valid until more is read; an empty one at the end of the input, or of
// what is there of a source that is held.  OUTCOME_BAD says what is wrong with it.
static outcome next_record(record_source &source, std::string_view &record)
{
    record = {};
    if (source.framed)
        return next_framed(source, record);
    for (;;) {
        const char *const first = source.buffer.data() + source.begin;
        const size_t there = source.end - source.begin;
        size_t length = there;
        if (source.size != 0) {
            if (there >= source.size)
                return give(source, record, source.size, source.size);
        } else if (const char *const mark = find_mark(source); mark != nullptr) {
            length = static_cast<size_t>(mark - first);
            if (length == 0)
                return outcome_bad("is empty");
            if (length <= TMF_MAX_DATA)
                return give(source, record, length, length + 1);
        }
        if (length > TMF_MAX_DATA)
            return outcome_bad(longer_text());
        if (source.at_end) {
            if (there == 0)
                return {};
            if (source.size == 0)
                return give(source, record, there, there);
            return outcome_bad(part_text(there, source.size));
        }
        if (source.held)
            return {};
        if (outcome filled = fill(source); !filled)
            return filled;
    }
}

// ---- records

static outcome stopped(uint64_t written)
{
    tell("%s: stopped by signal %d after %" PRIu64 " records", options.file, stop_signal_get(),
         written);
    return OUTCOME_STOPPED;
}

// A record that could not be appended.
static outcome append_failed(tmf_handle *h, int code, uint64_t &written)
{
    // The signal ended the wait for the file's lock.
    if (code == TMF_ELOCK_WAIT && stop_signal_get() != 0)
        return stopped(written);
    const uint64_t number = written + 1;
    char text[TMF_ERRMSG_SIZE];
    std::string told = "record " + std::to_string(number);
    if (code == TMF_ESEND) {
        told += " is in the file, but a waiting reader could not be told";
        written = number;
    }
    told += std::string(": ") + tmf_geterrmsg(h, text);
    return tmft_complain(options.file, told.c_str());
}

// Gives the next record and those behind it that are there; none at the end of the input.  What
// ended them comes with them.
static outcome next_records(record_source &source, std::vector<tmf_item> &records)
{
    records.clear();
    source.held = false;
    for (;;) {
        std::string_view record;
        outcome found = next_record(source, record);
        if (!found || record.empty())
            return found;
        records.push_back({record.data(), static_cast<int>(record.size())});
        source.held = true;
    }
}

// Whether nothing was appended for want of room, so that a few of the records may still fit.
static bool may_fit_in_part(int code)
{
    return code == TMF_EWRITE_DATA || code == TMF_EWRITE_DATA_EOF || code == TMF_ESEEK_DATA ||
           code == TMF_EINTERNAL;
}

static outcome append_batch(tmf_handle *h, const std::vector<tmf_item> &records, uint64_t &written)
{
    const int count = static_cast<int>(records.size());
    const int code = tmf_fwrite_many(h, records.data(), count);
    if (code == TMF_ESEND) // all are in the file, and the last one is told of
        written += records.size() - 1;
    if (code != 0 && (count == 1 || !may_fit_in_part(code)))
        return append_failed(h, code, written);
    if (code == 0) {
        written += records.size();
        return {};
    }
    for (const tmf_item &record : records) {
        if (const int failed = tmf_fwrite(h, record.data, record.length); failed != 0)
            return append_failed(h, failed, written);
        written++;
    }
    return {};
}

// Appends records until the input ends.
static outcome append_records(tmf_handle *h, uint64_t &written)
{
    record_source source{.mark = options.null ? '\0' : '\n',
                         .size = static_cast<size_t>(options.size),
                         .framed = options.framed};
    std::vector<tmf_item> records;
    for (;;) {
        if (stop_signal_get() != 0)
            return stopped(written);
        outcome found = next_records(source, records);
        if (!records.empty())
            if (outcome done = append_batch(h, records, written); !done)
                return done;
        if (found.kind() == OUTCOME_STOPPED)
            return stopped(written);
        if (found.kind() == OUTCOME_BAD)
            return outcome_failed("standard input: record %" PRIu64 " %s", written + 1,
                                  found.text().c_str());
        if (!found || records.empty())
            return found;
    }
}

// ---- the file

// Pipes, devices and directories are nothing that records can be kept in, and
// opening some of them has effects.
static outcome check_file(const char *file)
{
    struct stat about;
    if (stat(file, &about) == 0 && !S_ISREG(about.st_mode))
        return tmft_complain_code(file, TMF_ENOTMSG);
    if (tmft_same_file(STDIN_FILENO, file))
        return tmft_complain(file, "is standard input, too");
    return {};
}

static outcome run()
{
    if (options.size != 0 && options.null)
        return cli_usage("contradicts --size", "--null");
    if (options.framed && (options.size != 0 || options.null))
        return cli_usage(options.null ? "contradicts --null" : "contradicts --size", "--framed");
    if (outcome done = check_file(options.file); !done)
        return done;
    stop_signal_install();
    tmf_handle *const h = tmf_fopen(options.file, options.all_users ? TMF_MODE_ALL_USERS : 0);
    if (h == nullptr) {
        if (tmf_geterrno(nullptr) == TMF_ELOCK_WAIT && stop_signal_get() != 0)
            return OUTCOME_STOPPED;
        return tmft_complain_handle(options.file, nullptr);
    }
    uint64_t written = 0;
    outcome done = tmft_close(h, options.file, append_records(h, written));
    if (options.verbose)
        printf("%" PRIu64 " records written\n", written);
    return done;
}

static const char help[] =
    "Usage: tmf write [--null | --size N | --framed] [--all-users] [-v] FILE\n"
    "\n"
    "Appends one record for each line of standard input, without its newline, to a\n"
    "message file, which is created when it does not exist.  A record has 1 to 32761\n"
    "bytes; at one that has not, writing ends.\n"
    "\n"
    "  --null        records end with a NUL byte instead of a newline\n"
    "  --size N      records are N bytes each, nothing between them\n"
    "  --framed      the length of each record stands in front of it, 4 bytes, the most\n"
    "                significant one first, as tmf read --framed writes it\n"
    "  --all-users   a file that is created may be read and written by all users\n"
    "  -v            print the number of records written\n"
    "  --help        print this (also -h)\n"
    "\n"
    "Exit status: 0 all written; 1 error (the records before it are in the file);\n"
    "2 wrong command line; 128 + signal number when SIGINT or SIGTERM ended it after\n"
    "a whole record.\n";

constinit const cli_command tmf_write_row = {
    .name = "write",
    .summary = "appends records from standard input",
    .run = run,
    .options = rows,
    .help = help,
};
