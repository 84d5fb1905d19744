// Other processes of a test: record locks are a process's own, so another user
// of a message file, or another holder of a lock, has to be one.
#ifndef TESTS_MSGFILE_OTHER_PROCESS_H
#define TESTS_MSGFILE_OTHER_PROCESS_H

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

// A forked process that runs its steps one by one when it is told to.  A step's
// result is sent back; what a step changes stays in the process.
class other_process {
  public:
    explicit other_process(const std::vector<std::function<int()>> &steps);
    ~other_process(); // kills it
    other_process(const other_process &) = delete;
    other_process &operator=(const other_process &) = delete;

    // Runs the next step and gives its result.
    int run();
    // Begins the next step.
    void start();
    // The result of the step begun, when it has ended; throws when the process is gone.
    int result();
    // Ends the process with no chance to clean up; on return it holds no lock.
    void kill();
    pid_t pid() const
    {
        return pid_;
    }

  private:
    pid_t pid_ = -1;
    int socket_ = -1; // a byte out for each step begun, its result back
};

// Whether a process sleeps in a system call: how to see that it waits.
bool is_asleep(pid_t pid);

// Opens a message file at once, throws when that fails; the next step closes it.
class other_user : public other_process {
  public:
    other_user(const std::string &path, int mode);
    int close()
    {
        return run();
    }
};

// The code with which another process's open fails, 0 when it does not.  It
// closes the file again.
int open_elsewhere(const std::string &path, int mode);

// Locks length bytes at offset without being a user, until it ends; the next
// step unlocks them.
class lock_holder : public other_process {
  public:
    lock_holder(const std::string &path, off_t offset, off_t length);
    int unlock()
    {
        return run();
    }
};

// The process that has a lock on any of these bytes, as another process sees it;
// 0 for none.
pid_t holder_of(const std::string &path, off_t offset, off_t length);

#endif
