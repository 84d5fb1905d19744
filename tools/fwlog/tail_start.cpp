// Counts backwards, file by file, until there are enough.
#include "tools/fwlog/tail_start.h"

#include "fwutil/fwu_wait.h"

#include <algorithm>
#include <vector>

// Counts the transactions of one file; FWU_END when it was read to its end.
static fwu_found count_file(fwu_cursor &cursor, const fwu_log_file &file, uint64_t &transactions)
{
    transactions = 0;
    fwu_found found = fwu_log_open(cursor, file);
    while (found == FWU_FOUND && fwu_stop == 0) {
        found = fwu_cursor_next(cursor);
        transactions += found == FWU_FOUND ? 1 : 0;
    }
    return found;
}

// As fwlog_tail_open, but FWU_GONE: look again.
static fwlog_tail_start find_last(fwu_log &log, uint64_t asked)
{
    std::vector<fwu_log_file> files;
    fwlog_tail_start last;
    if (fwu_log_list(log.directory, files) != 0) {
        last.found = FWU_FAILED;
        return last;
    }
    last.found = files.empty() ? FWU_END : FWU_FOUND;
    uint64_t counted = 0;
    bool damaged = false;
    size_t first = files.size();
    do {
        if (first == 0)
            break;
        uint64_t transactions = 0;
        const fwu_found found = count_file(log.cursor, files[--first], transactions);
        if (found == FWU_FAILED || found == FWU_GONE) {
            last.found = found;
            return last;
        }
        const bool newest = first + 1 == files.size();
        if (found == FWU_DAMAGED && !newest) {
            fwu_log_damage(log.cursor);
            last.found = FWU_DAMAGED;
            first++;
            break;
        }
        counted += transactions;
        damaged = damaged || found == FWU_DAMAGED;
    } while (counted < asked);
    last.skip = counted - std::min(asked, counted);
    // What is damaged in the newest file is reported when reading gets there.
    last.wanted = damaged ? UINT64_MAX : counted - last.skip;
    if (first < files.size()) {
        const fwu_found opened = fwu_log_open(log.cursor, files[first]);
        if (opened != FWU_FOUND)
            last.found = opened;
    }
    return last;
}

fwlog_tail_start fwlog_tail_open(fwu_log &log, uint64_t asked)
{
    fwlog_tail_start last;
    do
        last = find_last(log, asked);
    while (last.found == FWU_GONE);
    return last;
}
