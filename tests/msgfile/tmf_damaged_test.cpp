// Damaged files: torn at every length, with each byte changed, with numbers that
// nobody should believe.  Every call gives a code or works; none crashes, hangs
// or writes outside the caller's buffer.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/system_calls.h"

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

class TmfDamaged : public MessageFile {
  protected:
    system_calls_guard guard;
    int opened = 0;
    const std::string good = golden_bytes("message_file_small.hex");

    void SetUp() override
    {
        // No wait takes time, and no datagram leaves for an address in the file.
        answer_call(CALL_POLL, 0, 0, -1);
        answer_call(CALL_SENDTO, 12, 0, -1);
    }
    // Opens, uses and closes the file in each way that there is.
    void use(const std::string &file)
    {
        for (const int mode : {0, 1, 7}) {
            unlink(path.c_str()); // a file cut to nothing is flushed to the disk at its close
            write_file(path, file);
            forget_calls();
            tmf_handle *h = open(mode);
            if (h == nullptr) {
                EXPECT_TRUE(is_code(tmf_geterrno(nullptr))) << tmf_geterrno(nullptr);
                continue;
            }
            opened++;
            use(h, mode);
            EXPECT_TRUE(is_result(tmf_fclose(h), 0));
        }
    }

  private:
    static bool is_code(int result)
    {
        return result >= TMF_ESIGNAL && result <= TMF_EDELETE;
    }
    static bool is_result(int result, int most)
    {
        return is_code(result) || (result >= 0 && result <= most);
    }
    static void use(tmf_handle *h, int mode)
    {
        int facts[5];
        EXPECT_TRUE(is_result(
            tmf_getinfo(h, 1, &facts[0], 2, &facts[1], 3, &facts[2], 4, &facts[3], 5, &facts[4], 0),
            0));
        EXPECT_TRUE(is_result(tmf_fwrite(h, std::string(100, 'w').data(), 100), 0));
        for (const int flags : {TMF_READ_KEEP, 0, 0, 0}) {
            char buf[64];
            memset(buf, 'b', sizeof(buf));
            const int got = tmf_freadx(h, buf, 50, flags, 1);
            EXPECT_TRUE(is_result(got, 50)) << got << " in mode " << mode;
            EXPECT_EQ(std::string(buf + 50, 14), std::string(14, 'b'));
        }
        EXPECT_TRUE(is_result(tmf_getinfo(h, 5, &facts[4], 0), 0));
    }
};

TEST_F(TmfDamaged, FileIsTornAtEachLengthUpToTheLockArea)
{
    for (size_t length = 0; length <= 300; length++) {
        SCOPED_TRACE(length);
        use(good.substr(0, length));
    }
}

TEST_F(TmfDamaged, FileIsTornAtEachLengthOfItsRecords)
{
    for (size_t length = 4340; length <= good.size(); length++) {
        SCOPED_TRACE(length);
        use(good.substr(0, length));
    }
}

TEST_F(TmfDamaged, EachByteOfHeaderAndRecordsHasOtherValues)
{
    for (size_t at = 0; at < good.size(); at++) {
        if (at == 256)
            at = 4352;
        const auto byte = static_cast<unsigned char>(good[at]);
        const std::vector<int> values = {0, 1, 0x7F, 0x80, 0xFE, 0xFF, byte ^ 0x10, byte ^ 0x04};
        for (const int value : values) {
            SCOPED_TRACE(std::to_string(at) + " = " + std::to_string(value));
            std::string file = good;
            file[at] = static_cast<char>(value);
            use(file);
        }
    }
}

