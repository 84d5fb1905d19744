// Records: what is written and read, what is left in the file, and what failures
// leave behind.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>

static constexpr int data_start = 4352;

class TmfRecord : public MessageFile {
  protected:
    ~TmfRecord() override
    {
        if (h != nullptr)
            tmf_fclose(h);
    }
    void reader()
    {
        h = open(TMF_MODE_READ);
        ASSERT_NE(h, nullptr);
    }
    void writer()
    {
        h = open(0);
        ASSERT_NE(h, nullptr);
    }
    int write(size_t length)
    {
        const std::string data(length, 'x');
        return tmf_fwrite(h, data.data(), static_cast<int>(length));
    }
    // Reads into a buffer of exactly len bytes.
    int read(int len, int flags = 0)
    {
        got.assign(static_cast<size_t>(len), '-');
        return tmf_fread(h, got.data(), len, flags);
    }
    void close()
    {
        EXPECT_EQ(tmf_fclose(h), 0);
        h = nullptr;
    }
    template <typename T> T field(size_t at) const
    {
        std::string area(256, '\0');
        if (pread(h->fd, area.data(), area.size(), 0) != 256)
            throw std::runtime_error("cannot read the common area");
        return number_at<T>(area, at);
    }
    int32_t count() const
    {
        return field<int32_t>(16);
    }
    int32_t read_offset() const
    {
        return field<int32_t>(36);
    }
    int32_t write_offset() const
    {
        return field<int32_t>(44);
    }
    int32_t high_water() const
    {
        return field<int32_t>(60);
    }
    // One failure: the call it befalls, the result given, the code expected.
    struct failure {
        call_kind kind;
        int after;
        int os_errno; // 0: result is the answer
        int64_t result;
        int code;
    };
    void plan(const failure &f)
    {
        if (f.os_errno != 0)
            fail_call(f.kind, f.os_errno, f.after);
        else
            answer_call(f.kind, f.result, f.after);
    }

    tmf_handle *h = nullptr;
    std::string got;
};

TEST_F(TmfRecord, LengthsFrom1To32761AreWritten)
{
    writer();
    EXPECT_EQ(tmf_fwrite(h, "x", 0), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_fwrite(h, "x", -1), TMF_ERECORD_SIZE);
    EXPECT_EQ(write(32762), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_fwrite(h, nullptr, 5), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_geterrno(h), TMF_ERECORD_SIZE);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(write(1), 0);
    EXPECT_EQ(write(32761), 0);
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(write_offset(), data_start + 7 + 32767);
    const std::string file = bytes_through(h);
    EXPECT_EQ(file.substr(data_start, 13), std::string("\0\x07\0\x11x\0\x07\x7F\xFF\0\x11xx", 13));
    EXPECT_EQ(file.substr(data_start + 7 + 32765), std::string("\x7F\xFF\xFF\xFF", 4));
}

TEST_F(TmfRecord, EachKindOfHandleHasItsDirection)
{
    make({"one"});
    writer();
    EXPECT_EQ(read(10), TMF_EWRITE_ACCESS);
    EXPECT_EQ(message_of(h), "Attempt to read from a file opened with write access.");
    close();
    reader();
    EXPECT_EQ(write(3), TMF_EREAD_ACCESS);
    EXPECT_EQ(message_of(h), "Attempt to write to a file opened with read access.");
    EXPECT_EQ(tmf_fread(h, got.data(), -1, 0), TMF_EBUFFER_SIZE);
    EXPECT_EQ(tmf_fread(h, nullptr, 1, 0), TMF_EBUFFER_SIZE);
    EXPECT_EQ(count(), 1);
}

TEST_F(TmfRecord, NextRecordOverwritesTheEndMark)
{
    writer();
    ASSERT_EQ(tmf_fwrite(h, "ab", 2), 0);
    EXPECT_EQ(bytes_through(h).substr(data_start), std::string("\0\x08\0\x11"
                                                               "ab\0\x08\xFF\xFF",
                                                               10));
    ASSERT_EQ(tmf_fwrite(h, "c", 1), 0);
    EXPECT_EQ(bytes_through(h).substr(data_start), std::string("\0\x08\0\x11"
                                                               "ab\0\x08"
                                                               "\0\x07\0\x11"
                                                               "c\0\x07\xFF\xFF",
                                                               17));
    int32_t end = 0;
    EXPECT_EQ(tmf_finfo(h, TMF_FINFO_RECORD_END, &end, 4), 0);
    EXPECT_EQ(end, data_start + 15);
    EXPECT_EQ(high_water(), data_start + 15);
}

