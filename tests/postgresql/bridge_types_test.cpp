// What columns of every type become, with values at the edges of their items and beyond, from a
// server that nobody prepared.
#include "tests/postgresql/bridge_fixture.h"

#include <sstream>

// A value, the item's text, and where that is not all of it, what the null map says and the
// whole value beside the record.
struct edge {
    std::string value; // as SQL has it
    std::string shown;
    char flag = '.';
    std::string whole = {};
};

struct kind {
    std::string type;
    std::string item; // "X 10"
    std::vector<edge> edges;
    int since = 12; // first version of the server that takes them
};

static std::string times(size_t count, const std::string &text)
{
    std::string all;
    for (size_t i = 0; i < count; i++)
        all += text;
    return all;
}

static std::string in_quotes(const std::string &text)
{
    std::string all = "\"";
    for (const char c : text)
        all += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return all + "\"";
}

// The value as a text is the one that is to be found again.
static edge same(const std::string &text)
{
    return {.value = "'" + text + "'", .shown = in_quotes(text)};
}

// As same, of a value that has no place in its item.
static edge left_out(const std::string &text)
{
    return {.value = "'" + text + "'", .shown = "\"\"", .flag = '!', .whole = text};
}

// A text of which so much is taken.
static edge cut(const std::string &text, const std::string &taken)
{
    return {.value = "'" + text + "'", .shown = in_quotes(taken), .flag = 'C', .whole = text};
}

static const std::string EURO = "€";   // 3 bytes of UTF-8
static const std::string BOMB = "💣";   // 4
static const std::string UMLAUT = "ä"; // 2

class BridgeTypesTest : public BridgeTest {
  protected:
    // Has tables t0, t1, ... with a column v of each type, and these values, followed.
    void follow(const std::vector<kind> &kinds, const std::string &settings)
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\n" + settings);
        sql("CREATE SCHEMA shop");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        pg_client client = connect();
        for (size_t i = 0; i < kinds.size(); i++) {
            const std::string table = "shop.t" + std::to_string(i);
            client.run("CREATE TABLE " + table + " (v " + kinds[i].type + ")");
            for (const edge &edge : kinds[i].edges)
                client.run("INSERT INTO " + table + " VALUES (" + edge.value + ")");
            client.run("INSERT INTO " + table + " VALUES (NULL)");
        }
        const run_result result = catch_up();
        ASSERT_EQ(result.status, 0) << result.err;
    }

    // Without those that this server is too old for.
    static std::vector<kind> known(std::vector<kind> kinds)
    {
        std::erase_if(kinds, [](const kind &kind) { return kind.since > server_version(); });
        return kinds;
    }

    // What the dump says: "V X 10" and "V=... NULL-MAP=..." of each table, whole values behind.
    struct found {
        std::string item;
        std::vector<std::string> rows;
    };
    std::vector<found> all_found(size_t tables) const
    {
        std::vector<found> all(tables);
        std::istringstream lines(dump());
        size_t table = 0;
        bool value = false;
        std::string whole;
        for (std::string line; std::getline(lines, line);) {
            const bool indented = line.starts_with("    ");
            const size_t at = line.find(" SHOP.T");
            if (!indented && at != line.npos)
                table = std::stoul(line.substr(at + 7));
            if (!indented)
                value = line.find(" value of item 0 after") != line.npos;
            else if (value)
                whole = " whole " + line.substr(4);
            else if (line.starts_with("    V "))
                all.at(table).item = line.substr(6);
            else if (line.starts_with("    after "))
                all.at(table).rows.push_back(line.substr(10) + whole);
            if (line.starts_with("    after "))
                whole.clear();
        }
        return all;
    }

    void expect_found(const std::vector<kind> &kinds) const
    {
        const std::vector<found> all = all_found(kinds.size());
        for (size_t i = 0; i < kinds.size(); i++) {
            const kind &kind = kinds[i];
            SCOPED_TRACE(kind.type);
            EXPECT_EQ(all[i].item, kind.item);
            ASSERT_EQ(all[i].rows.size(), kind.edges.size() + 1);
            for (size_t row = 0; row < kind.edges.size(); row++) {
                const edge &edge = kind.edges[row];
                EXPECT_EQ(all[i].rows[row],
                          "V=" + edge.shown + " NULL-MAP=\"" + edge.flag + "\"" +
                              (edge.whole.empty() ? "" : " whole " + in_quotes(edge.whole)))
                    << edge.value.substr(0, 100);
            }
            EXPECT_THAT(all[i].rows.back(), testing::EndsWith(" NULL-MAP=\"N\""));
        }
    }
};

