// The line on a terminal that tells how far a load has come.
#ifndef TOOLS_FWLOG_LOAD_PROGRESS_H
#define TOOLS_FWLOG_LOAD_PROGRESS_H

#include "feed/transaction.h"

#include <cstdint>

struct load_progress {
    bool on_terminal = false;
    uint64_t size = 0; // of the input in bytes, 0 when it is not known
    int64_t next_ms = 0;
    bool shown = false;
};

// Shows the state, about four times a second.
void load_progress_show(load_progress &progress, const feed_totals &totals, uint64_t bytes);

// Takes the line away, before anything else is printed.
void load_progress_erase(load_progress &progress);

#endif
