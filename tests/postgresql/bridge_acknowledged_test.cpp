// "fwlog postgresql" and a log that lacks what the server was told: it is refused until the
// remedy that the message names has been carried out, and then goes on.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/pg_proxy.h"

#include <algorithm>
#include <filesystem>

using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

// What has happened to the last log file.
enum harm { BYTE_CHANGED, FILE_MISSING, FILE_OLDER };

class BridgeAcknowledgedTest : public LedgerTest {
  protected:
    // Rows 1 to 60 in files of 30 each, 61 to 65 in the last one, and a copy of it all.
    void begin()
    {
        configure(std::string("log-file-size 4K\n") + ledger_cfg);
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        insert_many(1, 30);
        insert_many(31, 60);
        for (int id = 61; id <= 65; id++) {
            insert(id);
            ASSERT_EQ(catch_up().status, 0);
            if (id == 63)
                older = read_file(last_file());
        }
        whole = read_file(last_file());
        fs::copy(dir.file("log"), dir.file("copy"));
    }

    void insert_many(int first, int last) const
    {
        sql("INSERT INTO load.ledger SELECT n, 0, 1, 'row', NULL FROM generate_series(" +
            std::to_string(first) + ", " + std::to_string(last) + ") n");
        ASSERT_EQ(catch_up().status, 0);
    }

    std::string last_file() const
    {
        std::string last;
        for (const auto &entry : fs::directory_iterator(dir.file("log")))
            if (entry.path().filename().string().starts_with("fw"))
                last = std::max(last, entry.path().string());
        return last;
    }

    void do_harm(harm what)
    {
        const std::string last = last_file();
        std::string bytes = whole;
        switch (what) {
        case BYTE_CHANGED: // in the last commit entry
            bytes[bytes.size() - 20] ^= 1;
            write_file(last, bytes);
            break;
        case FILE_MISSING:
            fs::remove(last);
            break;
        case FILE_OLDER:
            write_file(last, older);
            break;
        }
    }

    void expect_refused() const
    {
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr("it was acknowledged up to position "));
        EXPECT_THAT(result.err, HasSubstr("restore the log from a copy"));
        EXPECT_THAT(result.err, HasSubstr("fwlog repair --accept-loss"));
    }

    // The ids that the log has of 61 and more, "61 62 ".
    std::string late_ids() const
    {
        std::string ids;
        const std::string text = dump();
        for (size_t at = 0; (at = text.find("after ID=", at)) != std::string::npos;) {
            at += 9;
            const std::string id = text.substr(at, text.find(' ', at) - at);
            if (atoi(id.c_str()) > 60)
                ids += id + " ";
        }
        return ids;
    }

    void expect_refused_until_restored(harm what)
    {
        ASSERT_NO_FATAL_FAILURE(begin());
        do_harm(what);
        insert(66);
        expect_refused();
        EXPECT_EQ(fwlog({"load", "/dev/null"}).status, 1);
        expect_refused(); // still
        fs::copy(dir.file("copy"), dir.file("log"),
                 fs::copy_options::overwrite_existing | fs::copy_options::recursive);
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(late_ids(), "61 62 63 64 65 66 ");
        EXPECT_EQ(fwlog({"verify"}).status, 0);
    }

    // What is lost is at least said.
    void expect_refused_until_the_loss_is_accepted(const std::string &left)
    {
        ASSERT_NO_FATAL_FAILURE(begin());
        do_harm(BYTE_CHANGED);
        insert(66);
        expect_refused();
        EXPECT_EQ(fwlog({"repair"}).status, 1);
        run_result result = fwlog({"repair", "--accept-loss"});
        ASSERT_EQ(result.status, 0) << result.err;
        for (int run = 0; run < 2; run++) {
            result = catch_up();
            EXPECT_EQ(result.status, 1) << result.err;
            EXPECT_THAT(result.err, HasSubstr("what the server was told up to "));
            EXPECT_THAT(result.err, HasSubstr("go on as it is with --accept-gap"));
        }
        result = catch_up({"--accept-gap"});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(late_ids(), left + "66 ");
        insert(67);
        result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.err, Not(HasSubstr("--accept-gap")));
        EXPECT_EQ(late_ids(), left + "66 67 ");
        EXPECT_EQ(fwlog({"verify"}).status, 0);
    }

    // Position of the log's last commit.
    std::string last_commit() const
    {
        const std::string text = fwlog({"dump"}).out;
        const size_t at = text.rfind(" lsn ") + 5;
        return text.substr(at, text.find(',', at) - at);
    }

    void expect_the_next_run_acknowledges_first(const std::string &settings)
    {
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        insert_many(60, 60);
        configure(std::string("sync interval 3600000\n") + ledger_cfg);
        start_bridge();
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        const std::string before = read_file(dir.file("log/acknowledged"));
        insert(61);
        ASSERT_NO_FATAL_FAILURE(wait_for_row(61));
        bridge.end(SIGKILL);
        ASSERT_EQ(read_file(dir.file("log/acknowledged")), before);
        configure(settings + ledger_cfg);
        whole = read_file(last_file());
        // The stream begins, and brings nothing.
        constexpr size_t answer_to_start = 8;
        pg_proxy proxy(server->socket());
        proxy.silence_at("START_REPLICATION", answer_to_start);
        start_bridge({"--conninfo", proxy.conninfo(database)});
        std::string told;
        ASSERT_TRUE(poll_until([&] {
            told =
                value("SELECT confirmed_flush_lsn FROM pg_replication_slots WHERE slot_name = '" +
                      database + "'");
            return told == last_commit();
        })) << told
            << " of " << last_commit() << bridge.err();
        bridge.end(SIGKILL);
        EXPECT_THAT(fwlog({"info"}).out, HasSubstr(", source " + told + ", committed "));
        do_harm(BYTE_CHANGED);
        expect_refused();
    }

    std::string whole; // the last file
    std::string older; // the same, two transactions before
};

