// tmf read: records from the front of a message file to standard output.  A
// record is read without removing it, written, and only then removed, which is
// safe because no other reader may have the file open.  Those that stay in the file
// are read many at once; others are not, since a read that is killed may give no
// more than one twice, or beside other readers lose no more than one.
#include "msgfile/tmf_layout.h"
#include "tools/tmf/tmf_tool.h"
#include "util/json_text.h"
#include "util/round_timer.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// Seconds of a wait in the library, after which everything is looked at again:
// the time, a signal that came just before the wait, a writer that has gone
// before the first record.
//
// The library charges no time for wake-ups, and those of other files come, too: a
// file may keep a port in its wait list that is another file's reader's by now.
// So a timer ends the round.
static constexpr int round_seconds = 1;

// Records that are read at once where they stay in the file, and room for their data.
static constexpr int batch_records = 256;
static constexpr size_t batch_room = 131072;

enum read_format { FORMAT_LINES, FORMAT_RAW, FORMAT_HEX, FORMAT_JSON, FORMAT_FRAMED };

struct read_options {
    const char *file = nullptr;
    int format = FORMAT_LINES; // a read_format
    int count = 0;             // 0: no end
    int wait = -1;             // seconds; below 0: while there is a writer
    bool follow = false;
    bool keep = false;
    bool shared = false;
};
static read_options options;

static constexpr cli_kind FORMAT = {.again = "more than one format"};
static constexpr cli_option rows[] = {
    {"--raw", FORMAT, cli_choice{&options.format, FORMAT_RAW}},
    {"--hex", FORMAT, cli_choice{&options.format, FORMAT_HEX}},
    {"--json", FORMAT, cli_choice{&options.format, FORMAT_JSON}},
    {"--framed", FORMAT, cli_choice{&options.format, FORMAT_FRAMED}},
    {"--count", tmft_number("N", "not a number of records", 1), &options.count},
    {"--follow", CLI_FLAG, &options.follow},
    {"--wait", tmft_number("SECONDS", "not a number of seconds", 0), &options.wait},
    {"--keep", CLI_FLAG, &options.keep},
    {"--shared", CLI_FLAG, &options.shared},
    {"FILE", TMFT_ONE_FILE, &options.file},
};

struct read_state {
    tmf_handle *h = nullptr;
    std::vector<char> buffer;                   // room for the longest that a file can state
    std::vector<tmf_item> batch;                // kept records in the buffer
    size_t next = 0;                            // the first of them that is not in hand yet
    std::string_view record;                    // in hand
    int64_t given = 0;                          // records written
    int64_t known = 0;                          // records found in the file and not read since
    int32_t writers = 0;                        // registered at that time
    std::chrono::steady_clock::time_point last; // when the wait for a record began
    std::string out;
};

// What the rows cannot say of options together.
static outcome check_options()
{
    if (options.follow && options.wait >= 0)
        return cli_usage("contradicts --follow", "--wait");
    if (options.keep && (options.follow || options.wait >= 0))
        return cli_usage("never waits", "--keep");
    if (options.keep && options.shared)
        return cli_usage("needs the file alone", "--keep");
    return {};
}

// ---- output

static void put_json(std::string &out, int64_t number, std::string_view data)
{
    out += "{\"number\":" + std::to_string(number) + ",\"length\":" + std::to_string(data.size()) +
           ",\"hex\":\"";
    json_text_hex(out, data);
    out += '"';
    if (json_text_printable(data)) {
        out += ",\"text\":";
        json_text_append(out, data);
    }
    out += '}';
}

static void put_record(read_state &state)
{
    const std::string_view data = state.record;
    state.out.clear();
    switch (static_cast<read_format>(options.format)) {
    case FORMAT_LINES:
    case FORMAT_RAW:
        state.out += data;
        break;
    case FORMAT_HEX:
        json_text_hex(state.out, data);
        break;
    case FORMAT_JSON:
        put_json(state.out, state.given + 1, data);
        break;
    case FORMAT_FRAMED:
        tmft_put_framed(state.out, data);
        break;
    }
    if (options.format != FORMAT_RAW && options.format != FORMAT_FRAMED)
        state.out += '\n';
}

// Writes state.out whole.  A signal stops it before its first byte (only where
// the record is still in the file), a second signal anywhere.
static outcome write_out(const read_state &state)
{
    for (size_t at = 0; at < state.out.size();) {
        const bool stop_at_once = stop_signal_get() != 0 || (at == 0 && !options.shared);
        const ssize_t put = write(STDOUT_FILENO, state.out.data() + at, state.out.size() - at);
        if (put >= 0) {
            at += static_cast<size_t>(put);
            continue;
        }
        if (errno == EAGAIN) {
            pollfd room = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
            if (poll(&room, 1, -1) >= 0)
                continue;
        }
        if (errno != EINTR)
            return cli_output_failed();
        if (stop_at_once && stop_signal_get() != 0)
            return OUTCOME_STOPPED;
    }
    return {};
}

