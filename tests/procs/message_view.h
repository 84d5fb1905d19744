// A message file in use, as a process sees it that is none of its users: its
// bytes and its locks at a moment at which nobody changes it, and what is wrong
// with them.
#ifndef TESTS_PROCS_MESSAGE_VIEW_H
#define TESTS_PROCS_MESSAGE_VIEW_H

#include "msgfile/tmf_layout.h"

#include <string>
#include <sys/types.h>
#include <vector>

constexpr int SLOTS = TMF_MAX_READERS + TMF_MAX_WRITERS;

struct message_view {
    std::string bytes;          // the whole file
    tmf_common common;          // its first bytes
    std::vector<pid_t> holders; // per slot: who has it locked, 0 for nobody
};

// Looks while holding the common area's lock.  The caller must not be a user of
// the file: it would lose its locks.
message_view look(const std::string &path);

// What processes that were killed may have left behind.
struct killed_users {
    std::vector<pid_t> pids;
    // What they were about to append: written, perhaps in part, but not counted.
    std::vector<std::string> records;
};

// Where the bookkeeping does not agree with the records or the locks; empty when
// all is sound.  No dead user may be registered any more.
std::string faults_of(const message_view &view, const killed_users &killed);

// The processes registered, readers first.
std::vector<pid_t> registered(const message_view &view);

// The data of the records in the file, which must be sound.
std::vector<std::string> records_of(const message_view &view);

// Whether the process of reader slot 0 to 15 waits for a wake-up.
bool is_waiting(const std::string &path, int slot);

#endif
