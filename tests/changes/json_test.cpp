// The lines around the values: what a change, a layout, a mark, a session and a transaction
// say, and when the end of a line is known.
#include "tests/changes/json_fixture.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

static change_dataset orders()
{
    return dataset_of("ORDERS", {{"NO", 'I', 2}, {"TAG", 'X', 2}, {"NULLS", 'X', 2}}, "NULLS");
}

static const std::string SCHEMA =
    R"({"schema":{"database":"SALES","dataset":"ORDERS","table":null,"position":"1-25.3",)"
    R"("items":[{"name":"NO","type":"I","size":2,"count":1,"scale":0,"column":null,)"
    R"("source_type":null,"key":null,"nullable":true},)"
    R"({"name":"TAG","type":"X","size":2,"count":1,"scale":0,"column":null,)"
    R"("source_type":null,"key":null,"nullable":true}],"key":[],"null_map":"NULLS"}})"
    "\n";

static const std::string NAMES = R"("database":"SALES","dataset":"ORDERS","table":null)";

static std::string session_of(const std::string &out)
{
    const size_t at = out.rfind(R"("program":)");
    return out.substr(at, out.find('}', at) - at);
}

TEST(ChangesJson, EveryOperationHasItsImages)
{
    const change_dataset dataset = orders();
    struct {
        change_op op;
        std::string before, after, expected;
    } const cases[] = {
        {CHANGE_CREATE, "", "\1\0a .."s, R"({"op":"c","before":null,"after":{"NO":1,"TAG":"a"},)"},
        {CHANGE_UPDATE, "\1\0a .."s, "\2\0b .N"s,
         R"({"op":"u","before":{"NO":1,"TAG":"a"},"after":{"NO":2,"TAG":null},)"},
        {CHANGE_DELETE, "\2\0b N."s, "",
         R"({"op":"d","before":{"NO":null,"TAG":"b"},"after":null,)"},
        {CHANGE_READ, "", "\3\0c .."s, R"({"op":"r","before":null,"after":{"NO":3,"TAG":"c"},)"},
    };
    for (const auto &row : cases) {
        json_lines lines;
        lines.put(row.op, dataset, row.before, row.after);
        lines.commit();
        EXPECT_EQ(lines.out, SCHEMA + row.expected + rest_of_line(NAMES));
    }
}

TEST(ChangesJson, TheEndOfALineWaitsForTheNextChangeOrTheCommit)
{
    const change_dataset dataset = orders();
    json_lines lines;
    lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s);
    EXPECT_THAT(lines.taken(), testing::EndsWith(R"("transaction":{"id":"1-25.9","n":1,"last":)"));
    lines.put(CHANGE_DELETE, dataset, "\1\0a .."s, "");
    const std::string second = lines.taken();
    EXPECT_THAT(second, testing::StartsWith("false},\"ts_ms\":1700000000000}\n{\"op\":\"d\","));
    EXPECT_THAT(second, testing::EndsWith(R"("transaction":{"id":"1-25.9","n":2,"last":)"));
    lines.commit();
    EXPECT_EQ(lines.taken(), "true},\"ts_ms\":1700000000000}\n");
    lines.commit();
    EXPECT_EQ(lines.taken(), "") << "a transaction without changes";
    lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s);
    change_json_end(lines.json, lines.out, false);
    EXPECT_THAT(lines.taken(), testing::EndsWith("\"last\":false},\"ts_ms\":1700000000000}\n"));
}

