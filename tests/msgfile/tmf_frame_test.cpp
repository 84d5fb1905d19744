// Records byte by byte: whatever they hold, whoever writes them, and however long
// the file may become.
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <climits>
#include <csignal>
#include <sys/resource.h>

using namespace std::string_literals;

class TmfFrame : public MessageFile {
  protected:
    system_calls_guard guard;

    static std::string data_area(const tmf_handle *h)
    {
        return bytes_through(h).substr(4352);
    }
};

TEST_F(TmfFrame, AnyByteMayBeData)
{
    const std::string data("\0\xFF\xFF\0\x10TM01\n", 10);
    {
        const opened_file writer(path, 0);
        ASSERT_EQ(write_record(writer, data), 0);
        EXPECT_EQ(data_area(writer), "\0\x10\0\x11"s + data + "\0\x10\xFF\xFF"s);
    }
    const opened_file reader(path, 1);
    EXPECT_EQ(read_record(reader, 100), whole(data));
}

TEST_F(TmfFrame, LongestRecordIsWholeInTheFileAndInTheBuffer)
{
    const std::string longest = some_data(32761);
    {
        const opened_file writer(path, 0);
        ASSERT_EQ(write_record(writer, "A"), 0);
        ASSERT_EQ(write_record(writer, longest), 0);
        EXPECT_EQ(positions_of(writer), (positions{2, 4352, 37126, 37126}));
        EXPECT_SAME_BYTES(data_area(writer), "\0\7\0\x11"
                                             "A\0\7\x7F\xFF\0\x11"s +
                                                 longest + "\x7F\xFF\xFF\xFF"s);
    }
    const opened_file reader(path, 1);
    EXPECT_EQ(read_record(reader, 1), whole("A"));
    EXPECT_EQ(read_record(reader, 32760, TMF_READ_KEEP), whole(longest.substr(0, 32760)));
    EXPECT_EQ(read_record(reader, 32761), whole(longest));
}

TEST_F(TmfFrame, WritersTakeTurnsAndEachFrameNamesItsWritersSlot)
{
    tmf_handle *h = nullptr;
    other_process other({
        [&] {
            h = open(0);
            return h != nullptr ? h->user_id : -1;
        },
        [&] { return write_record(h, "two"); },
        [&] { return write_record(h, "four"); },
    });
    const opened_file writer(path, 0);
    ASSERT_EQ(other.run(), 1);
    ASSERT_EQ(write_record(writer, "one"), 0);
    ASSERT_EQ(other.run(), 0);
    ASSERT_EQ(write_record(writer, "three"), 0);
    ASSERT_EQ(other.run(), 0);
    EXPECT_EQ(data_area(writer), framed("one", 17) + framed("two", 18) + framed("three", 17) +
                                     framed("four", 18) + "\xFF\xFF");
}

TEST_F(TmfFrame, BufferLengthsAroundARecordsOwnGiveWhatFits)
{
    const std::string data = some_data(100);
    for (const int length : {0, 1, 99, 100, 101, 106, 32761, 65535, 65536, 200000}) {
        make({data, "next"});
        const opened_file reader(path, 1);
        const auto given = static_cast<size_t>(std::min(length, 100));
        EXPECT_EQ(read_record(reader, length), whole(data.substr(0, given)));
        EXPECT_EQ(positions_of(reader).read_offset, 4458);
        EXPECT_EQ(reader->records_read, 1);
        EXPECT_EQ(read_record(reader, 10), whole("next"));
    }
}

// At 0 it would say that none was read yet, and below that nothing.
TEST_F(TmfFrame, NumberOfRecordsReadStaysAtTheLargest)
{
    for (const int mode : {1, 7}) { // taken, and copied
        make({"one", "two", "three"});
        const opened_file reader(path, mode);
        reader->records_read = INT_MAX - 1;
        for (const char *data : {"one", "two", "three"}) {
            EXPECT_EQ(read_record(reader, 10), whole(data));
            EXPECT_EQ(reader->records_read, INT_MAX);
        }
    }
}

