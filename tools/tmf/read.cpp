// tmf read: records from the front of a message file to standard output.  A
// record is read without removing it, written, and only then removed, which is
// safe because no other reader may have the file open.
#include "msgfile/tmf_layout.h"
#include "tools/tmf/tmf_tool.h"
#include "util/json_text.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

// Seconds of a wait in the library, after which everything is looked at again:
// the time, a signal that came just before the wait, a writer that has gone
// before the first record.
static constexpr int round_seconds = 1;

// The library charges no time for wake-ups, and those of other files come, too: a
// file may keep a port in its wait list that is another file's reader's by now.
// So a timer ends the round; it goes on, since it may come between two waits.
static constexpr int timer_again_ms = 50;
static volatile sig_atomic_t g_round_over = 0;

enum read_format { FORMAT_LINES, FORMAT_RAW, FORMAT_HEX, FORMAT_JSON };

struct read_options {
    const char *file = "";             // empty: none given
    const char *format_word = nullptr; // the option that set format
    read_format format = FORMAT_LINES;
    int count = 0; // 0: no end
    int wait = -1; // seconds; below 0: while there is a writer
    bool follow = false;
    bool keep = false;
    bool shared = false;
};

struct read_state {
    read_options options;
    tmf_handle *h = nullptr;
    std::vector<char> record;                   // room for the longest that a file can state
    size_t length = 0;                          // of the record in hand
    int64_t given = 0;                          // records written
    int64_t known = 0;                          // records found in the file and not read since
    int32_t writers = 0;                        // registered at that time
    std::chrono::steady_clock::time_point last; // when the wait for a record began
    std::string out;
};

// ---- command line

static bool set_format(read_options &options, const char *word)
{
    static const struct {
        const char *word;
        read_format format;
    } formats[] = {{"--raw", FORMAT_RAW}, {"--hex", FORMAT_HEX}, {"--json", FORMAT_JSON}};
    for (const auto &row : formats) {
        if (strcmp(word, row.word) != 0)
            continue;
        options.format = row.format;
        options.format_word = row.word;
        return true;
    }
    return false;
}

static int check_options(const read_options &options)
{
    if (*options.file == '\0')
        return tmft_usage_error("which file?", "read");
    if (options.follow && options.wait >= 0)
        return tmft_usage_error("contradicts --follow", "--wait");
    if (options.keep && (options.follow || options.wait >= 0))
        return tmft_usage_error("never waits", "--keep");
    if (options.keep && options.shared)
        return tmft_usage_error("needs the file alone", "--keep");
    return TMFT_EXIT_OK;
}

static int scan_options(read_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        const char *const format_word = options.format_word;
        const bool is_count = strcmp(word, "--count") == 0;
        if (is_count || strcmp(word, "--wait") == 0) {
            if (++i == argc)
                return tmft_usage_error("option lacks its number", word);
            if (!tmft_number(argv[i], is_count ? 1 : 0, INT_MAX,
                             is_count ? options.count : options.wait))
                return tmft_usage_error(
                    is_count ? "not a number of records" : "not a number of seconds", argv[i]);
        } else if (strcmp(word, "--follow") == 0) {
            options.follow = true;
        } else if (strcmp(word, "--keep") == 0) {
            options.keep = true;
        } else if (strcmp(word, "--shared") == 0) {
            options.shared = true;
        } else if (set_format(options, word)) {
            if (format_word != nullptr && strcmp(format_word, word) != 0)
                return tmft_usage_error("more than one format", word);
        } else if (word[0] == '-') {
            return tmft_usage_error("unknown option", word);
        } else if (*options.file != '\0') {
            return tmft_usage_error("more than one file", word);
        } else {
            options.file = word;
        }
    }
    return check_options(options);
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
    const std::string_view data(state.record.data(), state.length);
    state.out.clear();
    switch (state.options.format) {
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
    }
    if (state.options.format != FORMAT_RAW)
        state.out += '\n';
}

enum output_result { OUTPUT_WRITTEN, OUTPUT_STOPPED, OUTPUT_FAILED };

// Writes state.out whole.  A signal stops it before its first byte (only where
// the record is still in the file), a second signal anywhere.
static output_result write_out(const read_state &state)
{
    for (size_t at = 0; at < state.out.size();) {
        const bool stop_at_once = stop_signal_get() != 0 || (at == 0 && !state.options.shared);
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
            return OUTPUT_FAILED;
        if (stop_at_once && stop_signal_get() != 0)
            return OUTPUT_STOPPED;
    }
    return OUTPUT_WRITTEN;
}

// ---- waiting

extern "C" {
static void note_round_over(int /*number*/)
{
    g_round_over = 1;
}
}

static void install_timer()
{
    struct sigaction action = {};
    action.sa_handler = note_round_over; // and no SA_RESTART: it ends a wait
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
}

static void set_timer(bool on)
{
    itimerval timer = {};
    if (on) {
        g_round_over = 0;
        timer.it_value.tv_sec = round_seconds;
        timer.it_interval.tv_usec = timer_again_ms * 1000;
    }
    setitimer(ITIMER_REAL, &timer, nullptr);
}

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
        tmft_complain_code(state.options.file, code);
        return READ_FAILED;
    }
    if (records < 0) {
        const std::string told = "damaged: " + std::to_string(records) + " records";
        tmft_complain(state.options.file, told.c_str());
        return READ_FAILED;
    }
    state.known = state.options.keep ? std::max<int64_t>(records - state.given, 0) : records;
    return state.known != 0 ? READ_RECORD : READ_NOTHING_YET;
}

