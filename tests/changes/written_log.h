// A forward log of a test's own, written transaction by transaction.
#ifndef TESTS_CHANGES_WRITTEN_LOG_H
#define TESTS_CHANGES_WRITTEN_LOG_H

#include "fwutil/fwu_writer.h"
#include "tests/support/tempdir.h"

#include <initializer_list>
#include <span>
#include <string>

class written_log {
  public:
    // lines: of the configuration, behind log-directory.
    explicit written_log(const std::string &lines = "");
    ~written_log();
    written_log(const written_log &) = delete;
    written_log &operator=(const written_log &) = delete;

    void begin(const fwu_session *session = nullptr);
    // Images are the bytes of the layout; an empty one stands for none.
    void change(int32_t opcode, const fwu_layout &layout, const std::string &before,
                const std::string &after, std::span<const fwu_value> values = {});
    void insert(const fwu_layout &layout, const std::string &after);
    void mark(const fwu_mark &mark);
    // The n-th commit: at n seconds behind 2023-11-14 22:13:20 UTC, xid 100 + n, lsn 16 * n.
    void commit();
    // The next transaction, and only that, begins a new file.
    void new_file();

    tempdir dir;
    std::string cfg = dir.file("fwutil.cfg");
    std::string log = dir.file("log");
    fwu_config config;
    fwu_writer *writer = nullptr;
    uint64_t commits = 0;

  private:
    void reopen(int64_t log_file_size);
    bool file_due = false;
};

// The bytes of a little-endian number of so many bytes.
std::string le(uint64_t number, size_t bytes);

#endif
