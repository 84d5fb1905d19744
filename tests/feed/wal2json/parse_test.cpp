// Lines of a change stream: what a line gives, and each way in which one can be
// wrong.
#include "feed/wal2json/parse.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static std::string error_of(std::string_view text)
{
    w2j_line line;
    const outcome done = w2j_parse(line, text);
    return done ? "none" : done.text();
}

static w2j_line parsed(std::string_view text)
{
    w2j_line line;
    const outcome done = w2j_parse(line, text);
    EXPECT_TRUE(done) << done.text();
    return line;
}

TEST(Wal2json, BeginLineGivesTransactionTimeAndPosition)
{
    const w2j_line line =
        parsed(R"({"action":"B","xid":766,"timestamp":"2026-11-20 22:08:36.077609+00",)"
               R"("lsn":"0/195E398","nextlsn":"0/195E3C8"})");
    EXPECT_EQ(line.action, 'B');
    EXPECT_EQ(line.xid, 766U);
    EXPECT_EQ(line.timestamp, "2026-11-20 22:08:36.077609+00");
    EXPECT_EQ(line.lsn, "0/195E398");
    EXPECT_FALSE(line.columns.present);
    EXPECT_FALSE(line.identity.present);
}

TEST(Wal2json, RowKeepsTheDigitsOfNumbers)
{
    const w2j_line line =
        parsed(R"({"action":"I","xid":1,"schema":"s","table":"t","columns":[)"
               R"({"name":"a","type":"numeric","value":871.20},)"
               R"({"name":"b","type":"real","value":1.2e-05},)"
               R"({"name":"c","type":"bigint","value":9100000000000001},)"
               R"({"name":"d","type":"bigint","value":-9223372036854775808},)"
               R"({"name":"e","type":"numeric","value":123456789012345678901234567890.10},)"
               R"({"name":"f","type":"double precision","value":-0},)"
               R"({"name":"g","type":"numeric","value":99999999999999999999},)"
               R"({"name":"h","type":"integer","value":0},)"
               R"({"name":"i","type":"numeric","value":1e400}]})");
    ASSERT_EQ(line.columns.count, 9U);
    const char *const digits[] = {"871.20",
                                  "1.2e-05",
                                  "9100000000000001",
                                  "-9223372036854775808",
                                  "123456789012345678901234567890.10",
                                  "-0",
                                  "99999999999999999999",
                                  "0",
                                  "1e400"}; // beyond any double
    for (size_t i = 0; i < line.columns.count; i++) {
        EXPECT_EQ(line.columns.columns[i].value, digits[i]);
        EXPECT_EQ(line.columns.columns[i].kind, FEED_DIGITS);
        EXPECT_EQ(line.columns.columns[i].name, std::string(1, static_cast<char>('a' + i)));
    }
    EXPECT_EQ(line.columns.columns[0].type, feed_type());
    EXPECT_EQ(line.schema, "s");
    EXPECT_EQ(line.table, "t");
}

TEST(Wal2json, OtherValuesAreStringsBooleansAndNull)
{
    const w2j_line line = parsed(R"({"action":"U","xid":1,"schema":"s","table":"t",)"
                                 R"("columns":[{"value":true,"type":"boolean","name":"a"}],)"
                                 R"("identity":[{"name":"a","type":"boolean","value":false},)"
                                 R"({"name":"b","type":"text","value":null},)"
                                 R"({"name":"c","type":"text","value":"q\"\\\n\u00fc"}]})");
    ASSERT_EQ(line.columns.count, 1U);
    EXPECT_EQ(line.columns.columns[0].kind, FEED_TRUE);
    ASSERT_EQ(line.identity.count, 3U);
    EXPECT_EQ(line.identity.columns[0].kind, FEED_FALSE);
    EXPECT_EQ(line.identity.columns[1].kind, FEED_NULL);
    EXPECT_EQ(line.identity.columns[2].kind, FEED_TEXT);
    EXPECT_EQ(line.identity.columns[2].value, "q\"\\\n\xC3\xBC");
}

TEST(Wal2json, NothingIsLeftOverFromTheLineBefore)
{
    w2j_line line;
    ASSERT_TRUE(w2j_parse(line, R"({"action":"U","xid":5,"schema":"s","table":"t",)"
                                R"("columns":[{"name":"a","type":"text","value":"x"},)"
                                R"({"name":"b","type":"text","value":"x"}],)"
                                R"("identity":[{"name":"a","type":"text","value":"y"}]})"));
    ASSERT_TRUE(w2j_parse(line, R"({"action":"U","xid":5,"schema":"s","table":"t",)"
                                R"("columns":[{"name":"a","type":"text","value":null}]})"));
    EXPECT_EQ(line.columns.count, 1U);
    EXPECT_EQ(line.columns.columns[0].kind, FEED_NULL);
    EXPECT_FALSE(line.identity.present);
    EXPECT_EQ(line.identity.count, 0U);
    ASSERT_TRUE(
        w2j_parse(line, R"({"action":"M","transactional":false,"prefix":"p","content":"c"})"));
    EXPECT_EQ(line.xid, 0U);
}