TEST_F(TmfRecord, ReadsTakeRecordsInOrder)
{
    make({"first", "second", "third"});
    reader();
    EXPECT_EQ(read(100), 5);
    EXPECT_EQ(got.substr(0, 6), "first-");
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(read_offset(), data_start + 11);
    int32_t at = 0;
    EXPECT_EQ(tmf_finfo(h, TMF_FINFO_RECORD_END, &at, 4), 0);
    EXPECT_EQ(at, data_start);
    EXPECT_EQ(read(100), 6);
    EXPECT_EQ(tmf_finfo(h, TMF_FINFO_RECORD_END, &at, 4), 0);
    EXPECT_EQ(at, data_start + 11);
    EXPECT_EQ(read(5), 5);
    EXPECT_EQ(got, "third");
    EXPECT_EQ(read(100), 0) << "end of file: no record, no writer";
}

TEST_F(TmfRecord, ShortBufferLosesTheRestOfTheRecord)
{
    make({std::string(100, 'a'), "b"});
    reader();
    EXPECT_EQ(read(10), 10);
    EXPECT_EQ(got, std::string(10, 'a'));
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(tmf_fread(h, nullptr, 0, 0), 0) << "no room, and yet the record is removed";
    EXPECT_EQ(count(), 0);
}

TEST_F(TmfRecord, KeptRecordIsReadAgain)
{
    make({"one", "two"});
    reader();
    EXPECT_EQ(read(9, TMF_READ_KEEP), 3);
    EXPECT_EQ(read(9, TMF_READ_KEEP), 3);
    EXPECT_EQ(got.substr(0, 3), "one");
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(read(9), 3);
    EXPECT_EQ(read(9, TMF_READ_KEEP), 3);
    EXPECT_EQ(got.substr(0, 3), "two");
}

TEST_F(TmfRecord, GreatBuffersReadLikeOthers)
{
    make({std::string(32761, 'z')});
    reader();
    std::string big(100000, '-');
    EXPECT_EQ(tmf_fread(h, big.data(), static_cast<int>(big.size()), 0), 32761);
    EXPECT_EQ(big.substr(32760, 3), "z--");
}

TEST_F(TmfRecord, LastRecordRemovedResetsThePositions)
{
    make({"one", "two"});
    reader();
    EXPECT_EQ(read(9), 3);
    EXPECT_EQ(read(9), 3);
    EXPECT_EQ(read_offset(), data_start);
    EXPECT_EQ(write_offset(), data_start);
    EXPECT_EQ(high_water(), data_start + 18);
    EXPECT_EQ(bytes_through(h).size(), static_cast<size_t>(data_start + 20)) << "not cut down";
}

TEST_F(TmfRecord, EmptiedFileUpTo64KKeepsItsSize)
{
    make({std::string(32761, 'a'), std::string(28411, 'b')}); // ends at 65536
    reader();
    EXPECT_EQ(high_water(), 65536);
    EXPECT_EQ(read(9), 9);
    EXPECT_EQ(read(9), 9);
    EXPECT_EQ(bytes_through(h).size(), 65538U);
    EXPECT_EQ(high_water(), 65536);
}

TEST_F(TmfRecord, EmptiedFileBeyond64KIsCutBehindTheHeader)
{
    make({std::string(32761, 'a'), std::string(32761, 'b'), std::string(108, 'c')}); // at 70000
    const system_calls_guard guard;
    reader();
    EXPECT_EQ(high_water(), 70000);
    EXPECT_EQ(read(9), 9);
    EXPECT_EQ(read(9), 9);
    EXPECT_EQ(bytes_through(h).size(), 70002U);
    forget_calls();
    EXPECT_EQ(read(9), 9);
    std::vector<call_made> changes;
    for (const call_made &call : calls_made())
        if (call.kind == CALL_PWRITE || call.kind == CALL_FTRUNCATE)
            changes.push_back(call);
    ASSERT_EQ(changes.size(), 3U) << "empty on file, cut, and the new high water";
    EXPECT_EQ(changes[0].kind, CALL_PWRITE);
    EXPECT_EQ(changes[1].kind, CALL_FTRUNCATE);
    EXPECT_EQ(changes[1].a, 65536);
    EXPECT_EQ(changes[2].kind, CALL_PWRITE);
    EXPECT_EQ(bytes_through(h).size(), 65536U);
    EXPECT_EQ(high_water(), data_start);
    EXPECT_EQ(write_offset(), data_start);
}

TEST_F(TmfRecord, FileThatCannotBeCutIsEmptyAllTheSame)
{
    make({std::string(32761, 'a'), std::string(32761, 'b'), "c"});
    const system_calls_guard guard;
    reader();
    EXPECT_EQ(read(9), 9);
    EXPECT_EQ(read(9), 9);
    const int32_t high = high_water();
    fail_call(CALL_FTRUNCATE, EIO);
    EXPECT_EQ(read(9), TMF_ETRUNCATE);
    EXPECT_EQ(message_of(h), "Error truncating file.");
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(write_offset(), data_start);
    EXPECT_EQ(high_water(), high) << "tried again when it next empties";
}

