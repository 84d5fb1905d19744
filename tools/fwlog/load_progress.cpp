// The cursor stays at the beginning of the line, so that a message of the log
// writer, which does not know of this line, begins there and not behind it.
#include "tools/fwlog/load_progress.h"

#include "fwutil/fwu_clock.h"

#include <cinttypes>
#include <cstdio>

static constexpr int64_t INTERVAL_MS = 250;

void load_progress_show(load_progress &progress, const feed_totals &totals, uint64_t bytes)
{
    if (!progress.on_terminal)
        return;
    const int64_t now = fwu_monotonic_ms();
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
