// Where a dataset's records come from, as the log says behind its layouts: names from the
// stream, types and keys from the server's catalogue, which may have moved on.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/support/log_lines.h"

#include <algorithm>
#include <random>

using testing::ElementsAre;

class BridgeSourceTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    void catch_up_well() const
    {
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
    }

    // The sources in the log, each without the word and its dataset.
    std::vector<std::string> sources() const
    {
        std::vector<std::string> found;
        for (const std::string &line : log_lines(dir.file("log")))
            if (line.starts_with("source "))
                found.push_back(line.substr(line.find(' ', 7) + 1));
        return found;
    }

    // A table's columns as the server writes them, with the items in their order.
    std::string as_the_server_says(const std::string &table) const
    {
        return value("SELECT string_agg(attname || ' ' || format_type(atttypid, atttypmod) || ' >'"
                     " || place - 1 || coalesce(' #' || array_position(indkey::int2[], attnum) + 1,"
                     " ''), '; ' ORDER BY attnum) FROM (SELECT *, row_number() OVER"
                     " (ORDER BY attnum) AS place FROM pg_attribute WHERE attrelid = '" +
                     table +
                     "'::regclass AND attnum > 0 AND NOT attisdropped AND attgenerated = '') a"
                     " LEFT JOIN pg_index ON indrelid = attrelid AND indisprimary");
    }
};

TEST_F(BridgeSourceTest, EveryTypeIsNamedAsTheServerNamesIt)
{
    std::vector<std::string> types = {"smallint",
                                      "integer",
                                      "bigint",
                                      "oid",
                                      "real",
                                      "double precision",
                                      "numeric",
                                      "numeric(9,2)",
                                      "numeric(30)",
                                      "char",
                                      "char(5)",
                                      "bpchar",
                                      "varchar",
                                      "varchar(36)",
                                      "text",
                                      "boolean",
                                      "\"char\"",
                                      "name",
                                      "date",
                                      "time",
                                      "time(2)",
                                      "timetz",
                                      "timetz(0)",
                                      "timestamp",
                                      "timestamp(0)",
                                      "timestamp(3)",
                                      "timestamptz",
                                      "timestamptz(6)",
                                      "interval",
                                      "interval(3)",
                                      "interval day to second(2)",
                                      "uuid",
                                      "json",
                                      "jsonb",
                                      "xml",
                                      "bytea",
                                      "bit(7)",
                                      "varbit",
                                      "varbit(9)",
                                      "inet",
                                      "point",
                                      "int4range",
                                      "money",
                                      "tsvector",
                                      "smallint[]",
                                      "integer[][]",
                                      "bigint[]",
                                      "real[]",
                                      "double precision[]",
                                      "numeric[]",
                                      "numeric(9,2)[]",
                                      "text[]",
                                      "varchar[]",
                                      "varchar(7)[]",
                                      "char(3)[]",
                                      "bpchar[]",
                                      "boolean[]",
                                      "date[]",
                                      "timestamp(3)[]",
                                      "timestamptz[]",
                                      "timestamptz(0)[]",
                                      "uuid[]",
                                      "interval[]",
                                      "time(1)[]",
                                      "shop.mood",
                                      "shop.mood[]",
                                      "shop.price",
                                      "shop.price[]",
                                      "shop.\"Odd Näme\"",
                                      "shop.pair",
                                      "pg_catalog.regclass"};
    if (server_version() >= 15)
        types.insert(types.end(), {"numeric(3,-2)", "numeric(2,5)"});
    sql("CREATE TYPE shop.mood AS ENUM ('good', 'bad'); CREATE DOMAIN shop.price AS numeric(9,2);"
        "CREATE DOMAIN shop.\"Odd Näme\" AS text; CREATE TYPE shop.pair AS (a integer, b text)");
    std::string columns;
    std::string widths;
    for (size_t i = 0; i < types.size(); i++) {
        const std::string name = "c" + std::to_string(i);
        columns += (i == 0 ? "" : ", ") + name + " " + types[i];
        widths += "column shop.kinds." + name + " width=20\n";
    }
    configure(widths);
    sql("CREATE TABLE shop.kinds (" + columns + ")");
    sql("INSERT INTO shop.kinds (c0) VALUES (1)");
    catch_up_well();
    EXPECT_THAT(sources(), ElementsAre("shop.kinds null-map=" + std::to_string(types.size()) +
                                       ": " + as_the_server_says("shop.kinds")));
}

