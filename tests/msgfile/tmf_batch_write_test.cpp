// Batches appended: their bytes beside those of single records, the system calls, what a failure
// leaves, 2 GiB, and the readers that they wake.
#include "tests/msgfile/batches.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <random>
#include <sys/resource.h>

class TmfBatchWrite : public MessageFile {
  protected:
    const system_calls_guard guard;

    // A handle that has written a record: its calls go to their places.
    void prove(tmf_handle *h) const
    {
        ASSERT_EQ(write_record(h, "first"), 0); // 4352 to 4363
        forget_calls();
    }
};

TEST_F(TmfBatchWrite, WrongArgumentsAreRefusedBeforeTheFileIsTouched)
{
    const std::string longest = some_data(32761);
    const tmf_item good = {longest.data(), 32761};
    const struct {
        const char *name;
        std::vector<tmf_item> items;
        int count;
    } rows[] = {
        {"no records but a count", {}, 1},
        {"a count below zero", {good}, -1},
        {"the least count", {good}, INT_MIN},
        {"no data", {good, {nullptr, 1}}, 2},
        {"no bytes in the first", {{longest.data(), 0}, good}, 2},
        {"no bytes in the last", {good, good, {longest.data(), 0}}, 3},
        {"a length below zero", {good, {longest.data(), -1}}, 2},
        {"a byte too long", {good, {longest.data(), 32762}, good}, 3},
    };
    make();
    const opened_file writer(path, 0);
    const std::string before = bytes_through(writer);
    forget_calls();
    for (const auto &row : rows) {
        tmf_clearerr(writer);
        const tmf_item *items = row.items.empty() ? nullptr : row.items.data();
        EXPECT_EQ(tmf_fwrite_many(writer, items, row.count), TMF_ERECORD_SIZE) << row.name;
        EXPECT_EQ(tmf_geterrno(writer), TMF_ERECORD_SIZE) << row.name;
    }
    tmf_clearerr(writer);
    EXPECT_EQ(tmf_fwrite_many(writer, &good, 0), 0);
    EXPECT_EQ(tmf_fwrite_many(writer, nullptr, 0), 0);
    EXPECT_EQ(tmf_geterrno(writer), 0);
    EXPECT_TRUE(calls_made().empty());
    EXPECT_SAME_BYTES(bytes_through(writer), before);
    EXPECT_EQ(tmf_fwrite_many(writer, &good, 1), 0);
}

TEST_F(TmfBatchWrite, ReaderMayNotAppendAndNoHandleIsNone)
{
    make();
    const opened_file reader(path, 1);
    EXPECT_EQ(write_batch(reader, {"a", "b"}), TMF_EREAD_ACCESS);
    EXPECT_EQ(tmf_fwrite_many(reader, nullptr, -1), TMF_EREAD_ACCESS);
    EXPECT_EQ(tmf_geterrno(reader), TMF_EREAD_ACCESS);
    EXPECT_EQ(write_batch(nullptr, {"a"}), TMF_EHANDLE);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EHANDLE);
    EXPECT_EQ(positions_of(reader).records, 0);
}

TEST_F(TmfBatchWrite, BytesOfABatchOfThree)
{
    make();
    const opened_file writer(path, 0);
    EXPECT_EQ(write_batch(writer, {"one", "three", "x"}), 0);
    EXPECT_EQ(positions_of(writer), (positions{3, 4352, 4379, 4379})); // 9 and 11 and 7 bytes
    EXPECT_EQ(bytes_through(writer).substr(4352),
              framed("one") + framed("three") + framed("x") + "\xFF\xFF");
    int32_t end = 0;
    EXPECT_EQ(tmf_finfo(writer, TMF_FINFO_RECORD_END, &end, 4), 0);
    EXPECT_EQ(end, 4379);
}

// Two files, which differ in nothing.
TEST_F(TmfBatchWrite, FileIsThatOfSingleRecords)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string other = dir.file("other");
    make();
    std::filesystem::copy_file(path, other); // with the same stamp
    {
        const opened_file batches(path, 0);
        const opened_file singles(other, 0);
        for (int round = 0; round < 60; round++) {
            record_list records(random() % 90);
            for (std::string &data : records)
                data = some_data(random() % 20 == 0 ? 32761 - random() % 3 : 1 + random() % 400,
                                 static_cast<unsigned>(random()));
            ASSERT_EQ(write_batch(batches, records), 0);
            for (const std::string &data : records)
                ASSERT_EQ(write_record(singles, data), 0);
            EXPECT_EQ(batches->last_record_end, singles->last_record_end);
        }
        std::string one = bytes_through(batches);
        std::string two = bytes_through(singles);
        EXPECT_SAME_BYTES(one, two);
        EXPECT_GT(one.size(), 100000U);
    }
    EXPECT_SAME_BYTES(bytes(), read_file(other));
}