static bool wait_goes_on(const read_state &state)
{
    const read_options &options = state.options;
    if (options.keep)
        return false;
    if (options.wait >= 0)
        return std::chrono::steady_clock::now() - state.last < std::chrono::seconds(options.wait);
    return options.follow || state.writers > 0;
}

static read_found next_record(read_state &state)
{
    const read_options &options = state.options;
    if (state.known == 0) {
        const read_found seen = look(state);
        if (seen == READ_NOTHING_YET && !wait_goes_on(state))
            return READ_END;
        if (seen != READ_RECORD && seen != READ_NOTHING_YET)
            return seen;
    }
    int flags = 0;
    if (!options.keep && !options.shared)
        flags |= TMF_READ_KEEP;
    if (options.follow || options.wait >= 0)
        flags |= TMF_READ_WAIT;
    const bool waits = state.known == 0;
    if (waits)
        set_timer(true);
    const int got = tmf_freadx(state.h, state.record.data(), static_cast<int>(state.record.size()),
                               flags, round_seconds);
    if (waits)
        set_timer(false);
    if (got < 0) {
        if (caused_by_stop(got))
            return READ_STOPPED;
        if (waits && g_round_over != 0 && interrupted(got))
            return READ_NOTHING_YET;
        tmft_complain_handle(options.file, state.h);
        return READ_FAILED;
    }
    // Nothing was there, or another reader was faster.  To a reader alone, 0 bytes
    // of a record that is there are a record of no data.
    if (got == 0 && (state.known == 0 || options.shared)) {
        state.known = 0;
        return READ_NOTHING_YET;
    }
    if (state.known != 0)
        state.known--;
    state.length = static_cast<size_t>(got);
    return READ_RECORD;
}

// Removes the record just written.  False, reported, when that failed.
static bool remove_record(read_state &state)
{
    // The record is there, so that nothing is waited for; a file in which it is
    // not is reported after the limit.
    const int flags = TMF_READ_LIMIT | TMF_READ_SIGNAL;
    int code = tmf_fread(state.h, nullptr, 0, flags);
    // What is written has to be removed: only a second signal keeps it from that.
    if (caused_by_stop(code))
        code = tmf_fread(state.h, nullptr, 0, flags);
    if (code >= 0)
        return true;
    char text[TMF_ERRMSG_SIZE];
    const std::string told =
        "record " + std::to_string(state.given) +
        " is written, but may still be in the file: " + tmf_geterrmsg(state.h, text);
    tmft_complain(state.options.file, told.c_str());
    return false;
}

// Writes the record in hand and removes it; the exit status to end with, or
// below 0 to go on.
static int give_record(read_state &state)
{
    put_record(state);
    switch (write_out(state)) {
    case OUTPUT_STOPPED:
        return TMFT_EXIT_SIGNAL + stop_signal_get();
    case OUTPUT_FAILED:
        fprintf(stderr, "tmf: writing standard output: %s\n", strerror(errno));
        return TMFT_EXIT_FAILED;
    case OUTPUT_WRITTEN:
        break;
    }
    state.given++;
    if (!state.options.keep && !state.options.shared && !remove_record(state))
        return TMFT_EXIT_FAILED;
    state.last = std::chrono::steady_clock::now();
    return -1;
}

// The exit status.
static int run(read_state &state)
{
    state.last = std::chrono::steady_clock::now();
    while (state.options.count == 0 || state.given < state.options.count) {
        if (stop_signal_get() != 0)
            return TMFT_EXIT_SIGNAL + stop_signal_get();
        const read_found found = next_record(state);
        if (found == READ_END)
            break;
        if (found == READ_FAILED)
            return TMFT_EXIT_FAILED;
        if (found != READ_RECORD) // a signal is seen at the next turn
            continue;
        const int status = give_record(state);
        if (status >= 0)
            return status;
    }
    return TMFT_EXIT_OK;
}

// ---- the file

// The library would create a file that does not exist, make a message file of an
// empty one and fill up one that is cut off within its common area.
static bool may_open(const char *file)
{
    struct stat about;
    if (stat(file, &about) != 0) {
        tmft_complain(file, strerror(errno));
        return false;
    }
    if (!S_ISREG(about.st_mode) || about.st_size < TMF_COMMON_SIZE) {
        tmft_complain_code(file, TMF_ENOTMSG);
        return false;
    }
    if (tmft_same_file(STDOUT_FILENO, file)) {
        tmft_complain(file, "is standard output, too");
        return false;
    }
    return true;
}

int tmft_read_main(int argc, char **argv)
{
    read_state state;
    const int usage = scan_options(state.options, argc, argv);
    if (usage != TMFT_EXIT_OK)
        return usage;
    const char *const file = state.options.file;
    if (!may_open(file))
        return TMFT_EXIT_FAILED;
    stop_signal_install();
    install_timer();
    int mode = TMF_MODE_READ;
    if (!state.options.shared)
        mode |= TMF_MODE_EXCLUSIVE;
    if (state.options.keep)
        mode |= TMF_MODE_COPY;
    state.h = tmf_fopen(file, mode);
    if (state.h == nullptr) {
        if (caused_by_stop(tmf_geterrno(nullptr)))
            return TMFT_EXIT_SIGNAL + stop_signal_get();
        tmft_complain_handle(file, nullptr);
        return TMFT_EXIT_FAILED;
    }
    state.record.resize(TMF_MAX_LENGTH);
    const int status = run(state);
    return tmft_close(state.h, file, status);
}