TEST(Wal2json, MembersThatNobodyNeedsAreLeftOutWhateverTheyHold)
{
    const w2j_line line =
        parsed(R"({"other":{"action":"X","deep":[[{"xid":9}],null,-1.5]},"pk":[{"name":"a"}],)"
               R"("action":"I","xid":7,"schema":"s","table":"t","columns":[)"
               R"({"name":"a","typeoid":23,"extra":{"value":[1,{"name":"z"}]},"type":"text",)"
               R"("optional":false,"value":"v"}],"last":"x"})");
    EXPECT_EQ(line.action, 'I');
    EXPECT_EQ(line.xid, 7U);
    ASSERT_EQ(line.columns.count, 1U);
    EXPECT_EQ(line.columns.columns[0].name, "a");
    EXPECT_EQ(line.columns.columns[0].value, "v");
}

TEST(Wal2json, KeyIsTheNamesOfItsColumns)
{
    w2j_line line;
    ASSERT_TRUE(w2j_parse(line, R"({"action":"D","xid":7,"schema":"s","table":"t","identity":[],)"
                                R"("pk":[{"name":"b","type":"integer"},{"type":"text","name":"a"},)"
                                R"({"name":"c"}]})"));
    ASSERT_EQ(line.key.count, 3U);
    EXPECT_EQ(line.key.columns[0].name, "b");
    EXPECT_EQ(line.key.columns[1].name, "a");
    EXPECT_EQ(line.key.columns[2].name, "c");
    // Of the line before nothing is left.
    ASSERT_TRUE(w2j_parse(line, R"({"action":"D","xid":7,"schema":"s","table":"t"})"));
    EXPECT_EQ(line.key.count, 0U);
    EXPECT_FALSE(line.key.present);
    ASSERT_TRUE(w2j_parse(line, R"({"action":"D","xid":7,"schema":"s","table":"t","pk":null})"));
    EXPECT_EQ(line.key.count, 0U);
    EXPECT_EQ(error_of(R"({"pk":[{"type":"integer"}]})"), "a column in \"pk\" lacks its name");
    EXPECT_EQ(error_of(R"({"pk":"a"})"), "member \"pk\" has the wrong type");
    EXPECT_EQ(error_of(R"({"pk":["a"]})"), "an element of \"pk\" is not an object");
    EXPECT_EQ(error_of(R"({"pk":[],"pk":[]})"), "member \"pk\" is given twice");
}

TEST(Wal2json, TypeOfAColumnIsThatOfItsOwnLine)
{
    w2j_line line;
    const auto type_in = [&](const char *type) {
        EXPECT_TRUE(w2j_parse(line, R"({"action":"I","xid":7,"schema":"s","table":"t","columns":[)"
                                    R"({"name":"a","type":")" +
                                        std::string(type) + R"(","value":null}]})"));
        EXPECT_EQ(line.columns.columns[0].type_name, type);
        return line.columns.columns[0].type.whole;
    };
    EXPECT_EQ(type_in("boolean"), FEED_BOOLEAN);
    EXPECT_EQ(type_in("boolean"), FEED_BOOLEAN);
    EXPECT_EQ(type_in("text"), FEED_WORDS);
    EXPECT_EQ(type_in(""), FEED_PLAIN);
    EXPECT_EQ(type_in("boolean"), FEED_BOOLEAN);
}

TEST(Wal2json, MessageLineGivesPrefixAndContent)
{
    const w2j_line line = parsed(R"({"action":"M","xid":1,"transactional":true,)"
                                 R"("prefix":"session","content":"pid=1;user="})");
    EXPECT_TRUE(line.transactional);
    EXPECT_EQ(line.prefix, "session");
    EXPECT_EQ(line.content, "pid=1;user=");
}

TEST(Wal2json, TextThatIsNotJsonIsAnErrorWithItsPlace)
{
    EXPECT_EQ(error_of("x"), "is not valid JSON at byte 1: invalid literal");
    EXPECT_EQ(error_of(R"({"action":"B",)"),
              "is not valid JSON at byte 15: unexpected end of input; expected string literal");
    EXPECT_EQ(error_of(R"({"action":"B"} 1)"),
              "is not valid JSON at byte 16: unexpected number literal; expected end of input");
    EXPECT_EQ(error_of("{\"action\":\"B\"}\0"s), "is not valid JSON at byte 15: NUL byte");
    EXPECT_EQ(error_of("{\"action\":\"\xFF\"}"),
              "is not valid JSON at byte 12: invalid string: ill-formed UTF-8 byte");
    EXPECT_EQ(error_of("{\"table\":\"\xED\xA0\x80\"}").substr(0, 40),
              "is not valid JSON at byte 12: invalid st");
    EXPECT_EQ(error_of(R"({"xid":1e9999})").substr(0, 29), "is not valid JSON at byte 13:");
}

