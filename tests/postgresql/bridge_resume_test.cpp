// Tables that are taken in because somebody says so: to a bridge that runs, or at a start; what
// they are then, and what is said where that cannot be.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/tools/fwlog/sqlite.h"

#include <atomic>
#include <regex>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

#ifdef KESTRO_SANITIZED
constexpr int MANY_ROWS = 25'000;
#else
constexpr int MANY_ROWS = 70'000;
#endif

class BridgeResumeTest : public LedgerTest {
  protected:
    void SetUp() override
    {
        LedgerTest::SetUp();
        if (server == nullptr)
            return;
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
        configure("values mark\ntable load.ledger values=error\n"
                  "column load.ledger.body width=60\n");
        sql("CREATE TABLE load.other (id bigint PRIMARY KEY, body text);"
            "ALTER TABLE load.other REPLICA IDENTITY FULL;");
    }

    void fill(int first, int last) const
    {
        sql("INSERT INTO load.ledger SELECT g, 0, g % 1000, 'row', NULL FROM generate_series(" +
            std::to_string(first) + ", " + std::to_string(last) + ") g");
    }

    // A text that its item cannot hold sets the table aside.
    void set_aside(int id)
    {
        sql("INSERT INTO load.ledger VALUES (" + std::to_string(id) +
            ", 0, 1, repeat('\u00e9', 60),"
            " NULL)");
    }

    void mend(int id) const
    {
        sql("DELETE FROM load.ledger WHERE id = " + std::to_string(id));
    }

    // A bridge that runs, with rows 1 and 3 and the table set aside between them.
    void begin_set_aside()
    {
        ASSERT_NO_FATAL_FAILURE(begin_following());
        insert(1);
        set_aside(2);
        insert(3);
        ASSERT_TRUE(bridge_says("table load.ledger is set aside")) << bridge.err();
    }

    // The command line of somebody who asks a bridge that runs.
    std::vector<std::string> resume_argv(const std::vector<std::string> &tables) const
    {
        std::vector<std::string> argv = {KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "-cfg",
                                         "fwutil.cfg"};
        for (const std::string &table : tables)
            argv.insert(argv.end(), {"--resume", table});
        return argv;
    }

    run_result resume(const std::vector<std::string> &tables) const
    {
        std::vector<std::string> argv = resume_argv(tables);
        argv.insert(argv.begin(), {"timeout", "-s", "KILL", "120"});
        return run_program(argv, options);
    }

    std::vector<std::string> request_files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            if (const std::string name = entry.path().filename(); name.starts_with("resume-"))
                names.push_back(name);
        return names;
    }

    // The log's statements, each of which has to go well, give what the tables hold.
    void expect_copy_equals_tables()
    {
        const bool ran = bridge.running();
        EXPECT_TRUE(!ran || bridge.end(SIGTERM) == 128 + SIGTERM) << bridge.err();
        const run_result rest = catch_up();
        ASSERT_EQ(rest.status, 0) << rest.err;
        const run_result text = fwlog({"sql", "--dialect", "sqlite", "--create-tables", "--gap",
                                       "skip", "--truncate", "apply"});
        ASSERT_EQ(text.status, 0) << text.err;
        std::filesystem::remove(dir.file("copy.db"));
        const sqlite copy(dir.file("copy.db"));
        const run_result applied = copy.run(text.out);
        EXPECT_EQ(applied.status, 0) << applied.err;
        pg_client client = connect();
        using rows = std::multiset<std::vector<std::string>>;
        for (const auto &[source, table] :
             {std::pair("load.ledger", "load_ledger"), std::pair("load.other", "load_other")}) {
            const std::string columns =
                table == std::string("load_ledger") ? "id, client, amount, body" : "id, body";
            const auto all = client.run("SELECT " + columns + " FROM " + source);
            const rows wanted(all.begin(), all.end());
            const bool never_seen =
                wanted.empty() && copy.value("SELECT count(*) FROM sqlite_master WHERE name = '" +
                                             std::string(table) + "'") == "0";
            EXPECT_TRUE(never_seen || copy.rows("SELECT " + columns + " FROM " + table) == wanted)
                << table;
        }
    }
};

