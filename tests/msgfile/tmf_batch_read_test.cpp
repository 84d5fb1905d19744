// Batches read and removed: what is taken and what stays, the system calls, damage, failures.
#include "tests/msgfile/batches.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <climits>

class TmfBatchRead : public MessageFile {
  protected:
    const system_calls_guard guard;
};

static constexpr int exclusive = TMF_MODE_READ | TMF_MODE_EXCLUSIVE;
static constexpr int copying = exclusive | TMF_MODE_COPY;

// ---- arguments

TEST_F(TmfBatchRead, WrongArgumentsAreRefusedBeforeTheFileIsTouched)
{
    make({"one"});
    const opened_file reader(path, 1);
    tmf_item item = {};
    char buf[8];
    const struct {
        const char *name;
        tmf_item *items;
        int count;
        void *buf;
        int len;
    } rows[] = {
        {"no items", nullptr, 1, buf, 8},
        {"a count below zero", &item, -1, buf, 8},
        {"the least count", nullptr, INT_MIN, buf, 8},
        {"a length below zero", &item, 1, buf, -1},
        {"no buffer", &item, 1, nullptr, 8},
        {"a length below zero and no records", &item, 0, buf, -1},
    };
    forget_calls();
    for (const auto &row : rows) {
        tmf_clearerr(reader);
        EXPECT_EQ(tmf_fread_many(reader, row.items, row.count, row.buf, row.len, 0),
                  TMF_EBUFFER_SIZE)
            << row.name;
        EXPECT_EQ(tmf_geterrno(reader), TMF_EBUFFER_SIZE) << row.name;
    }
    tmf_clearerr(reader);
    EXPECT_EQ(tmf_fread_many(reader, nullptr, 0, nullptr, 0, 0), 0);
    EXPECT_EQ(tmf_fread_many(reader, &item, 0, buf, 8, 0), 0);
    EXPECT_EQ(tmf_geterrno(reader), 0);
    EXPECT_TRUE(calls_made().empty());
    EXPECT_EQ(tmf_fread_many(nullptr, &item, 1, buf, 8, 0), TMF_EHANDLE);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EHANDLE);
    EXPECT_EQ(read_batch(reader, 1, 8), all_of({"one"}));
}

TEST_F(TmfBatchRead, WriterMayNotReadNorRemove)
{
    make({"one"});
    const opened_file writer(path, 0);
    EXPECT_EQ(read_batch(writer, 1, 8), no_batch(TMF_EWRITE_ACCESS));
    EXPECT_EQ(tmf_fremove(writer, 1), TMF_EWRITE_ACCESS);
    EXPECT_EQ(tmf_fremove(writer, -1), TMF_EWRITE_ACCESS);
    EXPECT_EQ(tmf_geterrno(writer), TMF_EWRITE_ACCESS);
    EXPECT_EQ(positions_of(writer).records, 1);
}

// ---- what is taken

TEST_F(TmfBatchRead, TakesWhatIsThereAndWasAskedForAndFits)
{
    const record_list four = {"one", "three", "x", "seven77"}; // 3, 5, 1 and 7 bytes
    const struct {
        int count;
        int len;
        record_list got;
        int32_t read_offset;
    } rows[] = {
        {4, 16, {"one", "three", "x", "seven77"}, 4352}, // the emptied file begins anew
        {9, 4000, {"one", "three", "x", "seven77"}, 4352},
        {3, 4000, {"one", "three", "x"}, 4352 + 9 + 11 + 7},
        {1, 4000, {"one"}, 4352 + 9},
        {4, 15, {"one", "three", "x"}, 4352 + 9 + 11 + 7},
        {4, 8, {"one", "three"}, 4352 + 9 + 11},
        {4, 7, {"one"}, 4352 + 9}, // the third would fit
        {4, 3, {"one"}, 4352 + 9},
        {4, 2, {"on"}, 4352 + 9}, // as a single read cuts it
        {1, 0, {""}, 4352 + 9},
        {4, 0, {""}, 4352 + 9},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.count << " into " << row.len);
        for (const int flags : {0, TMF_READ_KEEP}) {
            unlink(path.c_str());
            make({four[0], four[1], four[2], four[3]});
            const positions before = positions_in(bytes());
            const opened_file reader(path, 1);
            EXPECT_EQ(read_batch(reader, row.count, row.len, flags), all_of(row.got));
            const auto taken = static_cast<int32_t>(row.got.size());
            EXPECT_EQ(reader->records_read, taken);
            if (flags != 0)
                EXPECT_EQ(positions_of(reader), before);
            else if (taken == 4)
                EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4392}));
            else
                EXPECT_EQ(positions_of(reader),
                          (positions{4 - taken, row.read_offset, 4392, 4392}));
        }
        unlink(path.c_str());
        make({four[0], four[1], four[2], four[3]});
        const std::string before = bytes();
        const opened_file copier(path, copying);
        EXPECT_EQ(read_batch(copier, row.count, row.len), all_of(row.got));
        EXPECT_EQ(copier->copy_count, static_cast<int>(row.got.size()));
        EXPECT_EQ(bytes_through(copier).substr(4352), before.substr(4352));
    }
}

