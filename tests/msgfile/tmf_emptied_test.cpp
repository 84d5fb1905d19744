// The file that its last record has left: positions that begin anew, the cut to
// 64 KiB, and what a failure in between leaves.  And offsets at 2 GiB, from which
// only emptying leads back.
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <climits>

class TmfEmptied : public MessageFile {
  protected:
    system_calls_guard guard;

    // A new file with records up to offset end, and no user.  It has two bytes
    // more, the end mark.
    void make_up_to(int32_t end) const
    {
        unlink(path.c_str());
        const opened_file writer(path, 0);
        for (int32_t at = 4352; at < end;) {
            const int32_t frame = std::min(32767, end - at);
            ASSERT_EQ(write_record(writer, some_data(static_cast<size_t>(frame - 6))), 0);
            at += frame;
        }
    }
    static void take_all_but_one(tmf_handle *h)
    {
        while (positions_of(h).records > 1)
            ASSERT_EQ(tmf_fread(h, nullptr, 0, 0), 0);
    }
};

TEST_F(TmfEmptied, LastRecordRemovedTruncatesTo64K)
{
    const struct {
        int32_t end;
        size_t size;
        int32_t high_water;
    } rows[] = {
        {70000, 65536, 4352}, {65537, 65536, 4352}, {65536, 65538, 65536}, {65534, 65536, 65534}};
    for (const auto &row : rows) {
        make_up_to(row.end);
        ASSERT_EQ(bytes().size(), static_cast<size_t>(row.end) + 2);
        const opened_file reader(path, 1);
        take_all_but_one(reader);
        EXPECT_EQ(bytes_through(reader).size(), static_cast<size_t>(row.end) + 2);
        EXPECT_EQ(positions_of(reader).high_water, row.end);
        EXPECT_EQ(tmf_fread(reader, nullptr, 0, 0), 0);
        EXPECT_EQ(bytes_through(reader).size(), row.size) << row.end;
        EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, row.high_water})) << row.end;
    }
}

TEST_F(TmfEmptied, NextRecordIsTheFirstOfTheDataAreaAgain)
{
    make({"one", "three"});
    {
        const opened_file reader(path, 1);
        EXPECT_EQ(read_record(reader, 10), whole("one"));
        EXPECT_EQ(positions_of(reader), (positions{1, 4361, 4372, 4372}));
        EXPECT_EQ(read_record(reader, 10), whole("three"));
        EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4372}));
        EXPECT_EQ(bytes_through(reader).size(), 4374U);
    }
    const opened_file writer(path, 0);
    ASSERT_EQ(write_record(writer, "x"), 0);
    EXPECT_EQ(positions_of(writer), (positions{1, 4352, 4359, 4372}));
    EXPECT_EQ(bytes_through(writer).substr(4352, 9), framed("x") + "\xFF\xFF");
}

TEST_F(TmfEmptied, FileThatWasCutDownIsCutAgainOnlyWhenItHasGrown)
{
    make_up_to(70000);
    {
        const opened_file reader(path, 1);
        take_all_but_one(reader);
        ASSERT_EQ(tmf_fread(reader, nullptr, 0, 0), 0);
    }
    make({"one"});
    EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4361, 4361}));
    const opened_file reader(path, 1);
    forget_calls();
    EXPECT_EQ(read_record(reader, 9), whole("one"));
    EXPECT_TRUE(calls_made(CALL_FTRUNCATE).empty());
    EXPECT_EQ(bytes_through(reader).size(), 65536U);
}

// A reader that is killed in between leaves no count of records that are gone.
TEST_F(TmfEmptied, FileSaysThatItIsEmptyBeforeItIsCut)
{
    make_up_to(70000);
    const opened_file reader(path, 1);
    take_all_but_one(reader);
    int cuts = 0;
    before_call(CALL_FTRUNCATE, [&] {
        cuts++;
        EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 70000}));
        EXPECT_EQ(bytes_through(reader).size(), 70002U);
    });
    EXPECT_EQ(read_record(reader, 3), whole(some_data(3)));
    EXPECT_EQ(cuts, 1);
    EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4352}));
}

