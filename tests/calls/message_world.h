// Message files for processes that are struck down in the middle of a call, and the next
// users that look what is left.
#ifndef TESTS_CALLS_MESSAGE_WORLD_H
#define TESTS_CALLS_MESSAGE_WORLD_H

#include "msgfile/tmf.h"
#include "tests/calls/call_matrix.h"
#include "tests/msgfile/other_process.h"
#include "tests/support/shared_memory.h"
#include "tests/support/tempdir.h"

#include <atomic>
#include <cstdint>
#include <gmock/gmock.h>
#include <memory>
#include <vector>

using lengths = std::vector<int>; // of records, oldest first; a record's data follows from it

enum file_kind {
    NO_FILE,
    EMPTY_FILE,    // no record
    THREE_RECORDS, // of 10, 300 and 20 bytes
    ONE_RECORD,    // of 10
    LONG_FILE,     // the same, in a file that is cut when it becomes empty
    DEAD_USERS,    // three records, a dead reader that waits and a dead writer
    TURNED_FILE,   // three records, in the other byte order
};

std::string data_of(int length);

// Verbs of a handle.
int append_code(tmf_handle *h, int length);
bool append(tmf_handle *h, int length);
int append_many(tmf_handle *h, const lengths &records);
// The length of the record read, 0 or a code; sound: whether it is what was written.
int take(tmf_handle *h, int flags, bool *sound = nullptr);
// Their number, 0 or a code.
int take_many(tmf_handle *h, int count, int flags, bool *sound);
int take_by_time(tmf_handle *h, bool *sound);

struct message_facts {
    int code = 0; // 0: all went well
    int32_t readers = 0;
    int32_t writers = 0;
};

class message_world {
  public:
    tempdir dir;
    std::string path = dir.file("queue");

    // Makes the file anew.
    void renew(file_kind kind) const;
    // Enters a reader that is gone into the wait list, behind the open handle's back.
    void enter_waiting_reader(const tmf_handle *h) const;
    // Where an open of this mode finds its slot; beside: a writer is there already.
    int64_t slot_of(int mode, bool beside) const;
    // Appends a record as a process that comes and goes.
    bool append_elsewhere(int length) const;
    // Opens the file, appends a record and closes it.
    message_facts append_as_next_user(int length) const;
    // Reads all records that there are, without waiting; -1 stands for a record that is not
    // what was written.
    lengths all_records() const;
    // What tmf_check finds, TMF_FOUND_ bits, or a code.
    int faults() const;
};

#endif
