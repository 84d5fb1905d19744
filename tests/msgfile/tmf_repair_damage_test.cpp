// Files damaged in each way that a power cut or a hand leaves them, and cut back to
// what is whole in them.
#include "tests/msgfile/repaired_file.h"

#include <functional>

struct damage {
    const char *name;
    std::function<void(std::string &)> change;
    int found;
    int records;
    long long sound;
    std::function<std::string()> repaired;
};

static void PrintTo(const damage &d, std::ostream *out)
{
    *out << d.name;
}

class TmfRepairDamage : public RepairedFile, public ::testing::WithParamInterface<damage> {
  protected:
    // In the file's own order, whatever it is.
    void expect_repaired(const std::string &damaged, const std::string &mended)
    {
        write_file(path, damaged);
        tmf_check_result result = check();
        EXPECT_EQ(result.found, GetParam().found);
        EXPECT_EQ(result.records, GetParam().records);
        EXPECT_EQ(result.sound, GetParam().sound);
        EXPECT_EQ(result.changed, 0);
        EXPECT_SAME_BYTES(bytes(), damaged);
        EXPECT_FALSE(has_aside());

        result = repair();
        EXPECT_EQ(result.found, GetParam().found);
        EXPECT_EQ(result.changed, 1);
        EXPECT_EQ(result.aside, TMF_ASIDE_MADE);
        EXPECT_SAME_BYTES(bytes(), mended);
        EXPECT_SAME_BYTES(read_file(aside), damaged);
        EXPECT_FALSE(std::filesystem::exists(aside + ".part"));

        unlink(aside.c_str());
        result = repair();
        EXPECT_EQ(result.found, 0);
        EXPECT_EQ(result.changed, 0);
        EXPECT_SAME_BYTES(bytes(), mended);
        EXPECT_FALSE(has_aside());
    }
};

TEST_P(TmfRepairDamage, IsFoundAndMendedAndTheFileKeptAside)
{
    std::string damaged = golden_file;
    GetParam().change(damaged);
    expect_repaired(damaged, GetParam().repaired());
}

TEST_P(TmfRepairDamage, IsMendedInTheOtherByteOrder)
{
    std::string damaged = golden_file;
    GetParam().change(damaged);
    if ((GetParam().found & TMF_FOUND_ZEROS) != 0)
        return; // zeros have no byte order
    expect_repaired(turned_around(damaged), turned_around(GetParam().repaired()));
}

static std::string golden_again()
{
    return golden_file;
}