TEST_F(TmfBatchRead, LastRecordEndIsWhereTheLastOneBegins)
{
    make({"one", "three", "x"});
    const opened_file reader(path, 1);
    int32_t at = 0;
    EXPECT_EQ(read_batch(reader, 2, 100), all_of({"one", "three"}));
    EXPECT_EQ(tmf_finfo(reader, TMF_FINFO_RECORD_END, &at, 4), 0);
    EXPECT_EQ(at, 4361);
}

TEST_F(TmfBatchRead, CopyGoesOnBehindTheBatchAndMeetsNewRecords)
{
    make({"one", "two", "three"});
    other_process late({[&] {
        make({"four", "five"});
        return 0;
    }});
    const opened_file copier(path, copying);
    EXPECT_EQ(read_batch(copier, 2, 100), all_of({"one", "two"}));
    EXPECT_EQ(read_record(copier, 100), whole("three"));
    EXPECT_EQ(read_batch(copier, 2, 100), no_batch(0));
    EXPECT_EQ(late.run(), 0);
    EXPECT_EQ(read_batch(copier, 5, 100), all_of({"four", "five"}));
    EXPECT_EQ(positions_of(copier).records, 5);
}

TEST_F(TmfBatchRead, LongFileIsCutWhenABatchTakesItsLast)
{
    make({some_data(32761), some_data(32761), "x"});
    const opened_file reader(path, 1);
    const batch_read read = read_batch(reader, 5, 70000);
    EXPECT_EQ(read, all_of({some_data(32761), some_data(32761), "x"}));
    EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4352}));
    EXPECT_EQ(bytes_through(reader).size(), 65536U);
}

// More than a piece of the file that is read at once, and records across its borders.
TEST_F(TmfBatchRead, BatchLongerThanAPieceOfTheFile)
{
    record_list records;
    for (unsigned i = 0; i < 40; i++)
        records.push_back(some_data(i % 3 == 0 ? 32761 : 1 + i * 500, i));
    make();
    {
        const opened_file writer(path, 0);
        ASSERT_EQ(write_batch(writer, records), 0);
    }
    const opened_file reader(path, exclusive);
    for (const int flags : {TMF_READ_KEEP, TMF_READ_KEEP, 0})
        EXPECT_EQ(read_batch(reader, 40, 1 << 20, flags), all_of(records));
    EXPECT_EQ(positions_of(reader).records, 0);
}

// ---- end of the file and waits

TEST_F(TmfBatchRead, EndOfTheFileIsZero)
{
    make({"one"});
    const opened_file reader(path, 1);
    EXPECT_EQ(read_batch(reader, 3, 100), all_of({"one"}));
    EXPECT_EQ(read_batch(reader, 3, 100), no_batch(0));
    const opened_file copier(dir.file("other"), copying);
    EXPECT_EQ(read_batch(copier, 3, 100), no_batch(0));
}

TEST_F(TmfBatchRead, WaitIsThatOfASingleRead)
{
    make({"one"});
    const opened_file reader(path, 1);
    answer_call(CALL_POLL, 0, 0, -1); // the time is over
    answer_call(CALL_BIND, 0, 0, -1);
    EXPECT_EQ(read_batch(reader, 3, 100), all_of({"one"}));
    forget_calls();
    EXPECT_EQ(read_batch(reader, 3, 100, TMF_READ_WAIT | TMF_READ_LIMIT), no_batch(TMF_ETIMEOUT));
    const std::vector<call_made> polls = calls_made(CALL_POLL);
    ASSERT_EQ(polls.size(), 1U);
    EXPECT_EQ(polls[0].a, 4000);
    fail_call(CALL_POLL, EINTR, 0, -1);
    EXPECT_EQ(read_batch(reader, 3, 100, TMF_READ_WAIT | TMF_READ_SIGNAL), no_batch(TMF_ESIGNAL));
    EXPECT_EQ(tmf_geterrno(reader), TMF_ESIGNAL);
}

