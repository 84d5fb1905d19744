// Written text is written whole as long as somebody takes it, however the program is stopped.
#include "tools/fwlog/following.h"

#include "util/cli.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <poll.h>
#include <unistd.h>

constexpr int LOOK_AFTER_MS = 1000;   // for file systems that do not tell of changes
constexpr timespec PATIENCE = {1, 0}; // behind a signal, with a reader that takes nothing

outcome fwlog_stopped()
{
    stop_signal_note(fwu_stop);
    return OUTCOME_STOPPED;
}

outcome fwlog_write_out(std::string &text)
{
    if (text.empty())
        return {};
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGTERM);
    sigaddset(&both, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &both, &before);
    outcome result;
    for (size_t at = 0; at < text.size() && result;) {
        pollfd room = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        const int ready = ppoll(&room, 1, fwu_stop != 0 ? &PATIENCE : nullptr, &before);
        if (ready == 0)
            result = fwlog_stopped();
        else if (ready < 0 && errno != EINTR)
            result = cli_output_failed();
        if (ready <= 0)
            continue;
        // A pipe that has room takes so much without waiting.
        const size_t length = std::min<size_t>(text.size() - at, PIPE_BUF);
        const ssize_t put = write(STDOUT_FILENO, text.data() + at, length);
        if (put >= 0)
            at += static_cast<size_t>(put);
        else if (errno != EINTR && errno != EAGAIN)
            result = cli_output_failed();
    }
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    text.clear();
    return result;
}

// Whether the reader of standard output, a pipe, is still there.
static bool reader_gone()
{
    pollfd out = {.fd = STDOUT_FILENO, .events = 0, .revents = 0};
    return poll(&out, 1, 0) > 0 && (out.revents & POLLERR) != 0;
}

outcome fwlog_wait_for_more(fwu_log &log, fwu_watch &watch)
{
    const fwu_wake wake = fwu_watch_wait(watch, LOOK_AFTER_MS);
    log.look = log.look || wake != FWU_WAKE_DATA;
    if (wake != FWU_WAKE_TIMEOUT || !reader_gone())
        return {};
    (void)raise(SIGPIPE); // as the next write would; where that is ignored, an error
    errno = EPIPE;
    return cli_output_failed();
}