TEST_F(TmfRecord, FailedWriteChangesNothing)
{
    const failure first[] = {
        {CALL_LSEEK, 2, EINVAL, 0, TMF_ESEEK_DATA}, {CALL_LSEEK, 2, 0, 4000, TMF_ESEEK_DATA_EOF},
        {CALL_WRITE, 0, EIO, 0, TMF_EWRITE_DATA},   {CALL_WRITE, 0, ENOSPC, 0, TMF_EWRITE_DATA},
        {CALL_WRITE, 0, 0, 8, TMF_EWRITE_DATA_EOF}, {CALL_WRITE, 0, 0, 0, TMF_EWRITE_DATA_EOF},
    };
    const failure later[] = {
        {CALL_PWRITE, 0, EIO, 0, TMF_EWRITE_DATA},
        {CALL_PWRITE, 0, 0, 8, TMF_EWRITE_DATA_EOF},
    };
    const auto check = [&](const failure &f) {
        SCOPED_TRACE(f.code);
        const std::string before = bytes_through(h).substr(0, 256);
        plan(f);
        EXPECT_EQ(write(3), f.code); // 9 bytes, 11 with the end mark
        EXPECT_EQ(tmf_geterrno(h), f.code);
        EXPECT_SAME_BYTES(bytes_through(h).substr(0, 256), before);
    };
    const system_calls_guard guard;
    for (const failure &f : first) {
        writer();
        check(f);
        EXPECT_EQ(write(3), 0) << "the same call may be repeated";
        close();
    }
    writer();
    EXPECT_EQ(write(3), 0);
    for (const failure &f : later)
        check(f);
    EXPECT_EQ(write(3), 0);
}

TEST_F(TmfRecord, PartOfTheEndMarkIsEnough)
{
    const system_calls_guard guard;
    writer();
    for (const int written : {9, 10}) {
        EXPECT_EQ(write(3), 0);
        answer_call(CALL_PWRITE, written);
        EXPECT_EQ(write(3), 0) << written;
    }
    EXPECT_EQ(count(), 4);
}

TEST_F(TmfRecord, FailedReadLeavesTheRecord)
{
    const failure first[] = {
        {CALL_LSEEK, 2, EINVAL, 0, TMF_ESEEK_DATA}, {CALL_LSEEK, 2, 0, 4000, TMF_ESEEK_DATA_EOF},
        {CALL_READ, 1, EIO, 0, TMF_EREAD_DATA},     {CALL_READ, 1, 0, 5, TMF_EREAD_DATA_EOF},
        {CALL_READ, 1, 0, 0, TMF_EREAD_DATA_EOF},
    };
    const failure later[] = {
        {CALL_PREAD, 1, EIO, 0, TMF_EREAD_DATA},
        {CALL_PREAD, 1, 0, 5, TMF_EREAD_DATA_EOF},
    };
    make({"one", "two"});
    const system_calls_guard guard;
    for (const int mode : {1, 7}) {
        for (const failure &f : first) {
            SCOPED_TRACE(f.code);
            h = open(mode);
            plan(f);
            EXPECT_EQ(read(9), f.code);
            EXPECT_EQ(tmf_geterrno(h), f.code);
            EXPECT_EQ(count(), 2);
            close();
        }
        h = open(mode);
        EXPECT_EQ(read(9, TMF_READ_KEEP), 3);
        for (const failure &f : later) {
            plan(f);
            EXPECT_EQ(read(9), f.code);
        }
        EXPECT_EQ(count(), 2);
        close();
    }
}

TEST_F(TmfRecord, BufferThatCannotGrowIsAnInternalError)
{
    make({std::string(5000, 'a')});
    const system_calls_guard guard;
    reader();
    fail_call(CALL_MALLOC, ENOMEM);
    got.assign(5000, '-');
    EXPECT_EQ(tmf_fread(h, got.data(), 5000, 0), TMF_EINTERNAL);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(tmf_fread(h, got.data(), 5000, 0), 5000);
    close();
    writer();
    const std::string data(5000, 'b');
    fail_call(CALL_MALLOC, ENOMEM);
    EXPECT_EQ(tmf_fwrite(h, data.data(), 5000), TMF_EINTERNAL);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(tmf_fwrite(h, data.data(), 5000), 0);
}

