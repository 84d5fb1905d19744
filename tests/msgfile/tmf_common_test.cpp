// The common area in memory: first contents, checks, byte order, dirty flag,
// stamp, slot offsets, wake-up ports, the wait list.
#include "msgfile/tmf_common.h"

#include "msgfile/tmf.h"
#include "tests/msgfile/system_calls.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

static tmf_common new_area()
{
    tmf_common common;
    tmfc_init_tmc(&common);
    return common;
}

static std::string bytes_of(const tmf_common &common)
{
    return {reinterpret_cast<const char *>(&common), sizeof(common)};
}

static tmf_common area_of(const std::string &bytes)
{
    tmf_common common;
    memcpy(&common, bytes.data(), sizeof(common));
    return common;
}

// Bytes 0, 1, 2, ... 255.
static std::string counting_bytes()
{
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes += static_cast<char>(i);
    return bytes;
}

TEST(TmfCommon, NewAreaHoldsTheFormatsNumbersAndZeros)
{
    tmf_common common;
    memset(&common, 0x55, sizeof(common));
    tmfc_init_tmc(&common);
    EXPECT_EQ(common.byte_order_mark, 0xFEFF);
    EXPECT_EQ(std::string(common.magic, 4), "TM01");
    EXPECT_EQ(common.common_size, 256);
    EXPECT_EQ(common.lock_area_size, 4096);
    EXPECT_EQ(common.data_start, 4352);
    EXPECT_EQ(common.lock_area_offset, 256);
    EXPECT_EQ(common.max_readers, 16);
    EXPECT_EQ(common.max_writers, 1008);
    EXPECT_EQ(common.format_version, 2);
    EXPECT_EQ(common.writer_slot_size, 4);
    EXPECT_EQ(common.reader_slot_size, 4);
    EXPECT_EQ(memcmp(common.signal_addr, "\x7f\0\0\1", 4), 0);

    common.byte_order_mark = 0;
    memset(common.magic, 0, 4);
    common.common_size = common.lock_area_size = common.data_start = common.lock_area_offset = 0;
    common.max_readers = common.max_writers = common.format_version = 0;
    common.writer_slot_size = common.reader_slot_size = 0;
    memset(common.signal_addr, 0, 4);
    EXPECT_EQ(bytes_of(common), std::string(256, '\0'));
}

TEST(TmfCommon, AreaIsCheckedForMagicThenOrderThenVersion)
{
    const struct {
        const char *name;
        char magic_0;
        uint16_t mark;
        int16_t version;
        int code;
    } rows[] = {
        {"as written here", 'T', 0xFEFF, 2, 0},
        {"version 3", 'T', 0xFEFF, 3, TMF_EFORMAT},
        {"version 0", 'T', 0xFEFF, 0, TMF_EFORMAT},
        {"unknown mark", 'T', 0x1234, 2, TMF_EINCOMPATIBLE},
        {"unknown mark and version", 'T', 0x1234, 3, TMF_EINCOMPATIBLE},
        {"no magic", 't', 0xFEFF, 2, TMF_ENOTMSG},
        {"nothing right", 't', 0x1234, 3, TMF_ENOTMSG},
        {"other order without magic", 't', 0xFFFE, 2, TMF_ENOTMSG},
    };
    for (const auto &row : rows) {
        tmf_common common = new_area();
        common.magic[0] = row.magic_0;
        common.byte_order_mark = row.mark;
        common.format_version = row.version;
        const std::string before = bytes_of(common);
        EXPECT_EQ(tmfc_check(&common), row.code) << row.name;
        EXPECT_EQ(bytes_of(common), before) << row.name;
    }
}

TEST(TmfCommon, AreaOfTheOtherOrderIsTurnedAndMarkedWhateverItsVersion)
{
    for (const int version : {2, 3, -1}) {
        tmf_common common = new_area();
        common.format_version = static_cast<int16_t>(version);
        const std::string here = bytes_of(common);
        tmfc_reverse_common_byte_order(&common);
        tmfc_set_dirty(&common, 0);
        common.flags = 0;
        EXPECT_EQ(common.byte_order_mark, 0xFFFE);
        EXPECT_EQ(tmfc_check(&common), 0) << version;
        EXPECT_TRUE(tmfc_is_dirty(&common));
        tmfc_set_dirty(&common, 0);
        EXPECT_EQ(bytes_of(common), here);
    }
}