// A single read goes by what it knew last then, and may pass over a record.
TEST_F(TmfBatchRead, WithoutTheLockNothingIsRead)
{
    make({"one", "two"});
    for (const int mode : {1, copying}) {
        const opened_file reader(path, mode);
        fail_call(CALL_LOCKF, EINTR);
        EXPECT_EQ(read_batch(reader, 2, 100), no_batch(TMF_ELOCK_WAIT));
        EXPECT_EQ(read_batch(reader, 2, 100, TMF_READ_KEEP), all_of({"one", "two"}));
    }
}

// ---- system calls

static std::vector<std::string> reads_made()
{
    std::vector<std::string> made;
    for (const call_made &call : calls_made(CALL_PREAD))
        if (call.b != 0)
            made.push_back(std::to_string(call.a) + " at " + std::to_string(call.b));
    return made;
}

using texts = std::vector<std::string>;

TEST_F(TmfBatchRead, OneReadOfTheDataAndOneWriteOfTheCommonArea)
{
    const record_list records(70, std::string(100, 'r'));
    make();
    {
        const opened_file writer(path, 0);
        ASSERT_EQ(write_batch(writer, records), 0);
    }
    const opened_file reader(path, exclusive);
    ASSERT_EQ(read_batch(reader, 3, 400).result, 3); // at 4352, and sees how long they are
    forget_calls();
    ASSERT_EQ(read_batch(reader, 32, 8000).result, 32);
    EXPECT_EQ(calls_as_text(), (texts{"setlkw 0", "pread 256 at 0", "pread 3424 at 4670",
                                      "pwrite 256 at 0", "setlk 0"}));
    forget_calls();
    ASSERT_EQ(tmf_fremove(reader, 32), 0);
    EXPECT_EQ(calls_as_text(), (texts{"setlkw 0", "pread 256 at 0", "pread 3424 at 8062",
                                      "pwrite 256 at 0", "setlk 0"}));
    forget_calls();
    ASSERT_EQ(read_batch(reader, 32, 8000).result, 3); // no more than what is there
    EXPECT_EQ(reads_made(), (texts{"318 at 11454"}));
}

// What a record needs and not what the buffer could take; a longer one's rest is read then.
TEST_F(TmfBatchRead, SingleReadAsksForWhatARecordNeeds)
{
    make({"one", std::string(100, 'a'), std::string(5000, 'b'), std::string(4000, 'c'),
          std::string(90, 'd'), std::string(80, 'e')});
    const opened_file reader(path, 1);
    const struct {
        int len;
        int result;
        texts reads;
    } rows[] = {
        {32761, 3, {}}, // seeks and reads
        {32761, 100, {"1024 at 4361"}},
        {32761, 5000, {"1024 at 4467", "3982 at 5491"}},
        {32761, 4000, {"5006 at 9473"}}, // as long as the one before
        {50, 50, {"56 at 13479"}},       // no more than what the buffer takes
        {32761, 80, {"1024 at 13575"}},
    };
    for (const auto &row : rows) {
        forget_calls();
        EXPECT_EQ(read_record(reader, row.len).result, row.result);
        EXPECT_EQ(reads_made(), row.reads) << row.result;
    }
}

TEST_F(TmfBatchRead, BufferWithoutRoomIsNoReasonToReadAhead)
{
    make({std::string(100, 'a'), std::string(100, 'b'), std::string(100, 'c')});
    const opened_file reader(path, 1);
    ASSERT_EQ(read_record(reader, 9, TMF_READ_KEEP).result, 9);
    forget_calls();
    EXPECT_EQ(read_batch(reader, 2, 150), all_of({std::string(100, 'a')}));
    EXPECT_EQ(reads_made(), (texts{"162 at 4352"}));
}

// ---- removing

TEST_F(TmfBatchRead, KeptRecordsComeAgainUntilTheyAreRemoved)
{
    make({"one", "two", "three", "four"});
    {
        const opened_file reader(path, exclusive);
        EXPECT_EQ(read_batch(reader, 2, 100, TMF_READ_KEEP), all_of({"one", "two"}));
        EXPECT_EQ(read_batch(reader, 2, 100, TMF_READ_KEEP), all_of({"one", "two"}));
        EXPECT_EQ(tmf_fremove(reader, 2), 0);
        EXPECT_EQ(positions_of(reader), (positions{2, 4370, 4391, 4391}));
        EXPECT_EQ(tmf_fremove(reader, 0), 0);
        EXPECT_EQ(read_batch(reader, 9, 100, TMF_READ_KEEP), all_of({"three", "four"}));
    } // as if it were killed
    const opened_file reader(path, exclusive);
    EXPECT_EQ(read_batch(reader, 9, 100, TMF_READ_KEEP), all_of({"three", "four"}));
    EXPECT_EQ(tmf_fremove(reader, 2), 0);
    EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4391}));
}

