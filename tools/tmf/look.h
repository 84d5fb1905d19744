// What the bytes and locks of a message file say, read without being a user of
// it: nothing is registered, locked or changed, and nothing that stands in the
// file is believed before it is checked.
#ifndef TOOLS_TMF_LOOK_H
#define TOOLS_TMF_LOOK_H

#include "msgfile/tmf_layout.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

enum tmft_lock {
    TMFT_LOCK_FREE,
    TMFT_LOCK_HELD,
    TMFT_LOCK_UNKNOWN, // the slot is no place in the lock area, or the test failed
};

// A slot that the file's bit map calls taken.
struct tmft_user {
    int slot = 0;
    int64_t pid = 0; // that stands in the slot, 0 for none
    tmft_lock lock = TMFT_LOCK_UNKNOWN;
    pid_t holder = 0; // of the lock; 0 when the system does not tell
};

struct tmft_facts {
    tmf_common common = {};   // in this host's order
    bool other_order = false; // of the file's numbers
    int64_t size = 0;         // of the file in bytes
    bool common_locked = false;
    pid_t common_holder = 0; // as in tmft_user
    std::vector<tmft_user> readers;
    std::vector<tmft_user> writers;
    std::vector<std::string> damage; // what contradicts itself, in words
};

// Bit i of a map of the common area.
bool tmft_bit(const unsigned char *map, int i);

// Reader or writer slots of a file that says it has so many: no more than the map has
// bits for.
int tmft_slots(int stated, int most);

// The port that reader slot i is woken on.
int tmft_port(const tmf_common &common, int i);

// Fills facts.  OUTCOME_BAD when the file cannot be read or is not a message file.
outcome tmft_look(tmft_facts &facts, const char *path);

// The same of an open file; its size also when it fails.
outcome tmft_look_at(int fd, tmft_facts &facts);

#endif
