// What "fwlog postgresql --check" says to do where that is more than SQL to be pasted: it is done
// as it stands there, the check says it no more, and a run takes what is changed.
#include "tests/postgresql/check_fixture.h"

#include <filesystem>
#include <regex>

using testing::HasSubstr;
using testing::Not;

class BridgeCheckRemedyTest : public BridgeCheckTest {
  protected:
    using words = std::vector<std::string>;

    void SetUp() override
    {
        BridgeCheckTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE TABLE plain (id int PRIMARY KEY, note text);"
            "ALTER TABLE plain REPLICA IDENTITY FULL");
    }

    void insert(int id) const
    {
        sql("INSERT INTO plain VALUES (" + std::to_string(id) + ", 'row')");
    }

    std::string told(const words &more, const std::string &text) const
    {
        const run_result result = check(more);
        EXPECT_THAT(result.out, HasSubstr(text)) << result.err;
        return result.out;
    }

    void expect_run(const words &more) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
    }

    void expect_mended(const words &more, const std::string &text)
    {
        const run_result result = check(more);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        EXPECT_THAT(result.out, Not(HasSubstr(text)));
        expect_run(more);
        insert(++last);
        expect_run(more);
        EXPECT_TRUE(logged("after ID=" + std::to_string(last) + " ")) << dump();
    }

    // With a log directory that has nothing yet.
    void begin_another_log(const std::string &text = "") const
    {
        write_file(dir.file("fwutil.cfg"), "log-directory another\n" + text);
    }

    int last = 100; // row that was inserted
};

TEST_F(BridgeCheckRemedyTest, ASlotOfAnotherPluginIsLeftForOneOfAnotherName)
{
    const std::string text = "not of pgoutput and this database: name another with --slot\n";
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'test_decoding')");
    (void)told({"--create"}, text);
    expect_mended({"--create", "--slot", database + "_2"}, text);
}

TEST_F(BridgeCheckRemedyTest, TheProcessThatUsesTheSlotIsEndedOrAnotherSlotIsNamed)
{
    const std::string program = pg_server::client_program("pg_recvlogical");
    if (program.empty())
        GTEST_SKIP() << "pg_recvlogical is missing";
    const std::string text = ": end that one first, or name another slot with --slot\n";
    expect_run({"--create"});
    background other;
    other.start({program, "-d", conninfo(), "--slot", database, "--start", "--no-loop", "-f", "-",
                 "-o", "proto_version=1", "-o", "publication_names=" + database},
                options, dir.file("other"));
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT active FROM pg_replication_slots WHERE slot_name = '" + database +
                     "'") == "t";
    })) << other.err();
    insert(1);
    const std::string out = told({}, text);
    std::smatch process;
    ASSERT_TRUE(std::regex_search(out, process, std::regex("is used by process ([0-9]+): ")));
    const std::string cfg = read_file(dir.file("fwutil.cfg"));
    begin_another_log();
    expect_mended({"--create", "--snapshot", "--slot", database + "_2"}, text);
    EXPECT_TRUE(logged("after ID=1 "));
    EXPECT_TRUE(other.running());

    write_file(dir.file("fwutil.cfg"), cfg);
    sql("SELECT pg_terminate_backend(" + process.str(1) + ")");
    (void)other.wait();
    expect_mended({}, text);
    EXPECT_TRUE(logged("after ID=1 "));
}

TEST_F(BridgeCheckRemedyTest, ASlotThatIsGoneIsLeftForANewLogOrForAGap)
{
    const std::string text = "is not there, and the log goes on from it: begin a new log directory "
                             "with --create --snapshot, or go on as it is with --create "
                             "--accept-gap\n";
    expect_run({"--create"});
    insert(1);
    expect_run({});
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    insert(2);
    (void)told({}, text);
    const std::string cfg = read_file(dir.file("fwutil.cfg"));
    begin_another_log();
    expect_mended({"--create", "--snapshot"}, text);
    EXPECT_TRUE(logged("after ID=1 ") && logged("after ID=2 "));

    write_file(dir.file("fwutil.cfg"), cfg);
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    (void)told({}, text);
    expect_mended({"--create", "--accept-gap"}, text);
    EXPECT_TRUE(logged("after ID=1 "));
    EXPECT_FALSE(logged("after ID=2 "));
    EXPECT_EQ(occurrences(dump(), " mark gap: "), 1) << dump();
}