// ---- waiting

// Whether a failure comes from a signal that ended a wait for the file's lock,
// which a read of an empty file reports as an internal error.
static bool interrupted(int code)
{
    return code == TMF_ELOCK_WAIT || code == TMF_EINTERNAL;
}

static bool caused_by_stop(int code)
{
    return stop_signal_get() != 0 && interrupted(code);
}

// ---- records

enum read_found { READ_RECORD, READ_NOTHING_YET, READ_END, READ_STOPPED, READ_FAILED };

// Counts the records that are there and the writers.
static read_found look(read_state &state)
{
    int32_t records = 0;
    const int code =
        tmf_getinfo(state.h, TMF_INFO_RECORDS, &records, TMF_INFO_WRITERS, &state.writers, 0);
    if (code != 0) {
        if (caused_by_stop(code))
            return READ_STOPPED;
        (void)tmft_complain_code(options.file, code); // the result says it
        return READ_FAILED;
    }
    if (records < 0) {
        const std::string told = "damaged: " + std::to_string(records) + " records";
        (void)tmft_complain(options.file, told.c_str()); // the result says it
        return READ_FAILED;
    }
    state.known = options.keep ? std::max<int64_t>(records - state.given, 0) : records;
    return state.known != 0 ? READ_RECORD : READ_NOTHING_YET;
}

static bool wait_goes_on(const read_state &state)
{
    if (options.keep)
        return false;
    if (options.wait >= 0)
        return std::chrono::steady_clock::now() - state.last < std::chrono::seconds(options.wait);
    return options.follow || state.writers > 0;
}

// What a read of a record or of many that failed comes to.
static read_found failed_read(const read_state &state, int code)
{
    if (caused_by_stop(code))
        return READ_STOPPED;
    (void)tmft_complain_handle(options.file, state.h); // the result says it
    return READ_FAILED;
}

// Takes the next of the records that stay in the file, of which there are some.
static read_found next_kept(read_state &state)
{
    if (state.next == state.batch.size()) {
        state.batch.resize(batch_records);
        const int got =
            tmf_fread_many(state.h, state.batch.data(), batch_records, state.buffer.data(),
                           static_cast<int>(state.buffer.size()), 0);
        state.next = 0;
        state.batch.resize(static_cast<size_t>(std::max(got, 0)));
        if (got < 0)
            return failed_read(state, got);
        if (got == 0) { // a repair has cut them off
            state.known = 0;
            return READ_NOTHING_YET;
        }
    }
    const tmf_item &record = state.batch[state.next++];
    state.record = {static_cast<const char *>(record.data), static_cast<size_t>(record.length)};
    state.known = std::max<int64_t>(state.known - 1, 0);
    return READ_RECORD;
}

static read_found next_record(read_state &state)
{
    if (options.keep && state.next < state.batch.size())
        return next_kept(state);
    if (state.known == 0) {
        const read_found seen = look(state);
        if (seen == READ_NOTHING_YET && !wait_goes_on(state))
            return READ_END;
        if (seen != READ_RECORD && seen != READ_NOTHING_YET)
            return seen;
    }
    if (options.keep)
        return next_kept(state);
    int flags = options.shared ? 0 : TMF_READ_KEEP;
    if (options.follow || options.wait >= 0)
        flags |= TMF_READ_WAIT;
    const bool waits = state.known == 0;
    if (waits)
        round_timer_start(round_seconds);
    const int got = tmf_freadx(state.h, state.buffer.data(), static_cast<int>(state.buffer.size()),
                               flags, round_seconds);
    if (waits)
        round_timer_stop();
    if (got < 0) {
        if (waits && !caused_by_stop(got) && round_timer_over() && interrupted(got))
            return READ_NOTHING_YET;
        return failed_read(state, got);
    }
    // Nothing was there, or another reader was faster.  To a reader alone, 0 bytes
    // of a record that is there are a record of no data.
    if (got == 0 && (state.known == 0 || options.shared)) {
        state.known = 0;
        return READ_NOTHING_YET;
    }
    if (state.known != 0)
        state.known--;
    state.record = {state.buffer.data(), static_cast<size_t>(got)};
    return READ_RECORD;
}