TEST_F(BridgeResumeTest, ARunningBridgeTakesATableBack)
{
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    sql("INSERT INTO load.other VALUES (1, 'goes on')");
    mend(2);
    const run_result result = resume({"load.ledger"});
    EXPECT_EQ(result.status, 0) << result.err << bridge.err();
    EXPECT_EQ(result.err, "fwlog: table load.ledger is followed; rows taken in: 2\n");
    EXPECT_THAT(request_files(), IsEmpty());
    insert(4);
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, ANameWithALineEndIsOneName)
{
    sql("CREATE TABLE load.\"two\nlines\" (id integer PRIMARY KEY);"
        "INSERT INTO load.\"two\nlines\" VALUES (1)");
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    const run_result result = resume({"load.\"two\nlines\""});
    EXPECT_EQ(result.status, 0) << result.err << bridge.err();
    EXPECT_THAT(result.err,
                HasSubstr("table load.U&\"two\\000Alines\" is followed; rows taken in: 1"));
}

TEST_F(BridgeResumeTest, AsTheMessageSaysIt)
{
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    mend(2);
    std::smatch command;
    const std::string err = bridge.err();
    ASSERT_TRUE(std::regex_search(err, command, std::regex("then (fwlog postgresql [^;\n]*)")))
        << err;
    const run_result result = run_program(
        {"sh", "-c", "PATH=" KESTRO_BUILD_DIR "/bin:$PATH; " + command.str(1)}, options);
    EXPECT_EQ(result.status, 0) << command.str(1) << "\n" << result.err;
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, AllTakesEveryTableThatIsSetAside)
{
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    mend(2);
    EXPECT_EQ(resume({"all"}).status, 0) << bridge.err();
    const run_result again = resume({"all"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.err, "fwlog: no table is set aside\n");
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, WhatIsNotMendedIsSetAsideAgain)
{
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    const run_result result = resume({"load.ledger"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                HasSubstr("table load.ledger is not taken in: it was set aside again: "));
    mend(2);
    EXPECT_EQ(resume({"load.ledger"}).status, 0) << bridge.err();
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

// However soon the run ends behind that.
TEST_F(BridgeResumeTest, WhatIsNotMendedEndsAStartWithAnErrorEachTime)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    set_aside(2);
    EXPECT_EQ(catch_up().status, 0);
    for (int round = 0; round < 5; round++) {
        const run_result result = catch_up({"--resume", "load.ledger"});
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_THAT(result.err,
                    AllOf(HasSubstr("table load.ledger is set aside from "),
                          HasSubstr("fwlog: not all tables were taken in that --resume names\n")));
    }
    mend(2);
    EXPECT_EQ(catch_up({"--resume", "load.ledger"}).status, 0);
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, AStartTakesTablesIn)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    set_aside(2);
    insert(3);
    EXPECT_EQ(catch_up().status, 0);
    mend(2);
    const run_result result = catch_up({"--resume", "load.ledger"});
    EXPECT_EQ(result.status, 0) << result.err;
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, AStartSaysWhatItDoesNotTakeIn)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    const run_result result = catch_up({"--resume", "load.nothing", "--resume", "load.ledger"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("fwlog: warning: table load.nothing is not taken in: the database "
                                "has no such table (capitals count)\n"),
                      HasSubstr("fwlog: not all tables were taken in that --resume names\n")));
    EXPECT_EQ(occurrences(dump(), "snapshot="), 1) << "the other one is";
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, ATableThatCameLaterIsTakenInWithItsRows)
{
    sql("CREATE PUBLICATION " + database + " FOR TABLE load.ledger");
    ASSERT_NO_FATAL_FAILURE(begin_following());
    sql("INSERT INTO load.other SELECT g, 'before' FROM generate_series(1, 100) g");
    const run_result refused = resume({"load.other"});
    EXPECT_EQ(refused.status, 1);
    std::smatch command;
    ASSERT_TRUE(std::regex_search(refused.err, command,
                                  std::regex("does not have it: run (ALTER [^,]*), then")))
        << refused.err;
    sql(command.str(1));
    sql("INSERT INTO load.other VALUES (200, 'behind'); UPDATE load.other SET body = 'x' WHERE "
        "id = 200");
    const run_result result = resume({"load.other"});
    EXPECT_EQ(result.status, 0) << result.err << bridge.err();
    EXPECT_EQ(result.err, "fwlog: table load.other is followed; rows taken in: 101\n");
    sql("DELETE FROM load.other WHERE id < 10");
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, WhatIsWrongIsSaid)
{
    configure("skip-table load.left_out\n");
    sql("CREATE TABLE load.left_out (a integer PRIMARY KEY);"
        "CREATE TABLE load.parts (a integer PRIMARY KEY) PARTITION BY RANGE (a);"
        "CREATE TABLE load.part_1 PARTITION OF load.parts FOR VALUES FROM (0) TO (10);"
        "CREATE TABLE load.singles (a integer PRIMARY KEY) PARTITION BY RANGE (a);"
        "CREATE TABLE load.single_1 PARTITION OF load.singles FOR VALUES FROM (0) TO (10);"
        "CREATE UNLOGGED TABLE load.unlogged (a integer PRIMARY KEY);"
        "CREATE VIEW load.seen AS SELECT 1 AS a;"
        "CREATE TABLE load.\"Not \"\"there\"\"\" (a integer PRIMARY KEY)");
    const bool by_root = server_version() >= 13; // else partitions are tables of their own
    sql("CREATE PUBLICATION " + database + " FOR TABLE load.ledger" +
        (by_root ? ", load.parts WITH (publish_via_partition_root = true)" : ", load.single_1"));
    ASSERT_NO_FATAL_FAILURE(begin_following());
    const std::pair<const char *, std::string> rows[] = {
        {"load.left_out", "the configuration leaves it out: take \"skip-table load.left_out\" out "
                          "of fwutil.cfg, stop the bridge, and start it with --resume"},
        {"load.nothing", "the database has no such table (capitals count)"},
        {"Load.ledger", "the database has no such table (capitals count)"},
        {by_root ? "load.part_1" : "load.singles",
         by_root ? "it is a part of load.parts, which is followed as a whole: name that one"
                 : "its partitions are followed, each for itself: name those"},
        {"load.unlogged", "the server's log does not have it: it is unlogged, temporary, or no "
                          "table"},
        {"load.seen", "the server's log does not have it: it is unlogged, temporary, or no table"},
        {"load.\"Not \"\"there\"\"\"",
         "publication \"" + database + "\" does not have it: run ALTER PUBLICATION \"" + database +
             "\" ADD TABLE load.\"Not \"\"there\"\"\", then resume it"},
    };
    std::vector<std::string> tables;
    for (const auto &[table, why] : rows)
        tables.emplace_back(table);
    const run_result result = resume(tables);
    EXPECT_EQ(result.status, 1);
    for (const auto &[table, why] : rows)
        EXPECT_THAT(result.err, HasSubstr("fwlog: table " + std::string(table) +
                                          " is not taken in: " + why + "\n"));
    EXPECT_EQ(occurrences(result.err, "\n"), static_cast<int>(std::size(rows)));
    if (by_root) {
        sql("ALTER PUBLICATION " + database + " SET (publish_via_partition_root = false)");
        sql("ALTER PUBLICATION " + database + " ADD TABLE load.singles");
        EXPECT_THAT(resume({"load.singles"}).err,
                    HasSubstr("its partitions are followed, each for itself: name those\n"));
        sql("INSERT INTO load.singles VALUES (7)");
        EXPECT_EQ(resume({"load.single_1"}).status, 0);
        EXPECT_TRUE(logged("after A=7"));
    }
    sql("DROP PUBLICATION " + database + "; CREATE PUBLICATION " + database + " FOR ALL TABLES" +
        publication_with());
    EXPECT_THAT(resume({"pg_catalog.pg_class"}).err,
                HasSubstr("publication \"" + database + "\" does not have it\n"));
}

