// tmf write: records from standard input to the end of a message file.
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
    const char *file = ""; // empty: none given
    char end = '\n';       // of a record
    int size = 0;          // of every record; 0: they have an end
    bool all_users = false;
    bool verbose = false;
};

static int scan_options(write_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        if (strcmp(word, "--size") == 0) {
            if (++i == argc)
                return tmft_usage_error("option lacks its number", word);
            if (!tmft_number(argv[i], 1, TMF_MAX_DATA, options.size))
                return tmft_usage_error("not a size of records (1 to 32761)", argv[i]);
        } else if (strcmp(word, "--null") == 0) {
            options.end = '\0';
        } else if (strcmp(word, "--all-users") == 0) {
            options.all_users = true;
        } else if (strcmp(word, "-v") == 0) {
            options.verbose = true;
        } else if (word[0] == '-') {
            return tmft_usage_error("unknown option", word);
        } else if (*options.file != '\0') {
            return tmft_usage_error("more than one file", word);
        } else {
            options.file = word;
        }
    }
    if (*options.file == '\0')
        return tmft_usage_error("which file?", "write");
    if (options.size != 0 && options.end == '\0')
        return tmft_usage_error("contradicts --size", "--null");
    return TMFT_EXIT_OK;
}

// ---- input

// Standard input cut into records.
struct record_source {
    char mark = '\n'; // ends a record
    size_t size = 0;  // of every record; 0: mark ends them
    std::vector<char> buffer = std::vector<char>(size_t{2} * (TMF_MAX_DATA + 1));
    size_t begin = 0;   // of the bytes not given yet
    size_t scanned = 0; // no mark before here
    size_t end = 0;     // of the bytes read
    bool at_end = false;
};

enum source_found { SOURCE_RECORD, SOURCE_END, SOURCE_STOPPED, SOURCE_BAD, SOURCE_FAILED };

// Reads more; SOURCE_RECORD when that went well.
static source_found fill(record_source &source)
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
            return SOURCE_STOPPED;
        if (wait == STOP_ERROR)
            return SOURCE_FAILED;
        const ssize_t got = read(STDIN_FILENO, source.buffer.data() + source.end,
                                 source.buffer.size() - source.end);
        if (got >= 0) {
            source.end += static_cast<size_t>(got);
            source.at_end = got == 0;
            return SOURCE_RECORD;
        }
        if (errno != EINTR && errno != EAGAIN)
            return SOURCE_FAILED;
    }
}

static source_found give(record_source &source, std::string_view &record, size_t length,
                         size_t with_end)
{
    record = {source.buffer.data() + source.begin, length};
    source.begin += with_end;
    source.scanned = source.begin;
    return SOURCE_RECORD;
}

// Looks for the end of a record among the bytes read and not scanned.
static const char *find_mark(record_source &source)
{
    const void *const found =
        memchr(source.buffer.data() + source.scanned, source.mark, source.end - source.scanned);
    source.scanned = source.end;
    return static_cast<const char *>(found);
}

// Gives the next record, valid until the next call.  SOURCE_BAD: error says what
// is wrong with it; SOURCE_FAILED: errno.
static source_found next_record(record_source &source, std::string_view &record, std::string &error)
{
    for (;;) {
        const char *const first = source.buffer.data() + source.begin;
        const size_t there = source.end - source.begin;
        size_t length = there;
        if (source.size != 0) {
            if (there >= source.size)
                return give(source, record, source.size, source.size);
        } else if (const char *const mark = find_mark(source); mark != nullptr) {
            length = static_cast<size_t>(mark - first);
            if (length == 0) {
                error = "is empty";
                return SOURCE_BAD;
            }
            if (length <= TMF_MAX_DATA)
                return give(source, record, length, length + 1);
        }
        if (length > TMF_MAX_DATA) {
            error = "is longer than " + std::to_string(TMF_MAX_DATA) + " bytes";
            return SOURCE_BAD;
        }
        if (source.at_end) {
            if (there == 0)
                return SOURCE_END;
            if (source.size == 0)
                return give(source, record, there, there);
            error =
                "has " + std::to_string(there) + " of " + std::to_string(source.size) + " bytes";
            return SOURCE_BAD;
        }
        const source_found filled = fill(source);
        if (filled != SOURCE_RECORD)
            return filled;
    }
}

