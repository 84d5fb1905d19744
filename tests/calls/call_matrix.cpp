// Which blows there are, and which of them are dealt.
#include "tests/calls/call_matrix.h"

#include "tests/support/blow_list.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>
#include <optional>

static size_t most_blows(size_t few)
{
    const char *word = getenv("KESTRO_SYSTEM_CALLS");
    if (word == nullptr)
        return few;
    return std::string(word) == "all" ? SIZE_MAX : strtoul(word, nullptr, 10);
}

static blow_list kept_list(const std::string &operation)
{
    const char *name = getenv("KESTRO_SYSTEM_CALLS_DONE");
    return {name == nullptr ? "" : name, operation};
}

// What tells blows apart from one run of the test to the next: "openat log/source #2: EIO".
static std::string kind_of(const traced_call &call)
{
    return call.row->name + (call.file.empty() ? "" : " " + call.file) + " #";
}

static std::string name_of(const struck_call &struck)
{
    return kind_of(struck.call()) + std::to_string(struck.place.nth) + ": " + struck.what.text();
}

// The blow of a name; its call is the last one of its kind where the calls wander and this run had
// fewer of them.  No value: it had none.
static std::optional<struck_call> find_blow(const traced_run &undisturbed, const std::string &name)
{
    std::optional<struck_call> found;
    for (size_t i = 0; i < undisturbed.calls.size(); i++) {
        const traced_call &call = undisturbed.calls[i];
        const std::string kind = kind_of(call);
        if (!name.starts_with(kind))
            continue;
        char *end = nullptr;
        const size_t nth = strtoul(name.c_str() + kind.size(), &end, 10);
        for (const blow &what : blows_of(*call.row))
            if (": " + what.text() == end)
                found.emplace(struck_call{undisturbed, i + 1, what, {call.row, call.file, nth}});
        if (undisturbed.place_of(i + 1).nth == nth)
            break;
    }
    return found;
}

static std::vector<struck_call> all_blows(const traced_run &undisturbed)
{
    std::vector<struck_call> all;
    for (size_t i = 0; i < undisturbed.calls.size(); i++)
        for (const blow &what : undisturbed.calls[i].blows())
            all.push_back({undisturbed, i + 1, what, undisturbed.place_of(i + 1)});
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

// A call that was not reached may be so the next time.
static traced_run deal(const matrix_operation &operation, const struck_call &struck)
{
    if (operation.run_at == nullptr)
        return operation.run(struck.number, struck.what);
    traced_run run;
    for (int i = 0; i < 3 && run.struck == 0; i++)
        run = operation.run_at(struck.place, struck.what);
    return run;
}

static void expect_survives(const matrix_operation &operation, const struck_call &struck,
                            const traced_run &run)
{
    ASSERT_NE(run.struck, 0U) << "the calls differ from those of the undisturbed run";
    // Lengths may differ: a state file has times and process ids.
    const traced_call &reached = run.calls[run.struck - 1];
    EXPECT_TRUE(reached.row == struck.call().row && reached.file == struck.call().file)
        << reached.text();
    EXPECT_EQ(run.status == 128 + SIGKILL, struck.what.kills()) << run.status;
    operation.look(struck, run);
}

static int failures()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

void expect_survives_blows(const matrix_operation &operation)
{
    if (!can_trace())
        GTEST_SKIP() << "processes cannot be traced here";
    blow_list list = kept_list(operation.name);
    if (list.complete()) {
        std::cout << list.summary() << " (done before)\n";
        return;
    }
    const traced_run undisturbed = operation.run(0, {});
    ASSERT_FALSE(undisturbed.calls.empty());
    const std::vector<struck_call> all = all_blows(undisturbed);
    std::vector<std::string> names;
    for (const struck_call &struck : chosen(all, most_blows(operation.few)))
        names.push_back(name_of(struck));
    list.plan(std::to_string(undisturbed.calls.size()) + " system calls", all.size(), names);
    const std::vector<std::string> due = list.due();
    size_t missed = 0;
    for (const std::string &name : due) {
        const std::optional<struck_call> struck = find_blow(undisturbed, name);
        ASSERT_TRUE(struck || operation.run_at != nullptr) << name << " is not there any more";
        SCOPED_TRACE(
            operation.name + ", " + name +
            (struck ? ", call " + std::to_string(struck->number) + ", " + struck->call().text()
                    : ""));
        const traced_run run = struck ? deal(operation, *struck) : traced_run();
        const bool reached = run.struck != 0 || operation.run_at == nullptr;
        const int before = failures();
        if (reached)
            expect_survives(operation, *struck, run);
        else
            missed++;
        if (failures() == before)
            list.note(name, reached);
    }
    EXPECT_LE(missed, 1 + due.size() / 10);
    std::cout << list.summary() << "\n";
}
