// The recorded order-entry stream in a forward log, for tests that capture it.
#ifndef TESTS_ORDERS_ORDERS_FIXTURE_H
#define TESTS_ORDERS_ORDERS_FIXTURE_H

#include "examples/orders/replay.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

inline const std::string example = KESTRO_SOURCE_DIR "/examples/orders";
inline const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";
inline const std::string fwlog = KESTRO_BUILD_DIR "/bin/fwlog";

// Inserts, updates and deletes in the stream.
constexpr int CHANGES = 8431;

// A directory with the example's configuration and its stream in a forward log.
class OrdersTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_file(dir.file("fwutil.cfg"), read_file(example + "/fwutil.cfg"));
        const run_result load =
            run({fwlog, "load", "-cfg", dir.file("fwutil.cfg"), example + "/orders-changes.jsonl"});
        ASSERT_EQ(load.status, 0) << load.err;
    }

    run_result run(const std::vector<std::string> &argv)
    {
        run_setup options;
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}};
        return run_program(argv, options);
    }

    replay open_replay() const
    {
        return replay_open(example + "/fwutil.cfg");
    }

    void compare(replay &state)
    {
        replay_compare(state, example + "/orders-final.csv");
        state.errors.resize(std::min<size_t>(state.errors.size(), 5));
        EXPECT_THAT(state.errors, testing::IsEmpty());
    }

    tempdir dir;
};

#endif