// Removes the record just written.
static outcome remove_record(read_state &state)
{
    // The record is there, so that nothing is waited for; a file in which it is
    // not is reported after the limit.
    const int flags = TMF_READ_LIMIT | TMF_READ_SIGNAL;
    int code = tmf_fread(state.h, nullptr, 0, flags);
    // What is written has to be removed: only a second signal keeps it from that.
    if (caused_by_stop(code))
        code = tmf_fread(state.h, nullptr, 0, flags);
    if (code >= 0)
        return {};
    char text[TMF_ERRMSG_SIZE];
    const std::string told =
        "record " + std::to_string(state.given) +
        " is written, but may still be in the file: " + tmf_geterrmsg(state.h, text);
    return tmft_complain(options.file, told.c_str());
}

// Writes the record in hand and removes it.
static outcome give_record(read_state &state)
{
    put_record(state);
    if (outcome done = write_out(state); !done)
        return done;
    state.given++;
    if (!options.keep && !options.shared) {
        if (outcome done = remove_record(state); !done)
            return done;
    }
    state.last = std::chrono::steady_clock::now();
    return {};
}

static outcome give_records(read_state &state)
{
    state.last = std::chrono::steady_clock::now();
    while (options.count == 0 || state.given < options.count) {
        if (stop_signal_get() != 0)
            return OUTCOME_STOPPED;
        const read_found found = next_record(state);
        if (found == READ_END)
            break;
        if (found == READ_FAILED)
            return OUTCOME_FAILED;
        if (found != READ_RECORD) // a signal is seen at the next turn
            continue;
        if (outcome done = give_record(state); !done)
            return done;
    }
    return {};
}

// ---- the file

// The library would create a file that does not exist, make a message file of an
// empty one and fill up one that is cut off within its common area.
static outcome check_file(const char *file)
{
    struct stat about;
    if (stat(file, &about) != 0)
        return tmft_complain(file, strerror(errno));
    if (!S_ISREG(about.st_mode) || about.st_size < TMF_COMMON_SIZE)
        return tmft_complain_code(file, TMF_ENOTMSG);
    if (tmft_same_file(STDOUT_FILENO, file))
        return tmft_complain(file, "is standard output, too");
    return {};
}

static outcome run()
{
    if (outcome done = check_options(); !done)
        return done;
    const char *const file = options.file;
    if (outcome done = check_file(file); !done)
        return done;
    stop_signal_install();
    round_timer_install();
    int mode = TMF_MODE_READ;
    if (!options.shared)
        mode |= TMF_MODE_EXCLUSIVE;
    if (options.keep)
        mode |= TMF_MODE_COPY;
    read_state state;
    state.h = tmf_fopen(file, mode);
    if (state.h == nullptr) {
        if (caused_by_stop(tmf_geterrno(nullptr)))
            return OUTCOME_STOPPED;
        return tmft_complain_handle(file, nullptr);
    }
    state.buffer.resize(options.keep ? batch_room : TMF_MAX_LENGTH);
    return tmft_close(state.h, file, give_records(state));
}

static const char help[] =
    "Usage: tmf read [--raw | --hex | --json | --framed] [--count N]\n"
    "           [--follow | --wait SECONDS] [--keep] [--shared] FILE\n"
    "\n"
    "Takes records from the front of a message file and writes them to standard\n"
    "output, each followed by a newline.  Waits while a writer has the file open,\n"
    "ends when the file is empty and no writer is left.\n"
    "\n"
    "No other reader may have the file open.  A record is removed once it has been\n"
    "written: when standard output fails, the file still has it.\n"
    "\n"
    "  --raw            nothing between records\n"
    "  --hex            one line for each record, in hexadecimal\n"
    "  --json           one JSON object a line: number, length, data as \"hex\" and,\n"
    "                   when all of it is printable ASCII, as \"text\"\n"
    "  --framed         the length of each record in front of it, 4 bytes, the most\n"
    "                   significant one first; nothing behind it\n"
    "  --count N        end after N records\n"
    "  --follow         wait for records for ever\n"
    "  --wait SECONDS   end when no record comes for so long, writers or not; 0 takes\n"
    "                   what is there\n"
    "  --keep           show all records and remove none; never waits\n"
    "  --shared         read beside other readers; removes a record before it is\n"
    "                   written, so that a failing output loses it\n"
    "  --help           print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error; 2 wrong command line; 128 + signal number when\n"
    "SIGINT or SIGTERM ended it after a whole record.\n";

constinit const cli_command tmf_read_row = {
    .name = "read",
    .summary = "takes records from the front, to standard output",
    .run = run,
    .options = rows,
    .help = help,
};