TEST(ChangesJson, EveryLineTellsItsTransaction)
{
    const change_dataset dataset = orders();
    struct {
        change_transaction transaction;
        std::string commit, id, time;
    } const cases[] = {
        {transaction_at(), R"("xid":846,"lsn":"0/19B2DF0","commit_us":1700000000000250,)",
         R"({"id":"1-25.9",)", "\"ts_ms\":1700000000000}\n"},
        {transaction_at(2147483647), R"("xid":846,"lsn":"0/19B2DF0","commit_us":1700000000000250,)",
         R"({"id":"1-25.2147483647",)", "\"ts_ms\":1700000000000}\n"},
        {{{INT64_MAX, UINT64_MAX, UINT64_MAX}, {9999, 99999999, 1}, {}},
         R"("xid":18446744073709551615,"lsn":"FFFFFFFF/FFFFFFFF","commit_us":9223372036854775807,)",
         R"({"id":"9999-99999999.1",)",
         "\"ts_ms\":9223372036854775}\n"},
        {{{INT64_MIN, 0, 0}, {1, 25, 5}, {}},
         R"("xid":0,"lsn":"0/0","commit_us":-9223372036854775808,)",
         R"({"id":"1-25.5",)",
         "\"ts_ms\":-9223372036854776}\n"},
        {{{-1, 0, 0}, {1, 25, 5}, {}},
         R"("commit_us":-1,)",
         R"({"id":"1-25.5",)",
         "\"ts_ms\":-1}\n"},
        {{{-1000, 0, 0}, {1, 25, 5}, {}},
         R"("commit_us":-1000,)",
         R"({"id":"1-25.5",)",
         "\"ts_ms\":-1}\n"},
        {{{0, 0, 0}, {1, 25, 5}, {}}, R"("commit_us":0,)", R"({"id":"1-25.5",)", "\"ts_ms\":0}\n"},
    };
    json_lines lines; // one for all: nothing of the transaction before stays
    for (const auto &row : cases) {
        lines.transaction = row.transaction;
        lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s);
        lines.commit();
        const std::string line = lines.taken();
        EXPECT_THAT(line, HasSubstr(row.commit));
        EXPECT_THAT(line, HasSubstr(row.id));
        EXPECT_THAT(line, testing::EndsWith(row.time));
    }
}

TEST(ChangesJson, PositionsGoFromFileToFile)
{
    const change_dataset dataset = orders();
    json_lines lines;
    const fwu_position all[] = {
        {1, 25, 4}, {1, 25, 5}, {1, 26, 1}, {2, 26, 1}, {9999, 99999999, 2147483647}};
    for (const fwu_position &position : all) {
        change next;
        next.dataset = &dataset;
        next.position = position;
        next.record = 2147483647;
        next.n = 18446744073709551615U;
        next.after.image = reinterpret_cast<const unsigned char *>("\1\0a ..");
        change_json_put(lines.json, lines.out, next, lines.transaction);
        EXPECT_THAT(lines.taken(), HasSubstr("\"position\":\"" + fwu_position_text(position) +
                                             "\",\"record\":2147483647,"));
    }
    change_json_end(lines.json, lines.out, true);
}

TEST(ChangesJson, ALayoutIsGivenWhereItBeginsOrChanges)
{
    const change_dataset one = orders();
    const change_dataset other = dataset_of("LINES", {{"NO", 'I', 2}});
    const change_dataset wider = dataset_of("ORDERS", {{"NO", 'I', 4}});
    change_dataset big = one;
    big.big_endian = true;
    json_lines lines;
    std::string kinds;
    const auto put = [&](const change_dataset &dataset) {
        lines.put(CHANGE_CREATE, dataset, "",
                  std::string(static_cast<size_t>(dataset.image_length), '1'));
        change_json_end(lines.json, lines.out, false);
        const std::string text = lines.taken();
        const std::string schema =
            R"({"schema":{"database":"SALES","dataset":")" + dataset.layout.dsetname;
        kinds += text.starts_with(schema) ? "S" : text.starts_with("{\"op\"") ? "." : "?";
    };
    put(one);   // S
    put(one);   // .
    put(other); // S
    put(one);   // . another dataset between changes nothing
    put(wider); // S
    put(other); // .
    put(wider); // .
    put(one);   // S the first one again
    put(big);   // . it says the same
    put(one);   // .
    EXPECT_EQ(kinds, "S.S.S..S..");
}

TEST(ChangesJson, ALayoutTellsOfItsSource)
{
    change_dataset dataset = dataset_of(
        "ORDERS", {{"NO", 'I', 8}, {"LINE", 'P', 5, 1, 2}, {"NULLS", 'X', 3}, {"WEEK", 'I', 2, 4}},
        "NULLS");
    set_source(dataset, "or\"ders",
               {{"week", "smallint[]", 3, 0},
                {"left_out", "text", -1, 0},
                {"l\"ine", "numeric(9,2)", 1, 1},
                {"no", "", 0, 2}});
    dataset.key = {1, 0};
    json_lines lines;
    lines.put(CHANGE_CREATE, dataset, "", std::string(24, '1'));
    const std::string expected =
        R"({"schema":{"database":"SALES","dataset":"ORDERS","table":"sales.or\"ders",)"
        R"("position":"1-25.3","items":[)"
        R"({"name":"NO","type":"I","size":8,"count":1,"scale":0,"column":"no",)"
        R"("source_type":null,"key":2,"nullable":true},)"
        R"({"name":"LINE","type":"P","size":5,"count":1,"scale":2,"column":"l\"ine",)"
        R"-("source_type":"numeric(9,2)","key":1,"nullable":true},)-"
        R"({"name":"WEEK","type":"I","size":2,"count":4,"scale":0,"column":"week",)"
        R"("source_type":"smallint[]","key":null,"nullable":true}],)"
        R"("key":["LINE","NO"],"null_map":"NULLS"}})";
    EXPECT_EQ(lines.out.substr(0, lines.out.find('\n')), expected);
    EXPECT_THAT(lines.out, HasSubstr(R"("source":{"database":"SALES","dataset":"ORDERS",)"
                                     R"("table":"sales.or\"ders",)"));
}