TEST_F(BridgeTypesTest, NumbersAndTimesKeepTheirValueOrAreLeftBlank)
{
    const std::string nines = std::string(27, '9');
    const std::string thousand = "1" + std::string(999, '0');
    const std::vector<kind> kinds = known({
        {"smallint", "I 2", {{"-32768", "-32768"}, {"32767", "32767"}}},
        {"integer", "I 4", {{"-2147483648", "-2147483648"}, {"2147483647", "2147483647"}}},
        {"bigint",
         "I 8",
         {{"-9223372036854775808", "-9223372036854775808"},
          {"9223372036854775807", "9223372036854775807"}}},
        {"oid", "K 4", {{"0", "0"}, {"4294967295", "4294967295"}}},
        {"real",
         "E 4",
         {{"'-3.4028235e38'", "-3.4028235e+38"},
          {"'1e-45'", "1e-45"},
          {"'NaN'", "nan"},
          {"'-Infinity'", "-inf"}}},
        {"double precision",
         "E 8",
         {{"'1.7976931348623157e308'", "1.7976931348623157e+308"},
          {"'-5e-324'", "-5e-324"},
          {"'NaN'", "nan"},
          {"'Infinity'", "inf"}}},
        {"numeric(9,2)",
         "P 5 scale=2",
         {{"-9999999.99", "-9999999.99"},
          {"9999999.99", "9999999.99"},
          {.value = "'NaN'", .shown = "0.00", .flag = '!', .whole = "NaN"}}},
        {"numeric(27,0)", "P 14", {{"-" + nines, "-" + nines}, {nines, nines}}},
        {"numeric(27,27)", "P 14 scale=27", {{"-0." + nines, "-0." + nines}}},
        {"numeric(28,28)", "X 31", {same("-0.9" + nines), same("NaN")}},
        {"numeric(3,-2)", "X 8", {same("-99900"), same("0")}, 15},
        {"numeric(2,5)", "X 8", {same("-0.00099")}, 15},
        {"numeric(1000)", "X 1003", {same("-" + thousand), same("NaN")}},
        {"numeric(1000,-1000)", "X 2003", {same("-" + thousand + std::string(1000, '0'))}, 15},
        {"numeric",
         "X 40",
         {same(std::string(40, '7')), same("NaN"), left_out(std::string(41, '7')),
          left_out("-1." + std::string(40, '3'))}},
        {"numeric", "X 40", {same("-Infinity")}, 14},
        {"date",
         "X 10",
         {same("0001-01-01"), same("9999-12-31"), same("infinity"), same("-infinity"),
          left_out("4713-01-01 BC"), left_out("10000-01-01"), left_out("5874897-12-31")}},
        {"time", "X 15", {same("00:00:00"), same("24:00:00"), same("23:59:59.999999")}},
        {"time(2)", "X 11", {same("23:59:59.99")}},
        {"time(0)", "X 8", {same("24:00:00")}},
        {"timetz",
         "X 24",
         {same("00:00:00+15:59:59"), same("23:59:59.999999-15:59:59"), same("24:00:00+00")}},
        {"timetz(0)", "X 17", {same("23:59:59-15:59:59")}},
        {"timestamp",
         "X 26",
         {same("0001-01-01 00:00:00.000000"), same("9999-12-31 23:59:59.999999"), same("infinity"),
          same("-infinity"), left_out("4713-01-01 00:00:00 BC"),
          left_out("0001-12-31 23:59:59.999999 BC"), left_out("10000-01-01 00:00:00"),
          left_out("294276-12-31 23:59:59.999999")}},
        {"timestamp(0)", "X 19", {same("9999-12-31 23:59:59"), same("-infinity")}},
        {"timestamptz",
         "X 26",
         {{"'9999-12-31 23:59:59.999999-00'", "\"9999-12-31 23:59:59.999999\""},
          {"'2026-03-09 08:18:01+02'", "\"2026-03-09 06:18:01.000000\""},
          {.value = "'9999-12-31 23:59:59-01'",
           .shown = "\"\"",
           .flag = '!',
           .whole = "10000-01-01 00:59:59+00"},
          {.value = "'0001-01-01 00:00:00+01'",
           .shown = "\"\"",
           .flag = '!',
           .whole = "0001-12-31 23:00:00+00 BC"}}},
        {"timestamptz(3)", "X 23", {{"'2026-03-09 08:18:01.2Z'", "\"2026-03-09 08:18:01.200\""}}},
        {"interval", "X 67", {same("00:00:00"), same("-1 years -2 mons +3 days -04:05:06.789")}},
        {"interval",
         "X 67",
         {same("178956970 years 7 mons 2147483647 days 2562047788:00:54.775806"),
          same("-178956970 years -8 mons -2147483648 days -2562047788:00:54.775807"),
          same("-178956969 years -11 mons -2147483648 days -2562047788:00:54.775807")},
         15},
        {"interval", "X 67", {same("infinity"), same("-infinity")}, 17},
        {"interval(0)", "X 67", {same("1 day 00:00:02")}},
        {"boolean", "X 1", {{"true", "\"T\""}, {"false", "\"F\""}}},
        {"uuid", "X 36", {same("00000000-0000-0000-0000-000000000000")}},
        {"pg_lsn", "X 17", {same("FFFFFFFF/FFFFFFFF"), same("0/0")}},
        {"xid", "X 10", {same("4294967295")}},
        {"cid", "X 10", {same("4294967295")}},
        {"xid8", "X 20", {same("18446744073709551615")}, 13},
        {"tid", "X 18", {same("(4294967295,65535)")}},
        {"money",
         "X 32",
         {{"'-92233720368547758.08'::numeric::money", "\"-$92,233,720,368,547,758.08\""}}},
    });
    follow(kinds, "");
    expect_found(kinds);
}