TEST(TmfCommon, ReversalTurnsTheHostWordsAndLeavesOneAndTheByteFields)
{
    const struct {
        size_t at;
        size_t width;
    } turned[] = {{0, 2},  {2, 2},  {8, 4},  {12, 4}, {16, 4}, {24, 4}, {28, 4}, {32, 4},
                  {36, 4}, {40, 4}, {44, 4}, {48, 4}, {52, 4}, {56, 4}, {60, 4}, {64, 2},
                  {66, 2}, {68, 2}, {70, 2}, {72, 2}, {74, 2}, {76, 2}, {78, 2}};
    std::string expected = counting_bytes();
    for (const auto &word : turned)
        for (size_t i = 0; i < word.width; i++)
            expected[word.at + i] = static_cast<char>(word.at + word.width - 1 - i);

    tmf_common common = area_of(counting_bytes());
    tmfc_reverse_common_byte_order(&common);
    tmf_common dirty = area_of(expected);
    dirty.flags = static_cast<uint16_t>(dirty.flags | 1);
    EXPECT_EQ(bytes_of(common), bytes_of(dirty));
    EXPECT_EQ(bytes_of(common).substr(20, 4), "\x14\x15\x16\x17");
    EXPECT_EQ(bytes_of(common).substr(80), counting_bytes().substr(80));
}

TEST(TmfCommon, RecheckWantsMagicAndThisHostsOrder)
{
    tmf_common common = new_area();
    EXPECT_EQ(tmfc_recheck(&common), 0);
    common.byte_order_mark = 0xFFFE;
    EXPECT_EQ(tmfc_recheck(&common), TMF_EINCOMPATIBLE);
    common.magic[3] = '2';
    EXPECT_EQ(tmfc_recheck(&common), TMF_ENOTMSG);
}

TEST(TmfCommon, DirtyIsBit0OfTheFlags)
{
    tmf_common common = new_area();
    common.flags = 6;
    EXPECT_FALSE(tmfc_is_dirty(&common));
    tmfc_set_dirty(&common, 4);
    EXPECT_EQ(common.flags, 7);
    EXPECT_TRUE(tmfc_is_dirty(&common));
    tmfc_set_dirty(&common, 1);
    EXPECT_EQ(common.flags, 7);
    tmfc_set_dirty(&common, 0);
    EXPECT_EQ(common.flags, 6);
}

TEST(TmfCommon, StampIsTheTimeInEightHexDigits)
{
    const struct {
        int64_t time;
        const char *stamp;
    } rows[] = {
        {0, "00000000"},          {1, "00000001"},           {1700000000, "6553f100"},
        {0xABCDEF01, "abcdef01"}, {0x123456789, "12345678"}, // the first eight
    };
    for (const auto &row : rows) {
        const system_calls_guard guard;
        answer_call(CALL_TIME, row.time);
        tmf_common common = new_area();
        tmf_common expected = common;
        tmfc_first_user_setup(&common);
        memcpy(expected.file_stamp, row.stamp, 8);
        expected.flags = 1;
        EXPECT_EQ(bytes_of(common), bytes_of(expected)) << row.stamp;
    }
}

TEST(TmfCommon, SlotsFollowEachOtherReadersFirst)
{
    const tmf_common common = new_area();
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 0, true), 256);
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 15, true), 316);
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 0, false), 320);
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 1007, false), 4348);
}

TEST(TmfCommon, WriterSlotIsFoundByTheReaderSlotSize)
{
    tmf_common common = new_area();
    common.reader_slot_size = 8;
    common.writer_slot_size = 2;
    common.lock_area_offset = 1000;
    common.max_readers = 3;
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 5, true), 1040);
    EXPECT_EQ(tmfc_calc_user_lock_offset(&common, 5, false), 1064);
}

