// Hosts of both byte orders using one file in turns: each finds the header in
// the other's order and converts it when it opens the file.
#include "tests/msgpeer/pair_test.h"

// Bytes 0 to 83 with three records of 10 bytes (16 with their framing, so that
// they end at 4400, 1130 in hexadecimal) and one writer; every reserved field
// has a value of its own.
struct header_part {
    const char *big;
    const char *little;
};
static const header_part header[] = {
    {"feff", "fffe"},         // byte_order_mark
    {"0a0b", "0b0a"},         // reserved_0
    {"544d3031", "544d3031"}, // magic "TM01"
    {"00000100", "00010000"}, // common_size 256
    {"00001000", "00100000"}, // lock_area_size 4096
    {"00000003", "03000000"}, // record_count
    {"01020304", "01020304"}, // reserved_1: stays as it is
    {"11121314", "14131211"}, // reserved_2
    {"00001100", "00110000"}, // data_start 4352
    {"21222324", "24232221"}, // reserved_3
    {"00001100", "00110000"}, // read_offset
    {"31323334", "34333231"}, // reserved_4
    {"00001130", "30110000"}, // write_offset
    {"41424344", "44434241"}, // reserved_5
    {"00000100", "00010000"}, // lock_area_offset 256
    {"51525354", "54535251"}, // reserved_6
    {"00001130", "30110000"}, // high_water
    {"0010", "1000"},         // max_readers
    {"03f0", "f003"},         // max_writers 1008
    {"0000", "0000"},         // num_readers
    {"0001", "0100"},         // num_writers
    {"0001", "0100"},         // flags: written back as changed
    {"0002", "0200"},         // format_version
    {"0004", "0400"},         // writer_slot_size
    {"0004", "0400"},         // reader_slot_size
    {"7f000001", "7f000001"}, // signal_addr
};

// The same in hexadecimal; without users and with reserved fields of zero as a
// new file has them when it is closed.
static std::string header_hex(bool big_endian, bool closed)
{
    std::string hex;
    for (const header_part &part : header)
        hex += big_endian ? part.big : part.little;
    if (closed) {
        for (const size_t at : {20U, 24U, 32U, 40U, 48U, 56U})
            hex.replace(2 * at, 8, "00000000");
        hex.replace(4, 4, "0000");
        hex.replace(2 * AT_NUM_WRITERS, 4, "0000");
    }
    return hex;
}

static void put_hex(std::string &file, size_t at, const std::string &hex)
{
    for (size_t i = 0; i < hex.size() / 2; i++)
        file[at + i] = static_cast<char>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
}

using ByteOrderTest = PairTest; // a and b of different byte orders

TEST_P(ByteOrderTest, AFileOfTheOtherByteOrderIsConvertedAndUsed)
{
    const bool big = is_big_endian(GetParam().a);
    const std::string f = path("f");
    participant maker(GetParam().a);
    ASSERT_EQ(maker.run("open w " + f + " 0"), 0);
    ASSERT_EQ(maker.run("write w A 1 3 10"), 3);
    ASSERT_EQ(maker.run("close w"), 0);
    std::string file = read_file(f);
    EXPECT_EQ(hex_of(file.substr(0, AT_STAMP)), header_hex(big, true));

    // Values in the reserved fields, a pid in a slot that nobody has taken, a port.
    put_hex(file, 0, header_hex(big, false));
    put_hex(file, AT_NUM_WRITERS, "0000");
    put_hex(file, AT_WRITER_SLOTS + 40, "01020304");
    put_hex(file, AT_SIGNAL_PORTS, "cf08");
    put_hex(file, 254, "6162");
    write_file(f, file);

    participant user(GetParam().b);
    ASSERT_EQ(user.run("open w " + f + " 0"), 0);
    const std::string converted = read_file(f);
    EXPECT_EQ(hex_of(converted.substr(0, AT_STAMP)), header_hex(!big, false));
    EXPECT_EQ(host32_at(converted, AT_WRITER_SLOTS), user.pid());
    EXPECT_EQ(hex_of(converted.substr(AT_WRITER_SLOTS + 40, 4)), "01020304");
    EXPECT_EQ(hex_of(converted.substr(AT_SIGNAL_PORTS, 36)), "cf08" + std::string(68, '0'));
    EXPECT_EQ(hex_of(converted.substr(AT_WRITER_MAP, 4)), "01000000");
    EXPECT_EQ(hex_of(converted.substr(254, 2)), "6162");
    EXPECT_EQ(converted.substr(AT_DATA), file.substr(AT_DATA));

    participant reader(GetParam().b);
    ASSERT_EQ(user.run("write w B 4 1 300"), 1);
    ASSERT_EQ(user.run("close w"), 0);
    ASSERT_EQ(reader.run("open r " + f + " 1"), 0);
    ASSERT_EQ(reader.run("read r 0"), 4);
    EXPECT_EQ(reader.records(), (std::vector<std::string>{hex_of(record_data("A", 1, 10)),
                                                          hex_of(record_data("A", 2, 10)),
                                                          hex_of(record_data("A", 3, 10)),
                                                          hex_of(record_data("B", 4, 300))}));
    EXPECT_EQ(hex_of(read_file(f).substr(AT_RESERVED_1, 4)), "01020304");
}

TEST_P(ByteOrderTest, BothUseAFileInTurns)
{
    const std::string f = path("f");
    participant a(GetParam().a);
    participant b(GetParam().b);
    int written = 0;
    int read = 0;
    for (int turn = 0; turn < 4; turn++) {
        const bool is_a = turn % 2 == 0;
        participant &user = is_a ? a : b;
        ASSERT_EQ(user.run("open w " + f + " 0"), 0);
        ASSERT_EQ(user.run("write w A " + std::to_string(written) + " 3 10,5000,200"), 3);
        written += 3;
        ASSERT_EQ(user.run("close w"), 0);
        ASSERT_EQ(user.run("open r " + f + " 1"), 0);
        const int count = turn == 3 ? written - read : 2;
        ASSERT_EQ(user.run("read r " + std::to_string(count)), count);
        for (const std::string &record : user.records()) {
            const size_t sizes[] = {10, 5000, 200};
            EXPECT_EQ(record, hex_of(record_data("A", read, sizes[read % 3])));
            read++;
        }
        ASSERT_EQ(user.run("close r"), 0);
        const std::string file = read_file(f);
        const bool big = is_big_endian(is_a ? GetParam().a : GetParam().b);
        EXPECT_EQ(hex_of(file.substr(AT_MARK, 2)), big ? "feff" : "fffe");
        EXPECT_EQ(host32_at(file, AT_RECORD_COUNT), written - read);
    }
    EXPECT_EQ(disagreements(f), "");
    EXPECT_EQ(host32_at(read_file(f), AT_WRITE_OFFSET), 4352);
}

INSTANTIATE_TEST_SUITE_P(
    Orders, ByteOrderTest,
    testing::Values(pair_of{"PythonBigThenLibrary", peer::python_big, peer::library},
                    pair_of{"S390xThenLibrary", peer::s390x, peer::library},
                    pair_of{"S390xThenLibrary32", peer::s390x, peer::library32},
                    pair_of{"S390xThenPython", peer::s390x, peer::python},
                    pair_of{"LibraryThenS390x", peer::library, peer::s390x},
                    pair_of{"LibraryThenPythonBig", peer::library, peer::python_big}),
    pair_name);
