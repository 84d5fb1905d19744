// "fwlog postgresql --check": what it tells of a database, that nothing is changed by it, that
// what it gives to be pasted mends what it names, and that a configuration that it wrote is
// taken as it stands and gives the same layouts.
#include "capture/hdrlayout.h"
#include "feed/postgresql/check_report.h"
#include "msgfile/tmf.h"
#include "tests/postgresql/bridge_fixture.h"

#include <filesystem>
#include <sstream>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class BridgeCheckTest : public BridgeTest {
  protected:
    run_result check(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), "--check");
        return run_bridge(more);
    }

    run_result check_as(const std::string &role, std::vector<std::string> more) const
    {
        more.insert(more.begin(), {"--check", "--conninfo", conninfo(role)});
        return run_bridge(more);
    }

    // The statements that are to be pasted into a session; a function has several lines.
    static std::vector<std::string> sql_of(const std::string &text)
    {
        std::vector<std::string> found;
        std::istringstream lines(text);
        std::string statement;
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("     ") || (statement.empty() && line[5] == ' '))
                continue;
            statement += (statement.empty() ? "" : "\n") + line.substr(5);
            const bool whole = occurrences(statement, "$$") != 1;
            if (whole && statement.ends_with(";"))
                found.push_back(statement);
            if (whole)
                statement.clear();
        }
        return found;
    }

    // All in one session.
    void paste(const std::vector<std::string> &commands) const
    {
        pg_client session = connect();
        for (const std::string &command : commands)
            session.run(command);
    }

    // The lines below a table's, up to the next empty one, with one blank between words.
    static std::vector<std::string> below(const std::string &text, const std::string &first)
    {
        std::vector<std::string> found;
        std::istringstream lines(text);
        bool inside = false;
        for (std::string line; std::getline(lines, line);) {
            if (inside && line.empty())
                break;
            if (inside) {
                std::istringstream words(line);
                std::string joined;
                for (std::string word; words >> word;)
                    joined += (joined.empty() ? "" : " ") + word;
                found.push_back(joined);
            }
            inside = inside || line.starts_with(first);
        }
        return found;
    }

    std::string layouts(const std::string &cfg) const
    {
        const run_result result = run_program(
            {KESTRO_BUILD_DIR "/bin/fwlog", "layout", "--columns", "-cfg", cfg}, options);
        EXPECT_EQ(result.status, 0) << result.err;
        // Where a layout stands differs from log to log.
        std::istringstream lines(result.out);
        std::string text;
        for (std::string line; std::getline(lines, line);)
            text += line.substr(0, line.find(" at ")) + "\n";
        return text;
    }
};

TEST(CheckReport, LimitsAreThoseOfHeadersAndMessageFiles)
{
    int32_t longest = 0;
    for (const uint32_t name : {0U, HDR_FGA}) {
        const hdrkinds_of kinds = cap_header_kinds(HDR_EXTHDR | HDR_YYYY | HDR_RECNUM | name);
        int32_t length = 0;
        for (size_t i = 0; i < kinds.n; i++)
            length += cap_header_item_size(kinds.kind[i]);
        longest = std::max(longest, length);
    }
    EXPECT_EQ(PGK_HEADER_MAX, longest);
    EXPECT_EQ(PGK_RECORD_MAX, TMF_MAX_DATA);
}

TEST_F(BridgeCheckTest, ChangesNothing)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY, note text)");
    const std::string catalogue = "SELECT md5(string_agg(t::text, '' ORDER BY oid)) FROM pg_class t"
                                  " WHERE oid >= 16384";
    const std::string before = value(catalogue);
    const run_result result = check({"--create", "--snapshot", "--scan"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, HasSubstr("\nA run would start and take everything.\n"));
    EXPECT_EQ(value(catalogue), before);
    EXPECT_EQ(value("SELECT count(*) FROM pg_publication"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM pg_replication_slots"), "0");
    EXPECT_FALSE(std::filesystem::exists(dir.file("log")));
}

TEST_F(BridgeCheckTest, WhatIsMissingIsMadeByWhatItPrints)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY); ALTER TABLE plain REPLICA IDENTITY FULL;"
        "CREATE TABLE unkeyed (id int); INSERT INTO unkeyed VALUES (1)");
    const run_result missing = check();
    EXPECT_EQ(missing.status, 1) << missing.err;
    const std::vector<std::string> commands = sql_of(missing.out);
    EXPECT_THAT(commands, testing::Contains("ALTER TABLE public.unkeyed REPLICA IDENTITY FULL;"));
    EXPECT_EQ(commands.front(), "BEGIN;");
    EXPECT_EQ(commands.back(), "CREATE PUBLICATION \"" + database +
                                   "\" FOR ALL TABLES WITH (publish_via_partition_root = true);");
    EXPECT_THAT(missing.out,
                HasSubstr("slot \"" + database + "\" is not there: start with --create\n"));
    EXPECT_THAT(missing.out, HasSubstr("A run would not start, or not go on: 2 things are in its "
                                       "way.\n"));
    paste(commands);
    // The application's own updates go on, those of tables that come later, too.
    sql("UPDATE unkeyed SET id = 2; CREATE TABLE later (id int); INSERT INTO later VALUES (1);"
        "UPDATE later SET id = 2");
    const run_result mended = check({"--create"});
    EXPECT_EQ(mended.status, 0) << mended.out << mended.err;
    EXPECT_THAT(sql_of(mended.out), IsEmpty());
    EXPECT_EQ(catch_up({"--create"}).status, 0);
    const run_result begun = check();
    EXPECT_EQ(begun.status, 0) << begun.out << begun.err;
}