TEST_F(TmfBatchRead, RemovesForAnExclusiveReaderOnlyAndNoMoreThanThereIs)
{
    make({"one", "two"});
    const struct {
        int mode;
        int count;
        int code;
    } rows[] = {
        {1, 1, TMF_ECOPYMODE},
        {1, 0, TMF_ECOPYMODE},
        {copying, 1, TMF_ECOPYMODE},
        {copying, 0, TMF_ECOPYMODE},
        {exclusive, -1, TMF_EBUFFER_SIZE},
        {exclusive, INT_MIN, TMF_EBUFFER_SIZE},
        {exclusive, 3, TMF_EREAD_DATA_EOF},
        {exclusive, INT_MAX, TMF_EREAD_DATA_EOF},
        {exclusive, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.count << " in mode " << row.mode);
        const opened_file reader(path, row.mode);
        EXPECT_EQ(tmf_fremove(reader, row.count), row.code);
        EXPECT_EQ(tmf_geterrno(reader), row.code);
        EXPECT_EQ(positions_of(reader), (positions{2, 4352, 4370, 4370}));
        EXPECT_EQ(holder_of(path, 0, 256), 0);
    }
    EXPECT_EQ(tmf_fremove(nullptr, 1), TMF_EHANDLE);
    const opened_file reader(path, exclusive);
    EXPECT_EQ(tmf_fremove(reader, 2), 0) << "what was not read may go, too";
}

// ---- damage

TEST_F(TmfBatchRead, DamagedRecordEndsTheBatchBeforeIt)
{
    const struct {
        const char *name;
        uint16_t length; // of the second record, big-endian in the file
        int code;
    } rows[] = {
        {"shorter than a frame", 5, TMF_EREAD_DATA_EOF},
        {"beyond the newest", 20, TMF_EREAD_DATA_EOF},
        {"nothing", 0, TMF_EREAD_DATA_EOF},
        {"the longest", 65535, TMF_EREAD_DATA_EOF},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        unlink(path.c_str());
        make({"one", "two", "x"}); // 4352, 4361, 4370 to 4377
        std::string file = bytes();
        file.replace(4361, 2, be16(row.length));
        write_file(path, file);
        {
            const opened_file copier(path, copying);
            EXPECT_EQ(read_batch(copier, 3, 100), all_of({"one"}));
            EXPECT_EQ(read_batch(copier, 3, 100), no_batch(row.code));
            EXPECT_EQ(copier->copy_count, 1);
        }
        const opened_file reader(path, exclusive);
        EXPECT_EQ(tmf_fremove(reader, 3), row.code);
        EXPECT_EQ(tmf_fremove(reader, 2), row.code);
        EXPECT_EQ(positions_of(reader), (positions{3, 4352, 4377, 4377}));
        EXPECT_EQ(read_batch(reader, 3, 100), all_of({"one"}));
        EXPECT_EQ(read_batch(reader, 3, 100), no_batch(row.code));
        EXPECT_EQ(tmf_geterrno(reader), row.code);
        EXPECT_EQ(read_record(reader, 100), (record_read{row.code, ""}));
        EXPECT_EQ(positions_of(reader), (positions{2, 4361, 4377, 4377}));
    }
}

TEST_F(TmfBatchRead, DamagedNumbersHaveTheCodesOfASingleRead)
{
    const positions rows[] = {
        {9, 4352, 4370, 4370},          // more records than there are
        {-1, 4352, 4370, 4370},         // less than none
        {2, -1, 4370, 4370},            //
        {2, 300, 4370, 4370},           // in the slots
        {2, 4370, 4370, 4370},          // none there
        {2, 4352, 4300, 4370},          // ends before it begins
        {2, 4352, 4353, 4370},          //
        {2, 2000000, 2000009, 2000009}, // behind the file
    };
    for (const positions &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        unlink(path.c_str());
        make({"one", "two"});
        std::string file = bytes();
        put_positions(file, row);
        write_file(path, file);
        record_read single = {};
        {
            const opened_file reader(path, exclusive);
            single = read_record(reader, 3, TMF_READ_KEEP);
        }
        const opened_file reader(path, exclusive);
        const batch_read read = read_batch(reader, 1, 3, TMF_READ_KEEP);
        EXPECT_EQ(read.result, single.result > 0 ? 1 : single.result);
        const batch_read more = read_batch(reader, 20, 300, TMF_READ_KEEP);
        EXPECT_EQ(more.result < 0, single.result < 0);
        EXPECT_LT(tmf_fremove(reader, 20), 0);
        EXPECT_EQ(positions_of(reader), row);
    }
}