TEST_F(BridgeSourceTest, KeysAreThoseOfTheServerInTheirOrder)
{
    sql("CREATE TABLE shop.none (a integer, b integer);"
        "CREATE TABLE shop.one (a integer, b integer PRIMARY KEY);"
        "CREATE TABLE shop.several (a integer, b integer, c integer, d integer,"
        " PRIMARY KEY (d, a, b) INCLUDE (c), UNIQUE (c));"
        "CREATE TABLE shop.indexed (a integer NOT NULL, b integer NOT NULL, c integer);"
        "CREATE UNIQUE INDEX by_both ON shop.indexed (b, a) INCLUDE (c);"
        "ALTER TABLE shop.indexed REPLICA IDENTITY USING INDEX by_both;"
        "CREATE TABLE shop.both (a integer PRIMARY KEY, b integer NOT NULL UNIQUE);"
        "ALTER TABLE shop.both REPLICA IDENTITY USING INDEX both_b_key;"
        "CREATE TABLE shop.years (year integer, note varchar(5), PRIMARY KEY (note, year))"
        " PARTITION BY LIST (year);"
        "CREATE TABLE shop.y2026 PARTITION OF shop.years FOR VALUES IN (2026)");
    sql("INSERT INTO shop.none VALUES (1, 1); INSERT INTO shop.one VALUES (1, 1);"
        "INSERT INTO shop.several VALUES (1, 1, 1, 1); INSERT INTO shop.indexed VALUES (1, 1, 1);"
        "INSERT INTO shop.both VALUES (1, 1); INSERT INTO shop.years VALUES (2026, 'a')");
    catch_up_well();
    const std::string parts = server_version() < 13 ? "shop.y2026" : "shop.years";
    EXPECT_THAT(sources(), ElementsAre("shop.none null-map=2: a integer >0; b integer >1",
                                       "shop.one null-map=2: a integer >0; b integer >1 #1",
                                       "shop.several null-map=4: a integer >0 #2; b integer >1 #3; "
                                       "c integer >2; d integer >3 #1",
                                       "shop.indexed null-map=3: a integer >0 #2; b integer >1 #1; "
                                       "c integer >2",
                                       "shop.both null-map=2: a integer >0 #1; b integer >1",
                                       parts + " null-map=2: year integer >0 #2; "
                                               "note character varying(5) >1 #1"));
}

TEST_F(BridgeSourceTest, TheConfigurationsKeyGoesBeforeTheServers)
{
    configure("column shop.other.b key\n"
              "column shop.other.a key\n"
              "database SHOP\ndataset PARTS\nitem QTY I 4\nitem NO I 4 key\nitem ID I 4\n");
    sql("CREATE TABLE shop.parts (id integer PRIMARY KEY, no integer, note text, qty integer);"
        "CREATE TABLE shop.other (a integer, b integer, c integer PRIMARY KEY)");
    sql("INSERT INTO shop.parts VALUES (1, 2, 'x', 3); INSERT INTO shop.other VALUES (1, 2, 3)");
    catch_up_well();
    EXPECT_THAT(
        sources(),
        ElementsAre("shop.parts: id integer >2; no integer >1 #1; note text; qty integer >0",
                    "shop.other null-map=3: a integer >0 #2; b integer >1 #1; "
                    "c integer >2"));
}

TEST_F(BridgeSourceTest, NamesAreTheServersOwn)
{
    configure("column shop.Größe.Länge item=LEN\n"
              "database SHOP\ndataset SIZE table=shop.Größe\n");
    sql("CREATE TABLE shop.\"Größe\" (\"Länge\" integer, \"odd'name\" integer, \"No\" integer,"
        " PRIMARY KEY (\"Länge\", \"No\"))");
    sql("INSERT INTO shop.\"Größe\" VALUES (1, 2, 3)");
    catch_up_well();
    EXPECT_THAT(sources(), ElementsAre("shop.Größe null-map=3: Länge integer >0 #1; "
                                       "odd'name integer >1; No integer >2 #2"));
}

TEST_F(BridgeSourceTest, GeneratedAndDroppedColumnsAreNoColumns)
{
    sql("CREATE TABLE shop.parts (gone integer, id integer PRIMARY KEY, away text,"
        " twice integer GENERATED ALWAYS AS (id * 2) " +
        unsent_kind() + ", qty smallint)");
    sql("ALTER TABLE shop.parts DROP COLUMN gone, DROP COLUMN away");
    sql("INSERT INTO shop.parts VALUES (1, DEFAULT, 2)");
    catch_up_well();
    EXPECT_THAT(sources(), ElementsAre("shop.parts null-map=2: id integer >0 #1; qty smallint >1"));
}

