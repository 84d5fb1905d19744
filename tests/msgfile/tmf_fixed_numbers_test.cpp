// The numbers that every message file has alike, each with wrong values: the check finds
// them, the repair puts them right and nothing else, and users go on with every record.
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/repaired_file.h"

struct fixed_number {
    const char *name;
    size_t at;
    std::string right; // its bytes in the golden file, by hand
    std::vector<std::string> wrong;
};

static void PrintTo(const fixed_number &number, std::ostream *out)
{
    *out << number.name;
}

template <size_t N> static std::string bytes_of(const char (&literal)[N])
{
    return {literal, N - 1};
}

// Less by one, more by one, none, the least and the greatest, minus one, the bytes turned
// around, and what the number could be of another one's.
// clang-format off
static const std::vector<fixed_number> fixed_numbers = {
    {"common_size", 8, bytes_of("\x00\x01\x00\x00"),
     {bytes_of("\xFF\x00\x00\x00"), bytes_of("\x01\x01\x00\x00"), bytes_of("\x00\x00\x00\x00"),
      bytes_of("\x00\x00\x00\x80"), bytes_of("\xFF\xFF\xFF\x7F"), bytes_of("\xFF\xFF\xFF\xFF"),
      bytes_of("\x00\x00\x01\x00"), bytes_of("\x00\x11\x00\x00")}},
    {"lock_area_size", 12, bytes_of("\x00\x10\x00\x00"),
     {bytes_of("\xFF\x0F\x00\x00"), bytes_of("\x01\x10\x00\x00"), bytes_of("\x00\x00\x00\x00"),
      bytes_of("\x00\x00\x00\x80"), bytes_of("\xFF\xFF\xFF\x7F"), bytes_of("\xFF\xFF\xFF\xFF"),
      bytes_of("\x00\x00\x10\x00"), bytes_of("\x00\x11\x00\x00")}},
    {"data_start", 28, bytes_of("\x00\x11\x00\x00"),
     {bytes_of("\xFF\x10\x00\x00"), bytes_of("\x01\x11\x00\x00"), bytes_of("\x00\x00\x00\x00"),
      bytes_of("\x00\x00\x00\x80"), bytes_of("\xFF\xFF\xFF\x7F"), bytes_of("\xFF\xFF\xFF\xFF"),
      bytes_of("\x00\x00\x11\x00"), bytes_of("\x00\x01\x00\x00"), bytes_of("\x00\x20\x00\x00"),
      bytes_of("\x10\x11\x00\x00"), bytes_of("\x2A\x11\x00\x00")}},
    {"lock_area_offset", 52, bytes_of("\x00\x01\x00\x00"),
     {bytes_of("\xFF\x00\x00\x00"), bytes_of("\x01\x01\x00\x00"), bytes_of("\x00\x00\x00\x00"),
      bytes_of("\x00\x00\x00\x80"), bytes_of("\xFF\xFF\xFF\x7F"), bytes_of("\xFF\xFF\xFF\xFF"),
      bytes_of("\x00\x00\x01\x00"), bytes_of("\x00\x11\x00\x00"), bytes_of("\x00\x02\x00\x00")}},
    {"max_readers", 64, bytes_of("\x10\x00"),
     {bytes_of("\x0F\x00"), bytes_of("\x11\x00"), bytes_of("\x00\x00"), bytes_of("\x00\x80"),
      bytes_of("\xFF\x7F"), bytes_of("\xFF\xFF"), bytes_of("\x00\x10"), bytes_of("\xF0\x03")}},
    {"max_writers", 66, bytes_of("\xF0\x03"),
     {bytes_of("\xEF\x03"), bytes_of("\xF1\x03"), bytes_of("\x00\x00"), bytes_of("\x00\x80"),
      bytes_of("\xFF\x7F"), bytes_of("\xFF\xFF"), bytes_of("\x03\xF0"), bytes_of("\x10\x00")}},
    {"writer_slot_size", 76, bytes_of("\x04\x00"),
     {bytes_of("\x03\x00"), bytes_of("\x05\x00"), bytes_of("\x00\x00"), bytes_of("\x00\x80"),
      bytes_of("\xFF\x7F"), bytes_of("\xFF\xFF"), bytes_of("\x00\x04")}},
    {"reader_slot_size", 78, bytes_of("\x04\x00"),
     {bytes_of("\x03\x00"), bytes_of("\x05\x00"), bytes_of("\x00\x00"), bytes_of("\x00\x80"),
      bytes_of("\xFF\x7F"), bytes_of("\xFF\xFF"), bytes_of("\x00\x04"), bytes_of("\x01\x00")}},
};
// clang-format on

class TmfFixedNumbers : public RepairedFile {
  protected:
    static std::string with(std::string file, size_t at, const std::string &value)
    {
        return file.replace(at, value.size(), value);
    }
    void expect_mended(const std::string &damaged, const std::string &mended)
    {
        unlink(aside.c_str());
        write_file(path, damaged);
        tmf_check_result result = check();
        EXPECT_EQ(result.found, TMF_FOUND_FIXED);
        EXPECT_EQ(result.records, 2);
        EXPECT_EQ(result.counted, 2);
        EXPECT_EQ(result.readers, 0);
        EXPECT_EQ(result.writers, 1);
        EXPECT_EQ(result.first, 4352);
        EXPECT_EQ(result.end, 4394);
        EXPECT_EQ(result.sound, 4394);
        EXPECT_EQ(result.changed, 0);
        EXPECT_SAME_BYTES(bytes(), damaged);
        EXPECT_FALSE(has_aside());

        result = repair();
        EXPECT_EQ(result.found, TMF_FOUND_FIXED);
        EXPECT_EQ(result.changed, 1);
        EXPECT_EQ(result.aside, TMF_ASIDE_MADE);
        EXPECT_SAME_BYTES(bytes(), mended);
        EXPECT_SAME_BYTES(read_file(aside), damaged);
        EXPECT_EQ(check().found, 0);
    }
    void expect_users_go_on()
    {
        {
            opened_file writer(path, 0);
            EXPECT_EQ(write_record(writer, "the third"), 0);
        }
        opened_file reader(path, TMF_MODE_READ);
        for (const char *record : {"first data", "the second of twenty", "the third"})
            EXPECT_EQ(read_record(reader, 100), whole(record));
        EXPECT_EQ(read_record(reader, 100), whole(""));
    }
};

