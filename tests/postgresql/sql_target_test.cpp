// Statements of "fwlog sql" applied to real databases on a PostgreSQL server: the recorded
// stream, and random changes cut, repeated and refused.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/tools/fwlog/random_changes.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>

using testing::HasSubstr;
using testing::IsEmpty;

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";

// The lines that one of two texts has and the other has not.
static std::vector<std::string> differences(const std::string &one, const std::string &other)
{
    const auto lines = [](const std::string &text) {
        std::istringstream in(text);
        std::multiset<std::string> found;
        for (std::string line; std::getline(in, line);)
            found.insert(line);
        return found;
    };
    const std::multiset<std::string> first = lines(one);
    const std::multiset<std::string> second = lines(other);
    std::vector<std::string> found;
    std::set_symmetric_difference(first.begin(), first.end(), second.begin(), second.end(),
                                  std::back_inserter(found));
    return found;
}

class SqlTargetTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        psql = pg_server::client_program("psql");
        if (server != nullptr && psql.empty())
            GTEST_SKIP() << "psql is missing (Debian package postgresql-client-15)";
    }

    std::string statements(std::vector<std::string> more) const
    {
        more.insert(more.begin(), {"sql", "--dialect", "postgresql", "--create-tables"});
        const run_result result = fwlog(more);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    std::string once(std::vector<std::string> more = {}) const
    {
        more.insert(more.end(), {"--position-table", "ops_done"});
        return statements(std::move(more));
    }

    // Applies statements to the case's database; stop: at the first that fails.
    run_result apply(const std::string &text, bool stop = true) const
    {
        run_setup setup;
        setup.input = text;
        std::vector<std::string> argv = {psql, "-X", "-q", "-d", conninfo()};
        if (stop)
            argv.insert(argv.end(), {"-v", "ON_ERROR_STOP=1"});
        return run_program(argv, setup);
    }

    void drop_all() const
    {
        sql("DROP SCHEMA IF EXISTS shop, sales, depot, \"SHOP\" CASCADE; "
            "DROP TABLE IF EXISTS ops_done");
    }

    // The case's configuration reads this log.
    void read_log(const written_log &log) const
    {
        write_file(dir.file("fwutil.cfg"),
                   "log-directory " + log.log + "\ndatabase SHOP\ndataset N\nitem NO I 4 key\n");
    }

    void compare(const random_changes &model)
    {
        std::string odd = "shop.\"";
        for (const char c : std::string(random_changes::ODD))
            odd += c == '"' ? "\"\"" : std::string(1, c);
        pg_client client = connect();
        const auto rows = [&client](const std::string &query) {
            const auto all = client.run(query);
            return std::multiset<model_row>(all.begin(), all.end());
        };
        const std::string extra = model.with_extra ? ", extra" : "";
        EXPECT_EQ(rows("SELECT no, net, \"na\"\"me\"" + extra + " FROM " + odd + "\""),
                  model.odd_rows());
        EXPECT_EQ(rows("SELECT a, b FROM shop.plain"), model.plain_rows());
    }

    std::string psql;
};

TEST_F(SqlTargetTest, TheRecordedStreamGivesTheDatabasesTables)
{
    write_file(dir.file("fwutil.cfg"), read_file(example + "/fwutil.cfg"));
    const run_result load = fwlog({"load", example + "/orders-changes.jsonl"});
    if (load.err.find("was built without") != std::string::npos)
        GTEST_SKIP() << load.err;
    ASSERT_EQ(load.status, 0) << load.err;
    for (const bool positioned : {false, true})
        for (const bool made : {true, false}) {
            drop_all();
            if (!made) {
                sql("DO 'BEGIN CREATE ROLE shop; EXCEPTION WHEN OTHERS THEN NULL; END'");
                std::string schema = read_file(example + "/orders-schema.sql");
                sql(schema.substr(0, schema.find("-- who works with it")));
            }
            const std::string text = positioned ? once() : statements({});
            const run_result applied = apply(text);
            EXPECT_EQ(applied.status, 0);
            EXPECT_EQ(applied.err, "");
            EXPECT_EQ(positioned ? apply(text).err : "", "");
            pg_client client = connect();
            EXPECT_THAT(differences(pg_contents(client, "'depot', 'sales'"),
                                    read_file(example + "/orders-final.csv")),
                        IsEmpty());
        }
}

