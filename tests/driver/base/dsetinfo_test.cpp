// The item layout of the current record's dataset.
#include "driver/base/dsetinfo.h"

#include "tests/support/core_state.h"

class Dsetinfo : public core_state {
  protected:
    dsetinfo *info = g_ci->dsets;
};

TEST_F(Dsetinfo, ItemsAreFetched)
{
    g_fwu.items = {{"CUST-NO", 'I', 4, 1, 77}, {"NAME", 'X', 30, 2, -1}};
    get_dsetinfo(info);
    ASSERT_EQ(2, info->nitems);
    EXPECT_EQ(3, info->nalloc) << "one spare";
    EXPECT_STREQ("CUST-NO", info->items[0]->name);
    EXPECT_EQ('I', info->items[0]->type);
    EXPECT_EQ(4, info->items[0]->size);
    EXPECT_EQ(1, info->items[0]->count);
    EXPECT_EQ(77, info->items[0]->item_aux);
    EXPECT_STREQ("NAME", info->items[1]->name);
    EXPECT_EQ('X', info->items[1]->type);
    EXPECT_EQ(30, info->items[1]->size);
    EXPECT_EQ(2, info->items[1]->count);
    EXPECT_EQ(-1, info->items[1]->item_aux);
}

TEST_F(Dsetinfo, DescriptorsAreReusedAndOnlyGrow)
{
    g_fwu.items = {{"A-LONG-NAME-HERE", 'X', 1}, {"B", 'X', 1}, {"C", 'X', 1}};
    get_dsetinfo(info);
    const dsetitem *first = info->items[0];
    g_fwu.items = {{"Z", 'P', 2}};
    get_dsetinfo(info);
    EXPECT_EQ(1, info->nitems);
    EXPECT_EQ(4, info->nalloc);
    EXPECT_EQ(first, info->items[0]);
    EXPECT_STREQ("Z", first->name) << "nothing of the old name is left";
    EXPECT_EQ('\0', first->name[5]);
    g_fwu.items.clear();
    get_dsetinfo(info);
    EXPECT_EQ(0, info->nitems);
    EXPECT_EQ(4, info->nalloc);
}

TEST_F(Dsetinfo, NamesAreCutTo17Characters)
{
    g_fwu.items = {{"ABCDEFGHIJKLMNOP", 'X', 1},
                   {"ABCDEFGHIJKLMNOPQ", 'X', 1},
                   {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 'X', 1}};
    get_dsetinfo(info);
    EXPECT_STREQ("ABCDEFGHIJKLMNOP", info->items[0]->name);
    EXPECT_STREQ("ABCDEFGHIJKLMNOPQ", info->items[1]->name);
    EXPECT_STREQ("ABCDEFGHIJKLMNOPQ", info->items[2]->name);
}

TEST_F(Dsetinfo, ManyItems)
{
    for (int i = 0; i < 1000; i++)
        g_fwu.items.push_back({"ITEM-" + std::to_string(i), 'K', 2, i, 0});
    get_dsetinfo(info);
    ASSERT_EQ(1000, info->nitems);
    EXPECT_STREQ("ITEM-999", info->items[999]->name);
    EXPECT_EQ(999, info->items[999]->count);
}
