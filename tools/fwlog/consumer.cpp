// Writing, listening and waiting are one loop: a consumer may write acknowledgements before it
// reads on, or read to the end before it writes any.  What it has written counts however it or this
// program ends; a line without its end may be half a position and does not.
//
// An acknowledgement says that the consumer keeps what it has done by itself: so the place in the
// file counts on any boot of the system.
#include "tools/fwlog/consumer.h"

#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_error.h"
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/following.h"
#include "tools/fwlog/log_directory.h"
#include "tools/fwlog/selection.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <unistd.h>

constexpr int LOOK_AFTER_MS = 1000; // at the state file, and for file systems that tell nothing
constexpr int LOOK_WITHOUT_WATCH_MS = 200;
constexpr int PATIENCE_MS = 1000;    // behind a signal, with a consumer that takes nothing
constexpr int TELL_AFTER_MS = 10000; // what the end of the run waits for
constexpr size_t READ_SIZE = 65536;
constexpr size_t PIPE_MAX_SIZE = 16 * READ_SIZE; // more than a pipe holds is not waited for
constexpr size_t LINE_MAX_SIZE = 64;             // bytes, more than any position has

static constexpr fwu_start_options START_OPTIONS = {.file = "--from", .entry = "--after"};

fwlog_state_options fwlog_state;

fwlog_consumer::fwlog_consumer() = default;

fwlog_consumer::~fwlog_consumer()
{
    if (acknowledges)
        (void)sigaction(SIGPIPE, &pipe_before, nullptr);
    fwu_status_close(state);
}

static outcome force(fwlog_consumer &c)
{
    c.looked_ms = fwu_monotonic_ms();
    return fwlog_told(fwu_status_force(c.state, std::string(FWU_BOOT_ANY), "") == 0);
}

// Takes the place that counts from the state file and sees that the log has it.
static outcome take_place(fwlog_consumer &c)
{
    const fwu_status_text &found = c.state.found;
    if (found.have_synced && !found.synced.mark.empty())
        return outcome_failed("%s: it is the status file of a program that keeps more in it than "
                              "its position; name another file with --state",
                              c.state.path.c_str());
    const bool live = found.fresh || fwu_status_live_counts(found, fwu_boot());
    const fwu_place place = live ? found.live : found.synced.place;
    c.state.place = place;
    if (!live)
        fwu_warn("%s: its last position does not count: going on behind the one before it that is "
                 "known to be on disk, %s",
                 c.state.path.c_str(),
                 fwu_place_named(place) ? fwu_position_text(place.position).c_str() : "none");
    if (fwu_place_named(place)) {
        const std::string what = c.state.path + ": position " + fwu_position_text(place.position);
        if (fwu_place_check(c.state.log_directory, place, what, START_OPTIONS) != 0)
            return OUTCOME_FAILED;
    }
    fwlog_selected.after = place.position;
    fwlog_outstanding_begin(c.outstanding, place, place.position);
    return force(c);
}

// A start position stands in for what the file says, which stays there until there is something
// better to say.
static void override_place(fwlog_consumer &c)
{
    const fwu_status_text &found = c.state.overridden;
    const fwlog_selection &selected = fwlog_selected;
    fwu_position behind = selected.after;
    if (selected.from.tag > 0)
        behind = {selected.from.generation, selected.from.sequence, selected.from.tag - 1};
    fwlog_outstanding_begin(c.outstanding, {}, behind);
    if (found.have_live && fwu_place_named(found.live))
        fwu_warn("%s: its position %s is passed over: %s is given", c.state.path.c_str(),
                 fwu_position_text(found.live.position).c_str(),
                 selected.after.sequence != 0 ? "--after" : "--from");
}

