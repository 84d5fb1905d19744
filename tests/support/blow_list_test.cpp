// What a list of blows keeps: shares, what was dealt, plans that were made before.
#include "tests/support/blow_list.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

class BlowList : public testing::Test {
  protected:
    tempdir dir;
    std::string file = dir.file("done");

    void TearDown() override
    {
        unsetenv("KESTRO_SHARE");
    }
};

TEST_F(BlowList, WithoutAFileDealsAll)
{
    blow_list list("", "run");
    EXPECT_FALSE(list.complete());
    list.plan("3 calls", 7, {"a", "b"});
    EXPECT_THAT(list.due(), ElementsAre("a", "b"));
    list.note("a", true);
    list.note("b", false);
    EXPECT_THAT(list.due(), IsEmpty());
    EXPECT_TRUE(list.complete());
    EXPECT_EQ(list.summary(), "run: 3 calls, 2 of 7 blows, 1 not reached");
}

TEST_F(BlowList, GoesOnBehindWhatWasDealt)
{
    blow_list first(file, "run");
    first.plan("3 calls", 3, {"a", "b", "c"});
    first.note("b", true);

    blow_list other(file, "runs"); // another operation, of which nothing is known
    EXPECT_FALSE(other.complete());
    EXPECT_THAT(other.due(), IsEmpty());

    blow_list later(file, "run");
    later.plan("4 calls", 2, {"c", "d"}); // what is found now does not count
    EXPECT_FALSE(later.complete());
    EXPECT_THAT(later.due(), ElementsAre("a", "c"));
    later.note("a", true);
    EXPECT_EQ(later.summary(), "run: 3 calls, 2 of 3 blows");
    later.note("c", true);
    EXPECT_TRUE(first.complete());
}

TEST_F(BlowList, IsSharedByProcesses)
{
    blow_list list(file, "run");
    list.plan("5 calls", 5, {"a", "b", "c", "d", "e"});
    setenv("KESTRO_SHARE", "1/2", 1);
    EXPECT_THAT(list.due(), ElementsAre("a", "c", "e"));
    list.note("c", true);
    EXPECT_THAT(list.due(), ElementsAre("a", "e"));
    setenv("KESTRO_SHARE", "2/2", 1);
    EXPECT_THAT(list.due(), ElementsAre("b", "d"));
    for (const char *wrong : {"", "0/2", "3/2", "half"}) {
        setenv("KESTRO_SHARE", wrong, 1);
        EXPECT_THROW((void)list.due(), std::runtime_error) << wrong;
    }
}
