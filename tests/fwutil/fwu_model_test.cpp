// Random transactions, file sizes, failures and restarts of both sides against a
// plain list of what was committed.
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <iostream>
#include <random>

class ModelTest : public log_test, public testing::WithParamInterface<unsigned> {};

TEST_P(ModelTest, EveryCommittedRecordIsDeliveredOnceAndInOrder)
{
    const system_calls_guard guard;
    const unsigned seed = GetParam() != 0 ? GetParam() : std::random_device()();
    std::cout << "seed " << seed << "\n";
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](unsigned n) { return static_cast<unsigned>(random() % n); };
    std::vector<seen> delivered;
    config.log_file_size = 4096;
    open_writer();
    for (int step = 0; step < 400; step++) {
        if (below(10) == 0) {
            close_writer();
            if (below(2) == 0 && std::filesystem::exists(log + "/fw0001-00000001.log")) {
                // A writer that died in the middle of an append.
                int32_t last = 1;
                while (std::filesystem::exists(file(last + 1)))
                    last++;
                std::string rest(below(200), '\0');
                for (char &c : rest)
                    c = static_cast<char>(below(256));
                write_file(file(last), log_file_bytes(last) + rest);
            }
            config.log_file_size = 1000 + below(20000);
            stderr_of([&] { open_writer(); });
        }
        std::vector<seen> changes;
        for (unsigned n = below(below(10) == 0 ? 400 : 6); n > 0; n--) {
            const auto number = static_cast<int32_t>(below(100000));
            const unsigned kind = below(3);
            changes.push_back(kind == 0   ? insert(number)
                              : kind == 1 ? update(number)
                                          : erase(number));
        }
        fwu_session session;
        session.user = std::string(below(300), 'u');
        const fwu_session *given = below(2) == 0 ? &session : nullptr;
        switch (below(12)) {
        case 0: // the disk fills up
            ASSERT_EQ(fwu_writer_begin(writer, given), 0);
            for (const seen &change : changes)
                ASSERT_EQ(put(change), 0);
            calls.write_room = below(100);
            stderr_of([&] { EXPECT_EQ(commit() == 0, changes.empty()); });
            calls.write_room = -1;
            break;
        case 1:
            ASSERT_EQ(fwu_writer_begin(writer, given), 0);
            for (const seen &change : changes)
                ASSERT_EQ(put(change), 0);
            fwu_writer_rollback(writer);
            break;
        default:
            add(changes, given);
        }
        if (below(8) == 0 && std::filesystem::exists(log)) {
            // A reader that stops anywhere.
            unsigned left = below(4) == 0 ? below(30) + 1 : 0;
            on_record = [&left](const seen &) { return left > 0 && --left == 0 ? -1 : 0; };
            const run_outcome outcome = run();
            ASSERT_TRUE(outcome.result == 0 || outcome.err.empty()) << outcome.err;
            delivered.insert(delivered.end(), outcome.records.begin(), outcome.records.end());
            ASSERT_LE(delivered.size(), written.size());
            ASSERT_TRUE(outcome.result != 0 || delivered.size() == written.size());
        }
    }
    close_writer();
    on_record = nullptr;
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    delivered.insert(delivered.end(), outcome.records.begin(), outcome.records.end());
    ASSERT_EQ(delivered.size(), written.size());
    for (size_t i = 0; i < written.size(); i++)
        ASSERT_EQ(delivered[i], written[i]) << i;
}

// 0: a seed of its own in each run.
INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, testing::Values(1U, 2U, 3U, 0U));
