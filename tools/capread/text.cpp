// Text capture files.  A record is as long as its header and its layout say, with a line end
// behind it: texts of a -dirty file may hold line ends.  A file that is followed may be moved away
// or emptied meanwhile, as log files are.
#include "tools/capread/capread.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

constexpr size_t FIRST_SIZE = size_t{256} * 1024;
constexpr size_t LONGEST_LINE = size_t{4} * 1024 * 1024; // more than two rows of any layout have

struct text_input {
    capread_run &run;
    int fd = -1;
    bool regular = false;
    std::vector<char> buffer = std::vector<char>(FIRST_SIZE);
    size_t begin = 0;    // of the bytes that are not taken yet
    size_t end = 0;      // of the bytes read
    uint64_t offset = 0; // in the file, of the record in hand
    bool ended = false;
    bool leaving = false; // another file has the name by now: this one is read to its end
    bool anew = false;    // what waits is the beginning of a file
};

static outcome failed(const text_input &in)
{
    return outcome_failed("%s: %s", in.run.file, strerror(errno));
}

static outcome bad(const text_input &in, outcome &&done)
{
    if (done.kind() != OUTCOME_BAD)
        return std::move(done);
    return capread_at(in.run, std::move(done).at("at byte " + std::to_string(in.offset) + ": "));
}

static std::string_view waiting(const text_input &in)
{
    return {in.buffer.data() + in.begin, in.end - in.begin};
}

static void begin_anew(text_input &in)
{
    in.begin = in.end = 0;
    in.offset = 0;
    in.run.number = 0;
    in.leaving = false;
    in.anew = true;
}

static bool is_stdin(const capread_run &run)
{
    return strcmp(run.file, "-") == 0;
}

// Whether another file has the name, and something in it.  The writer has left this one then: a
// file that is only made (logrotate does it) may come before its last lines.
static bool is_replaced(const text_input &in, const struct stat &about)
{
    struct stat named;
    return !is_stdin(in.run) && stat(in.run.file, &named) == 0 && S_ISREG(named.st_mode) &&
           named.st_size > 0 && (named.st_dev != about.st_dev || named.st_ino != about.st_ino);
}

