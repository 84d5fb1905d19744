// What a log holds: the source positions of its commits.
#ifndef TESTS_TOOLS_FWLOG_COMMIT_LSNS_H
#define TESTS_TOOLS_FWLOG_COMMIT_LSNS_H

#include "fwutil/fwu_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// In their order; the log must be readable.
inline std::vector<uint64_t> commit_lsns(const std::string &directory)
{
    std::vector<uint64_t> found;
    fwu_commit_entry commit;
    EXPECT_EQ(fwu_log_walk(directory,
                           [&](const fwu_walk_item &item) {
                               if (item.what == FWU_WALK_ENTRY &&
                                   fwu_entry_commit(item.entry, commit))
                                   found.push_back(commit.commit.lsn);
                               return 0;
                           }),
              0);
    return found;
}

#endif
