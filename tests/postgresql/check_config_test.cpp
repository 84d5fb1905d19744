// "fwlog postgresql --check --write-config": a configuration that it wrote is taken as it stands
// and gives the same layouts.
#include "tests/postgresql/check_fixture.h"

#include <filesystem>
#include <sys/stat.h>

using testing::HasSubstr;

static const char odd_tables[] =
    "CREATE SCHEMA sales; CREATE SCHEMA \"Back Office\";"
    "CREATE TYPE sales.mood AS ENUM ('glad', 'sad');"
    "CREATE DOMAIN sales.price AS numeric(9,2);"
    "CREATE TABLE sales.order_lines (id bigint PRIMARY KEY, item_number integer, price sales.price,"
    " mood sales.mood, remarks text, labels text[], body jsonb, code varchar(20), raw bytea,"
    " at timestamptz, day date, free numeric, whole_length integer GENERATED ALWAYS AS"
    " (item_number * 2) STORED);"
    "CREATE TABLE \"Back Office\".\"Order.Lines #1 \"\"net\"\"\" (\"the key\" int PRIMARY KEY,"
    " \"a=b\" text, \"quo\"\"te\" varchar(3), \"null_map\" text, \"Id\" int, id int,"
    " a_column_with_a_very_long_name_indeed text);"
    "CREATE TABLE sales.a_table_with_a_very_long_name_1 (id int PRIMARY KEY, note text);"
    "CREATE TABLE sales.a_table_with_a_very_long_name_2 (id int PRIMARY KEY, note text);"
    "CREATE TABLE sales.\"größe\" (\"länge\" int PRIMARY KEY, \"Straße\" text);"
    "CREATE TABLE sales.wide (id int PRIMARY KEY, c1 text, c2 text, c3 text, c4 text, c5 text,"
    " c6 text, c7 text, c8 text, c9 text, c10 text, c11 text, c12 text, c13 text, c14 text,"
    " c15 text, c16 text, c17 text, c18 text, c19 text, c20 varchar(30), c21 varchar(900));"
    "CREATE TABLE sales.parted (id int, part int, PRIMARY KEY (id, part)) PARTITION BY LIST (part);"
    "CREATE TABLE sales.parted_1 PARTITION OF sales.parted FOR VALUES IN (1);";

static const char odd_rows[] =
    "INSERT INTO sales.order_lines (id, price, mood, remarks, labels, body, code, raw, at, day,"
    " free) VALUES (1, 12.5, 'sad', 'Größe €', '{a,\"b c\"}', '{\"a\": 1}', 'äöü', '\\x00ff',"
    " '2026-03-09 08:18:01+02', '2026-03-09', 1.5);"
    "INSERT INTO \"Back Office\".\"Order.Lines #1 \"\"net\"\"\" VALUES (1, 'x', 'y', 'z', 2, 3, "
    "'w');"
    "INSERT INTO sales.a_table_with_a_very_long_name_1 VALUES (1, 'one');"
    "INSERT INTO sales.a_table_with_a_very_long_name_2 VALUES (2, 'two');"
    "INSERT INTO sales.\"größe\" VALUES (1, 'Weg');"
    "INSERT INTO sales.wide (id, c1, c20) VALUES (1, 'first', 'last');"
    "INSERT INTO sales.parted VALUES (1, 1);";

