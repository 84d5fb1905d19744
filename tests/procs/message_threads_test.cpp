// Threads on different files in several processes.  The system looks for deadlocks
// by process: one whose threads wait for one file and hold another looks like one.
#include "tests/procs/message_workers.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <thread>

constexpr int PROCESSES = 2;
constexpr int FILES = 2;
constexpr int RECORDS = 20000; // of each thread

struct write_counts {
    std::atomic<int> ready;
    std::atomic<int> failed;
    std::atomic<int> last_code;
};

static void write_all(tmf_handle *h, write_counts &counts)
{
    counts.ready++;
    while (counts.ready < PROCESSES * FILES)
        std::this_thread::yield();
    for (int i = 0; i < RECORDS; i++) {
        const int code = tmf_fwrite(h, "record", 6);
        if (code != 0) {
            counts.failed++;
            counts.last_code = code;
        }
    }
}

TEST(MessageThreads, EachOnAFileOfItsOwnNeverFailInSeveralProcesses)
{
    const tempdir dir;
    const std::string paths[FILES] = {dir.file("a"), dir.file("b")};
    for (const std::string &path : paths)
        make_message_file(path);
    const shared_memory<write_counts> counts;
    std::vector<std::unique_ptr<user_process>> processes;
    for (int i = 0; i < PROCESSES; i++) {
        processes.push_back(std::make_unique<user_process>(std::vector<deed>{[&](tmf_handle *&) {
            std::vector<tmf_handle *> handles;
            std::vector<std::thread> threads;
            for (const std::string &path : paths)
                handles.push_back(tmf_fopen(path.c_str(), 0));
            for (tmf_handle *h : handles)
                threads.emplace_back([h, &counts] { write_all(h, *counts); });
            for (std::thread &thread : threads)
                thread.join();
            int code = 0;
            for (tmf_handle *h : handles)
                code |= tmf_fclose(h);
            return code;
        }}));
        processes.back()->begin();
    }
    for (const auto &process : processes)
        EXPECT_EQ(process->result(), 0);
    EXPECT_EQ(counts->failed, 0) << "of " << PROCESSES * FILES * RECORDS
                                 << " writes, the last with " << counts->last_code;
    for (const std::string &path : paths) {
        tmf_check_result result;
        EXPECT_EQ(tmf_check(path.c_str(), &result), 0);
        EXPECT_EQ(result.found, 0);
        EXPECT_EQ(result.records, PROCESSES * RECORDS);
    }
}