TEST_F(TmfEmptied, FileThatCouldNotBeCutIsCutWhenItEmptiesAgain)
{
    make_up_to(70000);
    other_process writer({[&] {
        make({"one"});
        return 0;
    }});
    const opened_file reader(path, 1);
    take_all_but_one(reader);
    fail_call(CALL_FTRUNCATE, EIO);
    EXPECT_EQ(read_record(reader, 200), (record_read{TMF_ETRUNCATE, ""}));
    EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 70000}));
    EXPECT_EQ(bytes_through(reader).size(), 70002U);
    EXPECT_EQ(holder_of(path, 0, 256), 0);

    ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(positions_of(reader), (positions{1, 4352, 4361, 70000}));
    EXPECT_EQ(read_record(reader, 9), whole("one"));
    EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4352}));
    EXPECT_EQ(bytes_through(reader).size(), 65536U);
}

TEST_F(TmfEmptied, FileThatCannotSayThatItIsEmptyIsNotCut)
{
    const struct {
        int times; // writes of the header that fail
        positions left;
    } rows[] = {
        {1, {0, 4352, 4352, 70000}},   // the release made up for it
        {2, {1, 69886, 70000, 70000}}, // the record is still there
    };
    for (const auto &row : rows) {
        make_up_to(70000);
        const opened_file reader(path, 1);
        take_all_but_one(reader);
        forget_calls();
        fail_call(CALL_PWRITE, EIO, 0, row.times);
        EXPECT_EQ(tmf_fread(reader, nullptr, 0, 0), TMF_EWRITE_COMMON);
        EXPECT_TRUE(calls_made(CALL_FTRUNCATE).empty());
        EXPECT_EQ(bytes_through(reader).size(), 70002U);
        EXPECT_EQ(positions_of(reader), row.left) << row.times;
    }
}

// ---- 2 GiB, in a file of holes

TEST_F(TmfEmptied, RecordAcross2GiBIsTheLastUntilTheFileEmpties)
{
    const struct {
        int32_t from;
        int32_t to; // behind a record of 106 bytes
        int next;   // result of a further write
    } rows[] = {
        {INT_MAX - 106, INT_MAX, 0},
        {INT_MAX - 105, INT_MIN, TMF_ESEEK_DATA},
        {INT_MAX, INT_MIN + 105, TMF_ESEEK_DATA},
    };
    for (const auto &row : rows) {
        unlink(path.c_str());
        make();
        std::string file = bytes();
        put_positions(file, {0, row.from, row.from, row.from});
        write_file(path, file);
        const std::string data = some_data(100);
        positions after = {1, row.from, row.to, std::max(row.from, row.to)};
        {
            const opened_file writer(path, 0);
            EXPECT_EQ(write_record(writer, data), 0);
            EXPECT_EQ(positions_of(writer), after);
            EXPECT_EQ(writer->last_record_end, row.to);
            int32_t end = 0;
            EXPECT_EQ(tmf_getinfo(writer, 5, &end, 0), 0);
            EXPECT_EQ(end, row.to);
            EXPECT_EQ(write_record(writer, data), row.next);
            if (row.next == 0)
                after = {2, row.from, INT_MIN + 105, INT_MAX};
            EXPECT_EQ(positions_of(writer), after);
        }
        {
            const opened_file fresh(path, 0); // seeks, and is refused alike
            EXPECT_EQ(write_record(fresh, data), TMF_ESEEK_DATA);
            EXPECT_EQ(positions_of(fresh), after);
        }
        {
            const opened_file copier(path, 7);
            for (int i = 0; i < after.records; i++)
                EXPECT_EQ(read_record(copier, 200), whole(data));
            EXPECT_EQ(read_record(copier, 200), whole(""));
        }
        {
            const opened_file reader(path, 1);
            for (int i = 0; i < after.records; i++)
                EXPECT_EQ(read_record(reader, 200), whole(data));
            EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4352}));
            EXPECT_EQ(bytes_through(reader).size(), 65536U);
        }
        make({"again"});
        EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4363, 4363}));
    }
}
