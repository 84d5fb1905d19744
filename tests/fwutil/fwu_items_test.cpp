// Record length from items; session entries by key.
#include "fwutil/fwu_items.h"

#include "fwutil/fwu_session.h"

#include <gtest/gtest.h>

TEST(Items, ImageLengthCountsAllElementsOfAllItems)
{
    fwu_layout layout;
    EXPECT_EQ(fwu_layout_image_length(layout), 0);
    layout.items = {{"A", 'I', 4, 1, 0}, {"B", 'X', 10, 3, 0}};
    EXPECT_EQ(fwu_layout_image_length(layout), 34);
}

TEST(Items, NoSumOfImageLengthsOverflows)
{
    fwu_layout layout;
    layout.items = {{"A", 'X', INT32_MAX, 2, 0}};
    EXPECT_EQ(fwu_layout_image_length(layout), INT64_C(4294967294));
    layout.items.push_back({"B", 'X', 2, 1, 0});
    EXPECT_EQ(fwu_layout_image_length(layout), INT64_C(4294967296)) << "the cap itself";
    for (int i = 0; i < 9; i++)
        layout.items.push_back({"C", 'X', INT32_MAX, INT32_MAX, 0});
    EXPECT_EQ(fwu_layout_image_length(layout), INT64_C(4294967296));
}

struct type_row {
    char letter;
    std::vector<int32_t> good, bad;
};

TEST(Items, EachTypeHasItsSizes)
{
    const type_row rows[] = {
        {'E', {4, 8}, {0, 2, 5, 16}},      {'R', {4, 8}, {0, 2, 5, 16}},
        {'I', {2, 4, 8}, {0, 1, 3, 16}},   {'J', {2, 4, 8}, {0, 1, 3, 16}},
        {'K', {2, 4, 8}, {0, 1, 3, 16}},   {'P', {1, 14}, {0, 15}},
        {'Z', {1, 28}, {0, 29}},           {'X', {1, 32767}, {0, -1, 32768}},
        {'U', {1, 32767}, {0, -1, 32768}},
    };
    for (const type_row &row : rows) {
        const fwu_item_type *type = fwu_item_type_of(row.letter);
        ASSERT_NE(type, nullptr) << row.letter;
        for (const int32_t size : row.good)
            EXPECT_TRUE(fwu_item_size_ok(*type, size)) << row.letter << size;
        for (const int32_t size : row.bad)
            EXPECT_FALSE(fwu_item_size_ok(*type, size)) << row.letter << size;
    }
    for (const char letter : {'A', 'e', '\0', ' '})
        EXPECT_EQ(fwu_item_type_of(letter), nullptr) << letter;
    EXPECT_EQ(fwu_item_digits('P', 14), 27);
    EXPECT_EQ(fwu_item_digits('Z', 28), 28);
    EXPECT_EQ(fwu_item_digits('X', 9), 0);
}

TEST(Items, ANullMapHasOneByteForEachOtherItem)
{
    const auto ok = [](const fwu_item &map, size_t index) {
        return fwu_null_map_ok({{"A", 'I', 4, 1, 0}, {"B", 'X', 2, 1, 0}, map}, index);
    };
    EXPECT_TRUE(ok({"N", 'X', 2, 1, 0}, 2));
    EXPECT_FALSE(ok({"N", 'X', 1, 1, 0}, 2)) << "too short";
    EXPECT_FALSE(ok({"N", 'X', 3, 1, 0}, 2)) << "longer than the others are many";
    EXPECT_FALSE(ok({"N", 'X', 1, 2, 0}, 2)) << "two elements";
    EXPECT_FALSE(ok({"N", 'U', 2, 1, 0}, 2));
    EXPECT_FALSE(ok({"N", 'X', 2, 1, 0}, 3)) << "there is no such item";
    EXPECT_TRUE(ok({"N", 'X', 2, 1, 0}, 1)) << "it may stand anywhere";
}

TEST(Session, KeysNameTheFiveEntriesAndNothingElse)
{
    fwu_session session;
    session.pname = "p";
    session.user = "u";
    session.login = "l";
    session.pid = "1";
    session.info = "i";
    for (const char *key : {"pname", "user", "login", "pid", "info"}) {
        ASSERT_NE(fwu_session_entry(session, key), nullptr) << key;
        EXPECT_EQ(fwu_session_entry(session, key)->value()[0],
                  key[0] == 'p' && key[1] == 'i' ? '1' : key[0]);
    }
    for (const char *key : {"", "PNAME", "pi", "users"})
        EXPECT_EQ(fwu_session_entry(session, key), nullptr) << key;
}

struct source_row {
    const char *what;
    std::vector<fwu_source_column> columns;
    int32_t null_map;
    bool fits; // a layout of three items
};

TEST(Items, ASourceFeedsItemsThatThereAreAndEachOnce)
{
    const source_row rows[] = {
        {"no columns", {}, -1, true},
        {"all items", {{"a", "", 0, 0}, {"b", "", 1, 0}, {"c", "", 2, 0}}, -1, true},
        {"in another order, one left out", {{"a", "", 2, 0}, {"b", "", -1, 0}}, 1, true},
        {"an item behind the last", {{"a", "", 3, 0}}, -1, false},
        {"an item twice", {{"a", "", 1, 0}, {"b", "", 1, 0}}, -1, false},
        {"the null map behind the last", {}, 3, false},
        {"the null map is fed", {{"a", "", 2, 0}}, 2, false},
        {"a key in another order", {{"a", "", 0, 2}, {"b", "", 1, 1}}, 2, true},
        {"a key of a column left out", {{"a", "", -1, 1}}, -1, true},
        {"a place of the key twice", {{"a", "", 0, 1}, {"b", "", 1, 1}}, -1, false},
        {"no first place", {{"a", "", 0, 2}, {"b", "", 1, 0}}, -1, false},
        {"a place behind all columns", {{"a", "", 0, 1}, {"b", "", 1, 3}}, -1, false},
        {"a place below 0", {{"a", "", 0, -1}}, -1, false},
    };
    for (const source_row &row : rows)
        EXPECT_EQ(fwu_source_fits({"s", "t", row.columns, row.null_map}, 3), row.fits) << row.what;
}

TEST(Items, LayoutsDifferByWhatTheirSourcesSay)
{
    const auto layout = [](const char *table) {
        fwu_layout made = {"DB", "SET", {{"A", 'I', 4, 1, 0}}};
        if (table != nullptr)
            made.source = std::make_shared<fwu_source>(fwu_source{"s", table, {}, -1});
        return made;
    };
    EXPECT_EQ(layout(nullptr), layout(nullptr));
    EXPECT_EQ(layout("t"), layout("t")) << "two objects that say the same";
    EXPECT_FALSE(layout("t") == layout("u"));
    EXPECT_FALSE(layout("t") == layout(nullptr));
    EXPECT_FALSE(layout(nullptr) == layout("t"));
}
