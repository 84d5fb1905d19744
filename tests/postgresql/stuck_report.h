// What everybody waits for, when a case with a live server does not come to its end.
#ifndef TESTS_POSTGRESQL_STUCK_REPORT_H
#define TESTS_POSTGRESQL_STUCK_REPORT_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// This process and all below it, a line each: number, state, system call, where it waits in the
// kernel, command line.
std::string processes_report();

// Prints the report on standard error once a time has passed, and lets the case go on.
class stuck_report {
  public:
    explicit stuck_report(int seconds);
    ~stuck_report();
    stuck_report(const stuck_report &) = delete;
    stuck_report &operator=(const stuck_report &) = delete;

  private:
    std::mutex mutex;
    std::condition_variable over;
    bool ended = false;
    std::thread watch;
};

#endif
