// Copy mode: all records are read and none is removed.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>

static constexpr int copy_mode = TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY;

class TmfCopy : public MessageFile {
  protected:
    static std::string read(tmf_handle *h, int flags = 0)
    {
        char buf[50];
        const int n = tmf_fread(h, buf, sizeof(buf), flags);
        return n < 0 ? std::to_string(n) : std::string(buf, static_cast<size_t>(n));
    }
};

TEST_F(TmfCopy, EachRecordIsReadOnceAndStays)
{
    make({"one", "two", "three"});
    tmf_handle *h = open(copy_mode);
    const std::string before = bytes_through(h);
    EXPECT_EQ(read(h), "one");
    EXPECT_EQ(read(h, TMF_READ_KEEP), "two") << "to keep or not is all one";
    int32_t at = 0;
    EXPECT_EQ(tmf_finfo(h, TMF_FINFO_RECORD_END, &at, 4), 0);
    EXPECT_EQ(at, 4352 + 9);
    EXPECT_EQ(read(h), "three");
    EXPECT_EQ(read(h), "");
    EXPECT_EQ(read(h), "");
    EXPECT_SAME_BYTES(bytes_through(h), before);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(stored<int32_t>(16), 3);
}

TEST_F(TmfCopy, NoReadWaits)
{
    make();
    other_user writer(path, 0);
    const system_calls_guard guard;
    tmf_handle *h = open(copy_mode);
    EXPECT_EQ(read(h, TMF_READ_WAIT), "");
    EXPECT_TRUE(calls_made(CALL_POLL).empty());
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfCopy, RecordsThatComeLaterAreReadToo)
{
    make({"one"});
    other_process writer({[this] {
        tmf_handle *w = tmf_fopen(path.c_str(), 0);
        return tmf_fwrite(w, "two", 3) + tmf_fclose(w);
    }});
    tmf_handle *h = open(copy_mode);
    EXPECT_EQ(read(h), "one");
    EXPECT_EQ(read(h), "");
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(read(h), "two");
    EXPECT_EQ(read(h), "");
    EXPECT_EQ(tmf_fclose(h), 0);
}

// What "tmf repair" leaves of three records when it keeps one.
TEST_F(TmfCopy, PlaceBehindTheEndOfARepairedFileIsAnError)
{
    make({"one", "two", "three"});
    tmf_handle *h = open(copy_mode);
    EXPECT_EQ(read(h), "one");
    EXPECT_EQ(read(h), "two");
    store<int32_t>(16, 1);
    store<int32_t>(44, 4352 + 9);
    EXPECT_EQ(read(h), std::to_string(TMF_EREAD_DATA_EOF));
    EXPECT_EQ(read(h), std::to_string(TMF_EREAD_DATA_EOF)) << "until it is opened again";
    EXPECT_EQ(tmf_fclose(h), 0);
    h = open(copy_mode);
    EXPECT_EQ(read(h), "one");
    EXPECT_EQ(read(h), "");
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfCopy, ShortBufferCutsAndTheNextRecordFollows)
{
    make({"abcdef", "ghi"});
    tmf_handle *h = open(copy_mode);
    char two[2];
    EXPECT_EQ(tmf_fread(h, two, 2, 0), 2);
    EXPECT_EQ(std::string(two, 2), "ab");
    EXPECT_EQ(read(h), "ghi");
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfCopy, FailedLockStillPassesARecord)
{
    make({"one", "two"});
    const system_calls_guard guard;
    tmf_handle *h = open(copy_mode);
    fail_call(CALL_LOCKF, EINTR);
    EXPECT_EQ(read(h), std::to_string(TMF_ELOCK_WAIT));
    EXPECT_EQ(read(h), "two") << "the copy read last told where the first one was";
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfCopy, CopyBeginsAtTheOldestRecordAndEachHandleAnew)
{
    make({"gone", "one", "two"});
    {
        const opened_file reader(path, TMF_MODE_READ);
        EXPECT_EQ(read_record(reader, 9), whole("gone"));
    }
    for (int i = 0; i < 2; i++) {
        const opened_file copier(path, copy_mode);
        EXPECT_EQ(read_record(copier, 9), whole("one"));
        EXPECT_EQ(read_record(copier, 9), whole("two"));
        EXPECT_EQ(read_record(copier, 9), whole(""));
    }
    EXPECT_EQ(positions_in(bytes()), (positions{2, 4362, 4380, 4380}));
}

TEST_F(TmfCopy, ReaderMayTakeTheRecordsOnceTheCopyIsClosed)
{
    make({"one"});
    {
        const opened_file copier(path, copy_mode);
        EXPECT_EQ(open_elsewhere(path, TMF_MODE_READ), TMF_EREADER_EXCLUSIVE);
        EXPECT_EQ(open_elsewhere(path, 0), 0);
        EXPECT_EQ(write_record(copier, "x"), TMF_EREAD_ACCESS);
        EXPECT_EQ(read_record(copier, 9), whole("one"));
    }
    const opened_file reader(path, TMF_MODE_READ);
    EXPECT_EQ(read_record(reader, 9), whole("one"));
}

TEST_F(TmfCopy, FailedReadStaysAtItsRecord)
{
    make({"one", std::string(2000, 't')});
    const system_calls_guard guard;
    const opened_file copier(path, copy_mode);
    EXPECT_EQ(read_record(copier, 9), whole("one"));
    const struct {
        const char *name;
        void (*plan)();
        int code;
    } rows[] = {
        {"memory", [] { fail_call(CALL_MALLOC, ENOMEM); }, TMF_EINTERNAL},
        {"read", [] { fail_call(CALL_PREAD, EIO, 1); }, TMF_EREAD_DATA},
        {"read of five bytes", [] { answer_call(CALL_PREAD, 5, 1); }, TMF_EREAD_DATA_EOF},
        {"read of nothing", [] { answer_call(CALL_PREAD, 0, 1); }, TMF_EREAD_DATA_EOF},
        {"read short of the data", [] { answer_call(CALL_PREAD, 1003, 1); }, TMF_EREAD_DATA_EOF},
        {"read of the rest", [] { fail_call(CALL_PREAD, EIO, 2); }, TMF_EREAD_DATA},
        {"read of a byte less", [] { answer_call(CALL_PREAD, 979, 2); }, TMF_EREAD_DATA_EOF},
    };
    for (const auto &row : rows) {
        row.plan();
        EXPECT_EQ(read_record(copier, 2000), (record_read{row.code, ""})) << row.name;
        EXPECT_EQ(tmf_geterrno(copier), row.code) << row.name;
        EXPECT_EQ(copier->copy_count, 1) << row.name;
        EXPECT_EQ(copier->copy_offset, 4361) << row.name;
        EXPECT_EQ(copier->last_record_end, 4352) << row.name;
    }
    EXPECT_EQ(read_record(copier, 2000), whole(std::string(2000, 't')));
    EXPECT_EQ(positions_of(copier).records, 2);
}

TEST_F(TmfCopy, UnlockThatFailsBehindACopiedRecordHasItsCode)
{
    make({"one", "two"});
    const system_calls_guard guard;
    const opened_file copier(path, copy_mode);
    EXPECT_EQ(read_record(copier, 9), whole("one"));
    fail_call(CALL_FCNTL, ENOLCK, 1);
    EXPECT_EQ(tmf_fread(copier, nullptr, 0, 0), TMF_EUNLOCK);
    EXPECT_EQ(read_record(copier, 9), whole("")); // the record was read
}
