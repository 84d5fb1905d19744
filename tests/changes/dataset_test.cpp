// What is made of a layout for its changes.
#include "changes/dataset.h"

#include <gtest/gtest.h>

static fwu_layout layout_of(std::vector<fwu_item> items)
{
    return {"SALES", "ORDERS", std::move(items)};
}

static change_dataset complete(fwu_layout layout, const fwu_writing &said = {})
{
    change_dataset dataset;
    dataset.layout = std::move(layout);
    change_dataset_complete(dataset, said);
    return dataset;
}

static const fwu_item NO = {"NO", 'I', 4, 1, 0};
static const fwu_item TAG = {"TAG", 'X', 2, 3, 0};
static const fwu_item NULLS = {"NULL-MAP", 'X', 2, 1, 0};

TEST(ChangeDataset, ItemsStandOneBehindTheOther)
{
    const change_dataset dataset = complete(layout_of({NO, TAG, NULLS}));
    EXPECT_EQ(dataset.offsets, (std::vector<int64_t>{0, 4, 10}));
    EXPECT_EQ(dataset.image_length, 12);
    EXPECT_TRUE(dataset.table.empty());
    EXPECT_TRUE(dataset.key.empty());
    EXPECT_EQ(dataset.column, (std::vector<int>{-1, -1, -1}));
}

TEST(ChangeDataset, EveryOtherItemHasItsByteInTheNullMap)
{
    const change_dataset dataset = complete(layout_of({NO, NULLS, TAG}));
    EXPECT_EQ(dataset.null_map, 1);
    EXPECT_EQ(dataset.null_flag, (std::vector<int>{0, CHANGE_NO_ITEM, 1}));
    const std::string image = "1234.N      ";
    const change_row row = {reinterpret_cast<const unsigned char *>(image.data()), {}};
    std::string_view whole;
    EXPECT_EQ(change_place_of(whole, dataset, row, 0), CHANGE_IN_IMAGE);
    EXPECT_EQ(change_place_of(whole, dataset, row, 1), CHANGE_IN_IMAGE) << "the map itself";
    EXPECT_EQ(change_place_of(whole, dataset, row, 2), CHANGE_NULL);
}

struct map_row {
    const char *what;
    std::vector<fwu_item> items;
    const char *said; // the configuration's null-map item; "" none, null: nothing is said
    int sources;      // the source's null map; -2: there is no source
    int expected;
};

TEST(ChangeDataset, TheNullMapIsWhatSourceThenConfigurationThenNamesSay)
{
    const fwu_item other = {"FLAGS", 'X', 2, 1, 0};
    const fwu_item longer = {"NULL-MAP", 'X', 3, 1, 0};
    const map_row rows[] = {
        {"by its name", {NO, TAG, NULLS}, nullptr, -2, 2},
        {"by its name, but of another size", {NO, TAG, longer}, nullptr, -2, -1},
        {"the source says none", {NO, TAG, NULLS}, nullptr, -1, -1},
        {"the source names it", {NO, other, NULLS}, "NULL-MAP", 1, 1},
        {"the source names what cannot be one", {NO, TAG, NULLS}, nullptr, 0, -1},
        {"the configuration says none", {NO, TAG, NULLS}, "", -2, -1},
        {"the configuration names it", {NO, other, NULLS}, "FLAGS", -2, 1},
        {"the configuration names one that is not there", {NO, TAG, NULLS}, "FLAGS", -2, -1},
    };
    for (const map_row &row : rows) {
        fwu_layout layout = layout_of(row.items);
        if (row.sources > -2)
            layout.source =
                std::make_shared<fwu_source>(fwu_source{"sales", "orders", {}, row.sources});
        fwu_writing said;
        if (row.said != nullptr) {
            fwu_dataset &dataset = said.datasets.emplace_back();
            dataset.layout = layout_of({NO, TAG, {row.said, 'X', 2, 1, 0}});
            dataset.null_map = *row.said == '\0' ? -1 : 2;
        }
        EXPECT_EQ(complete(layout, said).null_map, row.expected) << row.what;
    }
}

static fwu_layout with_source(std::vector<fwu_source_column> columns)
{
    fwu_layout layout = layout_of({NO, TAG, NULLS});
    layout.source =
        std::make_shared<fwu_source>(fwu_source{"sales", "orders", std::move(columns), 2});
    return layout;
}

TEST(ChangeDataset, ColumnsAndKeysAreFoundByTheirItems)
{
    const change_dataset dataset = complete(
        with_source({{"tag", "character(2)[]", 1, 1}, {"x", "", -1, 0}, {"no", "", 0, 2}}));
    EXPECT_EQ(dataset.table, "sales.orders");
    EXPECT_EQ(dataset.column, (std::vector<int>{2, 0, -1}));
    EXPECT_EQ(dataset.key, (std::vector<int>{1, 0})) << "in the key's own order";
}

TEST(ChangeDataset, AKeyWithAColumnThatIsLeftOutIsNone)
{
    EXPECT_TRUE(complete(with_source({{"no", "", 0, 1}, {"x", "", -1, 2}})).key.empty());
}

TEST(ChangeDataset, AKeyThatTheConfigurationNamesGoesBeforeTheSources)
{
    fwu_writing said;
    fwu_dataset &dataset = said.datasets.emplace_back();
    dataset.layout = layout_of({TAG, NO});
    dataset.key = {0};
    const fwu_layout layout = with_source({{"tag", "", 1, 0}, {"no", "", 0, 1}});
    EXPECT_EQ(complete(layout, said).key, (std::vector<int>{1})) << "by the item's name";
    dataset.layout.items[0].name = "GONE";
    EXPECT_TRUE(complete(layout, said).key.empty()) << "a part of it is not in this layout";
    dataset.key.clear();
    EXPECT_EQ(complete(layout, said).key, (std::vector<int>{0}));
}

TEST(ChangeDataset, AKeyOfColumnLinesIsTheTables)
{
    fwu_writing said;
    said.columns = {{"sales.orders", "tag", "", 0, true},
                    {"sales.other", "x", "", 0, true},
                    {"sales.orders", "no", "", 0, true}};
    const fwu_layout layout = with_source({{"tag", "", 1, 0}, {"no", "", 0, 1}});
    EXPECT_EQ(complete(layout, said).key, (std::vector<int>{1, 0})) << "in the order of the lines";
    said.columns[0].column = "gone";
    EXPECT_TRUE(complete(layout, said).key.empty());
}

TEST(ChangeDataset, ALayoutThatNoImageCanHaveHasALengthThatNoneHas)
{
    const fwu_item huge = {"HUGE", 'X', INT32_MAX, INT32_MAX, 0};
    const change_dataset dataset = complete(layout_of({huge, NO, huge, huge}));
    EXPECT_EQ(dataset.image_length, FWU_IMAGE_LENGTH_MAX);
    EXPECT_EQ(dataset.offsets, (std::vector<int64_t>{0, FWU_IMAGE_LENGTH_MAX, FWU_IMAGE_LENGTH_MAX,
                                                     FWU_IMAGE_LENGTH_MAX}));
}
