// fwlog load: command line, input, progress and summary around the stream.
#include "feed/lsn.h"
#include "feed/wal2json/stream.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/load_progress.h"
#include "util/line_reader.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

struct load_options {
    const char *cfg = nullptr;
    const char *input = nullptr; // null or "-": standard input
    bool truncate = false;
};

static int scan_options(load_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        if (strcmp(word, "-cfg") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its file name", word);
            options.cfg = argv[i];
        } else if (strcmp(word, "--truncate") == 0) {
            options.truncate = true;
        } else if (word[0] == '-' && word[1] != '\0') {
            return fwlog_usage_error("unknown option", word);
        } else if (options.input != nullptr) {
            return fwlog_usage_error("more than one change stream", word);
        } else {
            options.input = word;
        }
    }
    return FWLOG_EXIT_OK;
}

static bool blank(std::string_view line)
{
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

static void say_incomplete(const w2j_stream &stream, const char *name, uint64_t line)
{
    fprintf(stderr,
            "fwlog: %s:%" PRIu64 ": the input ends inside transaction %" PRIu64
            " (begun in line %" PRIu64 "): the last transaction is incomplete and not loaded; "
            "load the whole stream again\n",
            name, line, stream.tx.commit.xid, stream.opened_at);
}

static void say_bad_line(const w2j_stream &stream, const line_reader &reader, const char *name,
                         bool was_open, const std::string &error)
{
    fprintf(stderr, "fwlog: %s:%" PRIu64 ": %s\n", name, reader.number, error.c_str());
    // A line that does not parse and lacks its end was cut off, not damaged.
    if (reader.torn && was_open)
        say_incomplete(stream, name, reader.number);
    else if (reader.torn)
        fprintf(stderr, "fwlog: %s:%" PRIu64 ": the input ends within this line\n", name,
                reader.number);
}

// Tells what the line gave cause to tell.
static void say_notes(w2j_stream &stream, const line_reader &reader, load_progress &progress,
                      const char *name)
{
    std::vector<std::string> &notes = stream.tx.work.notes;
    if (notes.empty())
        return;
    load_progress_erase(progress);
    for (const std::string &note : notes)
        fprintf(stderr, "fwlog: %s:%" PRIu64 ": warning: %s\n", name, reader.number, note.c_str());
    notes.clear();
}

// Reads lines until the input ends or something is wrong; the exit status.
static int run(w2j_stream &stream, line_reader &reader, load_progress &progress, const char *name)
{
    for (;;) {
        if (stop_signal_get() != 0 && !stream.tx.open)
            return FWLOG_EXIT_SIGNAL + stop_signal_get();
        std::string_view line;
        const line_found found = line_reader_next(reader, line);
        if (found == LINE_FOUND) {
            if (blank(line))
                continue;
            const bool was_open = stream.tx.open;
            const outcome taken = w2j_stream_line(stream, line, reader.number);
            say_notes(stream, reader, progress, name);
            if (!taken) {
                load_progress_erase(progress);
                if (taken.kind() == OUTCOME_BAD)
                    say_bad_line(stream, reader, name, was_open, taken.text());
                return FWLOG_EXIT_FAILED;
            }
            load_progress_show(progress, stream.tx.totals, reader.bytes);
            continue;
        }

        const int code = errno;
        const bool was_open = stream.tx.open;
        load_progress_erase(progress);
        feed_abandon(stream.tx);
        switch (found) {
        case LINE_STOPPED:
            return FWLOG_EXIT_SIGNAL + stop_signal_get();
        case LINE_TOO_LONG:
            fprintf(stderr,
                    "fwlog: %s:%" PRIu64 ": the line is longer than %zu MiB: is this a "
                    "change stream, one JSON object a line?\n",
                    name, reader.number + 1, reader.longest / (1024 * 1024));
            return FWLOG_EXIT_FAILED;
        case LINE_ERROR:
            fprintf(stderr, "fwlog: reading %s: %s\n", name, strerror(code));
            return FWLOG_EXIT_FAILED;
        default:
            if (!was_open)
                return FWLOG_EXIT_OK;
            say_incomplete(stream, name, reader.number);
            return FWLOG_EXIT_FAILED;
        }
    }
}

static void print_summary(const w2j_stream &stream)
{
    const feed_totals &totals = stream.tx.totals;
    printf("fwlog: %" PRIu64 " transactions loaded: %" PRIu64 " inserts, %" PRIu64
           " updates, %" PRIu64 " deletes; %" PRIu64 " without changes, %" PRIu64
           " skipped as loaded before; log at %s\n",
           totals.transactions, totals.inserts, totals.updates, totals.deletes, totals.empty,
           totals.skipped, feed_lsn_text(fwu_writer_last_lsn(stream.tx.writer)).c_str());
    if (stream.tx.work.settings.truncate)
        printf("fwlog: %" PRIu64 " texts cut to the length of their items\n",
               stream.tx.work.truncated);
}

// Tells once that a repair has cut off what an earlier summary had acknowledged.
static bool tell_loss(fwu_writer *writer)
{
    uint64_t acknowledged = 0;
    if (!fwu_writer_lost(writer, &acknowledged))
        return true;
    const std::string end = feed_lsn_text(fwu_writer_last_lsn(writer));
    fprintf(stderr,
            "fwlog: warning: the log was cut back to %s, and had been acknowledged up to %s: load "
            "all that came behind %s again, else it is missing (this is told once)\n",
            end.c_str(), feed_lsn_text(acknowledged).c_str(), end.c_str());
    return fwu_writer_accept_loss(writer) == 0;
}

static int load(const load_options &options, int fd, const char *name)
{
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return FWLOG_EXIT_FAILED;

    w2j_stream stream;
    stream.tables.config = &config;
    stream.tx.work.settings = {.big_endian = config.big_endian, .truncate = options.truncate};
    stop_signal_install();
    if (fwu_writer_open(&stream.tx.writer, config) != 0)
        return FWLOG_EXIT_FAILED;
    if (!tell_loss(stream.tx.writer)) {
        (void)fwu_writer_close(stream.tx.writer); // nothing was written
        return FWLOG_EXIT_FAILED;
    }

    line_reader reader;
    reader.fd = fd;
    bool on_disk = true;
    reader.before_wait = [&] {
        on_disk = on_disk && fwu_writer_settle(stream.tx.writer, false) == 0;
        return on_disk ? fwu_writer_settle_in(stream.tx.writer) : -1;
    };
    struct stat about = {};
    load_progress progress;
    progress.on_terminal = isatty(STDERR_FILENO) == 1;
    if (fstat(fd, &about) == 0 && S_ISREG(about.st_mode))
        progress.size = static_cast<uint64_t>(about.st_size);

    int status = run(stream, reader, progress, name);
    if (!on_disk)
        status = FWLOG_EXIT_FAILED;
    load_progress_erase(progress);
    if (status >= FWLOG_EXIT_SIGNAL)
        fprintf(stderr,
                "fwlog: stopped by signal %d behind a whole transaction; load the stream "
                "again to go on\n",
                status - FWLOG_EXIT_SIGNAL);
    // The summary acknowledges what was loaded: whoever reads it may throw the stream away.
    if (fwu_writer_sync(stream.tx.writer) != 0 || fwu_writer_acknowledge(stream.tx.writer) != 0)
        status = FWLOG_EXIT_FAILED;
    else
        print_summary(stream);
    if (fwu_writer_close(stream.tx.writer) != 0)
        status = FWLOG_EXIT_FAILED;
    return fwlog_flush_output(status);
}

int fwlog_load_main(int argc, char **argv)
{
    load_options options;
    const int usage = scan_options(options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    if (options.input == nullptr || strcmp(options.input, "-") == 0)
        return load(options, STDIN_FILENO, "standard input");

    const int fd = open(options.input, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fprintf(stderr, "fwlog: cannot open %s: %s\n", options.input, strerror(errno));
        return FWLOG_EXIT_FAILED;
    }
    const int status = load(options, fd, options.input);
    close(fd);
    return status;
}