TEST_F(TmfRecord, ReleaseErrorIsReportedWhenNothingElseWentWrong)
{
    make({"one", "two"});
    const system_calls_guard guard;
    reader();
    EXPECT_EQ(read(9, TMF_READ_KEEP), 3);
    fail_call(CALL_PWRITE, EIO);
    EXPECT_EQ(read(9), TMF_EWRITE_COMMON);
    EXPECT_EQ(count(), 2);
    close();
    writer();
    fail_call(CALL_PWRITE, EIO, 1);
    EXPECT_EQ(write(3), 0) << "the first operation writes, and then writes back at a place";
    fail_call(CALL_PWRITE, EIO, 1);
    EXPECT_EQ(write(3), TMF_EWRITE_COMMON);
}

TEST_F(TmfRecord, OffsetsWrapAt2GiBAndComeBackWhenTheFileEmpties)
{
    make();
    store<int32_t>(36, 2147483600);
    store<int32_t>(44, 2147483600);
    store<int32_t>(60, 2147483600);
    writer();
    EXPECT_EQ(write(100), 0);
    EXPECT_EQ(write_offset(), -2147483590);
    EXPECT_EQ(high_water(), 2147483600);
    EXPECT_EQ(write(100), TMF_ESEEK_DATA);
    EXPECT_EQ(message_of(h), "Error seeking data area.");
    EXPECT_EQ(count(), 1);
    close();
    reader();
    EXPECT_EQ(read(200), 100);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(write_offset(), data_start);
    EXPECT_EQ(bytes_through(h).size(), 65536U);
    close();
    writer();
    EXPECT_EQ(write(100), 0);
}

TEST_F(TmfRecord, WrongLengthOfARecordIsRefusedAndTheRecordStays)
{
    make({std::string(20, 'a')}); // 26 bytes in the file
    const std::string good = bytes();
    for (int length = 0; length < 65536; length += length < 40 ? 1 : 777) {
        SCOPED_TRACE(length);
        std::string damaged = good;
        damaged[data_start] = static_cast<char>(length >> 8);
        damaged[data_start + 1] = static_cast<char>(length & 255);
        write_file(path, damaged);
        for (const int mode : {7, 1}) {
            h = open(mode);
            const bool sound = length >= 6 && length <= 26;
            EXPECT_EQ(read(50), sound ? length - 6 : TMF_EREAD_DATA_EOF);
            EXPECT_EQ(count(), sound && mode == 1 ? 0 : 1);
            close();
        }
    }
}

TEST_F(TmfRecord, FileCutInsideARecordGivesNoDataItDoesNotHold)
{
    make({std::string(20, 'a')});
    const std::string good = bytes();
    for (size_t end = data_start; end < data_start + 28U; end++) {
        SCOPED_TRACE(end);
        write_file(path, good.substr(0, end));
        reader();
        EXPECT_EQ(read(50), end >= data_start + 24U ? 20 : TMF_EREAD_DATA_EOF);
        close();
        write_file(path, good.substr(0, end));
        reader();
        // As much as the buffer takes is enough, with the frame's six bytes.
        EXPECT_EQ(read(10), end >= data_start + 14U ? 10 : TMF_EREAD_DATA_EOF);
        close();
    }
}

TEST_F(TmfRecord, PlacesOutsideTheDataAreaAreRefused)
{
    make({"one"});
    const std::string good = bytes();
    const struct {
        size_t field;
        int32_t value;
        int read;
        int write;
    } rows[] = {
        {36, 0, TMF_ESEEK_DATA_EOF, 0},
        {36, 4351, TMF_ESEEK_DATA_EOF, 0},
        {36, -1, TMF_ESEEK_DATA, 0},
        {36, INT32_MIN, TMF_ESEEK_DATA, 0},
        {36, 4361, TMF_EREAD_DATA_EOF, 0},
        {36, INT32_MAX, TMF_EREAD_DATA_EOF, 0},
        {44, 0, 3, TMF_ESEEK_DATA_EOF},
        {44, 4351, 3, TMF_ESEEK_DATA_EOF},
        {44, -1, 3, TMF_ESEEK_DATA},
        {44, 4352, TMF_EREAD_DATA_EOF, 0},
        {44, 4360, TMF_EREAD_DATA_EOF, 0},
        {28, 5000, TMF_ESEEK_DATA_EOF, TMF_ESEEK_DATA_EOF},
        {16, -5, 3, 0},
        {16, INT32_MAX, 3, 0},
        {16, 0, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.field) + " " + std::to_string(row.value));
        std::string damaged = good;
        put_number(damaged, row.field, row.value);
        write_file(path, damaged);
        const system_calls_guard guard;
        answer_call(CALL_POLL, 0, 0, -1); // no wait takes time
        reader();
        const int result = tmf_freadx(h, got.data(), 0, 0, 1);
        EXPECT_EQ(result, row.read < 0 ? row.read : 0);
        close();
        write_file(path, damaged);
        writer();
        EXPECT_EQ(write(3), row.write);
        close();
    }
}
