// The progress line.
#include "tools/fwlog/load_progress.h"
#include "util/outcome.h"

#include <gtest/gtest.h>

static const feed_totals totals{.transactions = 12,
                                .inserts = 100,
                                .updates = 20,
                                .deletes = 3,
                                .empty = 0,
                                .skipped = 0,
                                .marked = {}};

static std::string shown(load_progress &progress, uint64_t bytes)
{
    testing::internal::CaptureStderr();
    tell_as("fwlog");
    load_progress_show(progress, totals, bytes);
    return testing::internal::GetCapturedStderr();
}

static std::string erased(load_progress &progress)
{
    testing::internal::CaptureStderr();
    progress_line_erase(progress.line);
    return testing::internal::GetCapturedStderr();
}

TEST(LoadProgress, TellsHowFarTheLoadHasCome)
{
    load_progress progress;
    progress.line.on_terminal = true;
    progress.size = 5'000'000;
    EXPECT_EQ(shown(progress, 1'250'000),
              "fwlog: 12 transactions, 123 changes, 1.2 MB, 25 %\033[K\r");
    EXPECT_EQ(erased(progress), "\033[K");
    EXPECT_EQ(erased(progress), "");
}

TEST(LoadProgress, NoPercentageWhereTheSizeIsNotKnown)
{
    load_progress progress;
    progress.line.on_terminal = true;
    EXPECT_EQ(shown(progress, 7'000'000), "fwlog: 12 transactions, 123 changes, 7.0 MB\033[K\r");
}

TEST(LoadProgress, NothingIsPrintedBeforeTheNextTurn)
{
    load_progress progress;
    progress.line.on_terminal = true;
    progress.line.next_ms = INT64_MAX;
    EXPECT_EQ(shown(progress, 1), "");
}

TEST(LoadProgress, NothingIsPrintedWhereNoTerminalIs)
{
    load_progress progress;
    EXPECT_EQ(shown(progress, 1), "");
    EXPECT_EQ(erased(progress), "");
}
