// Entries whose checksums are right, and which do not fit together.
#include "fwutil/fwu_layout_check.h"

#include "fwutil/fwutil.h"

#include <gtest/gtest.h>

class LayoutCheckTest : public testing::Test {
  protected:
    const char *check_entry(const std::vector<unsigned char> &bytes)
    {
        fwu_entry entry;
        fwu_entry_fields(entry, bytes.data());
        return fwu_layout_check_entry(check, entry);
    }
    static std::vector<unsigned char> layout(int32_t size, const char *dataset = "ORDERS")
    {
        std::vector<unsigned char> bytes;
        fwu_entry_put_layout(
            bytes, 1, {.dbname = "SALES", .dsetname = dataset, .items = {{"NO", 'X', size, 1, 0}}});
        return bytes;
    }
    static std::vector<unsigned char> insert(int32_t length)
    {
        const std::vector<unsigned char> image(static_cast<size_t>(length));
        std::vector<unsigned char> bytes;
        fwu_entry_put_change(bytes, 1,
                             {.dbname = "SALES",
                              .dsetname = "ORDERS",
                              .logtime = 1,
                              .opcode = FWU_OP_INSERT,
                              .recnum = 1,
                              .reclen = length,
                              .before = nullptr,
                              .after = image.data()});
        return bytes;
    }
    fwu_layout_check check;
};

TEST_F(LayoutCheckTest, ARecordHasTheLengthOfTheLayoutThatStandsForIt)
{
    EXPECT_STREQ(check_entry(insert(7)),
                 "no layout of the record's dataset stands before it in the file");
    EXPECT_EQ(check_entry(layout(8)), nullptr);
    EXPECT_EQ(check_entry(layout(7, "OTHERS")), nullptr);
    EXPECT_EQ(check_entry(insert(8)), nullptr);
    EXPECT_STREQ(check_entry(insert(7)), "the record has another length than its dataset's layout");
    EXPECT_EQ(check_entry(layout(7)), nullptr);
    EXPECT_EQ(check_entry(insert(7)), nullptr);
}

TEST_F(LayoutCheckTest, MalformedEntriesAreNamed)
{
    std::vector<unsigned char> bytes = insert(8);
    bytes[FWU_ENTRY_HEADER_SIZE + 12] = 9; // length of an image
    EXPECT_STREQ(check_entry(bytes), "the record is malformed");
    bytes = layout(8);
    bytes[FWU_ENTRY_HEADER_SIZE + 4] = 2; // number of items
    EXPECT_STREQ(check_entry(bytes), "the layout entry is malformed");
    fwu_session session;
    session.user = "ann";
    bytes.clear();
    fwu_entry_put_session(bytes, 1, session);
    EXPECT_EQ(check_entry(bytes), nullptr);
    bytes[FWU_ENTRY_HEADER_SIZE] = 0xFF; // which texts are there
    EXPECT_STREQ(check_entry(bytes), "the session entry is malformed");
}

TEST_F(LayoutCheckTest, ASourceGoesWithTheLayoutThatStandsForIt)
{
    fwu_layout orders{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'X', 8, 1, 0}}};
    const auto source = [&](int32_t item, int32_t key) {
        orders.source = std::make_shared<const fwu_source>(
            fwu_source{.schema = "", .table = "orders", .columns = {{"no", "", item, key}}});
        std::vector<unsigned char> bytes;
        fwu_entry_put_source(bytes, 1, orders);
        return bytes;
    };
    EXPECT_STREQ(check_entry(source(0, 1)),
                 "no layout of the source's dataset stands before it in the file");
    EXPECT_EQ(check_entry(layout(8)), nullptr);
    EXPECT_EQ(check_entry(source(0, 1)), nullptr);
    EXPECT_STREQ(check_entry(source(1, 1)), "the source does not fit its dataset's layout");
    EXPECT_STREQ(check_entry(source(0, 2)), "the source does not fit its dataset's layout");
    std::vector<unsigned char> bytes = source(0, 1);
    bytes[FWU_ENTRY_HEADER_SIZE + 4] = 2; // number of columns
    EXPECT_STREQ(check_entry(bytes), "the source entry is malformed");
}