TEST_F(BridgeResumeTest, ANameThatTheServerCannotReadLeavesTheOthers)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    const run_result result = resume({"load.ledger", "load.\xFF", "load.other"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(HasSubstr("is not taken in: invalid byte sequence for encoding"),
                                  HasSubstr("table load.ledger is followed; rows taken in: 1\n"),
                                  HasSubstr("table load.other is followed; rows taken in: 0\n")));
}

TEST_F(BridgeResumeTest, WordsThatAreNoTables)
{
    for (const char *word : {"ledger", "a.b.c", "", "load."}) {
        const run_result result = resume({word});
        EXPECT_EQ(result.status, 2) << word;
    }
    EXPECT_THAT(resume({"ledger"}).err,
                HasSubstr("--resume takes all, or a table with its schema: ledger"));
}

TEST_F(BridgeResumeTest, WhoeverAskedMayGo)
{
    fill(1, MANY_ROWS);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    for (const int number : {SIGKILL, SIGTERM}) {
        background command;
        command.start(resume_argv({"load.ledger"}), options, dir.file("command"));
        ASSERT_TRUE(poll_until([&] { return !request_files().empty(); }));
        ASSERT_TRUE(poll_until([&] {
            return read_file(dir.file("log/aside")).find("taking") != std::string::npos ||
                   !command.running();
        }));
        EXPECT_EQ(command.end(number), 128 + number) << command.err();
        EXPECT_TRUE(poll_until([&] { return request_files().empty(); }));
    }
    EXPECT_TRUE(bridge.running());
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
    EXPECT_THAT(dump(), HasSubstr("snapshot="));
}

