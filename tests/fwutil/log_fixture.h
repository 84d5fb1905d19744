// A log of a test's own: a configuration, a writer, what was written as a plain
// list, and runs of Fwu_process whose records are collected.
#ifndef TESTS_FWUTIL_LOG_FIXTURE_H
#define TESTS_FWUTIL_LOG_FIXTURE_H

#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/golden.h"
#include "tests/support/log_header.h"
#include "tests/support/tempdir.h"

#include <functional>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

// A record as the callback saw it, or as it was written.
struct seen {
    std::string dbname, dsetname;
    int32_t logtime = 0, opcode = 0, recnum = 0;
    std::string before, after;
    bool operator==(const seen &) const = default;
};
std::ostream &operator<<(std::ostream &out, const seen &record);

struct run_outcome {
    int result = 0;
    std::string err;
    std::vector<seen> records;
};

class log_test : public ::testing::Test {
  protected:
    log_test();
    ~log_test() override;

    // Rewrites the configuration; lines follow the log-directory line.
    void configure(const std::string &lines);
    void open_writer();
    void close_writer();

    // A change of the first dataset: NO I 4, TEXT X 12.
    seen insert(int32_t number) const;
    seen update(int32_t number) const;
    seen erase(int32_t number) const;

    // Appends one transaction and notes its records in written.
    void add(std::vector<seen> changes, const fwu_session *session = nullptr);
    int put(const seen &change, size_t dataset = 0);
    int commit();

    // A log of two files: records 1 to 3 in two transactions, then 4 and 5.
    void two_files();

    run_outcome run(const char *start = nullptr);
    std::string file(int32_t sequence, int32_t generation = 1) const;
    std::string log_file_bytes(int32_t sequence) const;
    std::vector<seen> written_from(size_t first, size_t last = SIZE_MAX) const;

    tempdir dir;
    std::string cfg = dir.file("fwutil.cfg");
    std::string status = dir.file("fwutil.status");
    std::string log = dir.file("log");
    fwu_config config;
    fwu_writer *writer = nullptr;
    std::vector<seen> written;
    uint64_t commits = 0;
    // Called for each record delivered by run; its result is the callback's.
    std::function<int(const seen &)> on_record;
};

// What a statement prints on standard error.
std::string stderr_of(const std::function<void()> &statement);

#endif
