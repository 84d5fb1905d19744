// What a piece of a table is without a server: where a row stands by its key, and the lines of
// COPY taken apart.
#include "feed/postgresql/piece.h"

#include <gtest/gtest.h>
#include <memory>

static const pgo_relation orders = {
    .id = 16400,
    .schema = "shop",
    .name = "orders",
    .identity = 'd',
    .columns = {{.name = "note", .type = 25, .modifier = -1, .identity = false},
                {.name = "the id", .type = 23, .modifier = -1, .identity = true},
                {.name = "part", .type = 16500, .modifier = -1, .identity = true}}};

// "the id", then "part", a domain of numeric.
static const std::vector<std::string> orders_key = {"23 23 the id", "16500 1700 part"};

using texts = std::vector<std::string>;
using views = std::vector<std::string_view>;

static pgp_part part_of(const texts &from, const texts &to, bool ends)
{
    pgp_part part;
    part.key = orders_key;
    part.order = {.columns = {1, 2}, .types = {23, 1700}};
    part.from = from;
    part.to = to;
    part.ends = ends;
    return part;
}

TEST(PieceOrder, ColumnsOfAKeyAreFoundByNameAndType)
{
    pgp_order order;
    ASSERT_TRUE(pgp_find_order(order, orders, orders_key));
    EXPECT_EQ(order.columns, (std::vector<size_t>{1, 2}));
    EXPECT_EQ(order.types, (std::vector<uint32_t>{23, 1700}));
    ASSERT_TRUE(pgp_find_order(order, orders, {}));
    EXPECT_TRUE(order.columns.empty());
    EXPECT_TRUE(order.types.empty());
}

TEST(PieceOrder, AKeyThatTheTableHasNoMoreIsFoundOut)
{
    static const std::vector<texts> keys = {
        {"23 23 id"},     // no such column
        {"20 20 the id"}, // its type is another one
        {"23 23 the id", "25 25 part"},
        {"23 23 the"},
        {"the id"}, // no entry of a key
        {"23 the id"},
        {""},
        {"23"},
        {"23 23"},
        {"-1 23 the id"},
        {"23 99999999999 the id"},
    };
    for (const texts &key : keys) {
        pgp_order order;
        EXPECT_FALSE(pgp_find_order(order, orders, key)) << key.front();
    }
}

// Of an order that is the server's, an entry says how it compares values, too.
TEST(PieceOrder, AnOrderOfTheServerIsKeptWhole)
{
    const auto entry = [](const std::string &begin, const texts &members) {
        std::string text = begin;
        for (const std::string &member : members)
            text += '\0' + member;
        return text;
    };
    const pgp_operand part = {.type = "numeric",
                              .collate = "",
                              .less = "OPERATOR(pg_catalog.<)",
                              .at_least = "OPERATOR(pg_catalog.>=)",
                              .greater = "OPERATOR(pg_catalog.>)",
                              .version = ""};
    const pgp_operand note = {.type = "text",
                              .collate = " COLLATE pg_catalog.\"default\"",
                              .less = "<",
                              .at_least = ">=",
                              .greater = ">",
                              .version = "2.36"};
    const texts key = {
        entry("16500 0 part", {"numeric", "", "OPERATOR(pg_catalog.<)", "OPERATOR(pg_catalog.>=)",
                               "OPERATOR(pg_catalog.>)", ""}),
        entry("25 0 note", {"text", " COLLATE pg_catalog.\"default\"", "<", ">=", ">", "2.36"}),
    };
    pgp_order order;
    ASSERT_TRUE(pgp_find_order(order, orders, key));
    EXPECT_EQ(order.columns, (std::vector<size_t>{2, 0}));
    EXPECT_EQ(order.types, (std::vector<uint32_t>{0, 0}));
    EXPECT_EQ(order.operands, (std::vector<pgp_operand>{part, note}));
    EXPECT_TRUE(pgp_is_ordered_there(key));
    EXPECT_FALSE(pgp_is_ordered_there(orders_key));
    EXPECT_FALSE(pgp_is_ordered_there({}));
    ASSERT_TRUE(pgp_find_order(order, orders, {entry("25 0 note", {"text"})}));
    EXPECT_EQ(order.operands.front().greater, "");
}