TEST_F(BridgeCheckTest, WrittenConfigurationIsTakenAsItStandsAndGivesTheSameLayouts)
{
    sql(odd_tables);
    configure("text-encoding utf-8\n");
    const run_result written = check({"--create", "--write-config", "written.cfg"});
    ASSERT_EQ(written.status, 0) << written.out << written.err;
    // The same once more, from the written one.
    const run_result again =
        check({"--create", "--write-config", "again.cfg", "-cfg", "written.cfg"});
    ASSERT_EQ(again.status, 0) << again.out << again.err << read_file(dir.file("written.cfg"));

    for (const std::string &command : sql_of(written.out))
        sql(command);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    std::string other = read_file(dir.file("written.cfg"));
    const std::string directory = "log-directory \"log\"\n";
    ASSERT_THAT(other, HasSubstr(directory));
    other.replace(other.find(directory), directory.size(), "log-directory other\n");
    write_file(dir.file("other.cfg"), other);
    const std::vector<std::string> with_other = {"-cfg", "other.cfg", "--slot", database + "_o",
                                                 "--create"};
    const run_result begun = catch_up(with_other);
    ASSERT_EQ(begun.status, 0) << begun.err;
    sql(odd_rows);
    ASSERT_EQ(catch_up().status, 0);
    const run_result taken = catch_up(with_other);
    ASSERT_EQ(taken.status, 0) << taken.err;
    const std::string plain = layouts("fwutil.cfg");
    EXPECT_EQ(occurrences(plain, " NULL-MAP\n"), 7) << plain;
    EXPECT_EQ(layouts("other.cfg"), plain);
}

TEST_F(BridgeCheckTest, KeepsWhatTheConfigurationSays)
{
    sql("CREATE SCHEMA load; CREATE TABLE load.ledger (id bigint PRIMARY KEY, client integer NOT "
        "NULL, amount numeric(11,2), body varchar(60) NOT NULL, paid boolean);"
        "CREATE TABLE load.audit (a int, b int, note text, PRIMARY KEY (a, b));"
        "CREATE TABLE load.dull (id int PRIMARY KEY)");
    configure(std::string("log-file-size 8192\nlog-mode 0640\nlog-keep 1w\nlog-keep "
                          "acknowledged\nsync interval 250\n"
                          "text-encoding iso-8859-1\nvalues error\ndefault-width 77\n"
                          "default-width \"character varying\" 66\nskip-table load.dull\n"
                          "table load.audit values=mark\n"
                          "column load.audit.b key\ncolumn load.audit.a key\n"
                          "column load.audit.note values=mark item=REMARK\n"
                          "column load.gone.x width=5\n") +
              ledger_cfg);
    const run_result written = check({"--create", "--write-config", "written.cfg"});
    const std::string text = read_file(dir.file("written.cfg"));
    for (const char *line :
         {"log-file-size 8192\n", "byte-order little\n", "log-mode 0640\n",
          "log-keep 1w acknowledged\n", "sync interval 250\n", "text-encoding iso-8859-1\n",
          "\nvalues error ", "default-width 77\n", "default-width \"character varying\" 66\n",
          "skip-table load.dull\n", "table load.audit values=mark\n",
          "column load.gone.x width=5\n",
          "column load.audit.b item=B key   # I 4, integer: its type\n"
          "column load.audit.a item=A key   # I 4, integer: its type\n"
          "column load.audit.note item=REMARK width=77 values=mark   # X 77, text: ",
          "\ndatabase LOAD\ndataset LEDGER\nitem ID I 8\nitem CLIENT I 4\n"
          "item AMOUNT P 6 scale=2\nitem BODY X 60\nitem PAID X 1\nitem NULL-MAP X 5 null-map\n"
          "dataset AUDIT table=load.audit\n"})
        EXPECT_THAT(text, HasSubstr(line));
    EXPECT_THAT(written.out, HasSubstr("\nload.dull: left out by the configuration\n"));
    // Writing it again from itself changes nothing but what is told of it.
    check({"--create", "--write-config", "again.cfg", "-cfg", "written.cfg"});
    const auto statements = [&](const char *name) {
        std::istringstream lines(read_file(dir.file(name)));
        std::string kept;
        for (std::string line; std::getline(lines, line);)
            kept += line.substr(0, line.find("   # ")) + "\n";
        return kept;
    };
    EXPECT_EQ(statements("again.cfg"), statements("written.cfg"));
}

