// The cursor stays at the beginning of the line, so that a message of the log
// writer, which does not know of this line, begins there and not behind it.
#include "tools/load_progress.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

static constexpr int64_t INTERVAL_MS = 250;

static int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void load_progress_show(load_progress &progress, const fwlog_totals &totals, uint64_t bytes)
{
    if (!progress.on_terminal)
        return;
    const int64_t now = now_ms();
    if (now < progress.next_ms)
        return;
    progress.next_ms = now + INTERVAL_MS;
    progress.shown = true;

    const double megabytes = static_cast<double>(bytes) / 1e6;
    fprintf(stderr, "fwlog: %" PRIu64 " transactions, %" PRIu64 " changes, %.1f MB",
            totals.transactions, totals.inserts + totals.updates + totals.deletes, megabytes);
    if (progress.size > 0)
        fprintf(stderr, ", %.0f %%",
                100 * static_cast<double>(bytes) / static_cast<double>(progress.size));
    fputs("\033[K\r", stderr);
    fflush(stderr);
}

void load_progress_erase(load_progress &progress)
{
    if (!progress.shown)
        return;
    fputs("\033[K", stderr);
    fflush(stderr);
    progress.shown = false;
}