TEST_F(BridgeCheckTest, SlotsThatTheLogDoesNotFollow)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY); ALTER TABLE plain REPLICA IDENTITY FULL;"
        "CREATE PUBLICATION " +
        database + " FOR ALL TABLES");
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    const run_result unknown = check();
    EXPECT_EQ(unknown.status, 1);
    EXPECT_THAT(unknown.out, HasSubstr("slot \"" + database +
                                       "\" is there already, and the log directory knows nothing "
                                       "of it: drop it and begin with --create --snapshot"));
    EXPECT_EQ(catch_up().status, 1); // a run says the same
    for (const std::string &command : sql_of(unknown.out))
        sql(command);
    EXPECT_EQ(check({"--create", "--snapshot"}).status, 0);
    ASSERT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_EQ(check({"--create", "--snapshot"}).status, 0);

    const run_result other = check({"--create", "--slot", "another"});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.out, HasSubstr("the log follows slot \"" + database +
                                     "\", not \"another\": name that one with --slot"));
    EXPECT_EQ(catch_up({"--create", "--slot", "another"}).status, 1);

    sql("SELECT pg_drop_replication_slot('" + database + "')");
    const run_result gone = check({"--create"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_THAT(gone.out, HasSubstr("is not there, and the log goes on from it: begin a new log "
                                    "directory"));
    EXPECT_EQ(catch_up({"--create"}).status, 1);

    const run_result elsewhere = check({"--create", "--conninfo", server->conninfo()});
    EXPECT_EQ(elsewhere.status, 1);
    EXPECT_THAT(elsewhere.out,
                HasSubstr("the log belongs to database \"" + database + "\" of server system "));
}

TEST_F(BridgeCheckTest, RightsAreGrantedByWhatItPrints)
{
    const std::string role = database + "_check";
    sql("CREATE ROLE " + role +
        " LOGIN; CREATE SCHEMA \"Back Office\"; CREATE TABLE \"Back Office\".\"Order\" (id int "
        "PRIMARY KEY); CREATE TABLE hidden (id int PRIMARY KEY);"
        "ALTER TABLE hidden ENABLE ROW LEVEL SECURITY; CREATE TABLE unkeyed (id int);"
        "INSERT INTO unkeyed VALUES (1); GRANT SELECT ON hidden TO " +
        role);
    const run_result missing = check_as(role, {"--create", "--snapshot"});
    EXPECT_EQ(missing.status, 1) << missing.err;
    EXPECT_THAT(missing.out,
                HasSubstr("only a superuser may make one of all tables, which role " + role +
                          " is not: let one start fwlog postgresql with "
                          "--create --once, or run these, all and in this "
                          "order"));
    EXPECT_EQ(occurrences(missing.out, "public.unkeyed REPLICA IDENTITY FULL"), 1);
    EXPECT_THAT(missing.out, HasSubstr("row security hides rows of these tables from role " + role +
                                       ", and --snapshot needs all: public.hidden\n"));
    const std::string quoted = "\"" + role + "\"";
    EXPECT_THAT(
        sql_of(missing.out),
        testing::IsSupersetOf({"ALTER ROLE " + quoted + " REPLICATION;",
                               "GRANT USAGE ON SCHEMA \"Back Office\" TO " + quoted + ";",
                               "GRANT SELECT ON \"Back Office\".\"Order\" TO " + quoted + ";",
                               "ALTER ROLE " + quoted + " BYPASSRLS;"}));
    paste(sql_of(missing.out));
    sql("UPDATE unkeyed SET id = 2; CREATE TABLE later (id int); INSERT INTO later VALUES (1);"
        "UPDATE later SET id = 2; GRANT SELECT ON later TO " +
        role);
    const run_result mended = check_as(role, {"--create", "--snapshot"});
    EXPECT_EQ(mended.status, 0) << mended.out << mended.err;
    const run_result run =
        run_bridge({"--conninfo", conninfo(role), "--create", "--snapshot", "--once"});
    EXPECT_EQ(run.status, 0) << run.err;
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCheckTest, IdentitiesOfParentsAndAllPartitions)
{
    sql("CREATE SCHEMA load; CREATE TABLE load.deep (id int, region text) PARTITION BY LIST "
        "(region);"
        "CREATE TABLE load.\"deep North\" PARTITION OF load.deep FOR VALUES IN ('n') PARTITION BY "
        "RANGE (id);"
        "CREATE TABLE load.deep_north_1 PARTITION OF load.\"deep North\" FOR VALUES FROM (0) TO "
        "(9); CREATE TABLE load.deep_south PARTITION OF load.deep FOR VALUES IN ('s');"
        "CREATE TABLE load.keyed (id int PRIMARY KEY, note text);"
        "CREATE TABLE load.whole (id int); ALTER TABLE load.whole REPLICA IDENTITY FULL;"
        "CREATE TABLE load.none (id int); CREATE PUBLICATION " +
        database + " FOR ALL TABLES WITH (publish_via_partition_root = true)");
    const run_result first = check({"--create"});
    EXPECT_EQ(first.status, 0) << first.out << first.err;
    const auto full = [](const std::string &table) {
        return "ALTER TABLE " + table + " REPLICA IDENTITY FULL;";
    };
    std::vector<std::string> alters = sql_of(first.out);
    std::erase_if(alters, [](const auto &command) { return !command.starts_with("ALTER TABLE "); });
    EXPECT_THAT(alters,
                ElementsAre(full("load.deep"), full("load.\"deep North\""), full("load.deep_south"),
                            full("load.deep_north_1"), full("load.\"none\""), full("load.keyed")));
    // Where marks are not wanted, a key alone is not enough.
    configure("values error\n");
    const run_result strict = check({"--create"});
    EXPECT_EQ(strict.status, 1);
    EXPECT_THAT(strict.out, HasSubstr("or a dataset without a null map) whole ones are needed\n"
                                      "     ALTER TABLE load.keyed REPLICA IDENTITY FULL;\n"));
    paste(sql_of(strict.out));
    const run_result mended = check({"--create"});
    EXPECT_EQ(mended.status, 0) << mended.out;
    EXPECT_THAT(sql_of(mended.out), IsEmpty());
}

TEST_F(BridgeCheckTest, APublicationOfAllTablesWithNothingForLaterOnes)
{
    sql("CREATE TABLE plain (id int); ALTER TABLE plain REPLICA IDENTITY FULL;"
        "CREATE PUBLICATION " +
        database + " FOR ALL TABLES");
    const run_result bare = check({"--create"});
    EXPECT_EQ(bare.status, 0) << bare.out << bare.err;
    EXPECT_THAT(bare.out, HasSubstr("has all tables, also later ones, and nothing gives those "
                                    "without a primary key an identity"));
    EXPECT_THROW(
        sql("CREATE TABLE one (id int); INSERT INTO one VALUES (1); UPDATE one SET id = 2"),
        std::runtime_error);
    paste(sql_of(bare.out));
    sql("CREATE TABLE two (id int); INSERT INTO two VALUES (1); UPDATE two SET id = 2");
    EXPECT_THAT(sql_of(check({"--create"}).out), IsEmpty());
    // One without updates has no need of it.
    sql("DROP EVENT TRIGGER kestro_replica_identity; ALTER PUBLICATION " + database +
        " SET (publish = 'insert')");
    EXPECT_THAT(check({"--create"}).out, Not(HasSubstr("also later ones")));
}

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
    configure(std::string("log-file-size 8192\nlog-mode 0640\nsync interval 250\n"
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
         {"log-file-size 8192\n", "byte-order little\n", "log-mode 0640\n", "sync interval 250\n",
          "text-encoding iso-8859-1\n", "\nvalues error ", "default-width 77\n",
          "default-width \"character varying\" 66\n", "skip-table load.dull\n",
          "table load.audit values=mark\n", "column load.gone.x width=5\n",
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

TEST_F(BridgeCheckTest, ScanCountsWhatDoesNotFit)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text, code varchar(5), day date,"
        " price numeric(5,2), at timestamp, flag boolean, kind char(4));"
        "INSERT INTO held SELECT i, 'short', 'abc', '2026-03-09', 1.5, '2026-03-09', true, 'ab'"
        " FROM generate_series(1, 96) i;"
        "INSERT INTO held VALUES (97, repeat('x', 4000), 'abcde', '10000-01-01', 'NaN',"
        " '0044-03-15 BC', false, 'abcd'), (98, repeat('ö', 1500), '€€€€€', '0044-03-15 BC', 2,"
        " 'infinity', NULL, NULL), (99, 'x', 'y', 'infinity', NULL, '10000-01-01', NULL, 'x')");
    configure("default-width 1000\n");
    const run_result result = check({"--create", "--scan", "--write-config", "written.cfg"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    for (const char *text :
         {"public.held.note: 2 rows would be cut, of 99 rows in all; item NOTE is X 1000, the "
          "longest value has 4000\n     column public.held.note width=5000\n",
          "public.held.code: 1 row would be cut, of 99 rows in all; item CODE is X 12, the longest "
          "value has 15\n     column public.held.code width=24\n",
          "public.held.day: 2 rows would be left out, of 99 rows in all; item DAY is X 10, ",
          "public.held.price: 1 row would be left out, of 99 rows in all; item PRICE is P 3 "
          "scale=2\n",
          "public.held.at: 2 rows would be left out, of 99 rows in all; item AT is X 26\n",
          "\n  scanned: 99 rows\n"})
        EXPECT_THAT(result.out, HasSubstr(text));
    EXPECT_THAT(result.out, Not(HasSubstr("public.held.flag:")));
    EXPECT_THAT(result.out, Not(HasSubstr("public.held.kind:")));
    // With room for what is there nothing is cut.
    const run_result wider = check({"--create", "--scan", "-cfg", "written.cfg"});
    EXPECT_EQ(wider.status, 0) << wider.out << wider.err;
    EXPECT_THAT(wider.out, Not(HasSubstr("would be cut")));
    EXPECT_THAT(wider.out, HasSubstr("public.held.price: 1 row would be left out"));
}

TEST_F(BridgeCheckTest, ScanOfTheOldEncodingCountsCharacters)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, code varchar(5));"
        "INSERT INTO held VALUES (1, 'äöüßé'), (2, '5 €'), (3, 'abcde')");
    configure("text-encoding iso-8859-1\n");
    const run_result result = check({"--create", "--scan"});
    EXPECT_THAT(result.out, HasSubstr("public.held.code: 1 row would have characters replaced, of "
                                      "3 rows in all; item CODE is X 5\n"));
    configure("text-encoding iso-8859-1\nvalues error\n");
    const run_result strict = check({"--create", "--scan"});
    EXPECT_EQ(strict.status, 1);
    EXPECT_THAT(strict.out, HasSubstr("public.held.code: 1 row with characters without a place"));
}

TEST_F(BridgeCheckTest, ScanOfADatabaseWithoutEncodingCountsBytesThatAreNoUtf8)
{
    pg_client(server->conninfo())
        .run("CREATE DATABASE bytes_" + database +
             " ENCODING 'SQL_ASCII' TEMPLATE template0 LC_COLLATE 'C' LC_CTYPE 'C'");
    const std::string other = database;
    database = "bytes_" + other;
    // The last of each length and the first of the next; then what is none: not continued,
    // continuing nothing, longer than need be, half of a pair, beyond the last character.
    sql("CREATE TABLE held (id serial PRIMARY KEY, note text); ALTER TABLE held REPLICA IDENTITY "
        "FULL; INSERT INTO held (note) VALUES (E'~\\x7f'), (E'\\xc2\\x80 \\xc3\\xbf'),"
        " (E'\\xdf\\xbf'), (E'\\xe0\\xa0\\x80'), (E'\\xed\\x9f\\xbf\\xee\\x80\\x80'),"
        " (E'\\xef\\xbf\\xbf'), (E'\\xf0\\x90\\x80\\x80'), (E'\\xf4\\x8f\\xbf\\xbf'), (NULL), ('');"
        "INSERT INTO held (note) VALUES (E'a\\xffz'), (E'\\xc3'), (E'\\xc3z'), (E'\\xe2\\x82'),"
        " (E'\\x80'), (E'\\xc0\\x80'), (E'\\xc1\\xbf'), (E'\\xe0\\x9f\\xbf'), (E'\\xed\\xa0\\x80'),"
        " (E'\\xf0\\x8f\\xbf\\xbf'), (E'\\xf4\\x90\\x80\\x80'), (E'\\xf5\\x80\\x80\\x80')");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_EQ(scanned.status, 0) << scanned.err;
    EXPECT_THAT(scanned.out, HasSubstr("public.held.note: 12 rows would have characters replaced, "
                                       "of 22 rows in all; item NOTE is X 1000\n"));
    // A run finds the same.
    ASSERT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_EQ(status_member("replaced"), "12");
    // The old encoding has no more than 256 characters.
    std::filesystem::remove_all(dir.file("log"));
    configure("text-encoding iso-8859-1\ncolumn public.held.note width=3\nvalues mark\n");
    const run_result old = check({"--create", "--scan"});
    EXPECT_THAT(old.out, HasSubstr("public.held.note: 18 rows would have characters replaced, of "
                                   "22 rows in all; item NOTE is X 3\n"));
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    pg_client(server->conninfo()).run("DROP DATABASE " + database + " WITH (FORCE)");
    database = other;
}

TEST_F(BridgeCheckTest, ScanOfDescribedTables)
{
    sql("CREATE SCHEMA load; CREATE TABLE load.ledger (id bigint PRIMARY KEY, client bigint,"
        " amount numeric, body text); ALTER TABLE load.ledger REPLICA IDENTITY FULL;"
        "INSERT INTO load.ledger VALUES (1, 2147483647, 999.99, 'body'), (2, 2147483648, 1000, "
        "'bodies'), (3, -2147483648, 1.001, NULL), (4, NULL, 'NaN', 'b')");
    configure("database LOAD\ndataset LEDGER\nitem ID I 8\nitem CLIENT I 4\n"
              "item AMOUNT P 3 scale=2\nitem BODY X 4\n");
    const run_result result = check({"--create", "--scan"});
    EXPECT_EQ(result.status, 1);
    for (const char *text :
         {"load.ledger.client: 1 row that the item cannot hold, 1 row null without a null map, of "
          "4 rows in all; item CLIENT is I 4\n",
          "load.ledger.amount: 3 rows that the item cannot hold, of 4 rows in all; item AMOUNT is "
          "P 3 scale=2\n",
          "load.ledger.body: 1 row too long, 1 row null without a null map, of 4 rows in all; item "
          "BODY is X 4, the longest value has 6\n"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST_F(BridgeCheckTest, TablesThatCannotBeScannedAreToldAndPassedOver)
{
    const std::string role = database + "_scan";
    sql("CREATE ROLE " + role +
        " LOGIN REPLICATION; CREATE TABLE a_locked (id int PRIMARY KEY);"
        "CREATE TABLE b_open (id int PRIMARY KEY); INSERT INTO b_open VALUES (1);"
        "CREATE TABLE c_closed (id int PRIMARY KEY); GRANT SELECT ON a_locked, b_open TO " +
        role);
    pg_client other = connect();
    other.run("BEGIN; LOCK TABLE a_locked");
    const run_result result = check_as(role, {"--create", "--scan", "--scan-timeout", "1"});
    EXPECT_THAT(result.out, HasSubstr("  not scanned: canceling statement due to statement "
                                      "timeout\n"));
    EXPECT_THAT(result.out, HasSubstr("  scanned: 1 row\n"));
    EXPECT_THAT(result.out, HasSubstr("  not scanned: permission denied for table c_closed\n"));
    other.run("COMMIT");
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCheckTest, SignalEndsAScanAndItsQuery)
{
    sql("CREATE TABLE locked (id int PRIMARY KEY)");
    pg_client other = connect();
    other.run("BEGIN; LOCK TABLE locked");
    start_bridge({"--check", "--create", "--scan"});
    const auto waiting = [&] {
        return value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'fwlog'"
                     " AND wait_event_type = 'Lock'");
    };
    ASSERT_TRUE(poll_until([&] { return waiting() == "1"; })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_TRUE(poll_until([&] { return waiting() == "0"; }));
    EXPECT_EQ(bridge.out(), "");
}

TEST_F(BridgeCheckTest, TablesThatThePublicationDoesNotHave)
{
    sql("CREATE TABLE a_followed (id int PRIMARY KEY); CREATE TABLE b_skipped (id int PRIMARY KEY);"
        "CREATE TABLE \"C not\" (id int PRIMARY KEY);"
        "CREATE TABLE d_parent (id int PRIMARY KEY) PARTITION BY LIST (id);"
        "CREATE TABLE d_part PARTITION OF d_parent FOR VALUES IN (1);"
        "CREATE PUBLICATION " +
        database + " FOR TABLE a_followed WITH (publish_via_partition_root = true)");
    configure("skip-table public.b_skipped\n");
    const run_result result = check({"--create"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    const std::string add = "ALTER PUBLICATION \"" + database + "\" ADD TABLE public.";
    EXPECT_THAT(result.out, HasSubstr("does not have these tables, they are not followed:\n     " +
                                      add + "\"C not\";\n     " + add + "d_parent;\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("b_skipped")));
    for (const std::string &command : sql_of(result.out))
        sql(command);
    EXPECT_THAT(check({"--create"}).out, Not(HasSubstr("they are not followed")));
}

TEST_F(BridgeCheckTest, MinimalCreationLeavesTablesOut)
{
    sql("CREATE TABLE keyed (id int PRIMARY KEY); CREATE TABLE unkeyed (id int);"
        "CREATE TABLE parent (id int) PARTITION BY LIST (id);"
        "CREATE TABLE part PARTITION OF parent FOR VALUES IN (1)");
    const run_result result = check({"--create=minimal"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("\n  tables      1\n"));
    EXPECT_THAT(result.out, HasSubstr("--create=minimal leaves them out; to have them followed\n"
                                      "     ALTER TABLE public.parent REPLICA IDENTITY FULL;\n"
                                      "     ALTER TABLE public.part REPLICA IDENTITY FULL;\n"
                                      "     ALTER TABLE public.unkeyed REPLICA IDENTITY FULL;\n"));
    for (const std::string &command : sql_of(result.out))
        sql(command);
    const run_result mended = check({"--create=minimal"});
    EXPECT_THAT(mended.out, HasSubstr("\n  tables      3\n"));
    EXPECT_THAT(mended.out, Not(HasSubstr("leaves them out")));
}

TEST_F(BridgeCheckTest, MinimalCreationNeedsTheRightsToThePublication)
{
    const std::string role = database + "_minimal";
    sql("CREATE ROLE " + role +
        " LOGIN REPLICATION; CREATE TABLE theirs (id int PRIMARY KEY);"
        "CREATE TABLE own (id int PRIMARY KEY); ALTER TABLE own OWNER TO " +
        role + "; CREATE TABLE unkeyed (id int)");
    const run_result missing = check_as(role, {"--create=minimal"});
    EXPECT_EQ(missing.status, 1) << missing.err;
    EXPECT_THAT(missing.out,
                HasSubstr("publication \"" + database + "\" is not there: role " + role +
                          " may not make it, it lacks the right CREATE on database " + database +
                          ", and it does not own public.theirs: let a superuser make it\n"));
    const std::vector<std::string> commands = sql_of(missing.out);
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands[0], "CREATE PUBLICATION \"" + database +
                               "\" FOR TABLE public.theirs, public.own WITH "
                               "(publish_via_partition_root = true);");
    // With the rights instead a start makes it.
    sql("GRANT CREATE ON DATABASE " + database + " TO " + role);
    const run_result tables = check_as(role, {"--create=minimal"});
    EXPECT_EQ(tables.status, 1);
    EXPECT_THAT(tables.out, HasSubstr(" may not make it, it does not own public.theirs: let"));
    sql("ALTER TABLE theirs OWNER TO " + role);
    EXPECT_EQ(check_as(role, {"--create=minimal"}).status, 0);
    sql("REVOKE CREATE ON DATABASE " + database + " FROM " + role);
    const run_result right = check_as(role, {"--create=minimal"});
    EXPECT_THAT(right.out, HasSubstr(" it lacks the right CREATE on database " + database +
                                     ": let a superuser make it\n"));
    // And so does what it prints.
    paste({sql_of(right.out)[0]});
    EXPECT_EQ(check_as(role, {"--create=minimal"}).status, 0);
    const run_result run = run_bridge({"--conninfo", conninfo(role), "--create=minimal", "--once"});
    EXPECT_EQ(run.status, 0) << run.err;
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCheckTest, WhatTheServerDoesNotSend)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY, twice int GENERATED ALWAYS AS (id * 2) STORED);"
        "CREATE UNLOGGED TABLE quick (id int PRIMARY KEY);"
        "CREATE UNLOGGED TABLE skipped (id int PRIMARY KEY); CREATE TEMPORARY TABLE own (id int);"
        "CREATE FOREIGN DATA WRAPPER afar; CREATE SERVER there FOREIGN DATA WRAPPER afar;"
        "CREATE FOREIGN TABLE \"Far Away\" (id int) SERVER there");
    configure("skip-table public.skipped\n");
    const std::string expected =
        "the server does not log the changes of these tables, they cannot be followed\n"
        "     public.\"Far Away\": foreign\n     public.quick: unlogged\n";
    const std::string computed =
        "the server does not send these columns, which it computes from others; they are left out "
        "of the log\n     public.plain.twice\n";
    // Both before a publication is there and after that.
    const run_result before = check({"--create"});
    EXPECT_EQ(before.status, 0) << before.err;
    EXPECT_THAT(before.out, HasSubstr(expected));
    EXPECT_THAT(before.out, HasSubstr(computed));
    EXPECT_THAT(before.out, Not(HasSubstr("own:")));
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const run_result after = check();
    EXPECT_EQ(after.status, 0) << after.err;
    EXPECT_THAT(after.out, HasSubstr(expected));
    EXPECT_THAT(after.out, HasSubstr(computed));
}

TEST_F(BridgeCheckTest, LinesOfAScanAreTakenAsTheyStand)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text, code varchar(5), said text);"
        "INSERT INTO held VALUES (1, repeat('x', 4000), '€€€€€', repeat('y', 1001))");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_EQ(scanned.status, 0) << scanned.err;
    std::string lines;
    std::istringstream text(scanned.out);
    for (std::string line; std::getline(text, line);)
        if (line.starts_with("     column ") || line == "     values mark")
            lines += line.substr(5) + "\n";
    EXPECT_EQ(lines, "column public.held.note width=5000\ncolumn public.held.code width=24\n"
                     "column public.held.said width=1256\nvalues mark\n");
    configure(lines);
    const run_result mended = check({"--create", "--scan"});
    EXPECT_EQ(mended.status, 0) << mended.out << mended.err;
    EXPECT_THAT(mended.out, Not(HasSubstr("would be cut")));
    EXPECT_THAT(mended.out, Not(HasSubstr("values mark")));
    const run_result run = catch_up({"--create", "--snapshot"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, Not(HasSubstr("marked C")));
}

TEST_F(BridgeCheckTest, AColumnThatHasALineGetsNoSecondOne)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text); INSERT INTO held VALUES (1, repeat('x',"
        " 4000))");
    configure("values mark\ncolumn public.held.note item=REMARK\n");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_THAT(scanned.out, HasSubstr("\n     width=5000 in its line \"column public.held.note "
                                       "...\" gives it room\n"));
    EXPECT_THAT(scanned.out, Not(HasSubstr("     column public.held.note width")));
    configure("values mark\ncolumn public.held.note item=REMARK width=5000\n");
    EXPECT_THAT(check({"--create", "--scan"}).out, Not(HasSubstr("would be cut")));
}

TEST_F(BridgeCheckTest, RecordsThatAMessageFileRefuses)
{
    sql("CREATE TABLE large (id int PRIMARY KEY, note text)");
    configure("column public.large.note width=20000\n");
    const run_result result = check({"--create"});
    EXPECT_THAT(result.out,
                HasSubstr("public.large: the record of an update of PUBLIC.LARGE takes up to 40153 "
                          "bytes, twice 20006 and a header; a message file refuses more than "
                          "32761: give its widest columns less with width=, or capture it as "
                          "text\n"));
    EXPECT_THAT(result.out, HasSubstr("public.large -> PUBLIC.LARGE: image of 20006 bytes, the "
                                      "record of an update up to 40153 of 32761\n"));
}

TEST_F(BridgeCheckTest, RecordsThatNoWidthShrinks)
{
    std::string columns = "id int PRIMARY KEY";
    for (int i = 0; i < 1000; i++)
        columns += ", u" + std::to_string(i) + " uuid";
    sql("CREATE TABLE large (" + columns + ", note text)");
    const run_result result = check({"--create"});
    EXPECT_THAT(result.out,
                HasSubstr("refuses more than 32761: no width of its texts makes it fit, "
                          "capture it as text\n"));
}

TEST_F(BridgeCheckTest, PrintsOneJsonObject)
{
    sql("CREATE TABLE plain (id int PRIMARY KEY, note text); CREATE TABLE skipped (id int)");
    configure("skip-table public.skipped\n");
    const run_result result = check({"--create", "--json", "--scan"});
    EXPECT_EQ(result.status, 0) << result.err;
    write_file(dir.file("check.json"), result.out);
    write_file(dir.file("look.py"),
               "import json\n"
               "check = json.load(open('check.json'))\n"
               "table, skipped = check['tables']\n"
               "assert skipped['skipped'] and skipped['columns'] == []\n"
               "print(check['starts'], check['slot_exists'], check['text_encoding'],"
               " check['values'])\n"
               "print(table['table'], table['database'], table['dataset'], table['rows'],"
               " table['fits_message_file'])\n"
               "for c in table['columns']:\n"
               "    print(c['column'], c['item'], c['type'], c['size'], c['source_type'],"
               " c['width_chosen'])\n"
               "for f in check['findings']:\n"
               "    print(f['stops'], f['kind'], f['sql'])\n");
    const run_result read = run_program({"/usr/bin/python3", "look.py"}, options);
    EXPECT_EQ(read.out, "True False utf-8 mark\n"
                        "public.plain PUBLIC PLAIN 0 True\n"
                        "id ID I 4 integer False\n"
                        "note NOTE X 1000 text True\n"
                        "False identity ['ALTER TABLE public.plain REPLICA IDENTITY FULL;']\n")
        << read.err << result.out;
}

TEST_F(BridgeCheckTest, WordsThatNeedIt)
{
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"--scan"}, {"--json"}, {"--write-config", "new.cfg"}}) {
        const run_result result = run_bridge(words);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr("option needs --check: " + words[0]));
    }
    const run_result bad = check({"--scan-timeout", "0"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_THAT(bad.err, HasSubstr("--scan-timeout takes 1 to 86400 seconds"));
}

TEST_F(BridgeCheckTest, SlotOfAnotherPlugin)
{
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'test_decoding')");
    const run_result result = check({"--create"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("slot \"" + database +
                                      "\" is one of plugin "
                                      "\"test_decoding\" and database \"" +
                                      database +
                                      "\", not of pgoutput and this database: name another with "
                                      "--slot\n"));
}

TEST_F(BridgeCheckTest, SlotInUse)
{
    begin_following();
    const run_result result = check();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, testing::ContainsRegex("slot \"" + database +
                                                   "\" is used by process [0-9]+: end that one "
                                                   "first"));
}

