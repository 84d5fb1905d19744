// Transactions, changes and bytes of the input so far.
#include "tools/fwlog/load_progress.h"

#include <cinttypes>
#include <cstdio>

void load_progress_show(load_progress &progress, const feed_totals &totals, uint64_t bytes)
{
    if (!progress_line_due(progress.line))
        return;
    const double megabytes = static_cast<double>(bytes) / 1e6;
    char text[160];
    const int length =
        snprintf(text, sizeof text, "%" PRIu64 " transactions, %" PRIu64 " changes, %.1f MB",
                 totals.transactions, totals.inserts + totals.updates + totals.deletes, megabytes);
    if (progress.size > 0)
        (void)snprintf(text + length, sizeof text - static_cast<size_t>(length), ", %.0f %%",
                       100 * static_cast<double>(bytes) / static_cast<double>(progress.size));
    progress_line_show(progress.line, text);
}
