// The asking side of requests: a run that names tables while another process has the log.
#ifndef FEED_POSTGRESQL_RESUME_H
#define FEED_POSTGRESQL_RESUME_H

#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// The process that has a log open for writing.
struct pgr_holder {
    bool known = false; // the directory has been that of a log, and could be looked at
    bool held = false;
    pid_t pid = 0; // 0: of another machine, or another one's view of processes
    mode_t mode = 0600;
    uid_t owner = 0; // of the log
    gid_t group = 0;
};

// Never to be called by a process that has the log: it would lose it.
pgr_holder pgr_find_holder(const std::string &directory);

// How long it is waited for what.
struct pgr_patience {
    int64_t answer_ms = 10'000; // the first answer, and that somebody goes on where a bridge ended
    int64_t server_ms = 30'000; // the first answer of one that may be in the middle of connecting
    int64_t news_ms = 60'000;   // then it is told what is waited for, again and again
};

// Asks the process that has the log in a directory to take tables in (as pgr_table_name takes
// them, or PGR_ALL), and waits until that is done, telling what becomes of each; state_path is
// the state file of such a process.  Fails where it was refused one, or does not answer;
// OUTCOME_STOPPED by a signal, which the other process does not see.
outcome pgr_resume(const std::string &directory, const std::string &state_path,
                   const std::vector<const char *> &tables, const pgr_patience &patience = {});

#endif
