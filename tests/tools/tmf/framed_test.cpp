// tmf read and tmf write with the length in front of each record.
#include "tests/tools/tmf/tmf_fixture.h"

#include <random>

using testing::ElementsAre;

// The stream that the page shows, "one" and "two\n".
static const std::string STREAM("\0\0\0\3one\0\0\0\4two\n", 15);

TEST_F(TmfTool, FramedRecordsAreWrittenAndReadByteForByte)
{
    const run_result result = tmf({"write", "--framed", "-v", path}, STREAM);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "2 records written\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(tmf({"read", "--keep", "--hex", path}).out, "6f6e65\n74776f0a\n");
    EXPECT_EQ(tmf({"read", "--framed", path}).out, STREAM);
    expect_nobody();
}

TEST_F(TmfTool, FramedStreamThatIsCutNamesTheRecordAndWhatIsMissing)
{
    const struct {
        size_t length;
        const char *error; // null: none
        std::vector<std::string> records;
    } table[] = {
        {0, nullptr, {}},
        {1, "record 1 has 1 of 4 bytes of its length", {}},
        {3, "record 1 has 3 of 4 bytes of its length", {}},
        {4, "record 1 has 0 of 3 bytes", {}},
        {6, "record 1 has 2 of 3 bytes", {}},
        {7, nullptr, {"one"}},
        {8, "record 2 has 1 of 4 bytes of its length", {"one"}},
        {14, "record 2 has 3 of 4 bytes", {"one"}},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.length);
        std::filesystem::remove(path);
        const run_result result = tmf({"write", "--framed", path}, STREAM.substr(0, row.length));
        EXPECT_EQ(result.status, row.error == nullptr ? 0 : 1);
        EXPECT_EQ(result.err, row.error == nullptr
                                  ? ""
                                  : "tmf: standard input: " + std::string(row.error) + "\n");
        EXPECT_EQ(records(), row.records);
    }
}

TEST_F(TmfTool, FramedLengthThatNoRecordHasEndsTheWriting)
{
    const struct {
        std::string head;
        const char *error;
    } table[] = {
        {std::string("\0\0\0\0", 4), "record 2 is empty"},
        {std::string("\0\0\x7f\xfa", 4), "record 2 is longer than 32761 bytes"},
        {std::string("\x01\0\0\3", 4), "record 2 is longer than 32761 bytes"},
        {"\xff\xff\xff\xff", "record 2 is longer than 32761 bytes"},
    };
    for (const auto &row : table) {
        std::filesystem::remove(path);
        const run_result result =
            tmf({"write", "--framed", path}, STREAM.substr(0, 7) + row.head + "abc");
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "tmf: standard input: " + std::string(row.error) + "\n");
        EXPECT_THAT(records(), ElementsAre("one"));
    }
}

// Random records of all lengths against the bytes of a stream put together here.
TEST_F(TmfTool, FramedStreamsOfAnyBytesComeBackAsTheyWere)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string stream;
    for (int i = 0; i < 300; i++) {
        const size_t length = i == 0 ? 32761 : 1 + random() % (i % 7 == 0 ? 32761 : 90);
        stream += {'\0', '\0', static_cast<char>(length / 256), static_cast<char>(length % 256)};
        for (size_t j = 0; j < length; j++)
            stream += static_cast<char>(random());
    }
    EXPECT_EQ(tmf({"write", "--framed", path}, stream).status, 0);
    EXPECT_EQ(record_count(), 300);
    EXPECT_SAME_BYTES(tmf({"read", "--framed", "--keep", path}).out, stream);
    EXPECT_SAME_BYTES(tmf({"read", "--framed", path}).out, stream);
}

// Streams that nobody wrote: the records in front of the first bad frame are in the file, all as
// a naive reader cuts them, and the file is sound.
TEST_F(TmfTool, FramedStreamsThatNobodyWrote)
{
    std::mt19937 random(20261122);
    const auto below = [&random](unsigned end) { return static_cast<unsigned>(random() % end); };
    for (int turn = 0; turn < 40; turn++) {
        SCOPED_TRACE(turn);
        std::string stream;
        for (unsigned n = below(6); n > 0; n--) {
            const unsigned length = below(8) == 0 ? below(65536) : below(40);
            stream += {'\0', static_cast<char>(below(5) == 0 ? below(256) : 0),
                       static_cast<char>(length >> 8), static_cast<char>(length)};
            for (unsigned i = length; i > 0; i--)
                stream += static_cast<char>(random());
        }
        stream.resize(stream.size() - (stream.empty() ? 0 : below(3)));
        std::string whole; // as long as frames are
        while (stream.size() - whole.size() >= 4) {
            size_t length = 0;
            for (size_t i = 0; i < 4; i++)
                length = length << 8 | static_cast<unsigned char>(stream[whole.size() + i]);
            if (length < 1 || length > TMF_MAX_DATA || stream.size() - whole.size() < 4 + length)
                break;
            whole += stream.substr(whole.size(), 4 + length);
        }
        std::filesystem::remove(path);
        EXPECT_EQ(tmf({"write", "--framed", path}, stream).status, whole == stream ? 0 : 1);
        EXPECT_EQ(tmf({"verify", path}).status, 0);
        EXPECT_SAME_BYTES(tmf({"read", "--framed", path}).out, whole);
    }
}