TEST(Wal2json, LineThatIsNoObjectIsAnError)
{
    for (const char *text : {"[]", "1", "-1", "1.5", "\"B\"", "null", "true"})
        EXPECT_EQ(error_of(text), "is not a JSON object") << text;
}

TEST(Wal2json, ActionMustBeKnown)
{
    EXPECT_EQ(error_of("{}"), "member \"action\" is missing: is this wal2json's format version 2?");
    EXPECT_EQ(error_of(R"({"change":[]})"),
              "member \"action\" is missing: is this wal2json's format version 2?");
    EXPECT_EQ(error_of(R"({"action":"X"})"), "action \"X\" is none of B, I, U, D, C, M, T");
    EXPECT_EQ(error_of(R"({"action":"BB"})"), "action \"BB\" is none of B, I, U, D, C, M, T");
    EXPECT_EQ(error_of(R"({"action":""})"), "action \"\" is none of B, I, U, D, C, M, T");
}

TEST(Wal2json, MissingMembersAreNamedWithTheOptionThatAddsThem)
{
    EXPECT_EQ(error_of(R"({"action":"B","timestamp":"x","lsn":"x"})"),
              "member \"xid\" is missing (set the plugin's option include-xids)");
    EXPECT_EQ(error_of(R"({"action":"B","xid":1,"lsn":"x"})"),
              "member \"timestamp\" is missing (set the plugin's option include-timestamp)");
    EXPECT_EQ(error_of(R"({"action":"C","xid":1,"timestamp":"x"})"),
              "member \"lsn\" is missing (set the plugin's option include-lsn)");
    EXPECT_EQ(error_of(R"({"action":"I","xid":1,"schema":"s","table":"t"})"),
              "member \"columns\" is missing");
    EXPECT_EQ(error_of(R"({"action":"U","xid":1,"table":"t","columns":[]})"),
              "member \"schema\" is missing");
    EXPECT_EQ(error_of(R"({"action":"D","xid":1,"schema":"s"})"), "member \"table\" is missing");
    EXPECT_EQ(error_of(R"({"action":"M","transactional":true,"prefix":"p"})"),
              "member \"content\" is missing");
    EXPECT_EQ(error_of(R"({"action":"T","xid":1,"schema":"s"})"), "member \"table\" is missing");
}

TEST(Wal2json, MembersGivenTwiceAreErrors)
{
    EXPECT_EQ(error_of(R"({"action":"B","action":"C"})"), "member \"action\" is given twice");
    EXPECT_EQ(error_of(R"({"action":"I","columns":[],"columns":[]})"),
              "member \"columns\" is given twice");
    EXPECT_EQ(error_of(R"({"columns":[{"name":"a","name":"b"}]})"),
              "a column in \"columns\" has two members \"name\"");
    EXPECT_EQ(error_of(R"({"nextlsn":1,"nextlsn":2,"columns":[{"x":1,"x":2,"name":"a",)"
                       R"("type":"t","value":1}],"action":"I","xid":1,"schema":"","table":""})"),
              "none");
}

TEST(Wal2json, ColumnsMustHaveNameTypeAndValue)
{
    EXPECT_EQ(error_of(R"({"identity":[{"name":"a","type":"t"}]})"),
              "a column in \"identity\" lacks its name, type or value");
    EXPECT_EQ(error_of(R"({"columns":[{}]})"),
              "a column in \"columns\" lacks its name, type or value");
}

TEST(Wal2json, MembersOfTheWrongTypeAreErrors)
{
    for (const char *text : {R"({"xid":"1"})", R"({"xid":-1})", R"({"xid":1.5})", R"({"xid":[1]})",
                             R"({"xid":{}})", R"({"xid":true})"})
        EXPECT_EQ(error_of(text), "member \"xid\" has the wrong type") << text;
    EXPECT_EQ(error_of(R"({"action":1})"), "member \"action\" has the wrong type");
    EXPECT_EQ(error_of(R"({"columns":1})"), "member \"columns\" has the wrong type");
    EXPECT_EQ(error_of(R"({"columns":{}})"), "member \"columns\" has the wrong type");
    EXPECT_EQ(error_of(R"({"transactional":"t"})"), "member \"transactional\" has the wrong type");
    EXPECT_EQ(error_of(R"({"lsn":false})"), "member \"lsn\" has the wrong type");
    for (const char *text : {R"({"columns":[1]})", R"({"columns":[[]]})", R"({"columns":["a"]})"})
        EXPECT_EQ(error_of(text), "an element of \"columns\" is not an object") << text;
    for (const char *text : {R"({"columns":[{"name":1}]})", R"({"columns":[{"type":null}]})",
                             R"({"columns":[{"type":{}}]})", R"({"columns":[{"name":[]}]})"})
        EXPECT_EQ(error_of(text),
                  "a column in \"columns\" has a name, type or value of the wrong type")
            << text;
}

