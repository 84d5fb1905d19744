// "fwlog postgresql --check": what it tells of a database, that nothing is changed by it, that
// what it gives to be pasted mends what it names.
#include "capture/hdrlayout.h"
#include "feed/postgresql/check_report.h"
#include "msgfile/tmf.h"
#include "tests/postgresql/check_fixture.h"

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

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
    EXPECT_EQ(commands.back(),
              "CREATE PUBLICATION \"" + database + "\" FOR ALL TABLES" + publication_with() + ";");
    EXPECT_THAT(missing.out,
                HasSubstr("slot \"" + database + "\" is not there: start with --create\n"));
    EXPECT_THAT(missing.out, HasSubstr("A run would not start: 2 things are in its way.\n"));
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
    EXPECT_THAT(missing.out,
                HasSubstr("row security hides rows from role " + role +
                          ", so that --snapshot and --resume set their tables aside; let it see "
                          "all before, else later, and then --resume them: public.hidden\n"));
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
    if (server_version() < 13)
        return; // partitions are published as tables of their own
    sql("CREATE SCHEMA load; CREATE TABLE load.deep (id int, region text) PARTITION BY LIST "
        "(region);"
        "CREATE TABLE load.\"deep North\" PARTITION OF load.deep FOR VALUES IN ('n') PARTITION BY "
        "RANGE (id);"
        "CREATE TABLE load.deep_north_1 PARTITION OF load.\"deep North\" FOR VALUES FROM (0) TO "
        "(9); CREATE TABLE load.deep_south PARTITION OF load.deep FOR VALUES IN ('s');"
        "CREATE TABLE load.keyed (id int PRIMARY KEY, note text);"
        "CREATE TABLE load.whole (id int); ALTER TABLE load.whole REPLICA IDENTITY FULL;"
        "CREATE TABLE load.none (id int); CREATE PUBLICATION " +
        database + " FOR ALL TABLES" + publication_with());
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
    EXPECT_THAT(strict.out, HasSubstr("A run would not start: 1 thing is in its way.\n"));
    EXPECT_EQ(catch_up({"--create"}).status, 1);
    // Nothing but that table is concerned once the log has begun.
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    const run_result begun = check({"--accept-gap"});
    EXPECT_EQ(begun.status, 0) << begun.out << begun.err;
    EXPECT_THAT(begun.out,
                HasSubstr("whole ones are needed; a change without sets its table aside\n"));
    EXPECT_THAT(begun.out, HasSubstr("A run would start, with tables set aside.\n"));
    EXPECT_EQ(catch_up({"--accept-gap"}).status, 0);
    sql("INSERT INTO load.keyed VALUES (1); UPDATE load.keyed SET note = 'x'");
    const run_result run = catch_up();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("table load.keyed is set aside from transaction "));
    paste(sql_of(strict.out));
    EXPECT_EQ(catch_up({"--resume", "load.keyed"}).status, 0);
    const run_result mended = check();
    EXPECT_EQ(mended.status, 0) << mended.out;
    EXPECT_THAT(mended.out, HasSubstr("A run would start and take everything.\n"));
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

TEST_F(BridgeCheckTest, APublicationThatGivesEachPartitionAsATable)
{
    if (server_version() < 13)
        GTEST_SKIP() << "this server's publications have no choice";
    sql("CREATE TABLE whole (id int PRIMARY KEY) PARTITION BY RANGE (id);"
        "CREATE TABLE part PARTITION OF whole FOR VALUES FROM (1) TO (9);"
        "CREATE PUBLICATION " +
        database + " FOR TABLE whole");
    const run_result each = check({"--create"});
    EXPECT_EQ(each.status, 0) << each.out << each.err;
    EXPECT_THAT(each.out, HasSubstr("gives each partition as a table of its own; with this they "
                                    "come as their parent's rows\n"));
    EXPECT_THAT(each.out, HasSubstr("\npublic.part"));
    paste(sql_of(each.out));
    const run_result whole = check({"--create"});
    EXPECT_THAT(whole.out, HasSubstr("\npublic.whole"));
    EXPECT_THAT(whole.out, Not(HasSubstr("gives each partition")));
    EXPECT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO whole VALUES (3)");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_THAT(dump(), HasSubstr(" insert PUBLIC.WHOLE "));
}

