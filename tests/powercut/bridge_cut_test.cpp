// Power cuts under the bridge: while a snapshot is taken, while tables are set aside and taken
// back, while it just follows.  What the server was told is safe is on the disk: the next run goes
// on without a gap, its state file is whole, and the log gives what the tables hold.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/powercut/power_disk.h"
#include "tests/tools/fwlog/sqlite.h"

#include <random>

constexpr int USUAL_CUTS = 4; // each takes about a second
constexpr int MOST_CUTS = 6;  // of one log; then all is made anew
constexpr int ROWS = 4000;    // that a snapshot finds in each table

class BridgePowerCut : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
        disk = std::make_unique<power_disk>();
        if (!disk->problem().empty())
            GTEST_SKIP() << disk->problem();
        options.directory = disk->file(".");
        write_file(disk->file("fwutil.cfg"), "log-directory log\nlog-file-size 64K\nvalues mark\n"
                                             "table load.ledger values=error\n"
                                             "column load.ledger.body width=60\n");
        sql("CREATE SCHEMA load");
    }
    void TearDown() override
    {
        bridge.end(SIGKILL);
        disk.reset();
        BridgeTest::TearDown();
    }

    int below(int limit)
    {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    }

    // Tables with rows, no log, and nothing at the server that belongs to one.
    void begin_anew()
    {
        sql("DROP PUBLICATION IF EXISTS " + database);
        sql("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
        sql("DROP TABLE IF EXISTS load.ledger, load.other");
        for (const char *table : {"load.ledger", "load.other"})
            sql(std::string("CREATE TABLE ") + table +
                " (id bigint PRIMARY KEY, body text); ALTER TABLE " + table +
                " REPLICA IDENTITY FULL; INSERT INTO " + table +
                " SELECT g, 'row ' || g FROM generate_series(1, " + std::to_string(ROWS) + ") g");
        std::filesystem::remove_all(disk->file("log"));
        next_id = ROWS + 1;
        cuts_of_log = 0;
        mended = true;
        disk->write_back_all();
    }

    // What people do meanwhile; now and then something that sets a table aside, and its mending.
    void work_some()
    {
        pg_client session = connect();
        for (int times = 1 + below(6); times > 0; times--) {
            const std::string id = std::to_string(next_id++);
            const std::string old = std::to_string(1 + below(next_id));
            session.run("BEGIN; INSERT INTO load.other VALUES (" + id + ", 'new " + id +
                        "'); UPDATE load.ledger SET body = 'changed by " + id +
                        "' WHERE id = " + old + "; DELETE FROM load.other WHERE id = " + old +
                        "; INSERT INTO load.ledger VALUES (" + id + ", 'new " + id + "'); COMMIT");
        }
        if (mended && below(3) == 0) {
            session.run("INSERT INTO load.ledger VALUES (0, repeat('\u00e9', 60))");
            mended = false;
        } else if (!mended && below(2) == 0) {
            session.run("DELETE FROM load.ledger WHERE id = 0");
            mended = true;
        }
    }

    // By the state that the last run has left.
    bool is_aside() const
    {
        const std::string state = read_file(disk->file("log/postgresql.json"));
        const size_t at = state.find("\"aside\":[");
        return at != std::string::npos &&
               state.substr(at, state.find(']', at) - at).find("\"load.ledger\"") !=
                   std::string::npos;
    }

    run_result ask_to_resume() const
    {
        return run_bridge({"--once", "--resume", "load.ledger"});
    }

    void boot()
    {
        disk->cut();
        for (background *one : {&bridge, &asking})
            one->end(SIGKILL);
        disk->boot();
        cuts++;
        cuts_of_log++;
    }

    // What the cut has left of the state file, which nobody brings to disk, is whole again behind
    // the next run.
    void expect_state_is_whole() const
    {
        const std::string file = read_file(disk->file("log/postgresql.json"));
        EXPECT_EQ(json_member(file, "state"), "stopped") << file;
        EXPECT_TRUE(file.starts_with("{") && file.ends_with("}\n")) << file;
    }

    // The log's statements, each of which has to go well, give what the tables hold.
    void expect_log_equals_tables(bool with_ledger)
    {
        const run_result verify = fwlog({"verify"});
        EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
        const run_result text = fwlog({"sql", "--dialect", "sqlite", "--create-tables", "--gap",
                                       "skip", "--truncate", "apply"});
        ASSERT_EQ(text.status, 0) << text.err;
        std::filesystem::remove(dir.file("copy.db"));
        const sqlite copy(dir.file("copy.db"));
        const run_result applied = copy.run(text.out);
        ASSERT_EQ(applied.status, 0) << applied.err;
        pg_client client = connect();
        using rows = std::multiset<std::vector<std::string>>;
        for (const char *table : {"other", "ledger"}) {
            if (table == std::string("ledger") && !with_ledger)
                continue;
            const auto all = client.run(std::string("SELECT id, body FROM load.") + table);
            EXPECT_TRUE(copy.rows(std::string("SELECT id, body FROM load_") + table) ==
                        rows(all.begin(), all.end()))
                << table;
        }
    }

    std::unique_ptr<power_disk> disk;
    background asking; // for a table to be taken back, while the bridge runs
    std::mt19937 random{29};
    int next_id = 0;
    int cuts = 0;
    int cuts_of_log = 0;
    bool mended = true;
};

TEST_F(BridgePowerCut, TheNextRunGoesOnAndTheLogGivesTheTables)
{
    const int wanted = getenv("KESTRO_POWER_CUTS") != nullptr ? power_cuts() : USUAL_CUTS;
    int snapshots = 0;
    int aside = 0;
    int taken_back = 0;
    ASSERT_NO_FATAL_FAILURE(begin_anew());
    while (cuts < wanted) {
        SCOPED_TRACE("cut " + std::to_string(cuts + 1));
        if (cuts_of_log >= MOST_CUTS) {
            ASSERT_NO_FATAL_FAILURE(begin_anew());
        }
        const bool resumes = is_aside() && mended && below(2) == 0;
        bridge.start(bridge_argv(resumes ? std::vector<std::string>{"--resume", "load.ledger"}
                                         : std::vector<std::string>{"--create", "--snapshot"}),
                     options, dir.file("bridge"));
        for (int times = 1 + below(6); times > 0; times--) {
            // A table can be set aside before it was taken in, too, but not always.
            if (cuts_of_log > 1)
                work_some();
            usleep(static_cast<useconds_t>(below(120000)));
            disk->write_back_some(random);
            if (mended && is_aside() && !asking.running())
                asking.start({KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "-cfg", "fwutil.cfg",
                              "--resume", "load.ledger"},
                             options, dir.file("asking"));
        }
        const std::string state = read_file(disk->file("log/postgresql.json"));
        snapshots += json_member(state, "snapshot") != "done" ? 1 : 0;
        boot();

        const run_result rest = catch_up({"--create", "--snapshot"});
        ASSERT_EQ(rest.status, 0) << rest.err;
        expect_state_is_whole();
        aside += is_aside() ? 1 : 0;
        ASSERT_NO_FATAL_FAILURE(expect_log_equals_tables(!is_aside()));
        if (is_aside() && mended && below(2) == 0) {
            const run_result back = ask_to_resume();
            ASSERT_EQ(back.status, 0) << back.err;
            taken_back++;
            ASSERT_NO_FATAL_FAILURE(expect_log_equals_tables(true));
        }
        ASSERT_FALSE(HasFailure()) << rest.err;
    }
    std::cout << cuts << " cuts: " << snapshots << " before a snapshot was done, " << aside
              << " times a table was set aside behind them, " << taken_back
              << " times taken back\n";
}