TEST(Wal2json, ValueThatIsAnObjectOrAnArrayNamesItsColumn)
{
    const std::string rest = " as its value: let the server send it as a text";
    EXPECT_EQ(error_of(R"({"action":"I","schema":"sales","table":"orders","columns":[)"
                       R"({"name":"no","type":"integer","value":1},)"
                       R"({"name":"note","type":"json","value":{"a":1}}]})"),
              "sales.orders.note has a JSON object" + rest);
    EXPECT_EQ(error_of(R"({"schema":"sales","table":"orders","identity":[)"
                       R"({"name":"tags","type":"text[]","value":["a"]}]})"),
              "sales.orders.tags has a JSON array" + rest);
    EXPECT_EQ(error_of(R"({"columns":[{"name":"a","value":{}}]})"),
              "column a in \"columns\" has a JSON object" + rest);
    EXPECT_EQ(error_of(R"({"columns":[{"value":{}}]})"),
              "column 1 in \"columns\" has a JSON object" + rest);
}

// As the plugin writes them.
TEST(Wal2json, MessageOutsideATransactionHasNeitherTransactionNorTime)
{
    const w2j_line line = parsed(R"({"action":"M","xid":null,"timestamp":null,"lsn":"0/19B2DF0",)"
                                 R"("transactional":false,"prefix":"session","content":"pid=1"})");
    EXPECT_EQ(line.action, 'M');
    EXPECT_EQ(line.xid, 0U);
    EXPECT_FALSE(line.transactional);
}

TEST(Wal2json, OtherLinesNeedTheMembersThatAreNull)
{
    EXPECT_EQ(error_of(R"({"action":"B","xid":null,"lsn":"0/1","timestamp":"t"})"),
              "member \"xid\" is missing (set the plugin's option include-xids)");
    EXPECT_EQ(error_of(R"({"action":"C","xid":1,"lsn":null,"timestamp":"t"})"),
              "member \"lsn\" is missing (set the plugin's option include-lsn)");
    EXPECT_EQ(error_of(R"({"action":"B","xid":1,"lsn":"0/1","timestamp":null})"),
              "member \"timestamp\" is missing (set the plugin's option include-timestamp)");
}

TEST(Wal2json, EveryCutOfALineIsAnError)
{
    const std::string whole = R"({"action":"U","xid":1,"schema":"s","table":"t","columns":)"
                              R"([{"name":"a","type":"real","value":-1.5e3}],"identity":[]})";
    for (size_t length = 0; length < whole.size(); length++)
        EXPECT_NE(error_of(whole.substr(0, length)), "none") << length;
    EXPECT_EQ(error_of(whole), "none");
}

TEST(Wal2json, TypesSayWhatCannotBeSeenFromTheValue)
{
    const struct {
        const char *type;
        feed_type expected;
    } cases[] = {
        {"boolean", {FEED_BOOLEAN, FEED_BOOLEAN}},
        {"boolean[]", {FEED_PLAIN, FEED_BOOLEAN}},
        {"timestamp with time zone", {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {"timestamp(0) without time zone", {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {"timestamp without time zone[]", {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {"timestamp_kind", {}},
        {"timestamps", {}},
        {"text", {FEED_WORDS, FEED_WORDS}},
        {"text[]", {FEED_PLAIN, FEED_WORDS}},
        {"name", {FEED_WORDS, FEED_WORDS}},
        {"character varying", {FEED_WORDS, FEED_WORDS}},
        {"character varying(9)", {FEED_WORDS, FEED_WORDS}},
        {"character", {FEED_FILLED_WORDS, FEED_FILLED_WORDS}},
        {"character(4)", {FEED_FILLED_WORDS, FEED_FILLED_WORDS}},
        {"character[]", {FEED_PLAIN, FEED_FILLED_WORDS}},
        {"numeric(9,2)", {}},
        {"smallint[]", {}},
        {"", {}},
    };
    for (const auto &row : cases) {
        const w2j_line line =
            parsed(std::string(R"({"action":"I","xid":1,"schema":"s","table":"t",)") +
                   R"("columns":[{"name":"a","type":")" + row.type + R"(","value":"x"}]})");
        EXPECT_EQ(line.columns.columns.at(0).type, row.expected) << row.type;
    }
}
