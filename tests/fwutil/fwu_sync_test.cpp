// When transactions reach the disk, and which of them count as logged.
#include "fwutil/fwu_writer.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

class SyncTest : public log_test {
  protected:
    SyncTest()
    {
        calls.monotonic_ms = 1'000'000;
    }
    // Syncs that a step makes.
    template <typename F> static int syncs(F step)
    {
        const int before = calls.fdatasyncs;
        step();
        return calls.fdatasyncs - before;
    }
    void settle(bool more_waits)
    {
        EXPECT_EQ(fwu_writer_settle(writer, more_waits), 0);
    }
    const system_calls_guard guard;
};

TEST_F(SyncTest, AllCommitsThatWaitShareOneSync)
{
    open_writer();
    EXPECT_EQ(fwu_writer_settle_in(writer), -1) << "nothing is there";
    add({insert(0)}); // its file is on disk before it has a name
    settle(false);
    EXPECT_EQ(syncs([&] {
                  add({insert(1)});
                  settle(true);
                  add({insert(2)});
                  settle(true);
              }),
              0);
    EXPECT_EQ(fwu_writer_settle_in(writer), 0);
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 16U);
    EXPECT_EQ(syncs([&] { settle(false); }), 1);
    EXPECT_EQ(fwu_writer_logged_lsn(writer), fwu_writer_last_lsn(writer));
    EXPECT_EQ(syncs([&] { settle(false); }), 0) << "nothing new";
    EXPECT_EQ(fwu_writer_settle_in(writer), -1);
    close_writer();
}

TEST_F(SyncTest, AStreamThatNeverPausesIsSyncedEverySecond)
{
    open_writer();
    add({insert(1)});
    calls.monotonic_ms += 999;
    EXPECT_EQ(syncs([&] { settle(true); }), 0);
    calls.monotonic_ms += 1;
    EXPECT_EQ(syncs([&] { settle(true); }), 1);
    close_writer();
}

TEST_F(SyncTest, AnIntervalBeginsWithTheFirstCommitThatWaits)
{
    config.sync = FWU_SYNC_INTERVAL;
    config.sync_interval_ms = 250;
    open_writer();
    add({insert(1)});
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U) << "a power cut could still take it";
    EXPECT_EQ(fwu_writer_settle_in(writer), 250);
    calls.monotonic_ms += 200;
    add({insert(2)});
    EXPECT_EQ(fwu_writer_settle_in(writer), 50);
    EXPECT_EQ(syncs([&] { settle(false); }), 0);
    calls.monotonic_ms += 50;
    EXPECT_EQ(fwu_writer_settle_in(writer), 0);
    EXPECT_EQ(syncs([&] { settle(true); }), 1);
    EXPECT_EQ(fwu_writer_logged_lsn(writer), fwu_writer_last_lsn(writer));
    EXPECT_EQ(fwu_writer_settle_in(writer), -1);
    close_writer();
}

// Each new file, before its name, and the one before it, and where that ends.
TEST_F(SyncTest, WithoutSyncOnlyFilesThatAreFullAreBroughtToDisk)
{
    config.sync = FWU_SYNC_NONE;
    config.log_file_size = 4096;
    EXPECT_EQ(syncs([&] {
                  open_writer();
                  for (int n = 1; n < 200; n++) // several files
                      add({insert(n)});
                  calls.monotonic_ms += 1'000'000;
                  settle(false);
                  EXPECT_EQ(fwu_writer_settle_in(writer), -1);
                  EXPECT_EQ(fwu_writer_logged_lsn(writer), fwu_writer_last_lsn(writer));
                  close_writer();
              }),
              19);
    EXPECT_TRUE(std::filesystem::exists(file(7)));
    EXPECT_FALSE(std::filesystem::exists(file(8)));
}

TEST_F(SyncTest, WhatADeadWriterLeftIsSyncedBeforeItCounts)
{
    open_writer();
    add({insert(1)});
    close_writer();
    open_writer();
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U);
    EXPECT_EQ(syncs([&] { settle(false); }), 1);
    EXPECT_EQ(fwu_writer_logged_lsn(writer), fwu_writer_last_lsn(writer));
    close_writer();
}

TEST_F(SyncTest, AFailedSyncIsReportedAndNothingCounts)
{
    open_writer();
    add({insert(1)});
    calls.fail_fdatasync = true;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_settle(writer, false), -1); }),
              "fwutil: " + file(1) + ": cannot bring the log file to disk: Input/output error\n");
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U);
    calls.fail_fdatasync = false;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_sync(writer), -1); }),
              "fwutil: " + file(1) +
                  ": the log file could not be brought to disk before; start anew\n");
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U) << "a later success would tell nothing";
    close_writer();
}

TEST_F(SyncTest, WhatCouldNotBeSyncedIsWrittenAgainByTheNextRun)
{
    open_writer();
    add({insert(1)});
    calls.fail_fdatasync = true;
    EXPECT_EQ(fwu_writer_settle(writer, false), -1);
    close_writer();
    const std::string mark = config.log_directory + "/sync-failed";
    EXPECT_TRUE(std::filesystem::exists(mark));
    const std::string bytes = read_file(file(1));

    // Still failing: nothing may count, and the next run tries again.
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_open(&writer, config), -1); }),
              "fwutil: " + file(1) +
                  ": an earlier run could not bring it to disk: written again\n"
                  "fwutil: " +
                  file(1) + ": cannot bring the log file to disk: Input/output error\n");
    EXPECT_TRUE(std::filesystem::exists(mark));

    calls.fail_fdatasync = false;
    std::filesystem::last_write_time(file(1), std::filesystem::file_time_type());
    open_writer();
    EXPECT_NE(fwu_writer_logged_lsn(writer), 0U);
    EXPECT_FALSE(std::filesystem::exists(mark));
    EXPECT_EQ(read_file(file(1)), bytes);
    EXPECT_NE(std::filesystem::last_write_time(file(1)), std::filesystem::file_time_type())
        << "it was not written";
    close_writer();
    open_writer();
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U) << "not again";
    close_writer();
}