// It is a run that looks at them.
TEST_F(BridgeCheckRemedyTest, NamesThatTheServerDoesNotHaveAreWrittenAsItHasThem)
{
    sql("CREATE TABLE left_out (id int PRIMARY KEY)");
    const std::string names = "names are written as the server has them, capitals told apart\n";
    const std::string types = ": no column has a type of this name; types are named as the server "
                              "writes them (\"character varying\", not varchar; numeric, not "
                              "decimal)\n";
    configure("values mark\ndefault-width TEXT 20\nskip-table public.Left_Out\n"
              "column public.plain.Note item=REMARK\n");
    const std::string said = catch_up({"--create"}).err;
    EXPECT_THAT(said, HasSubstr("default-width TEXT" + types));
    EXPECT_THAT(said, HasSubstr("the publication has no table public.Left_Out; " + names));
    EXPECT_THAT(said, HasSubstr("the server sends no such column of the table; " + names));
    configure("values mark\ndefault-width text 20\nskip-table public.left_out\n"
              "column public.plain.note item=REMARK\n");
    EXPECT_EQ(catch_up().err, "");
    sql("INSERT INTO left_out VALUES (1)");
    expect_mended({}, names);
    EXPECT_TRUE(logged(" REMARK=\"row\"")) << dump();
    EXPECT_THAT(layouts("fwutil.cfg"), testing::ContainsRegex("X.20. +0 +REMARK "));
    EXPECT_EQ(occurrences(dump(), "LEFT-OUT"), 0);
}

TEST_F(BridgeCheckRemedyTest, APublicationThatLeavesChangesOutIsAltered)
{
    const std::string text = "leaves inserts, updates or deletes out";
    sql("CREATE PUBLICATION " + database + " FOR TABLE plain WITH (publish = 'delete')");
    paste(sql_of(told({"--create"}, text)));
    expect_mended({"--create"}, text);
}

TEST_F(BridgeCheckRemedyTest, InsteadOfAStandbyThePrimaryIsNamed)
{
    const std::string text = "the server is a standby: a run waits until it takes over; name the "
                             "primary in --conninfo\n";
    pg_server standby;
    standby.stop();
    standby.start_standby();
    (void)told({"--create", "--conninfo", standby.conninfo()}, text);
    expect_mended({"--create", "--conninfo", conninfo()}, text);
}

// The images of an update are two, and a header stands before them.
class BridgeCheckRecordTest : public BridgeCheckRemedyTest {
  protected:
    // What Kestro captures of an insert and an update of the table, into a file of that kind.
    run_result capture(const std::string &text, const words &kind)
    {
        configure(text);
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::remove(dir.file("fwutil.status"));
        if (value("SELECT count(*) FROM pg_replication_slots") != "0")
            sql("SELECT pg_drop_replication_slot('" + database + "')");
        expect_run({"--create"});
        sql("INSERT INTO large (id) VALUES (1); UPDATE large SET id = 2; DELETE FROM large");
        expect_run({});
        words argv = {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-exthdr", "-yyyy"};
        argv.insert(argv.end(), kind.begin(), kind.end());
        argv.emplace_back("cap");
        std::filesystem::remove(dir.file("cap"));
        return run_program(argv, options);
    }

    // As text, and where there is one, with a configuration that makes the record shorter.
    void expect_remedies(const std::string &text, const std::string &message,
                         const std::string &shorter)
    {
        configure(text);
        (void)told({"--create"}, message);
        EXPECT_THAT(capture(text, {}).err, HasSubstr("makes a record of "));
        const run_result as_text = capture(text, {"-ascii"});
        EXPECT_EQ(as_text.status, 0) << as_text.err;
        EXPECT_EQ(occurrences(read_file(dir.file("cap")), "\n"), 3);
        if (shorter.empty())
            return;
        const run_result as_message = capture(shorter, {});
        EXPECT_EQ(as_message.status, 0) << as_message.err;
        EXPECT_EQ(message_records(dir.file("cap")).size(), 3U);
        EXPECT_THAT(check().out, Not(HasSubstr(message)));
    }
};

TEST_F(BridgeCheckRecordTest, ColumnsGetLessOrTheRecordIsCapturedAsText)
{
    sql("CREATE TABLE large (id int PRIMARY KEY, note text);"
        "ALTER TABLE large REPLICA IDENTITY FULL");
    expect_remedies("values mark\ncolumn public.large.note width=20000\n",
                    ": give its widest columns less with width=, or capture it as text\n",
                    "values mark\ncolumn public.large.note width=10000\n");
    const std::string described = "database PUBLIC\ndataset LARGE\nitem ID I 4\n"
                                  "item NULL-MAP X 2 null-map\nitem NOTE X ";
    expect_remedies(described + "20000\n",
                    ": make its widest items smaller, or capture it as text\n",
                    described + "10000\n");
}

TEST_F(BridgeCheckRecordTest, WhatNoWidthShrinksIsCapturedAsText)
{
    std::string columns = "id int PRIMARY KEY";
    for (int i = 0; i < 1000; i++)
        columns += ", u" + std::to_string(i) + " uuid";
    sql("CREATE TABLE large (" + columns + "); ALTER TABLE large REPLICA IDENTITY FULL");
    expect_remedies("", ": no width of its texts makes it fit, capture it as text\n", "");
}
