// Power cuts under the writer of a forward log, with each setting of `sync`.  The next
// writer begins behind the last whole transaction, no acknowledged one is missing, and
// the log has every record up to there once.
#include "tests/powercut/numbered.h"
#include "tests/powercut/numbered_log.h"
#include "tests/powercut/power_disk.h"
#include "tests/support/run.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int UNTIL_REST = 60;   // transactions
constexpr uint32_t MOST = 20000; // records in a log; then it is made anew

// What the writer says is on the disk; with `sync none` that is what it has
// acknowledged when it was asked to.
static void note_acknowledged(fwu_writer *writer, const fwu_config &config, bool ask,
                              progress &told)
{
    if (config.sync != FWU_SYNC_NONE) {
        told.acknowledged = static_cast<uint32_t>(fwu_writer_logged_lsn(writer));
    } else if (ask) {
        const auto last = static_cast<uint32_t>(fwu_writer_last_lsn(writer));
        if (fwu_writer_acknowledge(writer) != 0)
            _exit(1);
        told.acknowledged = last;
    }
}

static void append_on(const std::string &config_file, bool to_rest, progress &told)
{
    fwu_config config;
    if (fwu_config_read(config, config_file.c_str()) != 0)
        _exit(1);
    fwu_writer *writer = open_numbered_log(config_file);
    if (writer == nullptr)
        _exit(1);
    uint32_t last = static_cast<uint32_t>(fwu_writer_last_lsn(writer));
    for (int i = 1;; i++) {
        const uint32_t n = 1 + last % 7;
        const bool rest = to_rest && i == UNTIL_REST;
        if (!append_numbered(writer, last, n) ||
            fwu_writer_settle(writer, !rest && i % 3 != 0) != 0)
            _exit(1);
        last += n;
        told.made = last;
        note_acknowledged(writer, config, i % 20 == 0, told);
        while (rest) {
            const int wait = fwu_writer_settle_in(writer);
            if (wait < 0) {
                note_acknowledged(writer, config, true, told);
                told.rests = true;
                pause();
            }
            usleep(static_cast<useconds_t>(wait) * 1000);
            if (fwu_writer_settle(writer, false) != 0)
                _exit(1);
        }
    }
}

// ---- the cases

struct log_case {
    const char *name;
    const char *sync;
    bool at_rest;
};

static void PrintTo(const log_case &c, std::ostream *out)
{
    *out << c.name;
}

class LogPowerCut : public ::testing::TestWithParam<log_case> {};

TEST_P(LogPowerCut, EveryAcknowledgedTransactionIsThereOnce)
{
    const log_case &c = GetParam();
    power_disk disk;
    if (!disk.problem().empty())
        GTEST_SKIP() << disk.problem();
    std::mt19937 random(17);
    const std::string config_file = disk.file("fwutil.cfg");
    write_file(config_file,
               std::string("log-directory log\nlog-file-size 32K\nsync ") + c.sync + "\n");
    disk.write_back_all();
    shared_progress told;
    uint32_t kept = 0;
    uint32_t lost = 0;
    const auto telling = [&] {
        return kept + told->acknowledged > 0 &&
               (std::string(c.sync) != "none" || c.at_rest || lost > 0);
    };
    for (int cut = 1; another_cut(cut, telling()); cut++) {
        SCOPED_TRACE("cut " + std::to_string(cut));
        told->rests = false;
        const pid_t writer = fork();
        if (writer == 0)
            append_on(config_file, c.at_rest, *told);
        for (auto times = 1 + random() % 6; times > 0; times--) {
            usleep(static_cast<useconds_t>(random() % 8000));
            disk.write_back_some(random);
        }
        if (c.at_rest) {
            ASSERT_TRUE(poll_until([&] { return told->rests.load(); }));
        }
        const uint32_t acknowledged = told->acknowledged;
        disk.cut();
        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);
        disk.boot();

        fwu_writer *next = open_numbered_log(config_file);
        ASSERT_NE(next, nullptr) << "the log cannot be written on";
        const auto last = static_cast<uint32_t>(fwu_writer_last_lsn(next));
        ASSERT_EQ(fwu_writer_close(next), 0);
        const std::vector<uint32_t> numbers = numbers_in_log(disk.file("log"));
        ASSERT_EQ(gap_in(numbers), "");
        ASSERT_EQ(numbers.size(), last);
        ASSERT_GE(last, acknowledged);
        if (c.at_rest) {
            ASSERT_EQ(last, told->made);
        }
        lost += told->made - std::min<uint32_t>(last, told->made);
        for (auto *number : {&told->made, &told->acknowledged})
            *number = last;
        if (last > MOST) {
            kept += last;
            std::filesystem::remove_all(disk.file("log"));
            for (auto *number : {&told->made, &told->acknowledged})
                *number = 0;
        }
        disk.write_back_all();
    }
    kept += told->acknowledged;
    printf("sync %s: %d cuts: %u records in the log; %u that were appended lost\n", c.sync,
           power_cuts(), kept, lost);
    EXPECT_GT(kept, 0U);
    EXPECT_TRUE(std::string(c.sync) != "none" || c.at_rest || lost > 0)
        << "the cuts take nothing away";
}

static const log_case log_cases[] = {{"CommitUnderLoad", "commit", false},
                                     {"CommitAtRest", "commit", true},
                                     {"IntervalUnderLoad", "interval 20", false},
                                     {"IntervalAtRest", "interval 20", true},
                                     {"NoneUnderLoad", "none", false},
                                     {"NoneAtRest", "none", true}};

INSTANTIATE_TEST_SUITE_P(Each, LogPowerCut, ::testing::ValuesIn(log_cases),
                         [](const auto &c) { return std::string(c.param.name); });
