// The line on a terminal that tells how far a load has come.
#ifndef TOOLS_FWLOG_LOAD_PROGRESS_H
#define TOOLS_FWLOG_LOAD_PROGRESS_H

#include "feed/transaction.h"
#include "util/progress_line.h"

#include <cstdint>

struct load_progress {
    progress_line line;
    uint64_t size = 0; // of the input in bytes, 0 when it is not known
};

// Shows the state where that is due.
void load_progress_show(load_progress &progress, const feed_totals &totals, uint64_t bytes);

#endif