TEST_F(BridgeTypesTest, AddressesBitsAndFiguresHaveRoomForTheLongest)
{
    const std::string low = "-2.2250738585072014e-308";
    const std::string high = "-1.2345678901234567e+300";
    const std::string point = "(" + low + "," + low + ")";
    const std::string ones = std::string(40, '1');
    const std::vector<kind> kinds = known({
        {"inet",
         "X 43",
         {same("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/127"), same("255.255.255.255/31"),
          same("::ffff:255.255.255.255/127"), same("0.0.0.0")}},
        {"cidr", "X 43", {same("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"), same("0.0.0.0/0")}},
        {"macaddr", "X 17", {same("ff:ff:ff:ff:ff:ff")}},
        {"macaddr8", "X 23", {same("ff:ff:ff:ff:ff:ff:ff:ff")}},
        {"bit", "X 1", {same("1")}},
        {"bit(40)", "X 40", {same(ones)}},
        {"bit varying(40)", "X 40", {same(ones), same("")}},
        {"bit varying", "X 255", {same(times(51, "10101")), left_out(times(51, "10101") + "1")}},
        {"point", "X 51", {same(point), same("(NaN,Infinity)")}},
        {"lseg", "X 105", {same("[" + point + "," + point + "]")}},
        {"box", "X 103", {same(point + "," + point)}},
        {"line", "X 76", {same("{" + high + "," + high + "," + high + "}")}},
        {"circle", "X 78", {same("<" + point + ",2.2250738585072014e-308>")}},
        {"path",
         "X 255",
         {same("[(0,0),(1,1)]"), left_out("[" + times(5, point + ",") + point + "]")}},
        {"int4range", "X 25", {same("[-2147483648,-2147483647)"), same("empty"), same("(,)")}},
        {"int8range", "X 43", {same("[-9223372036854775808,-9223372036854775807)")}},
        {"tstzrange",
         "X 80",
         {same("[\"294276-12-31 23:59:59.999998+00\",\"294276-12-31 23:59:59.999999+00\")"),
          same("[-infinity,infinity]")}},
        {"daterange", "X 80", {same("[5874897-12-30,5874897-12-31)")}},
        {"numrange",
         "X 80",
         {same("[1.5,)"),
          left_out("[1." + std::string(40, '1') + ",1." + std::string(40, '2') + "]")}},
        {"int4multirange", "X 255", {same("{[1,3),[5,7)}"), same("{}")}, 14},
    });
    follow(kinds, "");
    expect_found(kinds);
}