// Goes on with the file of the name.
static outcome change_file(text_input &in)
{
    const int fd = open(in.run.file, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return failed(in);
    if (!waiting(in).empty())
        tell("%s: the file that had this name ends within a line, behind %zu bytes; going on with "
             "the one that has it now",
             in.run.file, waiting(in).size());
    (void)close(in.fd); // nothing was written to it
    in.fd = fd;
    begin_anew(in);
    return {};
}

static outcome become_shorter(text_input &in, off_t size)
{
    if (!in.run.follow)
        return outcome_failed("%s: it has become shorter, %lld bytes", in.run.file,
                              static_cast<long long>(size));
    tell("%s: it has become shorter, %lld bytes: going on with its beginning", in.run.file,
         static_cast<long long>(size));
    if (lseek(in.fd, 0, SEEK_SET) != 0)
        return failed(in);
    begin_anew(in);
    return {};
}

// Nothing more is in the file.
static outcome at_end(text_input &in)
{
    struct stat about;
    if (fstat(in.fd, &about) != 0)
        return failed(in);
    if (in.regular && static_cast<uint64_t>(about.st_size) < in.offset + waiting(in).size())
        return become_shorter(in, about.st_size);
    in.ended = !in.run.follow || !in.regular;
    if (in.ended)
        return {};
    if (in.leaving)
        return change_file(in);
    in.leaving = is_replaced(in, about);
    if (in.leaving)
        return {}; // what came before it was looked for
    outcome done = capread_flush(in.run.output);
    return done ? capread_pause() : std::move(done);
}

// Reads more behind what is there, which moves to the buffer's front.
static outcome fill(text_input &in)
{
    if (in.begin > 0)
        memmove(in.buffer.data(), in.buffer.data() + in.begin, in.end - in.begin);
    in.end -= in.begin;
    in.begin = 0;
    if (in.end == in.buffer.size())
        in.buffer.resize(2 * in.buffer.size());
    if (!in.regular && stop_signal_wait(in.fd, 0) == STOP_TIMEOUT) {
        if (outcome done = capread_flush(in.run.output); !done) // a pipe lets wait
            return done;
        (void)stop_signal_wait(in.fd, -1); // a failure comes again when it is read
    }
    if (stop_signal_get() != 0)
        return OUTCOME_STOPPED;
    const ssize_t got = read(in.fd, in.buffer.data() + in.end, in.buffer.size() - in.end);
    if (got < 0)
        return errno == EINTR || errno == EAGAIN ? outcome() : failed(in);
    in.end += static_cast<size_t>(got);
    return got == 0 ? at_end(in) : outcome();
}

// Where a line ends too early that has so many bytes, of a file whose columns hold no line ends;
// npos: it does not.
static size_t early_end(const text_input &in, size_t length)
{
    const std::string_view line = waiting(in).substr(0, length);
    if (in.run.record.layouts.form.dirty || line.find('\n') == line.npos)
        return line.npos;
    const rec_header &header = in.run.record.header;
    const size_t found = rec_header_line_end(header, line);
    return found != line.npos ? found : line.find('\n', header.length);
}

// Reads until so many bytes of a line, and some behind them, wait, or it is known to be shorter,
// or another file begins.
static outcome need(text_input &in, size_t length, size_t behind)
{
    outcome done;
    while (done && !in.ended && !in.anew && waiting(in).size() < length + behind &&
           early_end(in, length) == std::string_view::npos)
        done = fill(in);
    return done;
}

static outcome too_short(const text_input &in, size_t found, const std::string &wanted)
{
    return bad(in,
               outcome_bad("the line has " + std::to_string(found) + " bytes, where " + wanted));
}

// The file ends within a record: what a writer left that was killed, or is about to end.
static outcome torn(const text_input &in)
{
    return bad(in, outcome_bad("the file ends within the line, behind " +
                               std::to_string(waiting(in).size()) +
                               " bytes; the records before it are whole"));
}

// Passes over a record up to its line's end: its columns hold none.
static outcome pass_line(text_input &in)
{
    size_t found = std::string_view::npos;
    for (size_t from = in.run.record.header.length;;) {
        found = waiting(in).find('\n', from);
        if (found != std::string_view::npos)
            break;
        from = waiting(in).size();
        if (in.ended)
            return torn(in);
        if (from > LONGEST_LINE)
            return bad(
                in, outcome_bad("the line does not end within " + std::to_string(from) + " bytes"));
        if (outcome done = fill(in); !done || in.anew)
            return done;
    }
    in.begin += found + 1;
    in.offset += found + 1;
    return {};
}

static outcome step(text_input &in, bool &more)
{
    rec_record &record = in.run.record;
    const size_t head = record.header.length;
    in.run.number++;
    in.anew = false;
    if (outcome done = need(in, head, 0); !done || in.anew)
        return done;
    more = !waiting(in).empty();
    if (!more)
        return {};
    if (const size_t found = early_end(in, head); found != std::string_view::npos)
        return too_short(in, found, "these options have a header of " + std::to_string(head));
    if (waiting(in).size() < head)
        return torn(in);
    if (outcome done = rec_record_begin(record, waiting(in)); !done)
        return bad(in, std::move(done));
    if (record.dataset == nullptr)
        return pass_line(in);
    const size_t length = record.length;
    if (outcome done = need(in, length, 1); !done || in.anew)
        return done;
    const std::string wanted =
        "one of " + rec_record_name(record) + " has " + std::to_string(length);
    if (const size_t found = early_end(in, length); found != std::string_view::npos)
        return too_short(in, found, wanted);
    if (waiting(in).size() <= length)
        return torn(in);
    if (waiting(in)[length] != '\n')
        return bad(in, outcome_bad("the line does not end where " + wanted + " bytes"));
    if (outcome done = rec_record_take(record, waiting(in).substr(0, length)); !done)
        return bad(in, std::move(done));
    in.begin += length + 1;
    in.offset += length + 1;
    return capread_put(in.run);
}

static outcome open_file(text_input &in)
{
    struct stat about;
    in.fd = is_stdin(in.run) ? dup(STDIN_FILENO) : open(in.run.file, O_RDONLY | O_CLOEXEC);
    if (in.fd < 0 && stop_signal_get() != 0) // while a pipe had no writer
        return OUTCOME_STOPPED;
    if (in.fd < 0 || fstat(in.fd, &about) != 0)
        return failed(in);
    in.regular = S_ISREG(about.st_mode);
    return {};
}

outcome capread_text(capread_run &run)
{
    text_input in = {.run = run};
    outcome done = open_file(in);
    for (bool more = true; more && done;) {
        done = step(in, more);
        if (done && stop_signal_get() != 0)
            done = OUTCOME_STOPPED;
    }
    if (in.fd >= 0)
        (void)close(in.fd); // nothing was written to it
    return done;
}
