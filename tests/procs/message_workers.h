// Processes that use a message file, what they write into it, and the board in
// shared memory on which they keep what they have written and read.
#ifndef TESTS_PROCS_MESSAGE_WORKERS_H
#define TESTS_PROCS_MESSAGE_WORKERS_H

#include "msgfile/tmf.h"
#include "tests/msgfile/other_process.h"
#include "tests/procs/call_hooks.h"
#include "tests/support/shared_memory.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// ---- processes

// One step of a process with the handle that its steps use.
using deed = std::function<int(tmf_handle *&)>;

deed opens(const std::string &path, int mode); // the code when it fails
deed writes(const std::string &data);
deed reads(int flags); // the length of the record read
deed writes_batch(const std::vector<std::string> &records);
deed reads_batch(int count, int flags); // the number of records read
deed closes();

// What a step gives that does not end within a minute, and one that kills its
// process.
constexpr int NO_ANSWER = 1000000;
constexpr int DIED = 1000001;

// A process whose steps wait for datagrams without a time limit.  It ends with
// its test at the latest.
class user_process {
  public:
    explicit user_process(const std::vector<deed> &steps);

    // Runs the next step.
    int run();
    // Begins the next step.
    void begin();
    // The result of the step begun.
    int result();
    // Whether the step begun has ended; false while the process is in it.
    bool has_ended() const;
    // The signal that has ended the process; 0 while it lives, -1 for an exit.
    int ended_by() const;
    // Ends the process with no chance to clean up; on return it holds no lock.
    void kill();
    pid_t pid() const
    {
        return process_.pid();
    }

  private:
    shared_memory<std::atomic<int>> ended_; // steps
    other_process process_;
    int begun_ = 0;
};

// ---- files

// Makes the file, with no user, its reader slots on UDP ports that no other test
// uses as long as this program runs: two programs that wait on one port would
// each have to look for another.
void make_message_file(const std::string &path);

// ---- messages

// A record says who wrote it and what number it has among the writer's; the rest
// of its data and its length follow from those.
struct message {
    uint32_t writer;
    uint32_t sequence;
};
constexpr int LONGEST_MESSAGE = 8000;
std::string message_data(const message &m);
// False for data that is no message's.
bool parse_message(const char *data, int length, message *m);

// ---- the board

constexpr uint32_t MAX_WRITERS = 1000;
constexpr uint32_t MAX_SEQUENCE = 20000;
constexpr int MAX_WORKERS = 8;

struct message_board {
    // Per process: steps forward, and what it is just doing.
    struct {
        std::atomic<uint32_t> progress;
        std::atomic<uint32_t> writer; // as which it writes
        std::atomic<bool> in_library;
        std::atomic<bool> in_read;
    } workers[MAX_WORKERS];
    // Per writer: its newest record whose tmf_fwrite has returned, and the newest
    // that a reader has put on the board.
    std::atomic<uint32_t> acknowledged[MAX_WRITERS];
    std::atomic<uint32_t> newest_read[MAX_WRITERS];
    // Per writer and record: how often it was read.
    std::atomic<uint8_t> deliveries[MAX_WRITERS][MAX_SEQUENCE + 1];
    std::atomic<uint32_t> writers; // numbers given out
    std::atomic<uint32_t> ready;   // processes that have come to where the test wants all
    std::atomic<bool> stop;
    call_counts calls;
};

// Writes one message and puts it on the board.  0, or what tmf_fwrite gave.
int write_message(message_board &board, int worker, tmf_handle *h, const message &m);

// Reads one message and puts it on the board.  1, 0 at the end of the file, or
// negative when the read failed or the record is not the one to come; then it
// has said so on standard error.
int read_message(message_board &board, int worker, tmf_handle *h, int flags, message *m);

#endif