TEST(ChangesJson, ALayoutWithoutValuesHasNone)
{
    EXPECT_EQ(values_of(dataset_of("ORDERS", {{"NULL-MAP", 'X', 1}}, "NULL-MAP"), "."), "{}");
}

TEST(ChangesJson, NamesAreTextsLikeOthers)
{
    change_dataset dataset =
        dataset_of("A\"B", {{"Q\"\\", 'X', 1}, {"J\xDCRG\x01", 'X', 1}, {"\x85", 'X', 1}});
    dataset.layout.dbname = "D\xC4";
    json_lines lines;
    lines.put(CHANGE_CREATE, dataset, "", "abc");
    EXPECT_THAT(lines.out, HasSubstr(R"("database":"DÄ","dataset":"A\"B","table":null)"));
    EXPECT_THAT(lines.out, HasSubstr(R"({"Q\"\\":"a","JÜRG\u0001":"b","\u0085":"c"})"));
    EXPECT_THAT(lines.out, HasSubstr(R"({"name":"Q\"\\",)"));
    EXPECT_THAT(lines.out, HasSubstr(R"({"name":"JÜRG\u0001",)"));
}

TEST(ChangesJson, ASessionIsWhatItIsAtItsChange)
{
    const change_dataset dataset = orders();
    fwu_session_view session;
    json_lines lines;
    const auto put = [&](const fwu_session_view *with) {
        lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s, with);
        return session_of(lines.out);
    };
    EXPECT_EQ(put(&session), R"("program":null,"user":null,"login":null,"pid":null)");
    // The same view holds the next one, as a reader's does.
    session.entry[0] = "/opt/shop \"x\"";
    session.entry[1] = "J\xFCrg";
    session.entry[2] = "";
    session.entry[3] = "24141";
    session.entry[4] = "info is not told";
    EXPECT_EQ(put(&session), R"("program":"/opt/shop \"x\"","user":"Jürg","login":"","pid":24141)");
    session.entry[2] = nullptr;
    EXPECT_EQ(put(&session),
              R"("program":"/opt/shop \"x\"","user":"Jürg","login":null,"pid":24141)");
    session.entry[1] = "Jim";
    EXPECT_EQ(put(&session),
              R"("program":"/opt/shop \"x\"","user":"Jim","login":null,"pid":24141)");
    EXPECT_EQ(put(nullptr), R"("program":null,"user":null,"login":null,"pid":null)");
    EXPECT_EQ(put(&session),
              R"("program":"/opt/shop \"x\"","user":"Jim","login":null,"pid":24141)");
}

TEST(ChangesJson, AProcessIdIsANumberWhereItIsPlainDecimal)
{
    const change_dataset dataset = orders();
    const std::pair<const char *, const char *> cases[] = {
        {"0", "0"},
        {"7", "7"},
        {"4194304", "4194304"},
        {"999999999999999", "999999999999999"},
        {"1000000000000000", R"("1000000000000000")"}, // more than any reader takes exactly
        {"", R"("")"},
        {"007", R"("007")"},
        {"-1", R"("-1")"},
        {"+1", R"("+1")"},
        {"1 ", R"("1 ")"},
        {"1.5", R"("1.5")"},
        {"0x1F", R"("0x1F")"},
        {"1e5", R"("1e5")"},
        {"\xB2", R"("²")"},
    };
    json_lines lines;
    for (const auto &[pid, expected] : cases) {
        fwu_session_view session;
        session.entry[3] = pid;
        lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s, &session);
        EXPECT_THAT(session_of(lines.out), testing::EndsWith(std::string("\"pid\":") + expected));
    }
}