outcome fwlog_consumer_open(fwlog_consumer &c, const char *cfg)
{
    fwu_config config;
    if (fwu_config_read(config, cfg) != 0)
        return OUTCOME_FAILED;
    std::string directory;
    if (outcome found = fwlog_log_directory(config, directory); !found)
        return found;
    const bool given = fwlog_selected.after.sequence != 0 || fwlog_selected.from.sequence != 0;
    if (fwu_status_open(c.state, fwlog_state.file, directory, given) != 0)
        return OUTCOME_FAILED;
    if (given)
        override_place(c);
    else if (outcome taken = take_place(c); !taken)
        return taken;
    c.acknowledges = fwlog_state.acknowledge;
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    if (c.acknowledges) // what the consumer has written is read first
        (void)sigaction(SIGPIPE, &ignored, &c.pipe_before);
    return {};
}

// Keeps how far all is dealt with.
static outcome keep(fwlog_consumer &c)
{
    if (c.outstanding.dealt == c.state.place)
        return {};
    if (fwu_status_acknowledge(c.state, c.outstanding.dealt) != 0)
        return OUTCOME_FAILED;
    if (c.state.written)
        return {};
    return force(c);
}

// Once a second the state goes to disk, or is looked at.
static outcome tend(fwlog_consumer &c)
{
    const int64_t now_ms = fwu_monotonic_ms();
    if (now_ms - c.looked_ms < LOOK_AFTER_MS)
        return {};
    c.looked_ms = now_ms;
    if (c.state.unsynced)
        return force(c);
    return fwlog_told(fwu_status_look(c.state) == 0);
}

static std::string shown(std::string_view text)
{
    std::string out;
    dump_text(out, text.substr(0, LINE_MAX_SIZE));
    return out;
}

static outcome take_line(fwlog_consumer &c, std::string_view text)
{
    c.line++;
    fwu_position position;
    if (text.size() > LINE_MAX_SIZE || !fwu_position_parse(text, position) ||
        position.generation == 0 || position.tag == 0)
        return outcome_failed("standard input, line %" PRIu64
                              ": %s is no position of the form 1-25.340",
                              c.line, shown(text).c_str());
    const std::string name = fwu_position_text(position);
    switch (fwlog_outstanding_take(c.outstanding, position)) {
    case FWLOG_ACK_AHEAD:
        return outcome_failed("standard input, line %" PRIu64 ": %s was not written yet; the last "
                              "position that was is %s",
                              c.line, name.c_str(),
                              c.outstanding.there.sequence == 0
                                  ? "none"
                                  : fwu_position_text(c.outstanding.there).c_str());
    case FWLOG_ACK_BACKWARD:
        return outcome_failed("standard input, line %" PRIu64
                              ": %s stands before %s, which was acknowledged already",
                              c.line, name.c_str(), fwu_position_text(c.outstanding.acked).c_str());
    default:
        return {};
    }
}

static outcome take_lines(fwlog_consumer &c)
{
    size_t at = 0;
    for (size_t end = 0; (end = c.input.find('\n', at)) != c.input.npos; at = end + 1)
        if (outcome taken = take_line(c, std::string_view(c.input).substr(at, end - at)); !taken)
            return taken;
    c.input.erase(0, at);
    return c.input.size() > LINE_MAX_SIZE ? take_line(c, c.input) : outcome();
}

// Takes what there is on standard input, which can be read.
static outcome listen(fwlog_consumer &c)
{
    char bytes[READ_SIZE];
    const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return {};
    if (n < 0)
        return outcome_failed("standard input: cannot read it: %s", strerror(errno));
    c.input.append(bytes, static_cast<size_t>(n));
    outcome taken = take_lines(c);
    c.silent = n == 0 || !taken; // behind a wrong line nothing counts
    outcome kept = keep(c);      // what came before a wrong line counts
    return taken ? std::move(kept) : std::move(taken);
}

bool fwlog_consumer_gone(const fwlog_consumer &c)
{
    return c.deaf || c.silent;
}

void fwlog_consumer_line(fwlog_consumer &c, const std::string &text, const change &next,
                         const change_transaction &transaction)
{
    fwlog_outstanding_line(c.outstanding, next.position, transaction, c.written + text.size());
}

outcome fwlog_consumer_end(fwlog_consumer &c, const std::string &text,
                           const change_transaction &transaction)
{
    fwlog_outstanding_end(c.outstanding, transaction, c.written + text.size());
    if (outcome kept = keep(c); !kept)
        return kept;
    return tend(c);
}

