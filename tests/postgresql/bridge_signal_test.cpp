// Signals that do not end the bridge: SIGHUP has it read its configuration again.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

class BridgeSignalTest : public LedgerTest {
  protected:
    // The ledger's configuration with other lines before it; then SIGHUP, and what is said.
    void reload(const std::string &lines, const std::string &said)
    {
        configure(lines + ledger_cfg);
        bridge.signal(SIGHUP);
        EXPECT_TRUE(bridge_says(said)) << said;
    }
    void insert_many(int first, int n)
    {
        for (int id = first; id < first + n; id++)
            insert(id);
        wait_for_row(first + n - 1);
    }
    size_t log_files() const
    {
        size_t n = 0;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            n += entry.path().extension() == ".log" ? 1 : 0;
        return n;
    }
};

TEST_F(BridgeSignalTest, TheConfigurationIsReadAgainWhereThatIsSafe)
{
    configure(ledger_cfg);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    for (const int number : {SIGUSR2, SIGUSR1, SIGUSR2})
        bridge.signal(number);
    ASSERT_NO_FATAL_FAILURE(insert(1));
    wait_for_row(1);
    EXPECT_EQ(log_files(), 1U);

    reload("", "fwutil.cfg was read again: nothing has changed\n");
    // An error leaves the old one whole: the good line before it does not count either.
    reload("log-file-size 4K\nsync sometimes\n",
           "fwlog: the configuration has an error, and the one before stays in force as a whole; "
           "correct it and send SIGHUP again\n");
    EXPECT_THAT(bridge.err(), HasSubstr("fwutil.cfg:4: sync takes the word"));
    configure(ledger_cfg); // for the test's own look at the log
    insert_many(2, 60);
    EXPECT_EQ(log_files(), 1U);

    reload("log-file-size   4K # small\nsync interval 10\nvalues mark\nlog-keep 7d\n",
           "fwutil.cfg was read again: log-file-size, log-keep, sync from now on; values from the "
           "next start "
           "on\n");
    insert_many(62, 60);
    EXPECT_GT(log_files(), 1U);
    // What counts as logged does not go back while the bridge runs.
    reload("log-file-size 4K\nsync none\nvalues mark\nlog-keep 7d\n",
           "fwutil.cfg was read again: sync from the next start on\n");
    EXPECT_EQ(bridge.end(SIGTERM), 143) << bridge.err();
}

// However often it is told otherwise.
TEST_F(BridgeSignalTest, ALogThatNeverSyncsStaysSoUntilTheNextStart)
{
    configure(std::string("sync none\n") + ledger_cfg);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    reload("sync commit\n", "fwutil.cfg was read again: sync from the next start on\n");
    reload("sync interval 10\nlog-keep 7d\n",
           "fwutil.cfg was read again: log-keep from now on; sync from the next start on\n");
    EXPECT_EQ(bridge.end(SIGTERM), 143) << bridge.err();
}

// While the server is not there.
TEST_F(BridgeSignalTest, ABridgeThatWaitsForItsServerReadsItToo)
{
    configure(ledger_cfg);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    server->stop();
    EXPECT_TRUE(poll_until([&] { return status_member("state") == "waiting"; }));
    for (const int number : {SIGUSR2, SIGUSR1})
        bridge.signal(number);
    reload("log-file-size 8K\n", "fwutil.cfg was read again: log-file-size from now on\n");
    server->start();
    EXPECT_EQ(bridge.end(SIGTERM), 143) << bridge.err();
}
