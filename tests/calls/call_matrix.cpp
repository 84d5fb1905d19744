// Which blows there are, which of them are dealt, and what is kept of operations done.
#include "tests/calls/call_matrix.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>

static size_t most_blows(size_t few)
{
    const char *word = getenv("KESTRO_SYSTEM_CALLS");
    if (word == nullptr)
        return few;
    return std::string(word) == "all" ? SIZE_MAX : strtoul(word, nullptr, 10);
}

static std::string done_file()
{
    const char *name = getenv("KESTRO_SYSTEM_CALLS_DONE");
    return name == nullptr ? "" : name;
}

// The line that was kept of an operation; empty for none.
static std::string kept_line(const std::string &name)
{
    std::ifstream lines(done_file());
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(name + ": "))
            return line;
    return "";
}

static std::vector<struck_call> all_blows(const traced_run &undisturbed)
{
    std::vector<struck_call> all;
    for (size_t i = 0; i < undisturbed.calls.size(); i++)
        for (const blow &what : undisturbed.calls[i].blows())
            all.push_back({undisturbed, i + 1, what});
    return all;
}

// Some of them, from all over; a step aside each time, or they would all be of one kind.
static std::vector<struck_call> chosen(const std::vector<struck_call> &all, size_t most)
{
    std::vector<struck_call> some;
    const size_t number = std::min(all.size(), most);
    const size_t aside = number == all.size() ? 1 : 3;
    for (size_t i = 0; i < number; i++)
        some.push_back(all[(i * all.size() / number + i % aside) % all.size()]);
    return some;
}

void expect_survives_blows(const matrix_operation &operation)
{
    if (!can_trace())
        GTEST_SKIP() << "processes cannot be traced here";
    const std::string kept = kept_line(operation.name);
    if (!kept.empty()) {
        std::cout << kept << " (done before)\n";
        return;
    }
    const traced_run undisturbed = operation.run(0, {});
    ASSERT_FALSE(undisturbed.calls.empty());
    const std::vector<struck_call> all = all_blows(undisturbed);
    const std::vector<struck_call> dealt = chosen(all, most_blows(operation.few));
    size_t missed = 0;
    for (const struck_call &struck : dealt) {
        SCOPED_TRACE(operation.name + ", call " + std::to_string(struck.number) + ", " +
                     struck.call().text() + ": " + struck.what.text());
        const traced_run run = operation.run(struck.number, struck.what);
        if (run.struck == 0 && operation.wanders) {
            missed++;
            continue;
        }
        ASSERT_NE(run.struck, 0U) << "the calls differ from those of the undisturbed run";
        // Lengths may differ: a state file has times and process ids.
        const traced_call &reached = run.calls[run.struck - 1];
        EXPECT_TRUE(reached.row == struck.call().row && reached.file == struck.call().file)
            << reached.text();
        EXPECT_EQ(run.status == 128 + SIGKILL, struck.what.kills()) << run.status;
        operation.look(struck, run);
    }
    const std::string line = operation.name + ": " + std::to_string(undisturbed.calls.size()) +
                             " system calls, " + std::to_string(dealt.size()) + " of " +
                             std::to_string(all.size()) + " blows" +
                             (missed == 0 ? "" : ", " + std::to_string(missed) + " not reached");
    EXPECT_LE(missed, 1 + dealt.size() / 10);
    std::cout << line << "\n";
    if (!done_file().empty() && !testing::Test::HasFailure())
        std::ofstream(done_file(), std::ios::app) << line << "\n";
}