TEST_F(SqlTargetTest, TextsCutAnywhereAndRepeatedGiveTheTablesOnce)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    written_log log;
    read_log(log);
    random_changes model(log, seed);
    for (int n = 0; n < 60; n++) {
        if (n % 12 == 11)
            model.alter();
        model.transaction();
    }
    EXPECT_EQ(apply(statements({})).err, "");
    compare(model);
    const std::string whole = once();
    for (int round = 0; round < 8; round++) {
        drop_all();
        // A client that stops at errors begins where the database is, since a column that is
        // gone is an error also in what is passed over; others begin anywhere before.
        const bool stop = round % 2 == 0;
        std::string text = whole;
        for (int cut = 0; cut < 4; cut++) {
            (void)apply(text.substr(0, random() % text.size()), stop);
            const bool begun = value("SELECT to_regclass('ops_done') IS NOT NULL") == "t";
            const std::string position =
                begun ? value("SELECT coalesce(max(position), '') FROM ops_done") : "";
            const bool after = !position.empty() && !position.ends_with(".0000000000") &&
                               (stop || random() % 2 == 0);
            text = after ? once({"--after", position}) : whole;
            if (text.empty())
                break;
        }
        const run_result last = apply(text, stop);
        EXPECT_EQ(stop ? last.err : "", "");
        compare(model);
    }
}

TEST_F(SqlTargetTest, ATransactionOfWhichAStatementFailsIsAllOrNothing)
{
    written_log log;
    read_log(log);
    const fwu_layout layout{
        .dbname = "SHOP", .dsetname = "N", .items = {{.name = "NO", .type = 'I', .size = 4}}};
    const auto add = [&](const std::vector<uint64_t> &numbers) {
        log.begin();
        for (const uint64_t no : numbers)
            log.insert(layout, le(no, 4));
        log.commit();
    };
    add({1});
    add({2, 3, 4});
    add({5});
    const std::string numbers =
        "SELECT string_agg(\"NO\"::text, ',' ORDER BY \"NO\") FROM \"SHOP\".\"N\"";
    for (const bool stop : {true, false}) {
        drop_all();
        EXPECT_EQ(apply(once({"--to", "1-1.3"})).err, "");
        sql("INSERT INTO \"SHOP\".\"N\" VALUES (3)");
        const run_result failed = apply(once(), stop);
        EXPECT_THAT(failed.err, HasSubstr("duplicate key"));
        EXPECT_EQ(value(numbers), "1,3");
        EXPECT_EQ(value("SELECT position FROM ops_done"), "0001-00000001.0000000003");
        if (!stop) {
            EXPECT_THAT(failed.err, HasSubstr("transactions_before_this_one_are_missing"));
        }
        sql("DELETE FROM \"SHOP\".\"N\" WHERE \"NO\" = 3");
        EXPECT_EQ(apply(once()).err, "");
        EXPECT_EQ(value(numbers), "1,2,3,4,5");
        // One that begins further on than the database is, and another log.
        sql("UPDATE ops_done SET position = '0001-00000001.0000000003', "
            "lsn = '0000000000000010'");
        EXPECT_THAT(apply(once({"--after", "1-1.7"}), stop).err,
                    HasSubstr("transactions_before_this_one_are_missing"));
        const std::string identity = value("SELECT log FROM ops_done");
        sql("UPDATE ops_done SET log = 'none'");
        EXPECT_THAT(apply(once(), stop).err, HasSubstr("the_position_is_one_of_another_log"));
        EXPECT_EQ(value(numbers), "1,2,3,4,5");
        sql("UPDATE ops_done SET log = '" + identity + "'");
        EXPECT_THAT(apply(once({"--dset", "SHOP:"}), stop).err,
                    HasSubstr("the_position_is_one_of_another_selection"));
        EXPECT_EQ(value(numbers), "1,2,3,4,5");
    }
}

