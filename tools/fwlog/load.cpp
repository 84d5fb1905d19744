// fwlog load: input, progress and summary around the stream.
//
// The summary is printed last, when all of it is on disk: whoever reads it may throw the
// stream away.  A signal is looked at between two transactions.
#include "tools/fwlog/load.h"

#include "feed/wal2json/stream.h"
#include "fwutil/fwu_start.h"
#include "tools/fwlog/load_progress.h"
#include "util/line_reader.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static bool blank(std::string_view line)
{
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

static void say_incomplete(const w2j_stream &stream, const char *name, uint64_t line)
{
    tell("%s:%" PRIu64 ": the input ends inside transaction %" PRIu64 " (begun in line %" PRIu64
         "): the last transaction is incomplete and not loaded; load the whole stream again",
         name, line, stream.tx.commit.xid, stream.opened_at);
}

static void say_bad_line(const w2j_stream &stream, const line_reader &reader, const char *name,
                         bool was_open, const std::string &error)
{
    tell("%s:%" PRIu64 ": %s", name, reader.number, error.c_str());
    // A line that does not parse and lacks its end was cut off, not damaged.
    if (reader.torn && was_open)
        say_incomplete(stream, name, reader.number);
    else if (reader.torn)
        tell("%s:%" PRIu64 ": the input ends within this line", name, reader.number);
}

// Tells what the line gave cause to tell.
static void say_notes(w2j_stream &stream, const line_reader &reader, load_progress &progress,
                      const char *name)
{
    if (stream.tx.work.notes.empty())
        return;
    progress_line_erase(progress.line);
    feed_tell_notes(stream.tx, std::string(name) + ":" + std::to_string(reader.number) + ": ");
}

// Reads lines until the input ends or something is wrong.
static outcome take_lines(w2j_stream &stream, line_reader &reader, load_progress &progress,
                          const char *name)
{
    for (;;) {
        if (stop_signal_get() != 0 && !stream.tx.open)
            return OUTCOME_STOPPED;
        std::string_view line;
        const line_found found = line_reader_next(reader, line);
        if (found == LINE_FOUND) {
            if (blank(line))
                continue;
            const bool was_open = stream.tx.open;
            const outcome taken = w2j_stream_line(stream, line, reader.number);
            say_notes(stream, reader, progress, name);
            if (!taken) {
                progress_line_erase(progress.line);
                if (taken.kind() == OUTCOME_BAD)
                    say_bad_line(stream, reader, name, was_open, taken.text());
                return OUTCOME_FAILED;
            }
            load_progress_show(progress, stream.tx.totals, reader.bytes);
            continue;
        }

        const int code = errno;
        const bool was_open = stream.tx.open;
        progress_line_erase(progress.line);
        feed_abandon(stream.tx);
        switch (found) {
        case LINE_STOPPED:
            return OUTCOME_STOPPED;
        case LINE_TOO_LONG:
            return outcome_failed("%s:%" PRIu64 ": the line is longer than %zu MiB: is this a "
                                  "change stream, one JSON object a line?",
                                  name, reader.number + 1, reader.longest / (1024 * 1024));
        case LINE_ERROR:
            return outcome_failed("reading %s: %s", name, strerror(code));
        default:
            if (!was_open)
                return {};
            say_incomplete(stream, name, reader.number);
            return OUTCOME_FAILED;
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
           totals.skipped, fwu_lsn_text(fwu_writer_last_lsn(stream.tx.writer)).c_str());
    if (stream.tx.work.settings.truncate)
        printf("fwlog: %" PRIu64 " texts cut to the length of their items\n",
               stream.tx.work.truncated);
    const feed_marked &marked = totals.marked;
    if (marked != feed_marked())
        printf("fwlog: items marked: %" PRIu64 " cut, %" PRIu64
               " with characters replaced, %" PRIu64 " left blank, %" PRIu64 " not known\n",
               marked.cut, marked.replaced, marked.left_out, marked.unknown);
}

// Tells once that a repair has cut off what an earlier summary had acknowledged.
static bool tell_loss(fwu_writer *writer)
{
    uint64_t acknowledged = 0;
    if (!fwu_writer_lost(writer, &acknowledged))
        return true;
    const std::string end = fwu_lsn_text(fwu_writer_last_lsn(writer));
    tell("warning: the log was cut back to %s, and had been acknowledged up to %s: load "
         "all that came behind %s again, else it is missing (this is told once)",
         end.c_str(), fwu_lsn_text(acknowledged).c_str(), end.c_str());
    return fwu_writer_accept_loss(writer) == 0;
}

static outcome load(const fwlog_load_options &options, int fd, const char *name)
{
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;

    w2j_stream stream;
    stream.tables.config = &config;
    stream.tx.work.settings = {.big_endian = config.big_endian, .truncate = options.truncate};
    stop_signal_install();
    if (fwu_writer_open(&stream.tx.writer, config) != 0)
        return OUTCOME_FAILED;
    if (!tell_loss(stream.tx.writer)) {
        (void)fwu_writer_close(stream.tx.writer); // nothing was written
        return OUTCOME_FAILED;
    }

    stream.tx.work.settings.encoding = fwu_writer_encoding(stream.tx.writer);

    line_reader reader;
    reader.fd = fd;
    bool on_disk = true;
    reader.before_wait = [&] {
        on_disk = on_disk && fwu_writer_settle(stream.tx.writer, false) == 0;
        if (!on_disk)
            return -1;
        fwu_writer_tend(stream.tx.writer);
        const int settle_in = fwu_writer_settle_in(stream.tx.writer);
        const int tend_in = fwu_writer_tend_in(stream.tx.writer);
        return settle_in < 0 ? tend_in : std::min(settle_in, tend_in);
    };
    struct stat about = {};
    load_progress progress;
    progress.line = progress_line_open();
    if (fstat(fd, &about) == 0 && S_ISREG(about.st_mode))
        progress.size = static_cast<uint64_t>(about.st_size);

    outcome done = take_lines(stream, reader, progress, name);
    if (!on_disk)
        done = OUTCOME_FAILED;
    progress_line_erase(progress.line);
    if (done.kind() == OUTCOME_STOPPED)
        tell("stopped by signal %d behind a whole transaction; load the stream again to go on",
             stop_signal_get());
    // The summary acknowledges what was loaded: whoever reads it may throw the stream away.
    if (fwu_writer_sync(stream.tx.writer) != 0 || fwu_writer_acknowledge(stream.tx.writer) != 0)
        done = OUTCOME_FAILED;
    else
        print_summary(stream);
    if (fwu_writer_close(stream.tx.writer) != 0)
        done = OUTCOME_FAILED;
    return done;
}

outcome fwlog_load(const fwlog_load_options &options)
{
    if (options.input == nullptr || strcmp(options.input, "-") == 0)
        return load(options, STDIN_FILENO, "standard input");

    const int fd = open(options.input, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return outcome_failed("cannot open %s: %s", options.input, strerror(errno));
    outcome done = load(options, fd, options.input);
    close(fd);
    return done;
}