TEST_F(BridgeResumeTest, ABridgeThatIsKilledGoesOnWithIt)
{
    fill(1, MANY_ROWS);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    background command;
    command.start(resume_argv({"load.ledger"}), options, dir.file("command"));
    ASSERT_TRUE(poll_until([&] {
        return read_file(dir.file("log/aside")).find("taking") != std::string::npos;
    })) << bridge.err();
    bridge.end(SIGKILL);
    start_bridge();
    EXPECT_EQ(command.wait(), 0) << command.err() << bridge.err();
    EXPECT_THAT(command.err(), HasSubstr("table load.ledger is followed; rows taken in: " +
                                         std::to_string(MANY_ROWS)));
    EXPECT_THAT(request_files(), IsEmpty());
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, AServerThatIsNotThereIsWaitedFor)
{
    ASSERT_NO_FATAL_FAILURE(begin_set_aside());
    mend(2);
    server->stop();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "waiting"; })) << bridge.err();
    background command;
    command.start(resume_argv({"load.ledger"}), options, dir.file("command"));
    const auto told = [&] {
        for (const std::string &name : request_files())
            if (read_file(dir.file("log/" + name)).find("the server is not there") !=
                std::string::npos)
                return true;
        return false;
    };
    EXPECT_TRUE(poll_until(told)) << bridge.err();
    EXPECT_TRUE(command.running());
    server->start();
    EXPECT_EQ(command.wait(), 0) << command.err() << bridge.err();
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}

TEST_F(BridgeResumeTest, ATerminalShowsHowFarItIs)
{
    fill(1, MANY_ROWS);
    sql("ANALYZE load.ledger");
    ASSERT_NO_FATAL_FAILURE(begin_following());
    std::string line;
    for (const std::string &word : resume_argv({"load.ledger"}))
        line += word + " ";
    const run_result result = run_program({"script", "-qec", line, "/dev/null"}, options);
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(result.out, AllOf(HasSubstr("fwlog: load.ledger: "), HasSubstr(" rows\033[K\r"),
                                  HasSubstr("table load.ledger is followed; rows taken in: ")));
}

TEST_F(BridgeResumeTest, TablesThatPeopleWorkOnAreTakenInAgainAndAgain)
{
    fill(1, MANY_ROWS / 4);
    ASSERT_NO_FATAL_FAILURE(begin_following());
    std::atomic<bool> stopped = false;
    std::vector<std::thread> people;
    for (int i = 0; i < 2; i++)
        people.emplace_back([&] {
            pg_client session = connect();
            while (!stopped) {
                session.run("UPDATE load.ledger SET client = client + 1 WHERE id = 1 + "
                            "floor(random() * " +
                            std::to_string(MANY_ROWS / 4) + ")");
                session.run("INSERT INTO load.other SELECT 1 + coalesce(max(id), 0), 'new' FROM "
                            "load.other ON CONFLICT DO NOTHING");
                session.run("DELETE FROM load.other WHERE id % 3 = 0");
            }
        });
    for (int round = 0; round < 4; round++) {
        const run_result result = resume({"load.other", "load.ledger"});
        EXPECT_EQ(result.status, 0) << result.err << bridge.err();
    }
    stopped = true;
    for (std::thread &person : people)
        person.join();
    ASSERT_NO_FATAL_FAILURE(expect_copy_equals_tables());
}