// A dataset's rows stand in another table than its changes go to: one that was renamed at the
// source, and made anew here.
TEST_F(SqlTargetTest, ARowThatIsNotThereEndsItsTransaction)
{
    const auto layout = [](const char *name) {
        return fwu_layout{.dbname = "SHOP",
                          .dsetname = name,
                          .items = {{.name = "NO", .type = 'I', .size = 4},
                                    {.name = "NET", .type = 'I', .size = 4}}};
    };
    const auto row = [](uint64_t no, uint64_t net) { return le(no, 4) + le(net, 4); };
    const auto rows = [this](const std::string &table) {
        return value(
            "SELECT coalesce(string_agg(\"NO\" || ' ' || \"NET\", ',' ORDER BY \"NO\"), '') "
            "FROM \"SHOP\".\"" +
            table + "\"");
    };
    for (const bool deletes : {false, true})
        for (const bool keyed : {false, true}) {
            written_log log;
            read_log(log);
            log.begin(); // 1 to 4
            log.insert(layout("OLD"), row(1, 10));
            log.insert(layout("OLD"), row(2, 20));
            log.commit();
            log.begin(); // 5 to 8
            log.insert(layout("NEW"), row(3, 30));
            if (deletes)
                log.change(FWU_OP_DELETE, layout("NEW"), row(1, 10), "");
            else
                log.change(FWU_OP_UPDATE, layout("NEW"), row(1, 10), row(1, 11));
            log.commit();
            log.begin();
            log.insert(layout("OLD"), row(4, 40));
            log.commit();
            std::vector<std::string> words = {"--position-table", "ops_done"};
            if (keyed)
                words.insert(words.end(), {"--key", "OLD=NO", "--key", "NEW=NO"});
            const std::string text = statements(words);
            for (const bool stop : {true, false}) {
                drop_all();
                const run_result failed = apply(text, stop);
                EXPECT_THAT(failed.err, HasSubstr("a_change_met_no_row_or_several"));
                EXPECT_THAT(failed.err, HasSubstr("not one row of \"SHOP\".\"NEW\""));
                EXPECT_EQ(value("SELECT to_regclass('\"SHOP\".\"NEW\"')"), "\\N");
                EXPECT_EQ(rows("OLD"), "1 10,2 20");
                EXPECT_EQ(value("SELECT position FROM ops_done"), "0001-00000001.0000000004");
            }
            // Several rows of one key are not the row, either; of equal rows one is.
            sql("CREATE TABLE \"SHOP\".\"NEW\" (\"NO\" integer, \"NET\" integer);"
                "INSERT INTO \"SHOP\".\"NEW\" VALUES (1, 10), (1, 10)");
            if (keyed) {
                EXPECT_THAT(apply(text).err, HasSubstr("a_change_met_no_row_or_several"));
                EXPECT_EQ(rows("NEW"), "1 10,1 10");
                sql("DELETE FROM \"SHOP\".\"NEW\" WHERE ctid = (SELECT max(ctid) FROM "
                    "\"SHOP\".\"NEW\")");
            }
            EXPECT_EQ(apply(text).err, "");
            EXPECT_EQ(rows("NEW"),
                      std::string(keyed ? "" : "1 10,") + (deletes ? "3 30" : "1 11,3 30"));
            EXPECT_EQ(rows("OLD"), "1 10,2 20,4 40");
            // What is passed over asks for no row.
            sql("DELETE FROM \"SHOP\".\"NEW\"");
            EXPECT_EQ(apply(text).err, "");
            EXPECT_EQ(rows("NEW"), "");
        }
}

// A table whose key the database makes, one that others refer to by partitions, and a column
// without equality.
TEST_F(SqlTargetTest, TablesMadeByHandMayBeMoreThanTheLogKnows)
{
    sql("CREATE SCHEMA shop; "
        "CREATE TABLE shop.plain (a smallint, b text, more json DEFAULT '{}') PARTITION BY LIST "
        "(a);"
        "CREATE TABLE shop.p0 PARTITION OF shop.plain FOR VALUES IN (0, 1);"
        "CREATE TABLE shop.p1 PARTITION OF shop.plain DEFAULT;"
        "CREATE TABLE shop.\"it's \"\"odd\"\"; --\" (no integer GENERATED ALWAYS AS IDENTITY"
        " PRIMARY KEY, net numeric(12,2), \"na\"\"me\" text)");
    written_log log;
    read_log(log);
    random_changes model(log, 7);
    for (int n = 0; n < 80; n++)
        model.transaction();
    const run_result applied = apply(statements({}));
    // Only a key that changes cannot be set there.
    EXPECT_THAT(applied.err, HasSubstr("can only be updated to DEFAULT"));
    sql("ALTER TABLE shop.\"it's \"\"odd\"\"; --\" ALTER no DROP IDENTITY; TRUNCATE shop.plain, "
        "shop.\"it's \"\"odd\"\"; --\"");
    EXPECT_EQ(apply(statements({})).err, "");
    compare(model);
    // A row that goes to another partition is one row.
    sql("TRUNCATE shop.plain, shop.\"it's \"\"odd\"\"; --\"");
    EXPECT_EQ(apply(once()).err, "");
    compare(model);
}