// What can be polled for.
enum { OUTPUT, INPUT, WATCH, DESCRIPTORS };
using descriptors = pollfd[DESCRIPTORS];

// Waits until something can be done, or a signal comes; behind one for another time.  0: the
// time is over; -1: errno.
static int wait_for(descriptors &rows, int milliseconds, int behind_signal)
{
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGTERM);
    sigaddset(&both, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &both, &before);
    const int limit = fwu_stop != 0 ? behind_signal : milliseconds;
    const timespec time = {.tv_sec = limit / 1000, .tv_nsec = limit % 1000 * 1'000'000L};
    const int ready = ppoll(rows, DESCRIPTORS, &time, &before);
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    if (ready <= 0)
        for (pollfd &row : rows)
            row.revents = 0;
    return ready;
}

static void set_rows(const fwlog_consumer &c, descriptors &rows, short output, int watch)
{
    rows[OUTPUT] = {.fd = c.deaf ? -1 : STDOUT_FILENO, .events = output, .revents = 0};
    rows[INPUT] = {.fd = c.silent ? -1 : STDIN_FILENO, .events = POLLIN, .revents = 0};
    rows[WATCH] = {.fd = watch, .events = POLLIN, .revents = 0};
}

// Writes part of the text, for which there is room.
static outcome write_part(fwlog_consumer &c, const std::string &text, size_t &at)
{
    // A pipe that has room takes so much without waiting.
    size_t length = std::min<size_t>(text.size() - at, PIPE_BUF);
    if (c.silent) // only the line that is begun
        length = std::min(length, std::min(text.find('\n', at), text.size() - 1) + 1 - at);
    const ssize_t put = write(STDOUT_FILENO, text.data() + at, length);
    if (put < 0 && errno == EPIPE)
        c.deaf = true;
    else if (put < 0 && errno != EINTR && errno != EAGAIN)
        return cli_output_failed();
    if (put <= 0)
        return {};
    at += static_cast<size_t>(put);
    c.inside_line = text[at - 1] != '\n';
    c.written += static_cast<size_t>(put);
    fwlog_outstanding_written(c.outstanding, c.written);
    return {};
}

static outcome write_and_listen(fwlog_consumer &c, const std::string &text)
{
    descriptors rows;
    // Where acknowledgements end, the line that is begun is still written.
    for (size_t at = 0; at < text.size() && !c.deaf && (!c.silent || c.inside_line);) {
        set_rows(c, rows, POLLOUT, -1);
        if (fwu_stop != 0)
            rows[INPUT].fd = -1; // only who reads is waited for
        const int ready = wait_for(rows, c.silent ? PATIENCE_MS : LOOK_AFTER_MS, PATIENCE_MS);
        if (ready == 0 && fwu_stop != 0)
            return fwlog_stopped();
        c.deaf = c.deaf || (ready == 0 && c.silent); // nobody takes the rest of the line
        if (ready < 0 && errno != EINTR)
            return cli_output_failed();
        outcome done;
        if (rows[OUTPUT].revents != 0)
            done = write_part(c, text, at);
        if (done && rows[INPUT].revents != 0)
            done = listen(c);
        if (done)
            done = tend(c);
        if (!done)
            return done;
    }
    return {};
}

// Without acknowledgements whole transactions that were written count as dealt with.
static outcome write_only(fwlog_consumer &c, std::string &text)
{
    const size_t length = text.size();
    if (outcome written = fwlog_write_out(text); !written)
        return written;
    c.written += length;
    fwlog_outstanding_written(c.outstanding, c.written);
    const auto &kept = c.outstanding.kept;
    const size_t ended = kept.size() - (!kept.empty() && !kept.back().ended ? 1 : 0);
    if (ended > 0)
        (void)fwlog_outstanding_take(c.outstanding, kept[ended - 1].commit.position); // it is there
    return keep(c);
}

outcome fwlog_consumer_write(fwlog_consumer &c, std::string &text)
{
    if (!c.acknowledges)
        return write_only(c, text);
    outcome done = write_and_listen(c, text);
    text.clear();
    return done;
}

