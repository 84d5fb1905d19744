// Text capture files.  A record is as long as its header and its layout say, with a line end
// behind it: texts of a -dirty file may hold line ends.
#include "tools/capread/capread.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

constexpr size_t FIRST_SIZE = size_t{256} * 1024;

struct text_input {
    capread_run &run;
    int fd = -1;
    bool regular = false;
    std::vector<char> buffer = std::vector<char>(FIRST_SIZE);
    size_t begin = 0;    // of the bytes that are not taken yet
    size_t end = 0;      // of the bytes read
    uint64_t offset = 0; // in the file, of the record in hand
    bool ended = false;
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

// Nothing more is in the file.
static outcome at_end(text_input &in)
{
    struct stat about;
    if (fstat(in.fd, &about) != 0)
        return failed(in);
    if (in.regular && static_cast<uint64_t>(about.st_size) < in.offset + waiting(in).size())
        return outcome_failed("%s: it has become shorter, %lld bytes", in.run.file,
                              static_cast<long long>(about.st_size));
    in.ended = !in.run.follow || !in.regular;
    if (in.ended)
        return {};
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

// Where a line ends too early that has so many bytes, of a file whose lines hold no line ends;
// npos: it does not.
static size_t early_end(const text_input &in, size_t length)
{
    return in.run.record.layouts.form.dirty ? std::string_view::npos
                                            : waiting(in).substr(0, length).find('\n');
}

// Reads until so many bytes of a line, and some behind them, wait, or it is known to be shorter.
static outcome need(text_input &in, size_t length, size_t behind)
{
    outcome done;
    while (done && !in.ended && waiting(in).size() < length + behind &&
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

static outcome step(text_input &in, bool &more)
{
    rec_record &record = in.run.record;
    const size_t head = record.header.length;
    in.run.number++;
    if (outcome done = need(in, head, 0); !done)
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
    const size_t length = record.length;
    if (outcome done = need(in, length, 1); !done)
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
    in.fd =
        strcmp(in.run.file, "-") == 0 ? dup(STDIN_FILENO) : open(in.run.file, O_RDONLY | O_CLOEXEC);
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
