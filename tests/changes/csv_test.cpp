// Lines of CSV, byte for byte, and read back by a reader that goes by the rules of RFC 4180.
#include "changes/csv.h"

#include "changes/value.h"
#include "tests/changes/json_fixture.h"

#include <gmock/gmock.h>
#include <optional>
#include <random>

using testing::ElementsAre;
using testing::HasSubstr;

static const unsigned char *image(const std::string &bytes)
{
    return bytes.empty() ? nullptr : reinterpret_cast<const unsigned char *>(bytes.data());
}

// The line of a change at 1-25.4, the second of its transaction.
static std::string line_of(change_csv &csv, change_op op, const std::string &before,
                           const std::string &after, const fwu_session_view *session = nullptr,
                           const whole_values &whole = {})
{
    EXPECT_TRUE(before.empty() || before.size() == static_cast<size_t>(csv.dataset->image_length));
    EXPECT_TRUE(after.empty() || after.size() == static_cast<size_t>(csv.dataset->image_length));
    change next;
    next.op = op;
    next.dataset = csv.dataset;
    next.position = {1, 25, 4};
    next.record = 12;
    next.n = 2;
    next.before = {image(before), whole.before};
    next.after = {image(after), whole.after};
    next.session = session;
    std::string out;
    change_csv_put(csv, out, next, transaction_at());
    return out;
}

static change_csv csv_of(const change_dataset &dataset, const change_csv_options &options = {})
{
    change_csv csv;
    const outcome made = change_csv_make(csv, dataset, options);
    EXPECT_TRUE(made) << made.text();
    return csv;
}

static change_dataset orders()
{
    return dataset_of(
        "ORDERS", {{"NO", 'I', 2}, {"NET", 'P', 2, 1, 1}, {"TAG", 'X', 2, 2}, {"NULLS", 'X', 3}},
        "NULLS");
}

static const std::string NEW_ROW = "\5\0\x12\x3C"
                                   "a b ..."s;
static const std::string OLD_ROW = "\xFF\xFF\0\x5D"
                                   "    .N."s;

TEST(ChangesCsv, EveryOperationHasItsRow)
{
    const change_dataset dataset = orders();
    change_csv csv = csv_of(dataset);
    EXPECT_EQ(csv.header, "_op,_position,NO,NET,TAG[1],TAG[2]\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", NEW_ROW), "c,1-25.4,5,12.3,a,b\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_READ, "", NEW_ROW), "r,1-25.4,5,12.3,a,b\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_UPDATE, OLD_ROW, NEW_ROW), "u,1-25.4,5,12.3,a,b\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_DELETE, OLD_ROW, ""), "d,1-25.4,-1,,\"\",\"\"\r\n");
}

TEST(ChangesCsv, OldValuesStandBehindTheOthers)
{
    const change_dataset dataset = orders();
    change_csv csv = csv_of(dataset, {.columns = {}, .source_names = false, .before = true});
    EXPECT_EQ(csv.header, "_op,_position,NO,NET,TAG[1],TAG[2],"
                          "before.NO,before.NET,before.TAG[1],before.TAG[2]\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", NEW_ROW), "c,1-25.4,5,12.3,a,b,,,,\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_UPDATE, OLD_ROW, NEW_ROW),
              "u,1-25.4,5,12.3,a,b,-1,,\"\",\"\"\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_DELETE, NEW_ROW, ""), "d,1-25.4,5,12.3,a,b,5,12.3,a,b\r\n");
}