TEST(PieceOrder, AnOrderOfTheServerIsNotKnownHere)
{
    pgp_part part;
    part.order = {.columns = {0}, .types = {0}, .operands = {pgp_operand()}};
    part.to = {"b"};
    EXPECT_EQ(pgp_side_of(part, {"a"}), PGP_UNKNOWN);
    part.ends = true;
    EXPECT_EQ(pgp_side_of(part, {"a"}), PGP_PIECE); // as any row
    part.from = {"a"};
    EXPECT_EQ(pgp_side_of(part, {"a"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part.order, {}, {"a"}), PGP_LATER);
}

static const pgo_tuple &tuple_of(pgo_tuple &row, const std::vector<pgo_value> &values)
{
    row.kind = 'N';
    row.values = values;
    row.count = values.size();
    return row;
}

TEST(PieceOrder, ValuesOfTheKeyComeInTheOrderOfTheKey)
{
    const pgp_order order = {.columns = {2, 0}, .types = {23, 23}};
    pgo_tuple row;
    views key = {"left over"};
    const pgo_value null = {.kind = 'n', .text = {}};
    const pgo_value unsent = {.kind = 'u', .text = {}};
    ASSERT_TRUE(pgp_key_of(key, order, tuple_of(row, {{'t', "1"}, null, {'t', ""}})));
    EXPECT_EQ(key, (views{"", "1"}));
    EXPECT_FALSE(pgp_key_of(key, order, tuple_of(row, {null, {'t', "2"}, {'t', "3"}})));
    EXPECT_FALSE(pgp_key_of(key, order, tuple_of(row, {{'t', "1"}, {'t', "2"}, unsent})));
    EXPECT_FALSE(pgp_key_of(key, order, tuple_of(row, {{'t', "1"}, {'t', "2"}})));
    row.values.resize(3); // kept memory is no row
    row.count = 2;
    EXPECT_FALSE(pgp_key_of(key, order, row));
}

TEST(PieceOrder, RowsStandBeforeInOrBehindThePart)
{
    const pgp_part middle = part_of({"5", "1.5"}, {"9", "2"}, false);
    const pgp_part first = part_of({}, {"5", "1.5"}, false);
    const pgp_part last = part_of({"9", "2"}, {"10", "0"}, true);
    const pgp_part rest = part_of({"10", "0"}, {}, true); // no row came
    const pgp_part all = part_of({}, {}, true);
    static const struct {
        views key;
        pgp_side first, middle, last, rest;
    } rows[] = {
        {{"-3", "9"}, PGP_PIECE, PGP_TAKEN, PGP_TAKEN, PGP_TAKEN},
        {{"5", "1.4"}, PGP_PIECE, PGP_TAKEN, PGP_TAKEN, PGP_TAKEN},
        {{"5", "1.50"}, PGP_PIECE, PGP_TAKEN, PGP_TAKEN, PGP_TAKEN},
        {{"5", "1.51"}, PGP_LATER, PGP_PIECE, PGP_TAKEN, PGP_TAKEN},
        {{"6", "-1"}, PGP_LATER, PGP_PIECE, PGP_TAKEN, PGP_TAKEN},
        {{"9", "2.0"}, PGP_LATER, PGP_PIECE, PGP_TAKEN, PGP_TAKEN},
        {{"9", "10"}, PGP_LATER, PGP_LATER, PGP_PIECE, PGP_TAKEN},
        {{"10", "0"}, PGP_LATER, PGP_LATER, PGP_PIECE, PGP_TAKEN},
        {{"10", "0.1"}, PGP_LATER, PGP_LATER, PGP_PIECE, PGP_PIECE},
        {{"99", "NaN"}, PGP_LATER, PGP_LATER, PGP_PIECE, PGP_PIECE},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(pgp_side_of(first, row.key), row.first) << row.key[0] << ", " << row.key[1];
        EXPECT_EQ(pgp_side_of(middle, row.key), row.middle) << row.key[0] << ", " << row.key[1];
        EXPECT_EQ(pgp_side_of(last, row.key), row.last) << row.key[0] << ", " << row.key[1];
        EXPECT_EQ(pgp_side_of(rest, row.key), row.rest) << row.key[0] << ", " << row.key[1];
        EXPECT_EQ(pgp_side_of(all, row.key), PGP_PIECE) << row.key[0] << ", " << row.key[1];
    }
}

TEST(PieceOrder, WithNoPartInHandRowsAreTakenOrLater)
{
    const pgp_order order = {.columns = {1, 2}, .types = {23, 1700}};
    EXPECT_EQ(pgp_side_of(order, {}, views{"1", "1"}), PGP_LATER);
    EXPECT_EQ(pgp_side_of(order, {"5", "1"}, {"5", "1"}), PGP_TAKEN);
    EXPECT_EQ(pgp_side_of(order, {"5", "1"}, {"4", "7"}), PGP_TAKEN);
    EXPECT_EQ(pgp_side_of(order, {"5", "1"}, {"5", "1.01"}), PGP_LATER);
    EXPECT_EQ(pgp_side_of({}, {}, {}), PGP_LATER);
}

TEST(PieceOrder, ValuesOfAnotherTypeStandNowhere)
{
    const pgp_part part = part_of({"5", "1"}, {"9", "2"}, false);
    EXPECT_EQ(pgp_side_of(part, {"five", "1"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part, {"5", "one"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part, {"9", "two"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part, {"5"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part, {"5", "1", "1"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part, {}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part_of({"5"}, {"9", "2"}, false), {"5", "1"}), PGP_UNKNOWN);
    EXPECT_EQ(pgp_side_of(part_of({}, {"9", "2"}, false), {"9", "two"}), PGP_UNKNOWN);
}

// ---- lines of COPY

static std::vector<texts> rows_of(std::string lines)
{
    std::vector<texts> rows;
    pgo_tuple row;
    for (size_t at = 0; pgp_next(row, lines, at);) {
        rows.emplace_back();
        for (size_t i = 0; i < row.count; i++)
            rows.back().push_back(row.values[i].kind == 'n' ? "NULL"
                                                            : std::string(row.values[i].text));
        EXPECT_EQ(row.kind, 'N');
    }
    return rows;
}

TEST(PieceLines, LinesAreTakenApartAsTheServerWritesThem)
{
    static const struct {
        std::string lines;
        std::vector<texts> rows;
    } cases[] = {
        {"", {}},
        {"\n", {{""}}},
        {"1\ta\n2\tb\n", {{"1", "a"}, {"2", "b"}}},
        {"\\N\t\t\\N\n", {{"NULL", "", "NULL"}}},
        {"\\\\N\t\\\\\n", {{"\\N", "\\"}}}, // a text that looks like a null
        {"x\\ty\\nz\\r\\b\\f\\v\\\\t\n", {{"x\ty\nz\r\b\f\v\\t"}}},
        {"\\x41\n", {{"x41"}}}, // the server writes none of these
        {"\\\\x41\n", {{"\\x41"}}},
        {"a\\\tb\n", {{"a\tb"}}},
        {"last one cut sho", {{"last one cut sho"}}},
        {"cut\\", {{"cut\\"}}},
        {"\\", {{"\\"}}},
        {"\\N", {{"NULL"}}},
        {"\xC3\xA4\t\xFF\n", {{"\xC3\xA4", "\xFF"}}},
    };
    for (const auto &one : cases)
        EXPECT_EQ(rows_of(one.lines), one.rows) << one.lines;
}

// Against lines made of rows the way the server makes them, and cut at each place.
TEST(PieceLines, NothingIsReadBehindTheLines)
{
    const std::string lines = "1\t\\\\\\N\\t\ta\n\\N\t\\\\x00\n\n";
    for (size_t length = 0; length <= lines.size(); length++) {
        auto cut = std::make_unique<std::string>(lines.substr(0, length));
        cut->shrink_to_fit();
        size_t bytes = 0;
        for (const texts &row : rows_of(*cut))
            for (const std::string &value : row)
                bytes += value.size();
        EXPECT_LE(bytes, length + 8); // "NULL" for two bytes, twice
    }
}