TEST_F(BridgeSourceTest, AChangedTableHasANewSource)
{
    sql("CREATE TABLE shop.parts (id integer PRIMARY KEY, note varchar(5));"
        "ALTER TABLE shop.parts REPLICA IDENTITY FULL");
    begin_following();
    const auto insert = [&](const std::string &values, const std::string &table = "shop.parts") {
        const int64_t before = occurrences(dump(), " insert ");
        sql("INSERT INTO " + table + " VALUES (" + values + ")");
        ASSERT_TRUE(poll_until([&] { return occurrences(dump(), " insert ") > before; }))
            << bridge.err();
    };
    insert("1, 'a'");
    sql("UPDATE shop.parts SET note = 'b'");
    sql("ALTER TABLE shop.parts ALTER COLUMN note TYPE varchar(9)");
    insert("2, 'a'");
    sql("ALTER TABLE shop.parts RENAME COLUMN id TO number");
    insert("3, 'a'");
    sql("ALTER TABLE shop.parts ADD COLUMN qty numeric(9,2)");
    insert("4, 'a', 1");
    sql("ALTER TABLE shop.parts DROP COLUMN note");
    insert("5, 1");
    sql("ALTER TABLE shop.parts RENAME TO pieces");
    insert("6, 1", "shop.pieces");
    insert("7, 1", "shop.pieces");
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_THAT(
        sources(),
        ElementsAre("shop.parts null-map=2: id integer >0 #1; note character varying(5) >1",
                    "shop.parts null-map=2: id integer >0 #1; note character varying(9) >1",
                    "shop.parts null-map=2: number integer >0 #1; note character varying(9) >1",
                    "shop.parts null-map=3: number integer >0 #1; note character varying(9) >1; "
                    "qty numeric(9,2) >2",
                    "shop.parts null-map=2: number integer >0 #1; qty numeric(9,2) >1",
                    "shop.pieces null-map=2: number integer >0 #1; qty numeric(9,2) >1"));
    EXPECT_EQ(count_lines(log_lines(dir.file("log")), "layout "), 6U);
}

// A table that is changed in all ways while the bridge follows: behind each change the log says
// of it what the server says.
TEST_F(BridgeSourceTest, TheLogSaysWhatTheServerSaysBehindEachOfManyChanges)
{
    struct kind {
        const char *type;
        const char *value;
    };
    static constexpr kind kinds[] = {{"integer", "1"},
                                     {"numeric(9,2)", "1.5"},
                                     {"varchar(9)", "'x'"},
                                     {"timestamp(3)", "now()"},
                                     {"date", "now()"}};
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return random() % n; };
    std::vector<std::pair<std::string, kind>> columns = {{"c0", kinds[0]}};
    sql("CREATE TABLE shop.parts (c0 integer); ALTER TABLE shop.parts REPLICA IDENTITY FULL");
    begin_following();
    for (int step = 1; step <= 25; step++) {
        const std::string alter = "; ALTER TABLE shop.parts ";
        const std::string name = "c" + std::to_string(step);
        const size_t at = below(columns.size());
        const kind as = kinds[below(std::size(kinds))];
        const std::string drop_key = alter + "DROP CONSTRAINT IF EXISTS parts_key";
        std::string change = "DELETE FROM shop.parts";
        const size_t what = below(5);
        if (what == 0) {
            change += alter + "RENAME " + columns[at].first + " TO " + name;
            columns[at].first = name;
        } else if (what == 1) {
            change += alter + "ALTER " + columns[at].first + " TYPE " + as.type + " USING NULL";
            columns[at].second = as;
        } else {
            change += alter + "ADD " + name + " " + as.type;
            columns.emplace_back(name, as);
        }
        if (what == 2) {
            change += alter + "DROP " + columns[at].first;
            columns.erase(columns.begin() + static_cast<std::ptrdiff_t>(at));
        } else if (what == 3) {
            change += drop_key;
        } else if (what == 4) {
            std::shuffle(columns.begin(), columns.end(), random);
            change += drop_key + alter + "ADD CONSTRAINT parts_key PRIMARY KEY (";
            for (size_t i = 0; i <= at; i++)
                change += (i == 0 ? "" : ", ") + columns[i].first;
            change += ")";
        }
        std::string names;
        std::string values;
        for (const auto &[column, of] : columns) {
            names += (names.empty() ? "" : ", ") + column;
            values += (values.empty() ? "" : ", ") + std::string(of.value);
        }
        change += "; INSERT INTO shop.parts (" + names + ") VALUES (" + values + ")";
        sql(change);
        const auto there = [&] { return occurrences(dump(), " insert ") == step; };
        ASSERT_TRUE(poll_until(there)) << bridge.err();
        ASSERT_EQ(sources().back(), "shop.parts null-map=" + std::to_string(columns.size()) + ": " +
                                        as_the_server_says("shop.parts"))
            << change;
    }
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
}