TEST(ChangesCsv, ListChoosesAndOrdersColumns)
{
    const change_dataset dataset = orders();
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"NET"}, "_op,_position,NET\r\nu,1-25.4,12.3\r\n"},
        {{"NET", "NO"}, "_op,_position,NET,NO\r\nu,1-25.4,12.3,5\r\n"},
        {{"TAG[2]"}, "_op,_position,TAG[2]\r\nu,1-25.4,b\r\n"},
        {{"TAG"}, "_op,_position,TAG[1],TAG[2]\r\nu,1-25.4,a,b\r\n"},
        {{"before.NO", "NO"}, "_op,_position,before.NO,NO\r\nu,1-25.4,-1,5\r\n"},
        {{"before.TAG[1]"}, "_op,_position,before.TAG[1]\r\nu,1-25.4,\"\"\r\n"},
        {{"NO", "_op"}, "_position,NO,_op\r\n1-25.4,5,u\r\n"},
        {{"_position", "NO", "_op"}, "_position,NO,_op\r\n1-25.4,5,u\r\n"},
        {{"NO", "NO"}, "_op,_position,NO,NO_2\r\nu,1-25.4,5,5\r\n"},
    };
    for (const auto &[columns, expected] : cases) {
        change_csv csv = csv_of(dataset, {.columns = columns});
        EXPECT_EQ(csv.header + line_of(csv, CHANGE_UPDATE, OLD_ROW, NEW_ROW), expected);
    }
    change_csv both = csv_of(dataset, {.columns = {"_xid", "NET"}, .before = true});
    EXPECT_EQ(both.header, "_op,_position,_xid,NET,before.NET\r\n");
}

TEST(ChangesCsv, WhatIsKnownOfAChangeCanBeAColumn)
{
    const change_dataset known = [] {
        change_dataset dataset = orders();
        set_source(dataset, "or,ders", {});
        return dataset;
    }();
    const std::string program = "J\xFCrg";
    fwu_session_view session;
    session.entry[0] = program.c_str();
    session.entry[1] = "";
    session.entry[2] = "log\"in";
    session.entry[3] = "007";
    session.entry[4] = " info";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"_record", "12"},
        {"_database", "SALES"},
        {"_dataset", "ORDERS"},
        {"_table", "\"sales.or,ders\""},
        {"_transaction", "1-25.9"},
        {"_n", "2"},
        {"_xid", "846"},
        {"_lsn", "0/19B2DF0"},
        {"_commit_us", "1700000000000250"},
        {"_time", "2023-11-14 22:13:20.000250"},
        {"_program", "J\xC3\xBCrg"},
        {"_user", "\"\""},
        {"_login", "\"log\"\"in\""},
        {"_pid", "007"},
        {"_info", "\" info\""},
        {"_reason", ""},
    };
    for (const auto &[name, expected] : cases) {
        change_csv csv = csv_of(known, {.columns = {name}});
        EXPECT_EQ(csv.header, "_op,_position," + name + "\r\n");
        EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", NEW_ROW, &session),
                  "c,1-25.4," + expected + "\r\n");
    }
    const change_dataset unknown = orders();
    change_csv csv = csv_of(unknown, {.columns = {"_table", "_program", "_user", "_pid"}});
    EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", NEW_ROW), "c,1-25.4,,,,\r\n");
}

TEST(ChangesCsv, MarksHaveNoValues)
{
    const change_dataset dataset = orders();
    change_csv csv =
        csv_of(dataset, {.columns = {"NO", "_record", "_dataset", "_table", "_reason", "TAG"}});
    const fwu_mark gap{.kind = FWU_MARK_GAP,
                       .dbname = "DEPOT",
                       .dsetname = "STOCK",
                       .schema = "depot",
                       .table = "stock",
                       .reason = "slot \"s\" lost"};
    change next;
    next.op = CHANGE_GAP;
    next.position = {1, 25, 5};
    next.mark = &gap;
    std::string out;
    change_csv_put(csv, out, next, transaction_at());
    EXPECT_EQ(out, "g,1-25.5,,,STOCK,depot.stock,\"slot \"\"s\"\" lost\",,\r\n");
    const fwu_mark truncate{.kind = FWU_MARK_TRUNCATE};
    next.op = CHANGE_TRUNCATE;
    next.dataset = &dataset;
    next.mark = &truncate;
    out.clear();
    change_csv_put(csv, out, next, transaction_at());
    EXPECT_EQ(out, "t,1-25.5,,,ORDERS,,,,\r\n");
}

