// Copy mode: all records are read and none is removed.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

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
    EXPECT_EQ(read(h), "-5236");
    EXPECT_EQ(read(h), "two") << "the copy read last told where the first one was";
    EXPECT_EQ(tmf_fclose(h), 0);
}
