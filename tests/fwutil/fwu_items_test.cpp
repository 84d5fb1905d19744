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