TEST_F(BridgeTypesTest, TextsAreCutBetweenCharacters)
{
    const std::string line = std::string(255, 'x');
    const std::string page = std::string(1000, 'x');
    const std::vector<kind> kinds = {
        {"char(5)",
         "X 12",
         {{"'ab   '", "\"ab\""},
          same(times(5, UMLAUT)),
          same(times(4, EURO)),
          cut(times(5, EURO), times(4, EURO)),
          cut(times(5, BOMB), times(3, BOMB))}},
        {"char", "X 4", {same(BOMB), same("x")}},
        {"varchar(1)", "X 4", {same(BOMB), same("")}},
        {"varchar(7)",
         "X 16",
         {same("1234567"), same(times(7, UMLAUT)), same(times(4, BOMB)),
          cut(times(5, BOMB), times(4, BOMB)), cut(times(7, EURO), times(5, EURO)),
          cut("12" + times(5, EURO), "12" + times(4, EURO))}},
        {"varchar(40000)", "X 16299", {cut(std::string(40000, 'y'), std::string(16299, 'y'))}},
        {"text",
         "X 1000",
         {same(page), cut(page + "y", page), cut(page.substr(1) + EURO, page.substr(1)),
          cut(page.substr(3) + EURO + EURO, page.substr(3) + EURO)}},
        {"varchar", "X 255", {same(line), cut(line + "y", line)}},
        {"bpchar", "X 255", {same(line), cut(line + "y", line)}},
        {"name", "X 63", {same(std::string(63, 'n'))}},
        {"\"char\"", "X 1", {same("x"), {"''", "\"\""}}},
        {"json",
         "X 1000",
         {same("{\"a\" : [1, null]}"), cut("\"" + page + "\"", "\"" + page.substr(1))}},
        {"jsonb",
         "X 1000",
         {same("{\"a\": \"" + EURO + "\"}"), cut("\"" + page + "\"", "\"" + page.substr(1))}},
        {"xml", "X 1000", {same("<a>" + UMLAUT + "</a>")}},
        {"tsvector", "X 1000", {{"'a b'", "\"'a' 'b'\""}}},
        {"bytea",
         "X 512",
         {same("\\x"), same("\\x00ff"), same("\\x" + times(255, "ab")),
          cut("\\x" + times(256, "ab"), "\\x" + times(255, "ab"))}},
        {"integer[]",
         "X 255",
         {same("{}"), same("{1,NULL,-2147483648}"), same("{{1,2},{3,4}}"), same("[0:1]={1,2}"),
          cut("{" + times(127, "1,") + "1,22}", "{" + times(127, "1,"))}},
        {"text[]", "X 255", {same("{\"a b\",NULL,\"\"}")}},
    };
    follow(kinds, "");
    expect_found(kinds);
}