// A version of the other byte order whose frames are longer.
TEST_F(TmfBatchWrite, FileOfAnotherVersionIsThatOfSingleRecords)
{
    make();
    std::string file = bytes();
    for (const long at : {8, 12, 28, 36, 44, 52, 60})
        std::reverse(file.begin() + at, file.begin() + at + 4);
    for (const long at : {0, 64, 66, 74, 76, 78})
        std::reverse(file.begin() + at, file.begin() + at + 2);
    file[74] = 0;
    file[75] = 4; // the version: frames of 12 bytes
    const std::string other = dir.file("other");
    write_file(path, file);
    write_file(other, file);
    const opened_file batches(path, 0);
    const opened_file singles(other, 0);
    EXPECT_EQ(write_batch(batches, {"one", "two", "three"}), 0);
    for (const char *data : {"one", "two", "three"})
        EXPECT_EQ(write_record(singles, data), 0);
    std::string two = bytes_through(singles);
    two.replace(84, 8, bytes_through(batches).substr(84, 8)); // the stamp
    EXPECT_SAME_BYTES(bytes_through(batches), two);
    EXPECT_EQ(positions_of(batches).write_offset, 4352 + 3 * 12 + 11);
}

TEST_F(TmfBatchWrite, OneWriteOfTheDataAndOneOfTheCommonArea)
{
    make();
    const opened_file writer(path, 0);
    prove(writer);
    record_list records(64, std::string(100, 'r'));
    ASSERT_EQ(write_batch(writer, records), 0);
    EXPECT_EQ(calls_as_text(),
              (std::vector<std::string>{"setlkw 0", "pread 256 at 0", "pwrite 6786 at 4363",
                                        "pwrite 256 at 0", "setlk 0"}));
    forget_calls();
    ASSERT_EQ(write_batch(writer, records), 0); // the buffer is there
    EXPECT_EQ(calls_as_text(),
              (std::vector<std::string>{"setlkw 0", "pread 256 at 0", "pwrite 6786 at 11147",
                                        "pwrite 256 at 0", "setlk 0"}));
}

// ---- failures

TEST_F(TmfBatchWrite, FailureAppendsNone)
{
    const record_list records = {"one", some_data(3000), "three"}; // 9, 3006 and 11 bytes
    const struct {
        const char *name;
        std::function<void()> plan;
        int code;
    } rows[] = {
        {"no memory", [] { fail_call(CALL_MALLOC, ENOMEM); }, TMF_EINTERNAL},
        {"disk full", [] { fail_call(CALL_PWRITE, ENOSPC); }, TMF_EWRITE_DATA},
        {"file too long", [] { fail_call(CALL_PWRITE, EFBIG); }, TMF_EWRITE_DATA},
        {"nothing written", [] { answer_call(CALL_PWRITE, 0); }, TMF_EWRITE_DATA_EOF},
        {"the first record", [] { answer_call(CALL_PWRITE, 9); }, TMF_EWRITE_DATA_EOF},
        {"two records", [] { answer_call(CALL_PWRITE, 3015); }, TMF_EWRITE_DATA_EOF},
        {"a byte less", [] { answer_call(CALL_PWRITE, 3025); }, TMF_EWRITE_DATA_EOF},
        {"the common area", [] { fail_call(CALL_PWRITE, EIO, 1); }, TMF_EWRITE_COMMON},
        {"the lock", [] { fail_call(CALL_FCNTL, EINTR); }, TMF_ELOCK_WAIT},
    };
    make();
    const opened_file writer(path, 0);
    prove(writer);
    const std::string before = bytes_through(writer).substr(0, 4352);
    for (const auto &row : rows) {
        row.plan();
        EXPECT_EQ(write_batch(writer, records), row.code) << row.name;
        EXPECT_EQ(tmf_geterrno(writer), row.code) << row.name;
        EXPECT_SAME_BYTES(bytes_through(writer).substr(0, 4352), before);
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.name;
    }
    for (const int mark : {3026, 3027}) { // a part of the end mark is enough
        answer_call(CALL_PWRITE, mark);
        EXPECT_EQ(write_batch(writer, records), 0) << mark;
    }
    EXPECT_EQ(positions_of(writer).records, 7);
    const opened_file copier(path, 7);
    EXPECT_EQ(read_batch(copier, 4, 9000), all_of({"first", "one", some_data(3000), "three"}));
}

TEST_F(TmfBatchWrite, FileSizeLimitTakesNoneOfABatchThatDoesNotFit)
{
    make({"one"}); // up to 4361
    tmf_handle *h = nullptr;
    other_process writer({
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            h = open(0);
            const rlimit wanted = {4385, RLIM_INFINITY}; // two of 9 bytes, not three
            return setrlimit(RLIMIT_FSIZE, &wanted);
        },
        [&] {
            return write_batch(h, {"two", "thr", "fou"});
        },
        [&] {
            return write_batch(h, {"two", "thr"});
        },
        [&] { return tmf_fclose(h); },
    });
    ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(writer.run(), TMF_EWRITE_DATA_EOF);
    EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4361, 4361}));
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(positions_in(bytes()), (positions{3, 4352, 4379, 4379}));
    EXPECT_EQ(writer.run(), 0);
}

// ---- 2 GiB, in a file of holes

