// What a record's conversion results come to when text files differ in them.  The
// conversion itself is replaced, since one image and one layout convert alike.
#include "ascii/put_ascii.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <vector>

static std::vector<int> conversion_results;
static size_t conversions;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's name
int __wrap__Z9put_asciijPPcPiS1_PKviPK8dsetinfo(uint32_t flags, char **buffer, int32_t *length,
                                                int32_t *bufsize, const void *image,
                                                int32_t image_length, const dsetinfo *dsets);
int __wrap__Z9put_asciijPPcPiS1_PKviPK8dsetinfo(uint32_t, char **, int32_t *, int32_t *,
                                                const void *, int32_t, const dsetinfo *)
{
    return conversion_results.at(conversions++);
}
// NOLINTEND(bugprone-reserved-identifier)
}

class WriteConversion : public core_state {
  protected:
    // Result of writing a record to two text files, the second of which can fail
    // to open, with these results of the conversions in order.
    int write(int (*how)(capinfo *, const log_record *), const std::vector<int> &results,
              bool second_opens = true)
    {
        add_file(dir.file("one"), text_options());
        add_file(dir.file(second_opens ? "two" : "none/two"), text_options());
        conversion_results = results;
        conversions = 0;
        log_record record = {};
        record.dbname = "ORDERS";
        record.dsetname = "CUST";
        record.reclen = 1;
        record.before_image = "b";
        record.after_image = "a";
        int rc = 0;
        (void)capture([&] { rc = how(g_ci, &record); });
        EXPECT_EQ(conversions, results.size());
        return rc;
    }

    const tempdir dir;
};

TEST_F(WriteConversion, OnlyTheLastTextFilesResultCounts)
{
    EXPECT_EQ(write(capture_write_insert, {-7, 0}), 0);
}

TEST_F(WriteConversion, TheLastTextFilesErrorIsTheResult)
{
    EXPECT_EQ(write(capture_write_insert, {0, -7}), -7);
}

TEST_F(WriteConversion, AWriteFailureShowsWhenTheLastConversionWasGood)
{
    EXPECT_EQ(write(capture_write_delete, {-7, 0}, false), -1);
}

TEST_F(WriteConversion, AConversionErrorGoesBeforeAWriteFailure)
{
    EXPECT_EQ(write(capture_write_delete, {0, -7}, false), -7);
}

TEST_F(WriteConversion, OfAnUpdateTheFirstErrorIsTheFilesResult)
{
    EXPECT_EQ(write(capture_write_update, {0, 0, -5, -6}), -5);
}

TEST_F(WriteConversion, OfAnUpdateTheSecondImagesErrorCountsToo)
{
    EXPECT_EQ(write(capture_write_update, {0, 0, 0, -6}), -6);
}
