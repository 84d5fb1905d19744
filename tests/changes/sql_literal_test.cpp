// Literals of all types in both dialects, and texts and names that look like something else.
#include "changes/sql_quote.h"
#include "tests/changes/sql_fixture.h"

static std::string values_clause(const std::string &statement)
{
    const size_t begin = statement.find(" VALUES (") + 9;
    return statement.substr(begin, statement.rfind(");") - begin);
}

// The literal of one item, of a column of this source type.
static std::string literal(const char *dialect, const fwu_item &item, const std::string &bytes,
                           const std::string &type = "")
{
    change_dataset dataset = dataset_of("T", {item});
    if (!type.empty())
        set_source(dataset, "t", {{.name = "c", .type = type, .item = 0}});
    sql_lines lines(sql_for(dialect));
    if (const std::string wrong = lines.put(CHANGE_CREATE, dataset, "", bytes); !wrong.empty())
        return "! " + wrong;
    lines.commit();
    return values_clause(lines.taken());
}

TEST(SqlLiteral, NumbersKeepAllTheirDigits)
{
    struct row {
        fwu_item item;
        std::string bytes, postgresql, sqlite;
    };
    const auto item = [](char type, int32_t size, int32_t scale = 0, int32_t count = 1) {
        return fwu_item{"C", type, size, count, scale};
    };
    const row rows[] = {
        {item('I', 8), "\0\0\0\0\0\0\0\x80"s, "'-9223372036854775808'", "-9223372036854775808"},
        {item('J', 4), "\xFE\xFF\xFF\xFF", "'-2'", "-2"},
        {item('K', 4), "\xFF\xFF\xFF\xFF", "'4294967295'", "4294967295"},
        {item('K', 8), "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F", "'9223372036854775807'",
         "9223372036854775807"},
        {item('K', 8), "\0\0\0\0\0\0\0\x80"s, "'9223372036854775808'", "'9223372036854775808'"},
        {item('P', 2), "\x12\x3D", "'-123'", "-123"},
        {item('P', 2, 2), "\x12\x0C", "'1.20'", "'1.20'"},
        {item('P', 10), "\x12\x34\x56\x78\x90\x12\x34\x56\x78\x9C", "'1234567890123456789'",
         "'1234567890123456789'"},
        {item('Z', 3), "12C", "'123'", "123"},
        {item('Z', 3, 1), "12L", "'-12.3'", "'-12.3'"},
        {item('E', 4), "\xCD\xCC\xCC\x3D", "'0.1'", "0.1"},
        {item('R', 8), "\x9A\x99\x99\x99\x99\x99\xB9\x3F", "'0.1'", "0.10000000000000001"},
        {item('E', 8), "\1\0\0\0\0\0\0\0"s, "'5e-324'",
         "(6.6243372842224761e-170 * 7.4583407312002067e-155)"},
        {item('E', 8), "\0\0\0\0\0\0\0\0"s, "'0'", "0"},
        {item('E', 8), "\0\0\0\0\0\0\xF8\x7F"s, "'NaN'", "'NaN'"},
        {item('E', 4), "\0\0\x80\x7F"s, "'Infinity'", "9e999"},
        {item('E', 4), "\0\0\x80\xFF"s, "'-Infinity'", "-9e999"},
        {item('I', 2, 0, 3), "\1\0\2\0\xFD\xFF"s, "'{1,2,-3}'", "'{1,2,-3}'"},
        {item('E', 4, 0, 2), "\0\0\x80\x7F\0\0\xC0\x7F"s, "'{Infinity,NaN}'", "'{Infinity,NaN}'"},
        {item('P', 2, 1, 2), "\x12\x3C\x00\x0C"s, "'{12.3,0.0}'", "'{12.3,0.0}'"},
    };
    for (const row &of : rows) {
        EXPECT_EQ(literal("postgresql", of.item, of.bytes), of.postgresql);
        EXPECT_EQ(literal("sqlite", of.item, of.bytes), of.sqlite);
    }
}