TEST(ChangesJson, MarksHaveNoImagesAndAReason)
{
    const change_dataset dataset = orders();
    struct {
        fwu_mark mark;
        const change_dataset *dataset;
        std::string front, names;
    } const cases[] = {
        {{FWU_MARK_TRUNCATE, "SALES", "ORDERS", "sales", "orders",
          "TRUNCATE by \"ann\" \xE2\x82\xAC"},
         nullptr,
         R"({"op":"t","before":null,"after":null,"truncate":{"reason":"TRUNCATE by \"ann\" €"},)",
         R"("database":"SALES","dataset":"ORDERS","table":"sales.orders")"},
        {{FWU_MARK_GAP, "SALES", "ORDERS", "", "", "slot lost"},
         &dataset,
         R"({"op":"g","before":null,"after":null,"gap":{"reason":"slot lost"},)",
         R"("database":"SALES","dataset":"ORDERS","table":null)"},
        {{FWU_MARK_GAP, "", "", "", "", ""},
         nullptr,
         R"({"op":"g","before":null,"after":null,"gap":{"reason":null},)",
         R"("database":null,"dataset":null,"table":null)"},
        {{FWU_MARK_TRUNCATE, "", "", "", "t\"1", "x"},
         nullptr,
         R"({"op":"t","before":null,"after":null,"truncate":{"reason":"x"},)",
         R"("database":null,"dataset":null,"table":"\"t\"\"1\"")"},
        {{FWU_MARK_TRUNCATE, "", "", "Shop", "two words", "x"},
         nullptr,
         R"({"op":"t","before":null,"after":null,"truncate":{"reason":"x"},)",
         R"("database":null,"dataset":null,"table":"Shop.\"two words\"")"},
    };
    for (const auto &row : cases) {
        json_lines lines;
        lines.put_mark(row.mark, row.dataset);
        lines.commit();
        EXPECT_EQ(lines.out, row.front + rest_of_line(row.names, 0));
    }
}

TEST(ChangesJson, AMarkOfATableThatItDoesNotNameHasItsDatasets)
{
    change_dataset dataset = orders();
    set_source(dataset, "orders", {});
    const fwu_mark mark = {FWU_MARK_GAP, "SALES", "ORDERS", "", "", ""};
    json_lines lines;
    lines.put_mark(mark, &dataset);
    EXPECT_THAT(lines.out, HasSubstr(R"("dataset":"ORDERS","table":"sales.orders",)"));
}

TEST(ChangesJson, AMarkStandsAmongItsTransactionsChanges)
{
    const change_dataset dataset = orders();
    const fwu_mark mark = {FWU_MARK_TRUNCATE, "SALES", "ORDERS", "", "", "r"};
    json_lines lines;
    lines.put_mark(mark, &dataset);
    EXPECT_THAT(lines.taken(), testing::StartsWith("{\"op\":\"t\",")) << "it needs no layout";
    lines.put(CHANGE_CREATE, dataset, "", "\1\0a .."s);
    EXPECT_THAT(lines.taken(), testing::StartsWith("false},\"ts_ms\":1700000000000}\n" + SCHEMA));
    lines.put_mark(mark, &dataset);
    lines.commit();
    EXPECT_THAT(lines.taken(), HasSubstr("\"n\":3,\"last\":true}"));
}

// As capture records tell of it: its second is known, and no more.
TEST(ChangesJson, ATransactionThatIsNotKnownIsNullAndItsLineWhole)
{
    const change_dataset dataset = orders();
    const std::string image = "\1\0a .."s;
    change next;
    next.dataset = &dataset;
    next.after.image = reinterpret_cast<const unsigned char *>(image.data());
    change_transaction transaction;
    transaction.commit.time_us = 1700000000000000;
    change_json json;
    std::string out;
    change_json_put(json, out, next, transaction);
    change_json_end(json, out, true); // there is no end to come
    const std::string front = R"({"op":"c","before":null,"after":{"NO":1,"TAG":"a"},"source":{)" +
                              NAMES + R"(,"position":null,"record":)";
    const std::string behind =
        R"(,"xid":null,"lsn":null,"commit_us":null,"program":null,"user":null,"login":null,)"
        R"("pid":null},"transaction":null,"ts_ms":)";
    EXPECT_EQ(out, SCHEMA + front + "null" + behind + "1700000000000}\n");
    out.clear();
    next.record = 7;
    transaction.commit.time_us = 1700000001000000;
    change_json_put(json, out, next, transaction);
    EXPECT_EQ(out, front + "7" + behind + "1700000001000}\n");
}