// ---- records

static void say_stopped(const char *file, uint64_t written)
{
    fprintf(stderr, "tmf: %s: stopped by signal %d after %" PRIu64 " records\n", file,
            stop_signal_get(), written);
}

// A record that could not be appended; the exit status.
static int append_failed(tmf_handle *h, const char *file, int code, uint64_t &written)
{
    // The signal ended the wait for the file's lock.
    if (code == TMF_ELOCK_WAIT && stop_signal_get() != 0) {
        say_stopped(file, written);
        return TMFT_EXIT_SIGNAL + stop_signal_get();
    }
    const uint64_t number = written + 1;
    char text[TMF_ERRMSG_SIZE];
    std::string told = "record " + std::to_string(number);
    if (code == TMF_ESEND) {
        told += " is in the file, but a waiting reader could not be told";
        written = number;
    }
    told += std::string(": ") + tmf_geterrmsg(h, text);
    tmft_complain(file, told.c_str());
    return TMFT_EXIT_FAILED;
}

// Appends records until the input ends; the exit status.
static int run(tmf_handle *h, const write_options &options, uint64_t &written)
{
    record_source source;
    source.mark = options.end;
    source.size = static_cast<size_t>(options.size);
    std::string error;
    for (;;) {
        std::string_view record;
        source_found found = SOURCE_STOPPED;
        if (stop_signal_get() == 0)
            found = next_record(source, record, error);
        const int code = errno;
        switch (found) {
        case SOURCE_RECORD:
            break;
        case SOURCE_END:
            return TMFT_EXIT_OK;
        case SOURCE_STOPPED:
            say_stopped(options.file, written);
            return TMFT_EXIT_SIGNAL + stop_signal_get();
        case SOURCE_BAD:
            fprintf(stderr, "tmf: standard input: record %" PRIu64 " %s\n", written + 1,
                    error.c_str());
            return TMFT_EXIT_FAILED;
        case SOURCE_FAILED:
            fprintf(stderr, "tmf: reading standard input: %s\n", strerror(code));
            return TMFT_EXIT_FAILED;
        }
        const int failed = tmf_fwrite(h, record.data(), static_cast<int>(record.size()));
        if (failed != 0)
            return append_failed(h, options.file, failed, written);
        written++;
    }
}

// ---- the file

// Pipes, devices and directories are nothing that records can be kept in, and
// opening some of them has effects.
static bool may_open(const char *file)
{
    struct stat about;
    if (stat(file, &about) == 0 && !S_ISREG(about.st_mode)) {
        tmft_complain_code(file, TMF_ENOTMSG);
        return false;
    }
    if (tmft_same_file(STDIN_FILENO, file)) {
        tmft_complain(file, "is standard input, too");
        return false;
    }
    return true;
}

int tmft_write_main(int argc, char **argv)
{
    write_options options;
    const int usage = scan_options(options, argc, argv);
    if (usage != TMFT_EXIT_OK)
        return usage;
    if (!may_open(options.file))
        return TMFT_EXIT_FAILED;
    stop_signal_install();
    tmf_handle *const h = tmf_fopen(options.file, options.all_users ? TMF_MODE_ALL_USERS : 0);
    if (h == nullptr) {
        if (tmf_geterrno(nullptr) == TMF_ELOCK_WAIT && stop_signal_get() != 0)
            return TMFT_EXIT_SIGNAL + stop_signal_get();
        tmft_complain_handle(options.file, nullptr);
        return TMFT_EXIT_FAILED;
    }
    uint64_t written = 0;
    int status = run(h, options, written);
    status = tmft_close(h, options.file, status);
    if (options.verbose)
        printf("%" PRIu64 " records written\n", written);
    return tmft_flush_output(status);
}