TEST(SqlLiteral, TextsAreWhatTheyAreWhateverTheyLookLike)
{
    struct row {
        std::string text, postgresql, sqlite;
    };
    const row rows[] = {
        {"", "''", "''"},
        {"12", "'12'", "'12'"},
        {"it's", "'it''s'", "'it''s'"},
        {"'; DROP TABLE t; --", "'''; DROP TABLE t; --'", "'''; DROP TABLE t; --'"},
        {"$$ /* -- \" :x", "'$$ /* -- \" :x'", "'$$ /* -- \" :x'"},
        {"a\\b", "E'a\\\\b'", "'a\\b'"},
        {"\\'", "E'\\\\'''", "'\\'''"},
        {"a\nb", "E'a\\012b'", "replace('a\\nb','\\n',char(10))"},
        {"a\r\nb\\n", "E'a\\015\\012b\\\\n'",
         "replace(replace('a\\r\\n0b\\n','\\r',char(13)),'\\n0',char(10))"},
        {"\x01\t\x7F", "E'\\001\\011\\177'", "'\x01\t\x7F'"},
        {"J\xFCrg \x80", "'J\xC3\xBCrg \xC2\x80'", "'J\xC3\xBCrg \xC2\x80'"},
    };
    for (const row &of : rows) {
        const fwu_item item{.name = "C", .type = 'X', .size = 24};
        const std::string bytes = of.text + std::string(24 - of.text.size(), ' ');
        EXPECT_EQ(literal("postgresql", item, bytes), of.postgresql);
        EXPECT_EQ(literal("sqlite", item, bytes), of.sqlite);
    }
}

TEST(SqlLiteral, ElementsOfTextsStandInQuotesOfTheirOwn)
{
    const fwu_item item{.name = "C", .type = 'X', .size = 4, .count = 3};
    EXPECT_EQ(literal("postgresql", item, "a\"\\ {,} it's"), R"(E'{"a\\"\\\\","{,}","it''s"}')");
    EXPECT_EQ(literal("sqlite", item, "a\"\\ {,}     "), R"('{"a\"\\","{,}",""}')");
}

TEST(SqlLiteral, BooleansAreKnownByTheTypeOfTheSource)
{
    const fwu_item text{.name = "C", .type = 'X', .size = 1};
    const fwu_item number{.name = "C", .type = 'I', .size = 2};
    const fwu_item pair{.name = "C", .type = 'X', .size = 1, .count = 2};
    EXPECT_EQ(literal("postgresql", text, "T", "boolean"), "'t'");
    EXPECT_EQ(literal("postgresql", text, "F", "boolean"), "'f'");
    EXPECT_EQ(literal("postgresql", number, "\1\0"s, "boolean"), "'t'");
    EXPECT_EQ(literal("postgresql", pair, "TF", "boolean[]"), "'{t,f}'");
    EXPECT_EQ(literal("sqlite", text, "T", "boolean"), "1");
    EXPECT_EQ(literal("sqlite", number, "\0\0"s, "boolean"), "0");
    EXPECT_EQ(literal("sqlite", text, "T", "text"), "'T'");
    EXPECT_EQ(literal("sqlite", {.name = "C", .type = 'X', .size = 5}, "{t,f}", "boolean[]"),
              "'{t,f}'")
        << "an array in one text is that text";
    EXPECT_EQ(literal("postgresql", text, "x", "boolean"),
              "! sales.t item C has bytes that are no boolean: 0x78; correct the row at the source "
              "and go on behind this transaction with --after, or leave the dataset out with "
              "--dset");
}

TEST(SqlLiteral, BytesThatAreNoValueAreAnError)
{
    const std::string rest = "; correct the row at the source and go on behind this transaction "
                             "with --after, or leave the dataset out with --dset";
    for (const char *dialect : {"postgresql", "sqlite"}) {
        EXPECT_EQ(literal(dialect, {.name = "NET", .type = 'P', .size = 2}, "\xAB\xCC"),
                  "! SALES.T item NET has bytes that are no number: 0xABCC" + rest);
        EXPECT_EQ(literal(dialect, {.name = "NET", .type = 'Z', .size = 1, .count = 40},
                          std::string(39, '1') + "x"),
                  "! SALES.T item NET has bytes that are no number: "
                  "0x3131313131313131313131313131313131313131313131313131313131313131..." +
                      rest);
        EXPECT_EQ(literal(dialect, {.name = "TAG", .type = 'X', .size = 3}, "a\0b"s),
                  "! SALES.T item TAG has bytes that are no text, having a NUL: 0x610062" + rest);
        EXPECT_EQ(literal(dialect, {.name = "TAG", .type = 'X', .size = 1, .count = 2}, "\0b"s),
                  "! SALES.T item TAG has bytes that are no text, having a NUL: 0x0062" + rest);
    }
}

TEST(SqlLiteral, NamesStandInQuotes)
{
    std::string out;
    sql_put_name(out, "a \"b\"; DROP");
    EXPECT_EQ(out, "\"a \"\"b\"\"; DROP\"");
}
