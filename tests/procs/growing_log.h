// A forward log that a process of its own appends to while a test runs.
#ifndef TESTS_PROCS_GROWING_LOG_H
#define TESTS_PROCS_GROWING_LOG_H

#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

// The one dataset: a number and a text.
inline fwu_layout counter_layout()
{
    fwu_layout layout;
    layout.dbname = "TESTDB";
    layout.dsetname = "COUNTER";
    layout.items = {{"NUMBER", 'I', 4, 1, 0}, {"TEXT", 'X', 20, 1, 0}};
    return layout;
}

inline void write_config(const tempdir &dir, const std::string &file_size)
{
    write_file(dir.file("fwutil.cfg"), "log-directory log\nlog-file-size " + file_size + "\n");
}

// Appends one transaction of n inserts whose numbers begin with first.
inline bool append_transaction(fwu_writer *writer, int first, int n)
{
    const fwu_layout layout = counter_layout();
    if (fwu_writer_begin(writer, nullptr) != 0)
        return false;
    for (int i = 0; i < n; i++) {
        char image[24];
        const int32_t number = first + i;
        memcpy(image, &number, sizeof number);
        memcpy(image + 4, "abcdefghijklmnopqrst", 20);
        if (fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000, sizeof image, nullptr,
                              image) != 0)
            return false;
    }
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = static_cast<uint64_t>(first) + 1;
    return fwu_writer_commit(writer, commit) == 0;
}

#endif