TEST_F(BridgeCheckTest, NoFileIsOverwritten)
{
    write_file(dir.file("mine.cfg"), "mine");
    const run_result result = check({"--create", "--write-config", "mine.cfg"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("mine.cfg: there is a file of this name already: name "
                                      "another one with --write-config\n"));
    EXPECT_EQ(read_file(dir.file("mine.cfg")), "mine");
    std::filesystem::create_symlink("elsewhere.cfg", dir.file("link.cfg"));
    EXPECT_EQ(check({"--create", "--write-config", "link.cfg"}).status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir.file("elsewhere.cfg")));
    const mode_t before = umask(027);
    EXPECT_EQ(check({"--create", "--write-config", "new.cfg"}).status, 0);
    umask(before);
    struct stat about = {};
    ASSERT_EQ(stat(dir.file("new.cfg").c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777, 0640U);
    EXPECT_EQ(catch_up({"--create", "-cfg", "new.cfg"}).status, 0);
    const run_result nowhere = check({"--create", "--write-config", "no/such/folder.cfg"});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_THAT(nowhere.err, HasSubstr("no/such/folder.cfg: cannot make the configuration file: "
                                       "No such file or directory\n"));
}

TEST_F(BridgeCheckTest, WithoutConfigurationItWritesOne)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY, note text)");
    std::filesystem::remove(dir.file("fwutil.cfg"));
    const auto bare = [&](std::vector<std::string> more) {
        more.insert(more.begin(),
                    {KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "--conninfo", conninfo(),
                     "--slot", database, "--publication", database, "--check", "--create"});
        return run_program(more, options);
    };
    const run_result missing = bare({});
    EXPECT_EQ(missing.status, 1) << missing.err;
    EXPECT_THAT(missing.out, HasSubstr("there is no configuration file fwutil.cfg: write one with "
                                       "--write-config, or one with the line that follows\n"
                                       "     log-directory log\n"));
    EXPECT_EQ(bare({"--write-config", "fwutil.cfg"}).status, 1);
    const run_result made = bare({});
    EXPECT_EQ(made.status, 0) << made.out << made.err;
    for (const std::string &command : sql_of(made.out))
        sql(command);
    EXPECT_EQ(catch_up({"--create"}).status, 0);
}

TEST_F(BridgeCheckTest, ALogOfAnotherEncodingThanTheConfiguration)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY)");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO plain VALUES (1)");
    ASSERT_EQ(catch_up().status, 0);
    configure("text-encoding utf-8\n");
    EXPECT_EQ(check().status, 0);
    configure("text-encoding iso-8859-1\n");
    const run_result other = check();
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.out, HasSubstr("text-encoding is iso-8859-1, the log in log has utf-8: take "
                                     "the line out, or begin a new log directory\n"));
    EXPECT_EQ(catch_up().status, 1);
    configure();
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(catch_up().status, 0);
    // A new log directory, with a slot of its own.
    write_file(dir.file("fwutil.cfg"), "log-directory latin\ntext-encoding iso-8859-1\n");
    const std::vector<std::string> anew = {"--create", "--snapshot", "--slot", database + "_2"};
    EXPECT_EQ(check(anew).status, 0);
    EXPECT_EQ(catch_up(anew).status, 0);
    EXPECT_TRUE(logged("after ID=1 "));
}

// What stands in the way of reading the log is told, and is not taken for a log that has nothing.
TEST_F(BridgeCheckTest, ALogThatCannotBeRead)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const std::string log = dir.file("log");
    const std::string aside = log + "/aside";
    write_file(aside, "no standing\n");
    const run_result damaged = check();
    EXPECT_EQ(damaged.status, 1);
    EXPECT_THAT(damaged.err, HasSubstr("log/aside: damaged: "));
    std::filesystem::remove_all(log);
    write_file(log, "");
    const run_result file = check();
    EXPECT_EQ(file.status, 1);
    EXPECT_THAT(file.err, HasSubstr("Not a directory"));
}