TEST(TmfCommon, NoMoreSlotsThanTheMapsHaveBits)
{
    const struct {
        int16_t stored;
        int readers;
        int writers;
    } rows[] = {{-32768, 0, 0}, {-1, 0, 0},       {0, 0, 0},        {7, 7, 7},
                {16, 16, 16},   {1008, 16, 1008}, {1009, 16, 1008}, {32767, 16, 1008}};
    for (const auto &row : rows) {
        tmf_common common = new_area();
        common.max_readers = common.max_writers = row.stored;
        EXPECT_EQ(tmfc_reader_slots(&common), row.readers) << row.stored;
        EXPECT_EQ(tmfc_writer_slots(&common), row.writers) << row.stored;
    }
}

TEST(TmfCommon, SlotWithoutAStoredPortHasItsDefault)
{
    tmf_common common = new_area();
    EXPECT_EQ(tmc_get_signal_port(&common, 0), 53248);
    EXPECT_EQ(tmc_get_signal_port(&common, 3), 53251);
    EXPECT_EQ(tmc_get_signal_port(&common, 15), 53263);
    EXPECT_EQ(tmc_get_signal_port(&common, TMF_EMAXREADERS),
              53248 + TMF_EMAXREADERS); // an open that failed
    EXPECT_EQ(tmc_get_signal_port(&common, 16), 53264);
}

TEST(TmfCommon, PortIsStoredBigEndianAndDirtyIsLeftToTheCaller)
{
    tmf_common common = new_area();
    tmc_set_signal_port(&common, 3, 53267); // 0xd013
    std::string expected = bytes_of(new_area());
    expected.replace(92 + 6, 2, "\xd0\x13");
    EXPECT_EQ(bytes_of(common), expected);
    EXPECT_EQ(tmc_get_signal_port(&common, 3), 53267);
    EXPECT_EQ(tmc_get_signal_port(&common, 4), 53252);
}

TEST(TmfCommon, NextPortIs16FurtherWithinTheRange)
{
    tmf_common common = new_area();
    EXPECT_EQ(tmc_new_signal_port(&common, 53248), 53264);
    EXPECT_EQ(tmc_new_signal_port(&common, 55290), 53258);
    EXPECT_EQ(tmc_new_signal_port(&common, 55295), 53263);
    EXPECT_EQ(tmc_new_signal_port(&common, 1), 53265);
    common.max_readers = 5;
    EXPECT_EQ(tmc_new_signal_port(&common, 53248), 53253);
}

TEST(TmfCommonWaitList, EntryIsStoredWhenItIsNewOrHasAnotherPort)
{
    tmf_common common = {};
    tmc_add_waitlist(&common, 9, 0xD009);
    EXPECT_EQ(common.wait_list[1], 0x02);
    EXPECT_EQ(common.signal_ports[9][0], 0xD0);
    EXPECT_EQ(common.signal_ports[9][1], 0x09);
    EXPECT_TRUE(tmfc_is_dirty(&common));
    tmfc_set_dirty(&common, 0);
    tmc_add_waitlist(&common, 9, 0xD009);
    EXPECT_FALSE(tmfc_is_dirty(&common)) << "it stands there already";
    tmc_add_waitlist(&common, 9, 0xD019);
    EXPECT_TRUE(tmfc_is_dirty(&common));
    EXPECT_EQ(common.signal_ports[9][1], 0x19);
    tmfc_set_dirty(&common, 0);
    tmc_remove_waitlist(&common, 9);
    EXPECT_EQ(common.wait_list[1], 0);
    EXPECT_TRUE(tmfc_is_dirty(&common));
}

TEST(TmfCommonWaitList, ReasonToWaitIsNoRecordAndAWriterOrTheFlag)
{
    const struct {
        int32_t records;
        int16_t writers;
        int flags;
        bool wait;
    } rows[] = {
        {0, 0, 0, false}, {0, 0, 1, false},  {0, 0, 12, false}, {0, 0, 2, true},  {0, 1, 0, true},
        {1, 1, 2, false}, {-1, 1, 2, false}, {0, -1, 0, false}, {0, 3, 15, true},
    };
    for (const auto &row : rows) {
        tmf_common common = {};
        common.record_count = row.records;
        common.num_writers = row.writers;
        EXPECT_EQ(tmfc_need_to_wait(&common, row.flags), row.wait)
            << row.records << " " << row.writers << " " << row.flags;
    }
}