TEST_F(TmfBatchWrite, BatchAcross2GiBIsWholeWhereSingleRecordsWouldBe)
{
    const struct {
        int32_t from;
        int records; // of 106 bytes
        int code;
        positions after;
    } rows[] = {
        {INT_MAX - 212, 2, 0, {2, INT_MAX - 212, INT_MAX, INT_MAX}},
        {INT_MAX - 212, 3, 0, {3, INT_MAX - 212, INT_MIN + 105, INT_MAX}}, // one begins at the end
        {INT_MAX - 212, 4, TMF_ESEEK_DATA, {0, INT_MAX - 212, INT_MAX - 212, INT_MAX - 212}},
        {INT_MAX - 211, 2, 0, {2, INT_MAX - 211, INT_MIN, INT_MAX - 105}},
        {INT_MAX - 211, 3, TMF_ESEEK_DATA, {0, INT_MAX - 211, INT_MAX - 211, INT_MAX - 211}},
        {INT_MAX, 1, 0, {1, INT_MAX, INT_MIN + 105, INT_MAX}},
        {INT_MAX, 2, TMF_ESEEK_DATA, {0, INT_MAX, INT_MAX, INT_MAX}},
        {-5, 1, TMF_ESEEK_DATA, {0, -5, -5, -5}},
        {300, 2, TMF_ESEEK_DATA_EOF, {0, 300, 300, 300}},
    };
    const std::string data = some_data(100);
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.records << " from " << row.from);
        unlink(path.c_str());
        make();
        std::string file = bytes();
        put_positions(file, {0, row.from, row.from, row.from});
        write_file(path, file);
        const record_list records(static_cast<size_t>(row.records), data);
        {
            const opened_file writer(path, 0);
            EXPECT_EQ(write_batch(writer, records), row.code);
            EXPECT_EQ(positions_of(writer), row.after);
        }
        if (row.code != 0)
            continue;
        for (const int mode : {7, 3}) {
            const opened_file reader(path, mode);
            EXPECT_EQ(read_batch(reader, 9, 1000, TMF_READ_KEEP), all_of(records));
            if (mode == 3) {
                EXPECT_EQ(tmf_fremove(reader, row.records), 0);
                EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, 4352}));
            }
        }
    }
}

// The same rows, record by record, are those of a batch.
TEST_F(TmfBatchWrite, NumbersBehind2GiBAreThoseOfSingleRecords)
{
    const std::string other = dir.file("other");
    make();
    std::string file = bytes();
    put_positions(file, {0, INT_MAX - 300, INT_MAX - 300, INT_MAX - 300});
    write_file(path, file);
    write_file(other, file);
    const opened_file batches(path, 0);
    const opened_file singles(other, 0);
    const std::string data = some_data(100);
    EXPECT_EQ(write_batch(batches, {data, data, data}), 0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(write_record(singles, data), 0);
    EXPECT_EQ(positions_of(batches), positions_of(singles));
    EXPECT_EQ(write_batch(batches, {data}), TMF_ESEEK_DATA);
}

// ---- wake-ups

// Other tests wait on the default ports at the same time; sends go nowhere here.
TEST_F(TmfBatchWrite, EachWaitingReaderIsWokenOnceAndBeforeTheLockIsGivenUp)
{
    make();
    store<uint16_t>(124, 0x0025); // slots 0, 2 and 5 wait; their users are gone
    store<uint16_t>(126, 0x0025);
    store<int16_t>(68, 3);
    const system_calls_guard fresh;
    answer_call(CALL_SENDTO, 12, 0, -1);
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    std::string area = bytes_through(h).substr(0, 256); // the open has purged them
    put_number<uint16_t>(area, 124, 0x0025);
    ASSERT_EQ(pwrite(h->fd, area.data(), area.size(), 0), 256);
    prove(h);
    std::vector<int32_t> records; // in the file, at each wake-up
    before_call(CALL_SENDTO, [&] { records.push_back(positions_of(h).records); });
    EXPECT_EQ(write_batch(h, {"a", "b", "c"}), 0);
    EXPECT_EQ(records, (std::vector<int32_t>{1, 1, 1}));
    const std::vector<call_made> sent = calls_made(CALL_SENDTO);
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].b, 53248);
    EXPECT_EQ(sent[1].b, 53250);
    EXPECT_EQ(sent[2].b, 53253);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfBatchWrite, ReaderThatCannotBeWokenIsToldOfAndTheRecordsAreThere)
{
    make();
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    std::string area = bytes_through(h).substr(0, 256);
    put_number<uint16_t>(area, 124, 0x0003);
    ASSERT_EQ(pwrite(h->fd, area.data(), area.size(), 0), 256);
    fail_call(CALL_SENDTO, EPERM, 0, -1);
    EXPECT_EQ(write_batch(h, {"one", "two"}), TMF_ESEND);
    EXPECT_EQ(message_of(h), "Error #1 on sendto() sending udp data.");
    EXPECT_EQ(calls_made(CALL_SENDTO).size(), 1U) << "as by a single record";
    EXPECT_EQ(positions_of(h), (positions{2, 4352, 4370, 4370}));
    EXPECT_EQ(tmf_fclose(h), 0);
}