TEST_F(BridgeTypesTest, TypesOfTheDatabaseAreWhatItsCatalogueSays)
{
    sql("CREATE SCHEMA own; CREATE EXTENSION hstore SCHEMA own; CREATE EXTENSION citext SCHEMA own;"
        "CREATE TYPE own.mood AS ENUM ('fine', '" +
        std::string(63, 'l') +
        "', 'größte');"
        "CREATE TYPE own.pair AS (a integer, b text);"
        "CREATE TYPE own.span AS RANGE (subtype = integer);"
        "CREATE DOMAIN own.price AS numeric(9,2) CHECK (VALUE > 0);"
        "CREATE DOMAIN own.fee AS own.price; CREATE DOMAIN own.code AS varchar(3);"
        "CREATE DOMAIN own.yes AS boolean; CREATE DOMAIN own.seen AS timestamptz(3);"
        "CREATE DOMAIN own.note AS text; CREATE DOMAIN own.moods AS own.mood[];"
        "CREATE DOMAIN own.\"Odd Näme\" AS own.mood");
    const std::string page = std::string(1000, 'x');
    const std::vector<kind> kinds = {
        {"own.mood", "X 63", {same("fine"), same(std::string(63, 'l')), same("größte")}},
        {"own.mood[]", "X 255", {same("{fine,größte}")}},
        {"own.pair",
         "X 255",
         {same("(1,\"a b\")"),
          cut("(1," + std::string(255, 'x') + ")", "(1," + std::string(252, 'x'))}},
        {"own.span", "X 80", {same("[1,7)")}},
        {"own.price", "P 5 scale=2", {{"0.01", "0.01"}, {"9999999.99", "9999999.99"}}},
        {"own.fee", "P 5 scale=2", {{"9999999.99", "9999999.99"}}},
        {"own.code", "X 8", {same(times(2, BOMB)), cut(times(3, BOMB), times(2, BOMB))}},
        {"own.yes", "X 1", {{"true", "\"T\""}, {"false", "\"F\""}}},
        {"own.seen", "X 23", {{"'2026-03-09 08:18:01.2+02'", "\"2026-03-09 06:18:01.200\""}}},
        {"own.note", "X 1000", {same(page), cut(page + EURO, page)}},
        {"own.moods", "X 255", {same("{fine}")}},
        {"own.\"Odd Näme\"", "X 63", {same("größte")}},
        {"own.price[]", "X 255", {same("{1.00,2.50}")}},
        {"own.citext", "X 255", {same("Words")}},
        {"own.hstore", "X 255", {same("\"a\"=>\"1\"")}},
    };
    follow(kinds, "");
    expect_found(kinds);
}

TEST_F(BridgeTypesTest, InLatin1ACharacterIsAByteOrHasNoPlace)
{
    const std::vector<kind> kinds = {
        {"varchar(3)",
         "X 3",
         {same(times(3, UMLAUT)),
          {.value = "'a" + EURO + "b'",
           .shown = "\"a?b\"",
           .flag = 'R',
           .whole = "a" + EURO + "b"}}},
        {"char(3)", "X 3", {{"'ab '", "\"ab\""}}},
        {"varchar",
         "X 255",
         {same(times(255, UMLAUT)),
          {.value = "'" + times(256, EURO) + "'",
           .shown = "\"" + times(255, "?") + "\"",
           .flag = 'C',
           .whole = times(256, EURO)}}},
    };
    follow(kinds, "text-encoding iso-8859-1\n");
    expect_found(kinds);
}

TEST_F(BridgeTypesTest, ALogKeepsItsEncoding)
{
    follow({{"varchar(3)", "X 3", {same(times(3, UMLAUT))}}}, "text-encoding iso-8859-1\n");
    write_file(dir.file("fwutil.cfg"), "log-directory log\n");
    sql("CREATE TABLE shop.t1 (v varchar(3)); INSERT INTO shop.t1 VALUES ('ä'), (NULL)");
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    expect_found(
        {{"varchar(3)", "X 3", {same(times(3, UMLAUT))}}, {"varchar(3)", "X 3", {same(UMLAUT)}}});
}

TEST_F(BridgeTypesTest, TypesThatComeOrGoWhileItRunsAreKnownAsFarAsTheServerKnowsThem)
{
    follow({}, "");
    start_bridge({});
    sql("BEGIN; CREATE DOMAIN shop.price AS numeric(9,2);"
        "CREATE TABLE shop.t0 (v shop.price); INSERT INTO shop.t0 VALUES (1.5), (NULL); COMMIT");
    ASSERT_TRUE(poll_until([&] { return logged("layout SHOP.T0"); })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    // The server cannot say any more what this one was.
    sql("CREATE DOMAIN shop.fee AS numeric(9,2); CREATE TABLE shop.t1 (v shop.fee);"
        "INSERT INTO shop.t1 VALUES (2.5), (NULL)");
    sql("DROP TABLE shop.t1; DROP DOMAIN shop.fee");
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    expect_found({{"shop.price", "P 5 scale=2", {{"1.5", "1.50"}}},
                  {"shop.fee", "X 255", {{"2.5", "\"2.50\""}}}});
}