// The caller's word for its room is no measure of what is read and allocated.
TEST_F(TmfFrame, RecordBufferGrowsWithSomeRoomToSpareAndNoFurtherThanARecord)
{
    {
        const opened_file writer(path, 0);
        const struct {
            size_t length;
            int buffer;
        } rows[] = {{1, 1024},    {1016, 1024}, {1017, 1153},  {1145, 1153},
                    {1146, 1282}, {5, 1282},    {32761, 32897}};
        for (const auto &row : rows) {
            ASSERT_EQ(write_record(writer, some_data(row.length)), 0);
            EXPECT_EQ(writer->record_buffer_size, row.buffer) << row.length;
        }
    }
    const opened_file reader(path, 1);
    char buf[8];
    EXPECT_EQ(tmf_fread(reader, buf, INT_MAX, TMF_READ_KEEP), 1);
    EXPECT_EQ(reader->record_buffer_size, 65535 + 6 + 128);
}

TEST_F(TmfFrame, RecordThatIsThereIsTakenWithAnyFlagsWithoutWaiting)
{
    for (int flags = 0; flags < 32; flags++) {
        unlink(path.c_str());
        make({"one", "two"});
        const opened_file reader(path, 1);
        EXPECT_EQ(read_record(reader, 9, flags), whole("one")) << flags;
        EXPECT_EQ(positions_of(reader).records, (flags & 1) != 0 ? 2 : 1) << flags;
    }
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
}

TEST_F(TmfFrame, EndOfFileChangesNothingAndIsToldAgain)
{
    make({"one"});
    const opened_file reader(path, 1);
    EXPECT_EQ(read_record(reader, 9), whole("one"));
    const std::string before = bytes_through(reader);
    for (const int flags : {0, 1, 4, 8, 13})
        EXPECT_EQ(read_record(reader, 9, flags), whole(""));
    EXPECT_EQ(tmf_geterrno(reader), 0);
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
    EXPECT_SAME_BYTES(bytes_through(reader), before);
}

// A call that asks for what its handle cannot do looks at nothing else.
TEST_F(TmfFrame, RefusedCallsTouchNeitherLockNorFile)
{
    make({"one"});
    char buf[8];
    {
        const opened_file reader(path, 1);
        forget_calls();
        EXPECT_EQ(tmf_fwrite(reader, nullptr, 0), TMF_EREAD_ACCESS);
        EXPECT_EQ(tmf_fread(reader, buf, INT_MIN, 0), TMF_EBUFFER_SIZE);
        EXPECT_EQ(tmf_freadx(reader, buf, -1, 0, 1), TMF_EBUFFER_SIZE);
        EXPECT_TRUE(calls_made().empty());
    }
    const opened_file writer(path, 0);
    forget_calls();
    EXPECT_EQ(tmf_fread(writer, nullptr, -1, 0), TMF_EWRITE_ACCESS);
    EXPECT_EQ(tmf_freadx(writer, buf, 8, 15, 1), TMF_EWRITE_ACCESS);
    EXPECT_EQ(tmf_fwrite(writer, buf, INT_MIN), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_fwrite(writer, buf, INT_MAX), TMF_ERECORD_SIZE);
    EXPECT_TRUE(calls_made().empty());
}

// Ends short of a whole record, and then at its first byte.
TEST_F(TmfFrame, FileSizeLimitStopsAWriteAndALaterOneGoesOn)
{
    make({"one"});
    tmf_handle *h = nullptr;
    const auto limit = [](rlim_t size) {
        const rlimit wanted = {size, RLIM_INFINITY};
        return setrlimit(RLIMIT_FSIZE, &wanted);
    };
    other_process writer({
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            h = open(0);
            return limit(4370); // the first record ends at 4361
        },
        [&] { return tmf_fwrite(h, "0123456789", 10); },
        [&] { return limit(4361) + tmf_fwrite(h, "0123456789", 10); },
        [&] { return limit(RLIM_INFINITY) + tmf_fwrite(h, "two", 3); },
        [&] { return tmf_fclose(h); },
    });
    ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(writer.run(), TMF_EWRITE_DATA_EOF);
    EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4361, 4361}));
    EXPECT_EQ(writer.run(), TMF_EWRITE_DATA);
    EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4361, 4361}));
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(positions_in(bytes()), (positions{2, 4352, 4370, 4370}));
    EXPECT_EQ(bytes().substr(4352, 20), framed("one") + framed("two") + "\xFF\xFF");
}
