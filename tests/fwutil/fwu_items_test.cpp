// Record length from items; session entries by key.
#include "fwutil/fwu_items.h"

#include "fwutil/fwu_session.h"

#include <gtest/gtest.h>

TEST(ImageLength, NoSumOverflows)
{
    fwu_layout layout;
    for (int i = 0; i < 9; i++)
        layout.items.push_back({.name = "A", .type = 'X', .size = INT32_MAX, .count = INT32_MAX});
    EXPECT_EQ(fwu_layout_image_length(layout), FWU_IMAGE_LENGTH_MAX);
}

TEST(Items, ImageLengthCountsAllElementsOfAllItems)
{
    fwu_layout layout;
    EXPECT_EQ(fwu_layout_image_length(layout), 0);
    layout.items = {{"A", 'I', 4, 1, 0}, {"B", 'X', 10, 3, 0}};
    EXPECT_EQ(fwu_layout_image_length(layout), 34);
    layout.items.push_back({"C", 'X', 2147483647, 2147483647, 0});
    EXPECT_EQ(fwu_layout_image_length(layout), 34 + 4611686014132420609);
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
