// Message files, by the library's calls.  Records are kept, and read many at once, or each is
// removed when its lines have been written, so that no more than one can come twice: nobody else
// may read the file meanwhile.  Kept ones cannot be waited for in the library, which waits only
// where it has no first record to give.
#include "msgfile/tmf.h"
#include "tools/capread/capread.h"
#include "util/round_timer.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <utility>

// Of a wait in the library, which a signal may come just before.  A timer ends it, too: the library
// charges no time for wake-ups, and those of another file come whose wait list has this port yet.
constexpr int ROUND_SECONDS = 1;

constexpr int USUAL_LENGTH = 2048; // of a record; the library reads as much as it is asked for
constexpr int BATCH = 256;         // kept records of a call
constexpr int BATCH_ROOM = 131072; // and their data
constexpr off_t SMALLEST = 256;    // a shorter file would be filled up when it is opened

struct message_input {
    capread_run &run;
    tmf_handle *h = nullptr;
    std::vector<char> buffer = {};
    std::vector<tmf_item> batch = {}; // kept records in the buffer
    size_t next = 0;                  // the first of them that was not put yet
    int64_t taken = 0;                // records read, of a file that keeps them
    int32_t there = 0;                // records found, of one that does not, and not removed since
    int usual = USUAL_LENGTH;
};

static outcome failed(const message_input &in, const char *text)
{
    return outcome_failed("%s: %s", in.run.file, text);
}

static outcome failed_call(const message_input &in)
{
    if (stop_signal_get() != 0)
        return OUTCOME_STOPPED;
    char text[TMF_ERRMSG_SIZE];
    return failed(in, tmf_geterrmsg(in.h, text));
}

static outcome check_file(const message_input &in)
{
    struct stat about;
    if (stat(in.run.file, &about) != 0)
        return failed(in, strerror(errno));
    if (!S_ISREG(about.st_mode) || about.st_size < SMALLEST)
        return failed(in, tmf_strerror(TMF_ENOTMSG));
    return {};
}

static outcome count_records(const message_input &in, int32_t &records)
{
    const int code = tmf_getinfo(in.h, TMF_INFO_RECORDS, &records, 0);
    if (code == 0)
        return {};
    if (stop_signal_get() != 0)
        return OUTCOME_STOPPED;
    return failed(in, tmf_strerror(code));
}

static outcome put_record(const message_input &in, std::string_view bytes)
{
    capread_run &run = in.run;
    run.number++;
    if (bytes.size() < run.record.header.length)
        return capread_at(run, outcome_bad("it has " + std::to_string(bytes.size()) +
                                           " bytes, where these options have a header of " +
                                           std::to_string(run.record.header.length)));
    outcome done = rec_record_begin(run.record, bytes);
    if (done && run.record.dataset == nullptr)
        return done;
    if (done)
        done = rec_record_take(run.record, bytes);
    return done ? capread_put(run) : capread_at(run, std::move(done));
}

// Goes on where there is no record; more: something may come.
static outcome at_end(message_input &in, bool &more)
{
    int32_t records = 0;
    if (outcome done = count_records(in, records); !done)
        return done;
    if (records > in.taken) // come meanwhile
        return {};
    more = in.run.follow;
    if (!more)
        return {};
    outcome done = capread_flush(in.run.output);
    return done ? capread_pause() : std::move(done);
}

static outcome keep_step(message_input &in, bool &more)
{
    if (in.next == in.batch.size()) {
        in.batch.resize(BATCH);
        const int got = tmf_fread_many(in.h, in.batch.data(), BATCH, in.buffer.data(),
                                       static_cast<int>(in.buffer.size()), 0);
        in.next = 0;
        in.batch.resize(static_cast<size_t>(std::max(got, 0)));
        if (got < 0)
            return failed_call(in);
        if (got == 0)
            return at_end(in, more);
        in.taken += got;
    }
    const tmf_item &record = in.batch[in.next++];
    return put_record(in,
                      {static_cast<const char *>(record.data), static_cast<size_t>(record.length)});
}

// What is written has to be removed: only a second signal keeps it from that.
static outcome remove_record(message_input &in)
{
    const int flags = TMF_READ_LIMIT | TMF_READ_SIGNAL;
    int code = tmf_fread(in.h, nullptr, 0, flags);
    if (code < 0 && stop_signal_get() != 0)
        code = tmf_fread(in.h, nullptr, 0, flags);
    if (code >= 0)
        return {};
    char text[TMF_ERRMSG_SIZE];
    return outcome_failed("%s: record %llu is written, but may still be in the file: %s",
                          in.run.file, static_cast<unsigned long long>(in.run.number),
                          tmf_geterrmsg(in.h, text));
}

// Reads the first record and leaves it there.  One that may be longer than what was asked for is
// read once more, whole, and those behind it like that at once.
static int peek(message_input &in, int flags)
{
    int got = tmf_freadx(in.h, in.buffer.data(), in.usual, flags, ROUND_SECONDS);
    if (got == in.usual && in.usual < TMF_MAX_DATA) {
        in.usual = TMF_MAX_DATA;
        got = tmf_freadx(in.h, in.buffer.data(), in.usual, flags, ROUND_SECONDS);
    }
    return got;
}

// Waits a round for a first record.  0: there is none yet.
static int wait_and_peek(message_input &in)
{
    round_timer_start(ROUND_SECONDS);
    const int got = peek(in, TMF_READ_KEEP | TMF_READ_WAIT);
    round_timer_stop();
    // The wait for the file's lock is reported so, of an empty file as an internal error.
    const bool over = round_timer_over() && (got == TMF_ELOCK_WAIT || got == TMF_EINTERNAL);
    return over ? 0 : got;
}

static outcome remove_step(message_input &in, bool &more)
{
    if (in.there == 0) {
        if (outcome done = count_records(in, in.there); !done)
            return done;
        more = in.there != 0 || in.run.follow;
        if (!more)
            return {};
    }
    const int got = in.there == 0 ? wait_and_peek(in) : peek(in, TMF_READ_KEEP);
    if (got < 0)
        return failed_call(in);
    if (got == 0 && in.there == 0) // the round is over, or a signal came
        return {};
    if (in.there > 0)
        in.there--;
    outcome done = put_record(in, {in.buffer.data(), static_cast<size_t>(got)});
    if (done)
        done = capread_flush(in.run.output);
    return done ? remove_record(in) : std::move(done);
}

outcome capread_messages(capread_run &run)
{
    message_input in = {.run = run};
    if (outcome done = check_file(in); !done)
        return done;
    const int mode = TMF_MODE_READ | TMF_MODE_EXCLUSIVE | (run.remove ? 0 : TMF_MODE_COPY);
    in.h = tmf_fopen(run.file, mode);
    if (in.h == nullptr)
        return failed_call(in);
    in.buffer.resize(run.remove ? TMF_MAX_DATA : BATCH_ROOM);
    round_timer_install();
    outcome done;
    for (bool more = true; more && done;) {
        done = run.remove ? remove_step(in, more) : keep_step(in, more);
        if (done && stop_signal_get() != 0)
            done = OUTCOME_STOPPED;
    }
    const int code = tmf_fclose(in.h);
    return code == 0 || !done ? std::move(done) : failed(in, tmf_strerror(code));
}
