// The file's bytes: new files, a small file with every field named, files of the
// other byte order, foreign files.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_open.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/system_calls.h"

#include <fcntl.h>

class TmfLayout : public MessageFile {
  protected:
    system_calls_guard guard;

    // The byte order mark in this host's order.
    uint16_t mark() const
    {
        return stored<uint16_t>(0);
    }
    // Opens the file and expects the code, and the file as it was.
    void refuses(const std::string &file, int code) const
    {
        for (const int mode : {0, 1, 7}) {
            unlink(path.c_str());
            write_file(path, file);
            EXPECT_EQ(open(mode), nullptr) << mode;
            EXPECT_EQ(tmf_geterrno(nullptr), code) << mode;
            EXPECT_SAME_BYTES(bytes(), file);
        }
    }
};

// Numbers are appended in the byte order that a file is to have.
struct byte_string {
    std::string bytes;
    bool big_endian;

    void add(unsigned value, int width)
    {
        for (int i = 0; i < width; i++) {
            const int shift = 8 * (big_endian ? width - 1 - i : i);
            bytes += static_cast<char>(value >> shift & 0xFF);
        }
    }
    void add_words(std::initializer_list<unsigned> words, int width)
    {
        for (const unsigned word : words)
            add(word, width);
    }
};

static bool host_is_big_endian()
{
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
}

// What differs between the common areas of these tests.
struct area {
    unsigned record_count = 0;
    unsigned reserved_1 = 0; // as the bytes 20 to 23 read big-endian
    unsigned end = 4352;
    unsigned high_water = 0;
    unsigned flags = 0;
    unsigned version = 2;
    std::string stamp = std::string(8, '\0');
    unsigned reserved_0 = 0;
    unsigned reserved[5] = {}; // words 2 to 6
    unsigned reserved_7 = 0;   // as reserved_1
};

// An area in which every word that may hold anything holds something.
static area filled_area()
{
    area a;
    a.reserved_0 = 0x1112;
    a.reserved_1 = 0x21222324;
    for (unsigned i = 0; i < 5; i++)
        a.reserved[i] = 0x31323334 + i * 0x01010101;
    a.reserved_7 = 0x6162;
    return a;
}

static std::string area_bytes(const area &a, bool big_endian)
{
    byte_string out{"", big_endian};
    out.add(0xFEFF, 2);
    out.add(a.reserved_0, 2);
    out.bytes += "TM01";
    out.add_words({256, 4096, a.record_count}, 4);
    byte_string kept{"", true};
    kept.add(a.reserved_1, 4);
    out.bytes += kept.bytes;
    out.add_words({a.reserved[0], 4352, a.reserved[1], 4352, a.reserved[2], a.end, a.reserved[3],
                   256, a.reserved[4], a.high_water},
                  4);
    out.add_words({16, 1008, 0, 0, a.flags, a.version, 4, 4}, 2);
    out.bytes += std::string("\x7f\0\0\1", 4) + a.stamp;
    out.bytes += std::string(32 + 2 + 2 + 126, '\0'); // ports, waiting readers, users
    byte_string last{"", true};
    last.add(a.reserved_7, 2);
    return out.bytes + last.bytes;
}

// Two records of 4 bytes written by user 20.
static const std::string two_records = std::string("\0\x0a\0\x14"
                                                   "cafe\0\x0a"
                                                   "\0\x0a\0\x14"
                                                   "beef\0\x0a\xff\xff",
                                                   22);

TEST_F(TmfLayout, EmptyFileBecomesCommonAreaAndZeroLockArea)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
    tmf_handle *h = tmf_new(fd, path.c_str(), 0);
    ASSERT_EQ(tmf_ensure_common(h), 0);
    EXPECT_EQ(tmf_release_common(h), 0);
    tmf_free_mf(h);

    const std::string file = bytes();
    EXPECT_EQ(file.size(), 4352U);
    EXPECT_SAME_BYTES(file, area_bytes({}, host_is_big_endian()) + std::string(4096, '\0'));
}

TEST_F(TmfLayout, NewFileOfAWriterThatClosedDiffersInStampAndFlags)
{
    answer_call(CALL_TIME, 1700000000); // 0x6553f100
    make();
    area expected;
    expected.stamp = "6553f100";
    expected.flags = 1;
    EXPECT_SAME_BYTES(bytes(),
                      area_bytes(expected, host_is_big_endian()) + std::string(4096, '\0'));
}

TEST_F(TmfLayout, RecordsOf10And20BytesMakeTheSmallFile)
{
    answer_call(CALL_TIME, 1700000000);
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(tmf_fwrite(writer, "first data", 10), 0);
    EXPECT_EQ(tmf_fwrite(writer, "the second of twenty", 20), 0);
    std::string file = bytes_through(writer);
    EXPECT_EQ(number_at<int32_t>(file, 320), getpid());
    put_number<int32_t>(file, 320, 4711);
    EXPECT_SAME_BYTES(file, golden_bytes("message_file_small.hex"));
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfLayout, TheSmallFileIsReadAndItsDeadWriterRemoved)
{
    write_file(path, golden_bytes("message_file_small.hex"));
    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);
    char buf[64];
    ASSERT_EQ(tmf_fread(reader, buf, sizeof(buf), 0), 10);
    EXPECT_EQ(std::string(buf, 10), "first data");
    ASSERT_EQ(tmf_fread(reader, buf, sizeof(buf), 0), 20);
    EXPECT_EQ(std::string(buf, 20), "the second of twenty");
    const std::string file = bytes_through(reader);
    EXPECT_EQ(number_at<int16_t>(file, 70), 0);
    EXPECT_EQ(file[128], 0);
    EXPECT_EQ(number_at<int32_t>(file, 320), 0);
    EXPECT_EQ(tmf_fclose(reader), 0);
}