// The numbers of the header, their places and widths.
static const struct {
    const char *name;
    size_t at;
    int width;
} numbers[] = {
    {"common_size", 8, 4},
    {"lock_area_size", 12, 4},
    {"record_count", 16, 4},
    {"data_start", 28, 4},
    {"read_offset", 36, 4},
    {"write_offset", 44, 4},
    {"lock_area_offset", 52, 4},
    {"high_water", 60, 4},
    {"max_readers", 64, 2},
    {"max_writers", 66, 2},
    {"num_readers", 68, 2},
    {"num_writers", 70, 2},
    {"flags", 72, 2},
    {"writer_slot_size", 76, 2},
    {"reader_slot_size", 78, 2},
};

static const std::vector<int32_t> hostile_values = {INT_MIN,
                                                    INT_MIN + 1,
                                                    -65536,
                                                    -32768,
                                                    -4352,
                                                    -256,
                                                    -4,
                                                    -1,
                                                    0,
                                                    1,
                                                    2,
                                                    3,
                                                    5,
                                                    15,
                                                    16,
                                                    17,
                                                    254,
                                                    255,
                                                    256,
                                                    320,
                                                    1007,
                                                    1008,
                                                    1009,
                                                    4096,
                                                    4348,
                                                    4351,
                                                    4352,
                                                    4353,
                                                    4367,
                                                    4368,
                                                    4393,
                                                    4394,
                                                    4395,
                                                    16384,
                                                    32767,
                                                    32768,
                                                    65535,
                                                    65536,
                                                    65537,
                                                    70000,
                                                    1 << 30,
                                                    INT_MAX - 4396,
                                                    INT_MAX - 100,
                                                    INT_MAX};

static void put(std::string &file, size_t at, int width, int32_t value)
{
    if (width == 4)
        put_number(file, at, value);
    else
        put_number(file, at, static_cast<int16_t>(value));
}

TEST_F(TmfDamaged, NumbersOfTheHeaderAreNotBelieved)
{
    for (const auto &number : numbers) {
        for (const int32_t value : hostile_values) {
            SCOPED_TRACE(number.name + (" = " + std::to_string(value)));
            std::string file = good;
            put(file, number.at, number.width, value);
            use(file);
        }
    }
    EXPECT_GT(opened, 1000); // most damage is found later
}

TEST_F(TmfDamaged, SeveralNumbersAreWrongAtOnce)
{
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    const auto below = [&](size_t n) {
        return std::uniform_int_distribution<size_t>(0, n - 1)(random);
    };
    for (int round = 0; round < 2000; round++) {
        std::string file = good;
        std::string trace = "seed " + std::to_string(seed);
        for (size_t n = 2 + below(3); n > 0; n--) {
            const auto &number = numbers[below(std::size(numbers))];
            const int32_t value = hostile_values[below(hostile_values.size())];
            put(file, number.at, number.width, value);
            trace += std::string(", ") + number.name + " " + std::to_string(value);
        }
        // Users that are not there.
        for (size_t n = below(4); n > 0; n--)
            file[124 + below(130)] = static_cast<char>(below(256));
        SCOPED_TRACE(trace);
        use(file);
        if (HasFailure())
            break;
    }
}

TEST_F(TmfDamaged, FileOfTheOtherByteOrderMayBeDamagedToo)
{
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    std::string turned = good;
    for (const int at : {0, 2, 64, 66, 68, 70, 72, 74, 76, 78})
        std::reverse(turned.begin() + at, turned.begin() + at + 2);
    for (const int at : {8, 12, 16, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60})
        std::reverse(turned.begin() + at, turned.begin() + at + 4);
    use(turned);
    for (int round = 0; round < 500; round++) {
        std::string file = turned;
        for (int n = 0; n < 4; n++)
            file[8 + random() % 72] = static_cast<char>(random());
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        use(file);
        if (HasFailure())
            break;
    }
}