TEST_F(BridgeCheckTest, TablesThatThePublicationDoesNotHave)
{
    if (server_version() < 13)
        return; // partitions are published as tables of their own
    sql("CREATE TABLE a_followed (id int PRIMARY KEY); CREATE TABLE b_skipped (id int PRIMARY KEY);"
        "CREATE TABLE \"C not\" (id int PRIMARY KEY);"
        "CREATE TABLE d_parent (id int PRIMARY KEY) PARTITION BY LIST (id);"
        "CREATE TABLE d_part PARTITION OF d_parent FOR VALUES IN (1);"
        "CREATE PUBLICATION " +
        database + " FOR TABLE a_followed" + publication_with());
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
    if (server_version() < 13)
        return; // partitions are published as tables of their own
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
    EXPECT_EQ(catch_up({"--create=minimal"}).status, 0);
    sql("INSERT INTO unkeyed VALUES (3); INSERT INTO parent VALUES (1); DELETE FROM parent");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=3 ") && logged("before ID=1 "));
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
                               "\" FOR TABLE public.theirs, public.own" + publication_with() + ";");
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
    sql("CREATE TABLE plain (id int PRIMARY KEY, twice int GENERATED ALWAYS AS (id * 2) " +
        unsent_kind() +
        ");"
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

// More than the longest image, however short the texts beside it are.
TEST_F(BridgeCheckTest, ATableWhoseLayoutCannotBeMade)
{
    std::string columns = "id int PRIMARY KEY";
    std::string narrow;
    for (int i = 0; i < 600; i++) {
        columns += ", b" + std::to_string(i) + " bit(32767)";
        narrow += "column public.bits.b" + std::to_string(i) + " width=10\n";
    }
    sql("CREATE TABLE bits (" + columns +
        "); INSERT INTO bits VALUES (1);"
        "CREATE TABLE plain (id int PRIMARY KEY); INSERT INTO plain VALUES (2)");
    const std::string why = "table public.bits: the record image is longer than 16777216 bytes, ";
    const run_result result = check({"--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("\npublic.bits: will be set aside: " + why));
    EXPECT_THAT(result.out, HasSubstr(". table public.bits will be set aside: " + why));
    EXPECT_THAT(result.out, HasSubstr("; mend that before a start, else later, and then fwlog "
                                      "postgresql --resume public.bits\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("What stops a run:")));
    EXPECT_THAT(result.out, HasSubstr("\nA run would start, with tables set aside.\n"));
    const run_result json = check({"--create", "--snapshot", "--json"});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_THAT(json.out, HasSubstr("{\"starts\":true,"));
    EXPECT_THAT(json.out, HasSubstr("{\"stops\":false,\"aside\":true,\"kind\":\"table\",\"text\":"
                                    "\"table public.bits will be set aside: "));

    const run_result run = catch_up({"--create", "--snapshot"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("table public.bits is set aside from "));
    EXPECT_THAT(run.err, HasSubstr(why));
    EXPECT_TRUE(logged("after ID=2 "));
    EXPECT_FALSE(logged("after ID=1 "));
    configure("values mark\n" + narrow);
    const run_result aside = check();
    EXPECT_EQ(aside.status, 0) << aside.out << aside.err;
    EXPECT_THAT(aside.out, HasSubstr(". table public.bits is set aside: " + why));
    EXPECT_THAT(aside.out, HasSubstr("; mend that, then fwlog postgresql --resume public.bits\n"));
    EXPECT_THAT(aside.out, HasSubstr("\nA run would start, with tables set aside.\n"));
    const run_result resumed = catch_up({"--resume", "public.bits"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(logged("after ID=1 "));
    EXPECT_EQ(status_member("aside"), "[]");
    EXPECT_THAT(check().out, HasSubstr("A run would start and take everything.\n"));
}

TEST_F(BridgeCheckTest, TablesThatASnapshotMayNotRead)
{
    const std::string role = database + "_reads";
    sql("CREATE ROLE " + role +
        " LOGIN REPLICATION; CREATE TABLE closed (id int PRIMARY KEY);"
        "CREATE TABLE hidden (id int PRIMARY KEY); ALTER TABLE hidden ENABLE ROW LEVEL SECURITY;"
        "GRANT SELECT ON hidden TO " +
        role + "; CREATE PUBLICATION " + database + " FOR TABLE closed, hidden");
    const run_result unread = check_as(role, {"--create"});
    EXPECT_EQ(unread.status, 0) << unread.out << unread.err;
    EXPECT_THAT(unread.out, HasSubstr("A run would start and take everything.\n"));
    const run_result read = check_as(role, {"--create", "--snapshot"});
    EXPECT_EQ(read.status, 0) << read.out << read.err;
    EXPECT_THAT(read.out, HasSubstr("A run would start, with tables set aside.\n"));
    for (const run_result &result : {unread, read}) {
        EXPECT_THAT(result.out,
                    HasSubstr("role " + role +
                              " may not read these tables: --snapshot and --resume set them aside; "
                              "grant it before, else later, and then --resume them\n     GRANT "
                              "SELECT ON public.closed TO \"" +
                              role + "\";\n"));
        EXPECT_THAT(result.out, Not(HasSubstr("What stops a run:")));
    }
    const auto run = [&](std::vector<std::string> more) {
        more.insert(more.end(), {"--conninfo", conninfo(role)});
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
    };
    run({"--create", "--snapshot"});
    EXPECT_THAT(status_member("aside"), HasSubstr("public.closed"));
    for (const std::string &command : sql_of(read.out))
        if (command.find("SELECT ON") != command.npos || command.ends_with("BYPASSRLS;"))
            sql(command);
    run({"--resume", "all"});
    EXPECT_EQ(status_member("aside"), "[]");
    sql("DROP OWNED BY " + role);
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
               "    print(f['stops'], f['aside'], f['kind'], f['sql'])\n");
    const run_result read = run_program({"/usr/bin/python3", "look.py"}, options);
    EXPECT_EQ(read.out,
              "True False utf-8 mark\n"
              "public.plain PUBLIC PLAIN 0 True\n"
              "id ID I 4 integer False\n"
              "note NOTE X 1000 text True\n"
              "False False identity ['ALTER TABLE public.plain REPLICA IDENTITY FULL;']\n")
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

// What goes with a transaction that the log does not have counts for nobody.
TEST_F(BridgeCheckTest, StandingsThatTheLogHasNotReached)
{
    sql("CREATE SCHEMA shop; CREATE TABLE shop.odd (id int PRIMARY KEY, note varchar(9));"
        "ALTER TABLE shop.odd REPLICA IDENTITY FULL");
    configure("table shop.odd values=error\n");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO shop.odd VALUES (1, 'one')");
    ASSERT_EQ(catch_up().status, 0);
    std::filesystem::copy(dir.file("log"), dir.file("before"),
                          std::filesystem::copy_options::recursive);
    sql("ALTER TABLE shop.odd REPLICA IDENTITY DEFAULT; UPDATE shop.odd SET note = 'y'");
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_THAT(check({}).out, HasSubstr("table shop.odd is set aside: "));
    std::filesystem::copy_file(dir.file("log/aside"), dir.file("before/aside"),
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove_all(dir.file("log"));
    std::filesystem::rename(dir.file("before"), dir.file("log"));
    EXPECT_THAT(check({}).out, Not(HasSubstr("shop.odd is set aside: ")));
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
    const run_result run = run_program({KESTRO_BUILD_DIR "/bin/fwlog", "postgresql", "--create",
                                        "--once", "--conninfo", server.conninfo()},
                                       options);
    EXPECT_EQ(run.status, 0) << run.err;
}