TEST_F(SqlTargetTest, WideTablesAreFoundByAllTheyHave)
{
    written_log log;
    read_log(log);
    fwu_layout layout{.dbname = "SHOP", .dsetname = "WIDE", .items = {}};
    std::string one;
    std::string other;
    for (int i = 0; i < 1600; i++) {
        layout.items.push_back({.name = "C" + std::to_string(i), .type = 'I', .size = 2});
        one += le(7, 2);
        other += le(8, 2);
    }
    log.begin();
    log.insert(layout, one);
    log.insert(layout, one);
    log.change(FWU_OP_UPDATE, layout, one, other);
    log.change(FWU_OP_DELETE, layout, one, "");
    log.commit();
    EXPECT_EQ(apply(once()).err, "");
    EXPECT_EQ(value("SELECT count(*) || ' ' || sum(\"C0\" + \"C1599\") FROM \"SHOP\".\"WIDE\""),
              "1 16");
}

// A column that the database makes outside the key is not set by updates that leave it alone.
TEST_F(SqlTargetTest, AnIdentityOutsideTheKeyStays)
{
    sql("CREATE SCHEMA \"SHOP\"; CREATE TABLE \"SHOP\".\"N\" (\"NO\" integer PRIMARY KEY, "
        "\"MADE\" integer GENERATED ALWAYS AS IDENTITY, \"V\" integer)");
    written_log log;
    read_log(log);
    const fwu_layout layout{.dbname = "SHOP",
                            .dsetname = "N",
                            .items = {{.name = "NO", .type = 'I', .size = 4},
                                      {.name = "MADE", .type = 'I', .size = 4},
                                      {.name = "V", .type = 'I', .size = 4}}};
    const auto row = [](uint64_t no, uint64_t made, uint64_t v) {
        return le(no, 4) + le(made, 4) + le(v, 4);
    };
    log.begin();
    log.insert(layout, row(1, 70, 5));
    log.change(FWU_OP_UPDATE, layout, row(1, 70, 5), row(1, 70, 6));
    log.change(FWU_OP_UPDATE, layout, row(1, 70, 6), row(1, 70, 6));
    log.commit();
    EXPECT_EQ(apply(once({"--key", "N=NO"})).err, "");
    EXPECT_EQ(value("SELECT n::text FROM \"SHOP\".\"N\" n"), "(1,70,6)");
}