// ---- failures

TEST_F(TmfBatchRead, FailureTakesNone)
{
    make();
    const record_list records = {"one", some_data(6000), "three"};
    {
        const opened_file writer(path, 0);
        ASSERT_EQ(write_batch(writer, records), 0);
    }
    const struct {
        const char *name;
        std::function<void()> plan;
        int code;
    } rows[] = {
        {"no memory", [] { fail_call(CALL_MALLOC, ENOMEM); }, TMF_EINTERNAL},
        {"read", [] { fail_call(CALL_PREAD, EIO, 1); }, TMF_EREAD_DATA},
        {"read of five bytes", [] { answer_call(CALL_PREAD, 5, 1); }, TMF_EREAD_DATA_EOF},
        {"read of nothing", [] { answer_call(CALL_PREAD, 0, 1); }, TMF_EREAD_DATA_EOF},
        {"the common area", [] { fail_call(CALL_PWRITE, EIO); }, TMF_EWRITE_COMMON},
        {"its read", [] { fail_call(CALL_PREAD, EIO); }, TMF_EREAD_COMMON},
        {"the lock", [] { fail_call(CALL_FCNTL, EINTR); }, TMF_ELOCK_WAIT},
    };
    for (const bool removes : {false, true}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            const opened_file reader(path, exclusive);
            ASSERT_EQ(read_record(reader, 3, TMF_READ_KEEP), whole("one"));
            const positions before = positions_of(reader);
            row.plan();
            EXPECT_EQ(removes ? tmf_fremove(reader, 2) : read_batch(reader, 3, 9000).result,
                      row.code);
            EXPECT_EQ(tmf_geterrno(reader), row.code);
            EXPECT_EQ(positions_of(reader), before);
            EXPECT_EQ(holder_of(path, 0, 256), 0);
        }
    }
    const opened_file reader(path, exclusive);
    EXPECT_EQ(read_batch(reader, 3, 9000, TMF_READ_KEEP), all_of(records));
}

// The records before one that the system cannot read are taken; a removal is all or none.
TEST_F(TmfBatchRead, RecordThatCannotBeReadEndsTheBatchBeforeIt)
{
    make({"tiny", std::string(2000, 'a'), std::string(2000, 'b'), "c"});
    const opened_file reader(path, exclusive);
    // From now on it asks for little at first.
    ASSERT_EQ(read_batch(reader, 1, 3000), all_of({"tiny"}));
    fail_call(CALL_PREAD, EIO, 2); // behind the common area and the first one's length
    EXPECT_EQ(tmf_fremove(reader, 2), TMF_EREAD_DATA);
    EXPECT_EQ(positions_of(reader).records, 3);
    tmf_clearerr(reader);
    fail_call(CALL_PREAD, EIO, 3); // and its data
    EXPECT_EQ(read_batch(reader, 3, 9000, TMF_READ_KEEP), all_of({std::string(2000, 'a')}));
    EXPECT_EQ(tmf_geterrno(reader), 0);
    EXPECT_EQ(read_batch(reader, 3, 9000),
              all_of({std::string(2000, 'a'), std::string(2000, 'b'), "c"}));
}

TEST_F(TmfBatchRead, FileThatCannotBeCutIsToldOfAndTheRecordsAreInTheBuffer)
{
    make({some_data(32761), some_data(32761), "x"});
    const opened_file reader(path, 1);
    fail_call(CALL_FTRUNCATE, EIO);
    std::string buf(70000, '\0');
    tmf_item items[4];
    EXPECT_EQ(tmf_fread_many(reader, items, 4, buf.data(), 70000, 0), TMF_ETRUNCATE);
    EXPECT_EQ(items[2].length, 1);
    EXPECT_EQ(*static_cast<const char *>(items[2].data), 'x');
    EXPECT_EQ(positions_of(reader).records, 0);
}