TEST_F(BridgeSourceTest, ACatalogueThatHasMovedOnIsNoError)
{
    configure("column shop.gone.mood width=9\n");
    sql("CREATE TYPE shop.mood AS ENUM ('good', 'bad');"
        "CREATE TABLE shop.gone (id integer PRIMARY KEY, mood shop.mood);"
        "CREATE TABLE shop.renamed (id integer PRIMARY KEY, qty smallint);"
        "CREATE TABLE shop.keyed (id integer PRIMARY KEY, qty smallint)");
    sql("INSERT INTO shop.gone VALUES (1, 'good'); INSERT INTO shop.renamed VALUES (1, 1);"
        "INSERT INTO shop.keyed VALUES (1, 1)");
    sql("DROP TABLE shop.gone; DROP TYPE shop.mood; ALTER TABLE shop.renamed RENAME id TO no;"
        "ALTER TABLE shop.keyed DROP CONSTRAINT keyed_pkey; ALTER TABLE shop.keyed ADD PRIMARY KEY "
        "(qty)");
    sql("INSERT INTO shop.renamed VALUES (2, 2)");
    catch_up_well();
    EXPECT_THAT(sources(), ElementsAre("shop.gone null-map=2: id integer >0; mood  >1",
                                       "shop.renamed null-map=2: id integer >0; qty smallint >1",
                                       "shop.keyed null-map=2: id integer >0; qty smallint >1 #1",
                                       "shop.renamed null-map=2: no integer >0 #1; "
                                       "qty smallint >1"));
}

TEST_F(BridgeSourceTest, ARestartWritesNoLayoutAgainUnlessTheKeyHasChanged)
{
    configure("column shop.parts.mood width=9\n");
    sql("CREATE TYPE shop.mood AS ENUM ('good', 'bad');"
        "CREATE TABLE shop.parts (id integer, mood shop.mood)");
    sql("INSERT INTO shop.parts VALUES (1, 'good')");
    for (int i = 2; i < 5; i++) {
        catch_up_well();
        sql("INSERT INTO shop.parts VALUES (" + std::to_string(i) + ", 'bad')");
    }
    catch_up_well();
    const std::string plain = "shop.parts null-map=2: id integer >0; mood shop.mood >1";
    EXPECT_THAT(sources(), ElementsAre(plain));
    sql("ALTER TABLE shop.parts ADD PRIMARY KEY (id)");
    sql("INSERT INTO shop.parts VALUES (5, 'bad')");
    catch_up_well();
    EXPECT_THAT(sources(),
                ElementsAre(plain, "shop.parts null-map=2: id integer >0 #1; mood shop.mood >1"));
    EXPECT_EQ(count_lines(log_lines(dir.file("log")), "layout "), 2U);
}

TEST_F(BridgeSourceTest, ASnapshotHasTheSourcesThatTheStreamGoesOnWith)
{
    std::filesystem::remove_all(dir.file("log"));
    pg_client(conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    configure("column shop.parts.mood width=9\n");
    sql("CREATE TYPE shop.mood AS ENUM ('good', 'bad');"
        "CREATE TABLE shop.parts (a integer, id integer, mood shop.mood, gone integer,"
        " twice integer GENERATED ALWAYS AS (id * 2) STORED, PRIMARY KEY (id, a));"
        "ALTER TABLE shop.parts DROP COLUMN gone;"
        "ALTER TABLE shop.parts REPLICA IDENTITY FULL;"
        "INSERT INTO shop.parts VALUES (1, 2, 'good')");
    EXPECT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    const bool sent = server_version() >= 18; // generated columns are
    const std::string source = std::string("shop.parts null-map=") + (sent ? "4" : "3") +
                               ": a integer >0 #2; id integer >1 #1; mood shop.mood >2" +
                               (sent ? "; twice integer >3" : "");
    EXPECT_THAT(sources(), ElementsAre(source));
    sql("UPDATE shop.parts SET mood = 'bad'");
    catch_up_well();
    EXPECT_THAT(sources(), ElementsAre(source));
    EXPECT_EQ(count_lines(log_lines(dir.file("log")), "layout "), 1U);
    EXPECT_EQ(count_lines(log_lines(dir.file("log")), "update "), 1U);
}

TEST_F(BridgeSourceTest, AValueStoredApartChangesNothing)
{
    configure("column shop.docs.body width=9000\n");
    sql("CREATE TABLE shop.docs (id integer PRIMARY KEY, seen integer, body text);"
        "ALTER TABLE shop.docs ALTER COLUMN body SET STORAGE EXTERNAL;"
        "ALTER TABLE shop.docs REPLICA IDENTITY FULL");
    sql("INSERT INTO shop.docs VALUES (1, 0, repeat('0123456789', 900))");
    sql("UPDATE shop.docs SET seen = 1");
    sql("DELETE FROM shop.docs");
    catch_up_well();
    EXPECT_THAT(
        sources(),
        ElementsAre("shop.docs null-map=3: id integer >0 #1; seen integer >1; body text >2"));
}