class TmfFixedNumber : public TmfFixedNumbers,
                       public ::testing::WithParamInterface<fixed_number> {};

TEST_P(TmfFixedNumber, IsFoundAndPutRightAndUsersGoOnWithEveryRecord)
{
    const fixed_number &number = GetParam();
    ASSERT_EQ(golden_file.substr(number.at, number.right.size()), number.right);
    for (const std::string &wrong : number.wrong) {
        SCOPED_TRACE(testing::PrintToString(wrong));
        ASSERT_EQ(wrong.size(), number.right.size());
        ASSERT_NE(wrong, number.right);
        const std::string damaged = with(golden_file, number.at, wrong);
        expect_mended(damaged, golden_file);
        expect_users_go_on();
        expect_mended(turned_around(damaged), turned_around(golden_file));
        expect_users_go_on();
    }
}

INSTANTIATE_TEST_SUITE_P(Each, TmfFixedNumber, ::testing::ValuesIn(fixed_numbers),
                         [](const auto &number) { return std::string(number.param.name); });

TEST_F(TmfFixedNumbers, AllOfThemAndADamagedRecordBehindThem)
{
    std::string damaged = golden_file;
    for (const fixed_number &number : fixed_numbers)
        damaged.replace(number.at, number.wrong[2].size(), number.wrong[2]);
    damaged[4393] = 0; // the second record's last length
    write_file(path, damaged);
    const tmf_check_result result = repair();
    EXPECT_EQ(result.found, TMF_FOUND_FIXED | TMF_FOUND_FRAME | TMF_FOUND_COUNT);
    EXPECT_EQ(result.records, 1);
    EXPECT_EQ(result.writers, 1);
    EXPECT_SAME_BYTES(bytes(), with_first_record());
    EXPECT_SAME_BYTES(read_file(aside), damaged);
}

// A reader has emptied the file while its data area began elsewhere.
TEST_F(TmfFixedNumbers, EmptiedFileBeginsWhereEveryOneDoes)
{
    std::string emptied = with(golden_file, 28, bytes_of("\x08\x11\x00\x00"));
    put_positions(emptied, {0, 4360, 4360, 4394});
    write_file(path, emptied);
    EXPECT_EQ(repair().found, TMF_FOUND_FIXED);
    EXPECT_SAME_BYTES(bytes(), with_no_record());
    opened_file writer(path, 0);
    EXPECT_EQ(write_record(writer, "x"), 0);
    EXPECT_EQ(positions_of(writer), (positions{1, 4352, 4359, 4359}));
}

// Users that have had the file open since before the damage keep their slots.
TEST_F(TmfFixedNumbers, UsersFromBeforeGoOn)
{
    for (const fixed_number &number : fixed_numbers) {
        SCOPED_TRACE(number.name);
        unlink(path.c_str());
        make({"first", "second"});
        tmf_handle *h = nullptr;
        other_process user({[&] {
                                h = open(0);
                                return h == nullptr ? tmf_geterrno(nullptr) : 0;
                            },
                            [&] { return write_record(h, "third"); },
                            [&] { return tmf_fclose(h); }});
        ASSERT_EQ(user.run(), 0);
        const std::string before = bytes();
        write_file(path, with(before, number.at, number.wrong[2]));
        EXPECT_EQ(repair().found, TMF_FOUND_FIXED);
        EXPECT_SAME_BYTES(bytes().substr(0, 60), before.substr(0, 60));
        EXPECT_SAME_BYTES(bytes().substr(64), before.substr(64));
        opened_file reader(path, TMF_MODE_READ);
        EXPECT_EQ(reader->common->num_writers, 1) << "its slot is held";
        EXPECT_EQ(read_record(reader, 10), whole("first"));
        EXPECT_EQ(user.run(), 0);
        EXPECT_EQ(read_record(reader, 10), whole("second"));
        EXPECT_EQ(read_record(reader, 10), whole("third"));
        EXPECT_EQ(user.run(), 0);
        EXPECT_EQ(reader.close(), 0);
        expect_nobody();
        unlink(aside.c_str());
    }
}

// The version tells how long a frame is: a file of another one is nobody's to mend.
TEST_F(TmfFixedNumbers, AnotherVersionIsLeftAsItIs)
{
    for (const char version : {'\0', '\1', '\3', '\11'}) {
        std::string damaged = golden_file;
        damaged[74] = version;
        damaged[8] = 9;
        for (const std::string &file : {damaged, turned_around(damaged)}) {
            write_file(path, file);
            tmf_check_result result;
            EXPECT_EQ(tmf_check(path.c_str(), &result), TMF_EFORMAT);
            EXPECT_EQ(tmf_repair(path.c_str(), 0, aside.c_str(), &result), TMF_EFORMAT);
            EXPECT_SAME_BYTES(bytes(), file);
            EXPECT_FALSE(has_aside());
        }
    }
}