TEST(ChangesCsv, SourceNamesNameWhatHasAColumn)
{
    change_dataset dataset = orders();
    set_source(dataset, "orders",
               {{.name = "order_no", .type = "integer", .item = 0},
                {.name = "left_out", .type = "text", .item = -1},
                {.name = "tag,\"s", .type = "text[]", .item = 2},
                {.name = "NO", .type = "numeric(3,1)", .item = 1}});
    EXPECT_EQ(csv_of(dataset).header, "_op,_position,NO,NET,TAG[1],TAG[2]\r\n");
    EXPECT_EQ(csv_of(dataset, {.columns = {}, .source_names = true}).header,
              "_op,_position,order_no,NO,\"tag,\"\"s[1]\",\"tag,\"\"s[2]\"\r\n");
    // A name counts as what the option prefers, and else as what it can be.
    change_csv by_item = csv_of(dataset, {.columns = {"NO", "order_no", "tag,\"s[1]"}});
    EXPECT_EQ(line_of(by_item, CHANGE_CREATE, "", NEW_ROW), "c,1-25.4,5,5,a\r\n");
    change_csv by_column =
        csv_of(dataset, {.columns = {"NO", "before.order_no", "NET"}, .source_names = true});
    EXPECT_EQ(by_column.header, "_op,_position,NO,before.order_no,NET\r\n");
    EXPECT_EQ(line_of(by_column, CHANGE_UPDATE, OLD_ROW, NEW_ROW), "u,1-25.4,12.3,-1,12.3\r\n");
}

TEST(ChangesCsv, HostileNamesStayApart)
{
    change_dataset dataset = dataset_of("D", {{"_op", 'X', 1},
                                              {"before.A", 'X', 1},
                                              {"A", 'X', 1},
                                              {"A[1]", 'X', 1},
                                              {"Z", 'X', 1, 2},
                                              {"Z[1]", 'X', 1},
                                              {"N\nL", 'X', 1},
                                              {"\xC4\"", 'X', 1}});
    change_csv csv = csv_of(dataset, {.columns = {}, .source_names = false, .before = true});
    EXPECT_EQ(csv.header,
              "_op,_position,_op_2,before.A,A,A[1],Z[1],Z[2],Z[1]_2,\"N\nL\",\"\xC3\x84\"\"\","
              "before._op_2,before.before.A,before.A_2,before.A[1],before.Z[1],before.Z[2],"
              "before.Z[1]_2,\"before.N\nL\",\"before.\xC3\x84\"\"\"\r\n");
    EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", "123456789"),
              "c,1-25.4,1,2,3,4,5,6,7,8,9,,,,,,,,,\r\n");
    change_csv named = csv_of(dataset, {.columns = {"before.A", "A[1]", "Z[1]", "\xC3\x84\""}});
    EXPECT_EQ(line_of(named, CHANGE_UPDATE, "abcdefghi", "123456789"), "u,1-25.4,2,4,7,9\r\n");
}

TEST(ChangesCsv, UnknownNamesAreRefused)
{
    const change_dataset dataset = orders();
    for (const char *name :
         {"FOO", "NULLS", "NO[1]x", "TAG[0]", "TAG[3]", "TAG[]", "TAG[+1]", "TAG[99999999999]",
          "before.FOO", "before._op", "_", "_last", "no", "before.before.NO"}) {
        change_csv csv;
        const outcome made = change_csv_make(csv, dataset, {.columns = {"NO", name}});
        EXPECT_EQ(made.kind(), OUTCOME_BAD) << name;
        EXPECT_EQ(made.text(),
                  std::string("SALES.ORDERS in its layout of 1-25.3 has no column ") + name +
                      "; about changes there are _op, _position, _record, _database, "
                      "_dataset, _table, _transaction, _n, _xid, _lsn, _commit_us, "
                      "_time, _program, _user, _login, _pid, _info, _reason, _unknown");
    }
}

TEST(ChangesCsv, MoreColumnsThanALineCanHaveAreRefused)
{
    const change_dataset dataset =
        dataset_of("BIG", {{"A", 'X', 1, INT32_MAX}, {"B", 'X', 1, 32767}});
    change_csv csv;
    EXPECT_EQ(change_csv_make(csv, dataset, {}).text(),
              "SALES.BIG in its layout of 1-25.3 has more than 1000000 columns; name those that "
              "are wanted");
    EXPECT_TRUE(change_csv_make(csv, dataset, {.columns = {"B", "A[2147483647]"}}));
    EXPECT_EQ(csv.columns.size(), 2U + 32768U);
}