TEST_F(SqlTargetTest, AColumnMadeAgainLosesItsValuesInTheCopyToo)
{
    configure("");
    sql("CREATE SCHEMA odd; CREATE TABLE odd.t (a integer, b integer PRIMARY KEY, c integer);"
        "ALTER TABLE odd.t REPLICA IDENTITY FULL");
    const run_result created = catch_up({"--create"});
    ASSERT_EQ(created.status, 0) << created.err;
    sql("INSERT INTO odd.t VALUES (1, 1, 1), (2, 2, 2); ALTER TABLE odd.t DROP a, ADD a integer;"
        "UPDATE odd.t SET a = 7 WHERE b = 2");
    const run_result followed = catch_up();
    ASSERT_EQ(followed.status, 0) << followed.err;
    sql("DROP PUBLICATION " + database + "; ALTER SCHEMA odd RENAME TO source");
    const run_result refused = fwlog({"sql", "--dialect", "postgresql", "--create-tables"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err,
                HasSubstr("odd.t has columns (a) behind others that they stood before"));
    EXPECT_EQ(apply(once({"--drop-columns"})).err, "");
    EXPECT_EQ(value("SELECT string_agg(t::text, ' ' ORDER BY b) FROM odd.t t"),
              value("SELECT string_agg(t::text, ' ' ORDER BY b) FROM source.t t"));
}

// Between the updates of a swap two rows have one key.
TEST_F(SqlTargetTest, RowsThatSwapTheirKeysNeedADeferrableKeyAndMoreToTellThemApart)
{
    written_log log;
    read_log(log);
    const fwu_layout layout{
        .dbname = "SHOP",
        .dsetname = "N",
        .items = {{.name = "NO", .type = 'I', .size = 4}, {.name = "V", .type = 'I', .size = 4}}};
    const auto row = [](uint64_t no, uint64_t v) { return le(no, 4) + le(v, 4); };
    log.begin();
    log.insert(layout, row(1, 5));
    log.insert(layout, row(2, 6));
    log.change(FWU_OP_UPDATE, layout, row(1, 5), row(2, 5));
    log.change(FWU_OP_UPDATE, layout, row(2, 6), row(1, 6));
    log.commit();
    sql("CREATE SCHEMA \"SHOP\"; CREATE TABLE \"SHOP\".\"N\" (\"NO\" integer CONSTRAINT one "
        "PRIMARY KEY, \"V\" integer)");
    EXPECT_THAT(apply(once({"--key", "N=NO"})).err, HasSubstr("duplicate key value"));
    sql("ALTER TABLE \"SHOP\".\"N\" DROP CONSTRAINT one, ADD PRIMARY KEY (\"NO\") DEFERRABLE "
        "INITIALLY DEFERRED");
    EXPECT_EQ(apply(once({"--key", "N=NO,V"})).err, "");
    EXPECT_EQ(value("SELECT string_agg(n::text, ' ' ORDER BY \"NO\") FROM \"SHOP\".\"N\" n"),
              "(1,6) (2,5)");
}

// Two values of each type that its own "=" takes for the same, or cannot compare, in tables
// without key: the row that is meant has to be found.
TEST_F(SqlTargetTest, RowsWithoutKeyAreFoundByExactlyWhatTheyHave)
{
    struct row {
        std::string type, one, other;
        bool width = true; // is to be given
    };
    std::vector<row> rows = {
        {"interval", "24:00", "1 day"},
        {"interval[]", "{24:00}", "{1 day}"},
        {"numrange", "[1.0,2.0)", "[1,2)"},
        {"public.any_json", "{ }", "{}"},
        {"public.address", "10.0.0.1", "10.0.0.2"},
        {"public.code", "a", "b "},
        {"public.exact", "1.0", "1.00"},
        {"public.yes", "f", "t"},
        {"public.mood", "glad", "sad"},
        {"public.pair", "(1.0,{})", "(1.00,{})"},
        {"json[]", "{\"{ }\"}", "{\"{}\"}"},
        {"numeric", "1.0", "1.00"},
        {"text", "a", "A"},
        {"bytea", "\\x00", "\\x01"},
        {"inet", "10.0.0.1", "10.0.0.1/24"},
        {"bit varying", "1", "10"},
        {"character(4)", "a", "A", false},
        {"boolean", "f", "t", false},
        {"date", "infinity", "2026-03-09", false},
        {"time with time zone", "08:00+00", "09:00+01", false},
        {"timestamp(3) with time zone", "2026-07-02 03:04:05+02", "2026-07-02 03:04:05", false},
    };
    sql("CREATE DOMAIN public.any_json AS json; CREATE DOMAIN public.address AS inet;"
        "CREATE DOMAIN public.code AS character(4); CREATE DOMAIN public.exact AS numeric;"
        "CREATE DOMAIN public.yes AS boolean; CREATE TYPE public.mood AS ENUM ('glad', 'sad');"
        "CREATE TYPE public.pair AS (n numeric, j json)");
    if (value("SELECT count(*) > 0 FROM pg_collation WHERE collprovider = 'i'") == "t") {
        sql("CREATE COLLATION public.nearly (provider = icu, locale = 'und-u-ks-level2', "
            "deterministic = false)");
        rows.push_back({"text COLLATE public.nearly", "a", "A"});
        rows.push_back({"text[] COLLATE public.nearly", "{a}", "{A}"});
    } else {
        std::cout << "this server has no ICU: collations are left out\n";
    }
    if (value("SELECT count(*) FROM pg_available_extensions WHERE name = 'citext'") == "1") {
        sql("CREATE EXTENSION citext SCHEMA public");
        rows.push_back({"public.citext", "a", "A"});
    } else {
        std::cout << "this server has no citext\n";
    }
    std::string tables = "CREATE SCHEMA odd;";
    std::string changes;
    std::string settings;
    for (size_t i = 0; i < rows.size(); i++) {
        const std::string name = "odd.t" + std::to_string(i);
        const std::string one = "'" + rows[i].one + "'";
        const std::string other = "'" + rows[i].other + "'";
        tables += "CREATE TABLE " + name + " (a integer, v " + rows[i].type + "); ALTER TABLE " +
                  name + " REPLICA IDENTITY FULL;";
        if (rows[i].width)
            settings += "column " + name + ".v width=40\n";
        const std::string last = " WHERE ctid = (SELECT max(ctid) FROM " + name + ");";
        changes += "INSERT INTO " + name + " VALUES (1, " + one + "), (1, " + other + ");" +
                   "DELETE FROM " + name + last + "INSERT INTO " + name + " VALUES (1, " + other +
                   "), (1, NULL), (1, " + one + "), (1, " + other + ");" + "UPDATE " + name +
                   " SET a = 2" + last + "UPDATE " + name + " SET a = 3 WHERE v IS NULL;";
    }
    configure(settings);
    sql(tables);
    const run_result created = catch_up({"--create"});
    ASSERT_EQ(created.status, 0) << created.err;
    sql(changes);
    const run_result followed = catch_up();
    ASSERT_EQ(followed.status, 0) << followed.err;
    // The copies take the tables' place, so that they have the types.
    std::string copies =
        "DROP PUBLICATION " + database + "; ALTER SCHEMA odd RENAME TO source; CREATE SCHEMA odd;";
    for (size_t i = 0; i < rows.size(); i++)
        copies +=
            "CREATE TABLE odd.t" + std::to_string(i) + " (LIKE source.t" + std::to_string(i) + ");";
    sql(copies);
    EXPECT_EQ(apply(once()).err, "");
    for (size_t i = 0; i < rows.size(); i++) {
        const auto all = [&](const std::string &schema) {
            return value("SELECT string_agg(t::text, ' ' ORDER BY t::text COLLATE \"C\") FROM " +
                         schema + ".t" + std::to_string(i) + " t");
        };
        EXPECT_EQ(all("odd"), all("source")) << rows[i].type;
        EXPECT_EQ(value("SELECT count(*) FROM odd.t" + std::to_string(i)), "5") << rows[i].type;
    }
}

// The "=" of a composite type takes no text in quotes by itself.
TEST_F(SqlTargetTest, RowsAreFoundByKeysOfAnyType)
{
    configure("");
    sql("CREATE TYPE public.pair AS (n integer, s text); CREATE DOMAIN public.some_pair AS "
        "public.pair; CREATE TYPE public.\"Mo.od\" AS ENUM ('sad', 'ok');"
        "CREATE DOMAIN public.upto AS varchar(9); CREATE SCHEMA odd;"
        "CREATE TABLE odd.t (k public.pair, d public.some_pair, e public.\"Mo.od\", u public.upto,"
        " a public.pair[], v integer, PRIMARY KEY (k, d, e, u, a))");
    const run_result created = catch_up({"--create"});
    ASSERT_EQ(created.status, 0) << created.err;
    sql("INSERT INTO odd.t SELECT (g, 'a,\"\\ '' b')::public.pair, (g, NULL)::public.pair, 'ok', "
        "'u', "
        "ARRAY[(g, 'x')::public.pair], g FROM generate_series(1, 5) g;"
        "UPDATE odd.t SET v = 7 WHERE v = 2; DELETE FROM odd.t WHERE v = 3;"
        "UPDATE odd.t SET k = (40, '')::public.pair, e = 'sad' WHERE v = 4");
    const run_result followed = catch_up();
    ASSERT_EQ(followed.status, 0) << followed.err;
    sql("DROP PUBLICATION " + database + "; ALTER SCHEMA odd RENAME TO source");
    const auto all = [this](const std::string &schema) {
        return value("SELECT string_agg(t::text, ' ' ORDER BY v, t::text) FROM " + schema + ".t t");
    };
    EXPECT_EQ(apply(once()).err, "");
    EXPECT_EQ(all("odd"), all("source"));
    EXPECT_EQ(value("SELECT string_agg(v::text, ' ' ORDER BY v) FROM odd.t"), "1 4 5 7");
    // A table made by hand may have other types.
    sql("DROP TABLE odd.t, ops_done; CREATE TABLE odd.t (k text, d text, e text, u text, a text, "
        "v integer)");
    EXPECT_EQ(apply(once()).err, "");
    EXPECT_EQ(value("SELECT string_agg(v::text, ' ' ORDER BY v) FROM odd.t"), "1 4 5 7");
}