TEST_F(BridgeCheckTest, NoServer)
{
    const run_result result = check({"--conninfo", "host=" + dir.path() + " dbname=shop"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("fwlog: cannot connect: "));
    EXPECT_EQ(result.out, "");
}

// A server without what a stream needs.
TEST(CheckServer, SettingsAreSetByWhatItPrints)
{
    if (const std::string why = pg_server::missing(); !why.empty())
        GTEST_SKIP() << why;
    pg_server server({"wal_level = replica", "max_replication_slots = 0", "max_wal_senders = 0"});
    const tempdir dir;
    run_setup options;
    options.directory = dir.path();
    write_file(dir.file("fwutil.cfg"), "log-directory log\n");
    const auto check = [&] {
        return run_program({KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "--check", "--create",
                            "--conninfo", server.conninfo()},
                           options);
    };
    const run_result missing = check();
    EXPECT_EQ(missing.status, 1) << missing.err;
    EXPECT_THAT(missing.out, HasSubstr("wal_level is replica, it has to be logical: set it and "
                                       "restart the server\n"
                                       "     ALTER SYSTEM SET wal_level = logical;\n"));
    EXPECT_THAT(missing.out, HasSubstr("all 0 of max_replication_slots are in use: raise it and "
                                       "restart the server\n"
                                       "     ALTER SYSTEM SET max_replication_slots = 4;\n"));
    EXPECT_THAT(missing.out,
                HasSubstr("\n     ALTER SYSTEM SET max_wal_senders = 4; -- and restart "
                          "the server\n"));
    pg_client(server.conninfo()).run("ALTER SYSTEM SET wal_level = logical");
    pg_client(server.conninfo()).run("ALTER SYSTEM SET max_replication_slots = 4");
    pg_client(server.conninfo())
        .run("ALTER SYSTEM SET max_wal_senders = 4; -- and restart the server");
    server.stop();
    server.start();
    const run_result mended = check();
    EXPECT_EQ(mended.status, 0) << mended.out << mended.err;
}