TEST(ChangesCsv, ListIsALineOfCsv)
{
    const auto names = [](std::string_view list) {
        std::vector<std::string> found;
        EXPECT_TRUE(change_csv_list(found, list)) << list;
        return found;
    };
    EXPECT_THAT(names("A"), ElementsAre("A"));
    EXPECT_THAT(names("A,before.B,_lsn,C[2]"), ElementsAre("A", "before.B", "_lsn", "C[2]"));
    EXPECT_THAT(names("\"a,b\",\"c\"\"d\",e f"), ElementsAre("a,b", "c\"d", "e f"));
    EXPECT_THAT(names("\"\"\"\""), ElementsAre("\""));
    for (const char *list : {"", ",", "A,", ",A", "A,,B", "\"", "\"A", "\"\"", "\"A\"B", "A\"B",
                             "A,\"", "\"A\"\"", "A\"\""}) {
        std::vector<std::string> found;
        EXPECT_FALSE(change_csv_list(found, list)) << list;
    }
}

TEST(ChangesCsv, ValuesOfAllTypes)
{
    const struct {
        fwu_item item;
        std::string bytes;
        std::string expected;
    } cases[] = {
        {{"A", 'I', 8}, "\0\0\0\0\0\0\0\x80"s, "-9223372036854775808"},
        {{"A", 'K', 8}, std::string(8, '\xFF'), "18446744073709551615"},
        {{"A", 'J', 4}, "\xFF\xFF\xFF\x7F", "2147483647"},
        {{"A", 'P', 14, 1, 27}, std::string(13, '\x99') + "\x9D", "-0.999999999999999999999999999"},
        {{"A", 'P', 2}, "\0\x0F"s, "0"},
        {{"A", 'P', 2}, "\x0A\x0C", "0x0a0c"},
        {{"A", 'P', 2, 1, 4}, "\x12\x3C", "0x123c"},
        {{"A", 'Z', 3, 1, 2}, "12}", "-1.20"},
        {{"A", 'Z', 3}, "   ", "0x202020"},
        {{"A", 'E', 4}, "\0\0\xC0\x7F"s, "NaN"},
        {{"A", 'R', 8}, "\0\0\0\0\0\0\xF0\xFF"s, "-Infinity"},
        {{"A", 'E', 8}, "\0\0\0\0\0\0\xF0\x3F"s, "1"},
        {{"A", 'I', 3}, "\1\2\3", "0x010203"},
        {{"A", 'Q', 2}, "ab", "0x6162"},
        {{"A", 'X', 5}, "     ", "\"\""},
        {{"A", 'X', 5}, "abc  ", "abc"},
        {{"A", 'X', 5}, "  abc", "\"  abc\""},
        {{"A", 'X', 5}, "a,b  ", "\"a,b\""},
        {{"A", 'X', 5}, "\"    ", "\"\"\"\""},
        {{"A", 'X', 5}, "a\r\nb ", "\"a\r\nb\""},
        {{"A", 'X', 5}, "a\nb  ", "\"a\nb\""},
        {{"A", 'X', 5}, "=1+1 ", "=1+1"},
        {{"A", 'X', 5}, "00012", "00012"},
        {{"A", 'U', 5}, "\xE4\xF6\xFC\xDF ", "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F"},
        {{"A", 'X', 5}, "\xA0    ", "\xC2\xA0"},
        {{"A", 'X', 5}, "\0   a"s, "\"\0   a\""s},
        {{"A", 'X', 5}, "\t    ", "\"\t\""},
        {{"A", 'X', 5}, "\x7F    ", "\x7F"},
    };
    for (const auto &row : cases) {
        const change_dataset dataset = dataset_of("D", {row.item});
        change_csv csv = csv_of(dataset);
        EXPECT_EQ(line_of(csv, CHANGE_CREATE, "", row.bytes), "c,1-25.4," + row.expected + "\r\n");
    }
}