static std::vector<unsigned char> value(int32_t item, fwu_image image, bool more = false)
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_value(bytes, 1, {item, image, more, "text"});
    return bytes;
}

TEST_F(LayoutCheckTest, WholeValuesStandRightBeforeTheirRecord)
{
    const char *const no_record = "the record of the whole values before it is missing";
    const char *const not_its_own =
        "a whole value before the record is of no item or image that it has";
    const auto begin = [&] {
        check = {};
        EXPECT_EQ(check_entry(layout(8)), nullptr);
    };
    begin();
    for (int i = 0; i < 2; i++) { // those of a record are no one else's
        EXPECT_EQ(check_entry(value(0, FWU_IMAGE_AFTER)), nullptr);
        EXPECT_EQ(check_entry(insert(8)), nullptr);
    }
    EXPECT_EQ(check_entry(layout(8)), nullptr);
    EXPECT_EQ(check_entry(value(0, FWU_IMAGE_AFTER)), nullptr);
    EXPECT_STREQ(check_entry(layout(8)), no_record);
    for (const auto &[item, image] : {std::pair(1, FWU_IMAGE_AFTER), {0, FWU_IMAGE_BEFORE}}) {
        begin();
        EXPECT_EQ(check_entry(value(item, image)), nullptr);
        EXPECT_STREQ(check_entry(insert(8)), not_its_own);
    }
    begin();
    EXPECT_EQ(check_entry(value(0, FWU_IMAGE_AFTER)), nullptr);
    EXPECT_STREQ(check_entry(value(0, FWU_IMAGE_AFTER)),
                 "two whole values stand for one item of an image");
    begin();
    EXPECT_EQ(check_entry(value(0, FWU_IMAGE_AFTER)), nullptr);
    std::vector<unsigned char> bytes;
    fwu_entry_put_commit(bytes, 1, {}, {}, 0);
    EXPECT_STREQ(check_entry(bytes), no_record);
    begin();
    bytes = value(0, FWU_IMAGE_AFTER);
    bytes[FWU_ENTRY_HEADER_SIZE + 4] = 'x'; // the image
    EXPECT_STREQ(check_entry(bytes), "the value entry is malformed");
}

TEST_F(LayoutCheckTest, PiecesOfAValueFollowEachOther)
{
    const char *const missing = "the next piece of the value before it is missing";
    const std::vector<unsigned char> piece = value(0, FWU_IMAGE_AFTER, true);
    EXPECT_EQ(check_entry(layout(8)), nullptr);
    EXPECT_EQ(check_entry(piece), nullptr);
    EXPECT_EQ(check_entry(piece), nullptr);
    EXPECT_EQ(check_entry(value(0, FWU_IMAGE_AFTER)), nullptr);
    EXPECT_EQ(check_entry(insert(8)), nullptr);
    for (const std::vector<unsigned char> &next :
         {insert(8), layout(8), value(1, FWU_IMAGE_AFTER), value(0, FWU_IMAGE_BEFORE)}) {
        check = {};
        EXPECT_EQ(check_entry(layout(8)), nullptr);
        EXPECT_EQ(check_entry(piece), nullptr);
        EXPECT_STREQ(check_entry(next), missing);
    }
}

TEST_F(LayoutCheckTest, AMarkNeedsNoLayout)
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_mark(bytes, 1, {.dbname = "SALES", .dsetname = "ORDERS"});
    EXPECT_EQ(check_entry(bytes), nullptr);
    bytes[FWU_ENTRY_HEADER_SIZE] = 'x'; // its kind
    EXPECT_STREQ(check_entry(bytes), "the mark entry is malformed");
}
