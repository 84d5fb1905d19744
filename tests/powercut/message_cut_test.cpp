// Power cuts under a writer of a message file.  What was brought to the disk is there
// after the repair, record by record; what comes behind is gone or comes again.
#include "msgfile/tmf.h"
#include "tests/powercut/numbered.h"
#include "tests/powercut/numbered_messages.h"
#include "tests/powercut/power_disk.h"
#include "tests/support/run.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr uint32_t BETWEEN_SYNCS = 200; // records
constexpr uint32_t UNTIL_REST = 300;
constexpr uint32_t MOST = 3000; // in a file; then it is made anew

static size_t length_of(uint32_t number)
{
    return 24 + number * 7919U % 3000;
}

// Numbers of the records of a file.
static std::vector<uint32_t> numbers_in(const std::string &path)
{
    std::vector<uint32_t> numbers;
    std::vector<std::string> records;
    add_messages(records, path);
    for (const std::string &data : records) {
        numbers.push_back(number_in(data, data.size()));
        if (numbers.back() == 0 || data.size() != length_of(numbers.back()))
            throw std::runtime_error("record of other bytes behind " +
                                     std::to_string(numbers.size()));
    }
    return numbers;
}

static bool bring_to_disk(tmf_handle *h, const std::string &folder)
{
    int32_t fd = -1;
    if (tmf_getinfo(h, TMF_INFO_DESCRIPTOR, &fd, 0) != 0 || fdatasync(fd) != 0)
        return false;
    const int at = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool done = at >= 0 && fsync(at) == 0;
    close(at);
    return done;
}

// Appends records from first on until it is killed, or gets an error.
static void write_on(const std::string &path, const std::string &folder, uint32_t first,
                     bool to_rest, progress &told)
{
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    if (h == nullptr)
        _exit(1);
    for (uint32_t number = first;; number++) {
        const std::string text = numbered_text(number, length_of(number));
        if (tmf_fwrite(h, text.data(), static_cast<int>(text.size())) != 0)
            _exit(1);
        told.made = number;
        const bool rest = to_rest && number == first + UNTIL_REST;
        if (rest || number % BETWEEN_SYNCS == 0) {
            int32_t end = 0;
            tmf_finfo(h, TMF_FINFO_RECORD_END, &end, sizeof end);
            if (!bring_to_disk(h, folder))
                _exit(1);
            told.mark = static_cast<uint64_t>(end) << 32 | number;
        }
        told.rests = rest;
        while (rest)
            pause();
    }
}

class MessagePowerCut : public ::testing::TestWithParam<bool> {};

TEST_P(MessagePowerCut, WhatWasOnTheDiskIsThereAndNothingElse)
{
    const bool at_rest = GetParam();
    power_disk disk;
    if (!disk.problem().empty())
        GTEST_SKIP() << disk.problem();
    std::mt19937 random(31);
    const std::string path = disk.file("queue");
    shared_progress told;
    uint32_t acknowledged = 0;
    uint32_t kept = 0;
    uint32_t lost = 0;
    int damaged = 0;
    const auto telling = [&] { return kept + acknowledged > 0 && (at_rest || lost > 0); };
    for (int cut = 1; another_cut(cut, telling()); cut++) {
        SCOPED_TRACE("cut " + std::to_string(cut));
        told->rests = false;
        const pid_t writer = fork();
        if (writer == 0)
            write_on(path, disk.file("."), acknowledged + 1, at_rest, *told);
        // Where the writer is so slow that it gets to no sync, it has more and more time.
        const unsigned patience = telling() ? 0 : static_cast<unsigned>(cut);
        for (unsigned times = random() % 8 + patience; times > 0; times--) {
            usleep(static_cast<useconds_t>(random() % 8000));
            disk.write_back_some(random);
        }
        if (at_rest) {
            ASSERT_TRUE(poll_until([&] { return told->rests.load(); }));
        }
        const uint64_t mark = told->mark;
        disk.cut();
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        disk.boot();
        acknowledged = static_cast<uint32_t>(mark);
        const int end = mark == 0 ? 4352 : static_cast<int>(mark >> 32);

        // How much of it is there, before anything is done about it.
        tmf_check_result result = {};
        const bool exists = tmf_check(path.c_str(), &result) == 0;
        ASSERT_TRUE(exists || acknowledged == 0);
        lost += told->made - static_cast<uint32_t>(result.records);
        damaged += result.found != 0 ? 1 : 0;

        if (exists) {
            ASSERT_EQ(tmf_repair(path.c_str(), end, disk.file("aside").c_str(), &result), 0);
        }
        const std::vector<uint32_t> numbers = numbers_in(path);
        EXPECT_EQ(gap_in(numbers), "");
        ASSERT_EQ(numbers.size(), acknowledged);
        told->made = acknowledged;
        told->mark = mark;
        if (exists) {
            ASSERT_EQ(tmf_check(path.c_str(), &result), 0);
            ASSERT_EQ(result.found, 0);
        }
        if (acknowledged > MOST) {
            kept += acknowledged;
            ASSERT_EQ(unlink(path.c_str()), 0);
            acknowledged = 0;
            told->made = 0;
            told->mark = 0;
        }
        disk.write_back_all();
    }
    kept += acknowledged;
    printf("%d cuts: %u records said to be on the disk; %u others lost, %d files damaged\n",
           power_cuts(), kept, lost, damaged);
    EXPECT_GT(kept, 0U);
    EXPECT_TRUE(at_rest || lost > 0) << "the cuts take nothing away";
}

INSTANTIATE_TEST_SUITE_P(Each, MessagePowerCut, ::testing::Bool(), [](const auto &p) {
    return std::string(p.param ? "AtRest" : "UnderLoad");
});