// Fields of a text of CSV, by the letter of the rules: null for a field without anything.
using csv_row = std::vector<std::optional<std::string>>;
static std::vector<csv_row> read_back(const std::string &text)
{
    std::vector<csv_row> rows;
    size_t at = 0;
    while (at < text.size()) {
        csv_row row;
        for (bool more = true; more;) {
            std::string field;
            bool any = false;
            if (text[at] == '"') {
                any = true;
                for (at++; text.at(at) != '"' || text.at(at + 1) == '"'; at++) {
                    at += text[at] == '"' ? 1 : 0;
                    field.push_back(text[at]);
                }
                at++;
            } else {
                while (text.at(at) != ',' && text[at] != '\r') {
                    EXPECT_NE(text[at], '"');
                    EXPECT_NE(text[at], '\n');
                    field.push_back(text[at++]);
                    any = true;
                }
            }
            row.push_back(any ? std::optional(field) : std::nullopt);
            more = text.at(at) == ',';
            EXPECT_TRUE(more || text.substr(at, 2) == "\r\n") << text.substr(at, 10);
            at += more ? 1 : 2;
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

static std::string trimmed_utf8(std::string latin1)
{
    latin1.erase(latin1.find_last_not_of(' ') + 1);
    std::string utf8;
    for (const char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80)
            utf8 += c;
        else
            utf8 += {static_cast<char>(byte < 0xC0 ? 0xC2 : 0xC3),
                     static_cast<char>(0x80 | (byte & 0x3F))};
    }
    return utf8;
}

TEST(ChangesCsv, RandomTextsComeBackAsTheyWere)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    static constexpr std::string_view LIKELY = " ,\"\r\n\t;'=a\xFC";
    constexpr size_t ITEMS = 5;
    const change_dataset dataset = dataset_of("D",
                                              {{"A", 'X', 1},
                                               {"B", 'X', 4},
                                               {"C", 'U', 9},
                                               {"D", 'X', 3},
                                               {"E", 'X', 2},
                                               {"MAP", 'X', ITEMS}},
                                              "MAP");
    change_csv csv = csv_of(dataset);
    std::string text = csv.header;
    std::vector<csv_row> expected = {{"_op", "_position", "A", "B", "C", "D", "E"}};
    for (int n = 0; n < 3000; n++) {
        std::string bytes;
        std::string map;
        csv_row row = {"c", "1-25.4"};
        for (size_t i = 0; i < ITEMS; i++) {
            std::string value;
            for (int32_t k = 0; k < dataset.layout.items[i].size; k++)
                value += random() % 4 == 0 ? static_cast<char>(random())
                                           : LIKELY[random() % LIKELY.size()];
            const bool null = random() % 4 == 0;
            map += null ? 'N' : '.';
            row.push_back(null ? std::nullopt : std::optional(trimmed_utf8(value)));
            bytes += value;
        }
        text += line_of(csv, CHANGE_CREATE, "", bytes + map);
        expected.push_back(std::move(row));
    }
    EXPECT_EQ(read_back(text), expected);
}

TEST(ChangesCsv, EveryCharacterComesBack)
{
    const change_dataset dataset = dataset_of("D", {{"A", 'X', 3}});
    change_csv csv = csv_of(dataset);
    for (int c = 0; c < 256; c++) {
        for (const std::string &value : {std::string(3, static_cast<char>(c)),
                                         "a" + std::string(1, static_cast<char>(c)) + "b"}) {
            const std::vector<csv_row> expected = {{"c", "1-25.4", trimmed_utf8(value)}};
            EXPECT_EQ(read_back(line_of(csv, CHANGE_CREATE, "", value)), expected) << c;
        }
    }
}

TEST(ChangesCsv, WhatIsNotKnownOfATransactionIsEmpty)
{
    const change_dataset dataset = dataset_of("D", {{"A", 'X', 1}});
    change_csv csv;
    ASSERT_TRUE(change_csv_make(
        csv, dataset, {.columns = {"_transaction", "_n", "_xid", "_lsn", "_commit_us", "_time"}}));
    change next;
    next.dataset = &dataset;
    next.after.image = reinterpret_cast<const unsigned char *>("a");
    change_transaction transaction;
    transaction.commit.time_us = 1700000000000000;
    std::string out;
    change_csv_put(csv, out, next, transaction);
    EXPECT_EQ(out, "c,,,,,,,2023-11-14 22:13:20.000000\r\n");
}