TEST_F(BridgeAcknowledgedTest, ByteChangedInTheLastCommitThenRestored)
{
    expect_refused_until_restored(BYTE_CHANGED);
}

TEST_F(BridgeAcknowledgedTest, LastFileMissingThenRestored)
{
    expect_refused_until_restored(FILE_MISSING);
}

TEST_F(BridgeAcknowledgedTest, LastFileOlderThenRestored)
{
    expect_refused_until_restored(FILE_OLDER);
}

TEST_F(BridgeAcknowledgedTest, ByteChangedInTheLastCommitThenAccepted)
{
    expect_refused_until_the_loss_is_accepted("61 62 63 64 ");
}

TEST_F(BridgeAcknowledgedTest, ANewLogAfterALoss)
{
    ASSERT_NO_FATAL_FAILURE(begin());
    do_harm(BYTE_CHANGED);
    expect_refused();
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    write_file(dir.file("fwutil.cfg"),
               std::string("log-directory newlog\nbyte-order little\n") + ledger_cfg);
    const run_result result = catch_up({"--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.err;
    expect_log_equals_tables();
}

TEST_F(BridgeAcknowledgedTest, WhatTheServerIsToldIsAcknowledgedWhateverSyncSays)
{
    configure(std::string("sync none\n") + ledger_cfg);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(61);
    start_bridge();
    ASSERT_NO_FATAL_FAILURE(wait_for_row(61));
    const std::string position = value("SELECT pg_current_wal_flush_lsn()");
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT confirmed_flush_lsn >= '" + position +
                     "' FROM pg_replication_slots WHERE slot_name = '" + database + "'") == "t";
    }));
    bridge.end(SIGKILL);
    whole = read_file(last_file());
    do_harm(BYTE_CHANGED);
    expect_refused();
}

TEST_F(BridgeAcknowledgedTest, WhatARunBeforeLeftIsAcknowledgedBeforeItIsTold)
{
    expect_the_next_run_acknowledges_first("");
}

TEST_F(BridgeAcknowledgedTest, WhatARunBeforeLeftUnsyncedIsAcknowledgedBeforeItIsTold)
{
    expect_the_next_run_acknowledges_first("sync none\n");
}

TEST_F(BridgeAcknowledgedTest, AcknowledgedThatCannotBeWrittenAtTheEndIsAnError)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    ASSERT_EQ(catch_up().status, 0);
    // Another process has the slot while the file is put out of the way.
    run_setup elsewhere = options;
    elsewhere.directory = dir.file("other");
    fs::create_directory(elsewhere.directory);
    fs::copy(dir.file("log"), dir.file("other/log"));
    write_file(dir.file("other/fwutil.cfg"), read_file(dir.file("fwutil.cfg")));
    background holder;
    holder.start(bridge_argv(), elsewhere, dir.file("holder"));
    ASSERT_TRUE(poll_until([&] {
        return json_member(read_file(dir.file("other/log/postgresql.json")), "state") ==
               "streaming";
    })) << holder.err();
    start_bridge({"--once"});
    ASSERT_TRUE(bridge_says("is active for PID")) << bridge.err();
    const std::string file = dir.file("log/acknowledged");
    fs::rename(file, dir.file("aside"));
    fs::create_directory(file);
    holder.signal(SIGSTOP); // it is to log nothing
    insert(2);
    holder.end(SIGKILL);
    EXPECT_EQ(bridge.wait(), 1) << bridge.err();
    EXPECT_THAT(bridge.err(), HasSubstr("log/acknowledged: "));
    fs::remove(file);
    fs::rename(dir.file("aside"), file);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}