// clang-format off
static const damage damages[] = {
    {"LastLengthTorn", [](std::string &f) { f[4393] = 0; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"FirstLengthZeros", [](std::string &f) { f[4369] = 0; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"LengthOfNoData", [](std::string &f) { f[4369] = 6; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"LengthBeyondTheEnd", [](std::string &f) { f[4368] = 0x10; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"WriterThatIsNone", [](std::string &f) { f[4371] = 0; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"WriterBeyondTheLast", [](std::string &f) { f[4370] = 4; f[4371] = 1; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"FirstRecordTorn", [](std::string &f) { f[4353] = 15; },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 0, 4352, with_no_record},
    {"AllRecordsZeros", [](std::string &f) { f.replace(4352, 44, 44, '\0'); },
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 0, 4352, with_no_record},
    {"CutInsideARecord", [](std::string &f) { f.resize(4393); },
     TMF_FOUND_CUT | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"CutBetweenRecords", [](std::string &f) { f.resize(4368); },
     TMF_FOUND_CUT | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"CutBeforeTheRecords", [](std::string &f) { f.resize(4352); },
     TMF_FOUND_CUT | TMF_FOUND_COUNT, 0, 4352, with_no_record},
    {"EndAheadOfTheRecords", [](std::string &f) { f[44] = 0x40; f.append(64, '\0'); }, // 4416
     TMF_FOUND_FRAME, 2, 4394, golden_again},
    {"EndAheadOfTheFile", [](std::string &f) { f[46] = 1; }, // 69930
     TMF_FOUND_CUT, 2, 4394, golden_again},
    {"EndInsideARecord", [](std::string &f) { f[44] = 0x20; }, // 4384
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 1, 4368, with_first_record},
    {"EndBeforeTheData", [](std::string &f) { f[44] = f[45] = 0; },
     TMF_FOUND_PLACE, 2, 4394, golden_again},
    {"EndNegative", [](std::string &f) { f.replace(44, 4, 4, '\xFF'); },
     TMF_FOUND_PLACE, 2, 4394, golden_again},
    {"OldestBeforeTheData", [](std::string &f) { f[37] = 0; },
     TMF_FOUND_PLACE, 2, 4394, golden_again},
    {"OldestBehindTheEnd", [](std::string &f) { f[37] = 0x12; },
     TMF_FOUND_PLACE, 2, 4394, golden_again},
    {"OldestNegative", [](std::string &f) { f[39] = '\x80'; },
     TMF_FOUND_PLACE, 2, 4394, golden_again},
    {"OldestInsideARecord", [](std::string &f) { f[36] = 8; }, // 4360
     TMF_FOUND_FRAME | TMF_FOUND_COUNT, 0, 4360, with_no_record},
    {"CountTooHigh", [](std::string &f) { f[16] = 3; }, TMF_FOUND_COUNT, 2, 4394, golden_again},
    {"CountTooLow", [](std::string &f) { f[16] = 0; }, TMF_FOUND_COUNT, 2, 4394, golden_again},
    {"CountNegative", [](std::string &f) { f[19] = '\x80'; },
     TMF_FOUND_COUNT, 2, 4394, golden_again},
    {"ReadersTooMany", [](std::string &f) { f[68] = 1; }, TMF_FOUND_USERS, 2, 4394, golden_again},
    {"WritersTooFew", [](std::string &f) { f[70] = 0; }, TMF_FOUND_USERS, 2, 4394, golden_again},
    {"BeginningZeros", [](std::string &f) { f.replace(0, 4352, 4352, '\0'); },
     TMF_FOUND_ZEROS, 0, 0, [] { return std::string(); }},
    {"AllZeros", [](std::string &f) { f.assign(5000, '\0'); },
     TMF_FOUND_ZEROS, 0, 0, [] { return std::string(); }},
    {"OneZero", [](std::string &f) { f.assign(1, '\0'); },
     TMF_FOUND_ZEROS, 0, 0, [] { return std::string(); }},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Each, TmfRepairDamage, ::testing::ValuesIn(damages),
                         [](const auto &d) { return std::string(d.param.name); });

class TmfRepairHole : public RepairedFile {};

// A record whose middle never came to the disk has good lengths on both sides.
TEST_F(TmfRepairHole, HoleInsideARecordEndsTheFileBeforeIt)
{
    const std::string first = some_data(100);
    make({first, some_data(20000), some_data(50)});
    punch(8192, 4096);
    const std::string damaged = bytes();
    EXPECT_EQ(check().found, TMF_FOUND_HOLE | TMF_FOUND_COUNT);
    const tmf_check_result result = repair();
    EXPECT_EQ(result.records, 1);
    EXPECT_EQ(result.counted, 3);
    EXPECT_EQ(result.sound, 4458);
    EXPECT_EQ(result.end, 4458 + 20006 + 56);
    EXPECT_EQ(positions_in(bytes()), (positions{1, 4352, 4458, 4458}));
    EXPECT_EQ(bytes().size(), 4460U);
    EXPECT_EQ(records_read(), std::vector{first});
    EXPECT_SAME_BYTES(read_file(aside), damaged);
}

// The caller says that these bytes are what was written.
TEST_F(TmfRepairHole, HoleBeforeTheEndToKeepIsZerosThatSomebodyWrote)
{
    make({some_data(100), std::string(20000, '\0'), some_data(50)});
    punch(8192, 4096);
    const std::string whole_file = bytes();
    const tmf_check_result result = repair(4458 + 20006 + 56);
    EXPECT_EQ(result.found, 0);
    EXPECT_EQ(result.changed, 0);
    EXPECT_SAME_BYTES(bytes(), whole_file);
    EXPECT_EQ(repair(4458 + 20006).records, 2);
    EXPECT_EQ(records_read().size(), 2U);
}