// A slot that lies in the common area, among the records or nowhere is none.
TEST_F(TmfDamaged, SlotOutsideTheLockAreaHasTheSeeksCode)
{
    const struct {
        const char *name;
        size_t at;
        int width;
        int32_t value;
        int reader;
        int writer;
    } rows[] = {
        {"lock area before the file", 52, 4, INT_MIN, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"readers' slots in the common area", 52, 4, 192, TMF_ESEEK_READER, 0},
        {"lock area at the start", 52, 4, -64, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"lock area among the records", 52, 4, 4352, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"slot that reaches into the records", 52, 4, 4349, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"slot just before the records", 52, 4, 4348, 0, TMF_ESEEK_WRITER},
        {"lock area at the end of numbers", 52, 4, INT_MAX, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"no room for a reader", 78, 2, 0, TMF_ESEEK_READER, 0},
        {"no room for a writer", 76, 2, 0, 0, TMF_ESEEK_WRITER},
        {"less than none", 78, 2, -4, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"slots beyond the records", 78, 2, 32767, 0, TMF_ESEEK_WRITER},
    };
    std::string file = good;
    put_number<int16_t>(file, 70, 0); // nobody to remove
    file[128] = 0;
    for (const auto &row : rows) {
        for (const int mode : {0, 1}) {
            std::string damaged = file;
            put(damaged, row.at, row.width, row.value);
            write_file(path, damaged);
            const int code = mode == 1 ? row.reader : row.writer;
            tmf_handle *h = open(mode);
            EXPECT_EQ(h == nullptr, code != 0) << row.name << mode;
            if (h == nullptr) {
                EXPECT_EQ(tmf_geterrno(nullptr), code) << row.name << mode;
                EXPECT_SAME_BYTES(bytes().substr(256), damaged.substr(256));
            } else {
                EXPECT_EQ(tmf_fclose(h), 0) << row.name << mode;
            }
        }
    }
}

TEST_F(TmfDamaged, DeadUserOutsideTheLockAreaIsNotLookedFor)
{
    const struct {
        const char *name;
        size_t at;
        int width;
        int32_t value;
        int code;
    } rows[] = {
        {"before the file", 52, 4, -4096, TMF_ESEEK_WRITER},
        {"in the common area", 52, 4, 128, TMF_ESEEK_WRITER},
        {"among the records", 52, 4, 4352, TMF_ESEEK_WRITER},
        {"of no size", 76, 2, 0, TMF_ESEEK_WRITER},
    };
    for (const auto &row : rows) {
        std::string damaged = good;
        put(damaged, row.at, row.width, row.value);
        write_file(path, damaged);
        EXPECT_EQ(open(1), nullptr) << row.name;
        EXPECT_EQ(tmf_geterrno(nullptr), row.code) << row.name;
        EXPECT_SAME_BYTES(bytes(), damaged);
        EXPECT_EQ(calls_made(CALL_LOCKF).size(), 2U) << row.name; // none of a slot
        forget_calls();
    }
}

// The area is read again by each call, and may be another one.
TEST_F(TmfDamaged, CloseWritesNoSlotOutsideTheLockArea)
{
    for (const int32_t lock_area : {-64, 64, 4352}) {
        write_file(path, good);
        tmf_handle *h = open(0);
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(pwrite(h->fd, &lock_area, 4, 52), 4);
        const std::string before = bytes_through(h);
        EXPECT_EQ(tmf_fclose(h), 0);
        EXPECT_EQ(bytes().substr(0, 68), before.substr(0, 68));
        EXPECT_SAME_BYTES(bytes().substr(129), before.substr(129));
    }
}

TEST_F(TmfDamaged, CloseUnlocksWhatTheOpenLocked)
{
    for (const int mode : {0, 1}) {
        unlink(path.c_str());
        tmf_handle *h = open(mode);
        ASSERT_NE(h, nullptr);
        const int16_t size = 2;
        ASSERT_EQ(pwrite(h->fd, &size, 2, mode == 1 ? 78 : 76), 2);
        forget_calls();
        EXPECT_EQ(tmf_fclose(h), 0);
        const std::vector<std::string> calls = calls_as_text();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "unlock 4"), 1);
    }
}
