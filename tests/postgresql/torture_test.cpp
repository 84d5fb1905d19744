// Kills without end: the bridge and Kestro with SIGKILL, the server by crashes, all at
// random moments while clients work, each started again.  In the end log and capture
// file have every committed change once.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/load_client.h"

#include <iostream>
#include <random>
#include <set>

using testing::IsEmpty;

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

#ifdef KESTRO_SANITIZED
constexpr int ROUNDS = 8;
#else
constexpr int ROUNDS = 30;
#endif
constexpr int CLIENTS = 4;
constexpr int LARGE_PER_MILLE = 3;

// A log of many small files, so that kills meet the crossings too.
static const char log_cfg[] = "log-file-size 1M\n";

class TortureTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        configure(std::string(log_cfg) + ledger_cfg + audit_cfg);
        sql(std::string(ledger_sql) + audit_sql);
        // Makes slot and publication before the first change.
        const run_result created = catch_up({"--create"});
        ASSERT_EQ(created.status, 0) << created.err;
    }

    // The bridge ends with an error when it finds no server, so it may need several starts.
    void ensure_running()
    {
        if (!bridge.running()) {
            bridge_starts++;
            start_bridge();
        }
        if (!capture.running()) {
            capture_starts++;
            capture.start({kestro, "-cfg", "fwutil.cfg", "-stat", "torture.status", "-exthdr",
                           "-yyyy", "-recnum", "torture.msg"},
                          options, dir.file("kestro"));
        }
    }

    size_t captured_bytes() const
    {
        std::error_code none; // no file yet
        const auto size = std::filesystem::file_size(dir.file("torture.msg"), none);
        return none ? 0 : static_cast<size_t>(size);
    }

    // Waits until records have come through, all of it running.
    bool records_arrive()
    {
        const size_t before = captured_bytes();
        return poll_until([&] {
            ensure_running();
            return captured_bytes() > before + 5000;
        });
    }

    // Kills some of bridge (1), Kestro (2) and server (4), one right behind the other.
    void kill_some(unsigned victims)
    {
        if ((victims & 1) != 0)
            bridge.signal(SIGKILL);
        if ((victims & 2) != 0)
            capture.signal(SIGKILL);
        if ((victims & 4) != 0)
            server->crash();
        if ((victims & 1) != 0)
            bridge.wait();
        if ((victims & 2) != 0)
            capture.wait();
        if ((victims & 4) != 0) {
            // Half of the times the bridge meets a server that is not there.
            if (random() % 2 == 0)
                ensure_running();
            server->start();
        }
    }

    // Everything goes on until nothing is left to take.
    void finish()
    {
        bridge.end(SIGTERM);
        const run_result rest = catch_up();
        ASSERT_EQ(rest.status, 0) << rest.err;
        capture.end(SIGTERM);
        const run_result last =
            run_program({kestro, "-cfg", "fwutil.cfg", "-stat", "torture.status", "-synconly",
                         "-exthdr", "-yyyy", "-recnum", "torture.msg"},
                        options);
        ASSERT_EQ(last.status, 0) << last.err;
    }

    // The capture file replayed gives the tables; a record number repeated is the
    // record that Kestro had in hand at a kill.
    void expect_capture_equals_tables()
    {
        replay state = replay_open(dir.file("fwutil.cfg"), load_keys);
        int newest = 0;
        for (const std::string &record : message_records(dir.file("torture.msg"))) {
            if (record_number(record) == newest) {
                repeated++;
                continue;
            }
            ASSERT_EQ(record_number(record), ++newest);
            replay_message(state, record);
        }
        EXPECT_LE(repeated, capture_starts) << "at most the record in hand at each kill";
        changes = newest;
        pg_client client = connect();
        write_file(dir.file("contents.csv"), pg_contents(client, "'load'"));
        replay_compare(state, dir.file("contents.csv"));
        state.errors.resize(std::min<size_t>(state.errors.size(), 5));
        EXPECT_THAT(state.errors, IsEmpty());
    }

    // The log has the transactions that the server has committed, each once and in order.
    void expect_log_has_each_transaction_once()
    {
        std::set<std::string> logged_xids;
        std::string newest;
        std::istringstream lines(dump());
        for (std::string line; std::getline(lines, line);) {
            const size_t xid = line.find(" xid ");
            const size_t lsn = line.find(" lsn ");
            if (line.find(" commit ") == std::string::npos || lsn == std::string::npos)
                continue;
            const std::string id = line.substr(xid + 5, lsn - xid - 5);
            EXPECT_TRUE(logged_xids.insert(id).second) << "logged twice: " << line;
            const std::string at = comparable(line.substr(lsn + 5));
            EXPECT_LT(newest, at) << line;
            newest = at;
        }
        std::set<std::string> committed;
        for (const auto &row : connect().run("SELECT xid FROM load.audit"))
            committed.insert(row[0]);
        EXPECT_EQ(logged_xids, committed);
        transactions = committed.size();
    }

    // A position "0/19B2DF0, ..." as 16 hexadecimal digits.
    static std::string comparable(const std::string &text)
    {
        unsigned high = 0;
        unsigned low = 0;
        EXPECT_EQ(sscanf(text.c_str(), "%X/%X", &high, &low), 2) << text;
        char digits[17];
        snprintf(digits, sizeof digits, "%08X%08X", high, low);
        return digits;
    }

    background capture;
    int bridge_starts = 0;
    int capture_starts = 0;
    int repeated = 0;
    int changes = 0;
    size_t transactions = 0;
    const char *given_seed = getenv("KESTRO_TEST_SEED");
    unsigned seed = given_seed != nullptr ? static_cast<unsigned>(strtoul(given_seed, nullptr, 10))
                                          : std::random_device{}();
    std::mt19937 random{seed};
};

TEST_F(TortureTest, EveryCommittedChangeIsCapturedOnceWhoeverIsKilled)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    load_clients load(conninfo(), CLIENTS, seed, LARGE_PER_MILLE);
    int crashes = 0;
    for (int round = 0; round < ROUNDS; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        // Half of the kills meet processes that have just been started.
        ensure_running();
        if (round % 2 == 0) {
            ASSERT_TRUE(records_arrive()) << bridge.err() << capture.err() << server->log();
        }
        usleep(static_cast<useconds_t>(random() % 100000));
        const auto victims = static_cast<unsigned>(1 + random() % 7);
        crashes += (victims & 4) != 0;
        ASSERT_NO_FATAL_FAILURE(kill_some(victims));
    }
    ASSERT_TRUE(records_arrive()) << bridge.err() << capture.err() << server->log();
    EXPECT_TRUE(load.stop());
    ASSERT_NO_FATAL_FAILURE(finish());

    expect_capture_equals_tables();
    expect_log_has_each_transaction_once();
    const run_result verify = fwlog({"verify"});
    EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
    std::cout << transactions << " transactions, " << changes << " changes, " << repeated
              << " captured again; " << crashes << " crashes of the server, " << bridge_starts
              << " starts of the bridge, " << capture_starts << " of Kestro\n";
}