// Whether the log that is being read is still the one of the state.
static outcome look_at_log(const fwlog_consumer &c, const fwu_log &log)
{
    return fwlog_told(fwu_place_look(c.state.log_directory, log.cursor, c.state.place, c.state.path,
                                     START_OPTIONS) == 0);
}

static outcome wait_only(fwlog_consumer &c, fwu_log &log, fwu_watch &watch)
{
    outcome done = fwlog_wait_for_more(log, watch);
    if (done && log.look)
        done = look_at_log(c, log);
    if (done)
        done = tend(c);
    return done;
}

outcome fwlog_consumer_wait(fwlog_consumer &c, fwu_log &log, fwu_watch &watch)
{
    if (!c.acknowledges)
        return wait_only(c, log, watch);
    descriptors rows;
    bool more = false; // there may be more in the log
    while (!more && !fwlog_consumer_gone(c) && fwu_stop == 0) {
        set_rows(c, rows, 0, watch.fd);
        const int ready = wait_for(rows, watch.fd < 0 ? LOOK_WITHOUT_WATCH_MS : LOOK_AFTER_MS, 0);
        c.deaf = c.deaf || (rows[OUTPUT].revents & POLLERR) != 0;
        const fwu_wake wake =
            rows[WATCH].revents != 0 ? fwu_watch_wait(watch, 0) : FWU_WAKE_TIMEOUT;
        log.look = log.look || ready == 0 || wake == FWU_WAKE_FILE;
        more = ready == 0 || wake == FWU_WAKE_FILE || wake == FWU_WAKE_DATA;
        outcome done;
        if (rows[INPUT].revents != 0)
            done = listen(c);
        if (done && ready == 0)
            done = look_at_log(c, log);
        if (done)
            done = tend(c);
        if (!done)
            return done;
    }
    return {};
}

// Shows the consumer that no more comes.
static void end_output()
{
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nothing < 0)
        return; // it ends with the program then
    (void)dup2(nothing, STDOUT_FILENO);
    close(nothing);
}

// Waits for what is not acknowledged.
static outcome await(fwlog_consumer &c)
{
    descriptors rows;
    end_output();
    c.deaf = true;
    int64_t tell_ms = fwu_monotonic_ms() + TELL_AFTER_MS;
    while (!c.silent && fwlog_outstanding_count(c.outstanding) > 0) {
        set_rows(c, rows, 0, -1);
        (void)wait_for(rows, LOOK_AFTER_MS, 0);
        if (fwu_stop != 0)
            return fwlog_stopped();
        outcome done = rows[INPUT].revents != 0 ? listen(c) : outcome();
        if (done)
            done = tend(c);
        if (!done)
            return done;
        if (fwu_monotonic_ms() < tell_ms)
            continue;
        tell("waiting for %" PRIu64 " transactions to be acknowledged on standard input",
             fwlog_outstanding_count(c.outstanding));
        tell_ms = INT64_MAX;
    }
    const uint64_t left = fwlog_outstanding_count(c.outstanding);
    if (left == 0)
        return {};
    return outcome_failed("standard input has ended without acknowledging all that was written: "
                          "%" PRIu64 " of the transactions come again at the next start",
                          left);
}

// Takes what the consumer has written so far; the run ends for another reason.
static void take_what_is_there(fwlog_consumer &c)
{
    descriptors rows;
    outcome done;
    for (size_t most = PIPE_MAX_SIZE; most > 0 && done && !c.silent; most -= READ_SIZE) {
        set_rows(c, rows, 0, -1);
        (void)wait_for(rows, 0, 0);
        if (rows[INPUT].revents == 0)
            break;
        done = listen(c);
    }
}

outcome fwlog_consumer_close(fwlog_consumer &c, outcome done)
{
    if (c.acknowledges && done)
        done = await(c);
    if (c.acknowledges && !done)
        take_what_is_there(c);
    if (!c.state.unsynced)
        return done;
    outcome forced = force(c);
    return done ? std::move(forced) : std::move(done);
}