TEST_F(TmfLayout, ReservedWordsOfThisHostsFileAreKept)
{
    area expected = filled_area();
    expected.stamp = "6553f100";
    expected.flags = 1;
    write_file(path, area_bytes(expected, host_is_big_endian()) + std::string(4096, '\0'));
    answer_call(CALL_TIME, 1700000000);
    make();
    EXPECT_SAME_BYTES(bytes(),
                      area_bytes(expected, host_is_big_endian()) + std::string(4096, '\0'));
}

TEST_F(TmfLayout, FileOfTheOtherByteOrderIsConvertedByTheFirstUser)
{
    area was = filled_area();
    was.record_count = 2;
    was.end = 4372;
    was.high_water = 4372;
    was.stamp = "5f5e1000";
    std::string locks(4096, '\0');
    // A process id that no bit of the maps names: left as it is.
    locks.replace(4 * (16 + 9), 4, "\x01\x02\x03\x04");
    write_file(path, area_bytes(was, !host_is_big_endian()) + locks + two_records);
    EXPECT_EQ(mark(), 0xFFFE);

    answer_call(CALL_TIME, 1700000000);
    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);
    std::string file = bytes_through(reader);
    was.stamp = "6553f100";
    was.flags = 1;
    std::string converted = area_bytes(was, host_is_big_endian());
    put_number<int16_t>(converted, 68, 1); // the reader itself
    converted[126] = 1;
    put_number<int32_t>(locks, 0, getpid());
    EXPECT_SAME_BYTES(file, converted + locks + two_records);

    char buf[16];
    ASSERT_EQ(tmf_fread(reader, buf, sizeof(buf), 0), 4);
    EXPECT_EQ(std::string(buf, 4), "cafe");
    ASSERT_EQ(tmf_fread(reader, buf, sizeof(buf), 0), 4);
    EXPECT_EQ(std::string(buf, 4), "beef");
    EXPECT_EQ(tmf_fclose(reader), 0);
    EXPECT_EQ(mark(), 0xFEFF);
}

// The skipped version test is meant: any number passes, and what the first user
// writes back is this host's order with the number kept.
TEST_F(TmfLayout, FileOfTheOtherByteOrderMayHaveAnyVersion)
{
    for (const unsigned version : {0U, 1U, 2U, 3U, 0x7FFFU, 0x8000U, 0xFFFFU}) {
        area was;
        was.version = version;
        write_file(path, area_bytes(was, !host_is_big_endian()) + std::string(4096, '\0'));
        tmf_handle *writer = open(0);
        ASSERT_NE(writer, nullptr) << version;
        EXPECT_EQ(tmf_fclose(writer), 0) << version;
        EXPECT_EQ(stored<uint16_t>(74), version);
        EXPECT_EQ(mark(), 0xFEFF) << version;
    }
}

TEST_F(TmfLayout, ConvertedFileOfAnotherVersionIsRefusedFromThenOn)
{
    area was;
    was.version = 3;
    write_file(path, area_bytes(was, !host_is_big_endian()) + std::string(4096, '\0'));
    make();
    refuses(bytes(), TMF_EFORMAT);
}

TEST_F(TmfLayout, OtherVersionsInThisByteOrderAreRefused)
{
    for (const unsigned version : {0U, 1U, 3U, 0x0200U, 0x8002U, 0xFFFFU}) {
        SCOPED_TRACE(version);
        area was;
        was.version = version;
        refuses(area_bytes(was, host_is_big_endian()) + std::string(4096, '\0'), TMF_EFORMAT);
    }
}

TEST_F(TmfLayout, UnknownByteOrderMarkIsRefusedThoughTheMagicIsRight)
{
    for (const unsigned unknown : {0x1234U, 0x0000U, 0xFFFFU, 0xFEFEU, 0xFFFDU}) {
        SCOPED_TRACE(unknown);
        std::string file = golden_bytes("message_file_small.hex");
        put_number(file, 0, static_cast<uint16_t>(unknown));
        put_number<int16_t>(file, 74, 3); // the mark is looked at first
        refuses(file, TMF_EINCOMPATIBLE);
    }
}

TEST_F(TmfLayout, FileWithoutTheMagicIsRefused)
{
    const std::string good = golden_bytes("message_file_small.hex");
    for (size_t at = 4; at < 8; at++) {
        SCOPED_TRACE(at);
        std::string file = good;
        file[at] = static_cast<char>(file[at] ^ 0x20);
        file[0] = 0x34; // the magic is looked at first
        refuses(file, TMF_ENOTMSG);
    }
    refuses("a text file\n", TMF_ENOTMSG);
    refuses(std::string(8192, '\0'), TMF_ENOTMSG);
}

// Less than the common area: what is there decides.
TEST_F(TmfLayout, ShortFileIsJudgedByItsMagicMarkAndVersion)
{
    const std::string good = golden_bytes("message_file_small.hex");
    refuses(good.substr(0, 1), TMF_ENOTMSG);
    refuses(good.substr(0, 7), TMF_ENOTMSG);
    refuses(good.substr(0, 8), TMF_EFORMAT);
    refuses(good.substr(0, 75).replace(74, 1, 1, '\3'), TMF_EFORMAT);

    write_file(path, good.substr(0, 80)); // up to the slot sizes
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    tmf_fclose(writer);
}
