// The message-file format: constants and one struct, checked by the compiler
// against the offsets of the tables.  All of a file's bytes are described here
// and nowhere else in the code.
//
//   offset  size  region
//        0   256  common area: counters, positions, registrations (tmf_common)
//      256  4096  lock area: one 4-byte slot per possible reader and writer
//     4352     -  data area: records back to back, each in a frame of 6 bytes
//
// The common area.  "host" is the byte order of the machine that last wrote the
// area, told by byte_order_mark; bytes from 80 on have no byte order.
//
//   at   type     field             new file  meaning
//    0   u16 host byte_order_mark     0xFEFF  reads as 0xFFFE in the other byte order
//    2   u16 host reserved_0               0  preserved
//    4   c[4]     magic               "TM01"
//    8   i32 host common_size            256  size of the common area
//   12   i32 host lock_area_size        4096  size of the lock area
//   16   i32 host record_count             0  records in the file
//   20   u32      reserved_1               0  preserved; never converted
//   24   u32 host reserved_2               0  preserved
//   28   i32 host data_start            4352  offset of the data area
//   32   u32 host reserved_3               0  preserved
//   36   i32 host read_offset           4352  offset of the oldest record
//   40   u32 host reserved_4               0  preserved
//   44   i32 host write_offset          4352  offset behind the newest record
//   48   u32 host reserved_5               0  preserved
//   52   i32 host lock_area_offset       256  offset of the lock area
//   56   u32 host reserved_6               0  preserved
//   60   i32 host high_water               0  greatest write_offset so far
//   64   i16 host max_readers             16  reader slots
//   66   i16 host max_writers           1008  writer slots
//   68   i16 host num_readers              0  readers registered
//   70   i16 host num_writers              0  writers registered
//   72   u16 host flags                    0  TMF_FLAG_ bits
//   74   i16 host format_version           2  of the record frame
//   76   i16 host writer_slot_size         4  bytes of a writer's slot
//   78   i16 host reader_slot_size         4  bytes of a reader's slot
//   80   u8[4]    signal_addr      127.0.0.1  where wake-up datagrams go
//   84   c[8]     file_stamp               0  hex digits, set by the first user
//   92   u8[2]    signal_ports[16]         0  big-endian; 0: the slot's default port
//  124   u8[2]    wait_list                0  bit i: reader slot i waits
//  126   u8[2]    reader_map               0  bit i: reader slot i is taken
//  128   u8[126]  writer_map               0  bit j: writer slot j is taken
//  254   u8[2]    reserved_7               0  preserved
//
// A slot of the lock area holds its owner's process id (i32, host order, never
// converted), or 0; the owner keeps the slot's bytes locked.  Reader slot i is
// slot i, writer slot j is slot max_readers + j.
//
// A record of n data bytes is L = n + 6 bytes in the file:
//
//   at     type    content
//   0      u16 be  L
//   2      u16 be  user number of the writer: its slot + 1 + max_readers
//   4      u8[n]   the data
//   4 + n  u16 be  L again
//
// The two bytes FF FF follow the newest record; the next one overwrites them.
//
// The wake-up datagram is 12 bytes:
//
//   at  type  content
//   0   c     'm'
//   1   c     'W' a record was written, 'C' a writer closed the file
//   2   u8    0
//   3   u8    8, the length of the stamp
//   4   c[8]  file_stamp
#ifndef MSGFILE_TMF_LAYOUT_H
#define MSGFILE_TMF_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr uint16_t TMF_BYTE_ORDER_MARK = 0xFEFF;
constexpr uint16_t TMF_BYTE_ORDER_OTHER = 0xFFFE;
constexpr char TMF_MAGIC[4] = {'T', 'M', '0', '1'};
constexpr int32_t TMF_COMMON_SIZE = 256;
constexpr int32_t TMF_LOCK_AREA_OFFSET = TMF_COMMON_SIZE;
constexpr int32_t TMF_LOCK_AREA_SIZE = 4096;
constexpr int32_t TMF_DATA_START = TMF_LOCK_AREA_OFFSET + TMF_LOCK_AREA_SIZE;
constexpr int16_t TMF_MAX_READERS = 16;
constexpr int16_t TMF_MAX_WRITERS = 1008;
constexpr int16_t TMF_SLOT_SIZE = 4;
static_assert(TMF_SLOT_SIZE == sizeof(int32_t)); // a process id
constexpr int16_t TMF_FORMAT_VERSION = 2;
constexpr size_t TMF_STAMP_SIZE = 8;
constexpr unsigned char TMF_SIGNAL_ADDR[4] = {127, 0, 0, 1};

// An emptied file longer than this is cut down to it.
constexpr int32_t TMF_EMPTY_SIZE_LIMIT = 65536;

// Bits of flags.
constexpr uint16_t TMF_FLAG_DIRTY = 1;            // in memory: differs from the file
constexpr uint16_t TMF_FLAG_READER_EXCLUSIVE = 2; // a reader holds the file exclusively
constexpr uint16_t TMF_FLAG_WRITER_EXCLUSIVE = 4; // a writer holds the file exclusively

struct tmf_common {
    uint16_t byte_order_mark;
    uint16_t reserved_0;
    char magic[4];
    int32_t common_size;
    int32_t lock_area_size;
    int32_t record_count;
    uint32_t reserved_1;
    uint32_t reserved_2;
    int32_t data_start;
    uint32_t reserved_3;
    int32_t read_offset;
    uint32_t reserved_4;
    int32_t write_offset;
    uint32_t reserved_5;
    int32_t lock_area_offset;
    uint32_t reserved_6;
    int32_t high_water;
    int16_t max_readers;
    int16_t max_writers;
    int16_t num_readers;
    int16_t num_writers;
    uint16_t flags;
    int16_t format_version;
    int16_t writer_slot_size;
    int16_t reader_slot_size;
    unsigned char signal_addr[4];
    char file_stamp[TMF_STAMP_SIZE];
    unsigned char signal_ports[TMF_MAX_READERS][2];
    unsigned char wait_list[2];
    unsigned char reader_map[2];
    unsigned char writer_map[126];
    unsigned char reserved_7[2];
};

#define TMF_AT(field, at, width) \
    static_assert(offsetof(tmf_common, field) == (at) && sizeof(tmf_common::field) == (width))
TMF_AT(byte_order_mark, 0, 2);
TMF_AT(reserved_0, 2, 2);
TMF_AT(magic, 4, 4);
TMF_AT(common_size, 8, 4);
TMF_AT(lock_area_size, 12, 4);
TMF_AT(record_count, 16, 4);
TMF_AT(reserved_1, 20, 4);
TMF_AT(reserved_2, 24, 4);
TMF_AT(data_start, 28, 4);
TMF_AT(reserved_3, 32, 4);
TMF_AT(read_offset, 36, 4);
TMF_AT(reserved_4, 40, 4);
TMF_AT(write_offset, 44, 4);
TMF_AT(reserved_5, 48, 4);
TMF_AT(lock_area_offset, 52, 4);
TMF_AT(reserved_6, 56, 4);
TMF_AT(high_water, 60, 4);
TMF_AT(max_readers, 64, 2);
TMF_AT(max_writers, 66, 2);
TMF_AT(num_readers, 68, 2);
TMF_AT(num_writers, 70, 2);
TMF_AT(flags, 72, 2);
TMF_AT(format_version, 74, 2);
TMF_AT(writer_slot_size, 76, 2);
TMF_AT(reader_slot_size, 78, 2);
TMF_AT(signal_addr, 80, 4);
TMF_AT(file_stamp, 84, 8);
TMF_AT(signal_ports, 92, 32);
TMF_AT(wait_list, 124, 2);
TMF_AT(reader_map, 126, 2);
TMF_AT(writer_map, 128, 126);
TMF_AT(reserved_7, 254, 2);
#undef TMF_AT
static_assert(sizeof(tmf_common) == TMF_COMMON_SIZE && std::is_trivially_copyable_v<tmf_common>);
static_assert(sizeof(tmf_common::reader_map) * 8 == TMF_MAX_READERS);
static_assert(sizeof(tmf_common::wait_list) * 8 == TMF_MAX_READERS);
static_assert(sizeof(tmf_common::writer_map) * 8 == TMF_MAX_WRITERS);
static_assert((TMF_MAX_READERS + TMF_MAX_WRITERS) * TMF_SLOT_SIZE == TMF_LOCK_AREA_SIZE);

// The words that are reversed when an area changes its byte order, in file
// order.  Kept: the word at 20 (reserved_1) is not among them.
struct tmf_word {
    uint16_t at;
    uint16_t width;
};
constexpr tmf_word TMF_HOST_WORDS[] = {{0, 2},  {2, 2},  {8, 4},  {12, 4}, {16, 4}, {24, 4},
                                       {28, 4}, {32, 4}, {36, 4}, {40, 4}, {44, 4}, {48, 4},
                                       {52, 4}, {56, 4}, {60, 4}, {64, 2}, {66, 2}, {68, 2},
                                       {70, 2}, {72, 2}, {74, 2}, {76, 2}, {78, 2}};

// All words from the beginning to signal_addr but the magic and reserved_1.
constexpr bool tmf_host_words_are_whole()
{
    int at = 0;
    for (const tmf_word &word : TMF_HOST_WORDS) {
        if (at == 4)
            at += 4; // magic
        if (at == 20)
            at += 4; // reserved_1
        if (word.at != at)
            return false;
        at += word.width;
    }
    return at == offsetof(tmf_common, signal_addr);
}
static_assert(tmf_host_words_are_whole());

// The numbers that every message file has alike, in file order.
struct tmf_fixed_number {
    const char *name;
    uint16_t at;
    int32_t value;
    int32_t tmf_common::*wide;   // null for one of 16 bits
    int16_t tmf_common::*narrow; // null for one of 32 bits

    constexpr int32_t in(const tmf_common &common) const
    {
        return wide != nullptr ? common.*wide : common.*narrow;
    }
    constexpr void put_right(tmf_common &common) const
    {
        if (wide != nullptr)
            common.*wide = value;
        else
            common.*narrow = static_cast<int16_t>(value);
    }
};
#define TMF_FIXED_32(field, value)                                              \
    {                                                                           \
#field, offsetof(tmf_common, field), value, &tmf_common::field, nullptr \
    }
#define TMF_FIXED_16(field, value)                                              \
    {                                                                           \
#field, offsetof(tmf_common, field), value, nullptr, &tmf_common::field \
    }
constexpr tmf_fixed_number TMF_FIXED_NUMBERS[] = {
    TMF_FIXED_32(common_size, TMF_COMMON_SIZE),
    TMF_FIXED_32(lock_area_size, TMF_LOCK_AREA_SIZE),
    TMF_FIXED_32(data_start, TMF_DATA_START),
    TMF_FIXED_32(lock_area_offset, TMF_LOCK_AREA_OFFSET),
    TMF_FIXED_16(max_readers, TMF_MAX_READERS),
    TMF_FIXED_16(max_writers, TMF_MAX_WRITERS),
    TMF_FIXED_16(format_version, TMF_FORMAT_VERSION),
    TMF_FIXED_16(writer_slot_size, TMF_SLOT_SIZE),
    TMF_FIXED_16(reader_slot_size, TMF_SLOT_SIZE),
};
#undef TMF_FIXED_32
#undef TMF_FIXED_16

// The record frame.
constexpr int32_t TMF_FRAME_LENGTH_AT = 0;
constexpr int32_t TMF_FRAME_USER_AT = 2;
constexpr int32_t TMF_FRAME_DATA_AT = 4; // data behind length and user number
constexpr int32_t TMF_FRAME_TRAILER_SIZE = 2;
constexpr int32_t TMF_FRAME_SIZE = 6;    // what a record costs beside its data
constexpr int32_t TMF_OVERHEAD_UNIT = 3; // of a record's cost, times the format version
constexpr int32_t TMF_END_MARK_SIZE = 2; // behind the newest record
constexpr uint16_t TMF_END_MARK = 0xFFFF;
constexpr int32_t TMF_MAX_FRAME = 32767;  // longest record, frame included
constexpr int32_t TMF_MAX_LENGTH = 65535; // greatest length that a frame can state
static_assert(TMF_FRAME_SIZE == TMF_OVERHEAD_UNIT * TMF_FORMAT_VERSION);
static_assert(TMF_FRAME_SIZE == TMF_FRAME_DATA_AT + TMF_FRAME_TRAILER_SIZE);

// The wake-up datagram.
constexpr unsigned char TMF_SIGNAL_FIRST = 'm';
constexpr size_t TMF_SIGNAL_KIND_AT = 1;
constexpr size_t TMF_SIGNAL_ZERO_AT = 2;
constexpr size_t TMF_SIGNAL_LENGTH_AT = 3;
constexpr size_t TMF_SIGNAL_STAMP_AT = 4;
constexpr size_t TMF_SIGNAL_SIZE = TMF_SIGNAL_STAMP_AT + TMF_STAMP_SIZE;
static_assert(TMF_SIGNAL_SIZE == 12);
constexpr char TMF_SIGNAL_WRITE = 'W';
constexpr char TMF_SIGNAL_CLOSE = 'C';

// Default wake-up ports: TMF_PORT_BASE + reader slot; others stay in the range
// of the mask.
constexpr uint16_t TMF_PORT_BASE = 0xD000;
constexpr uint16_t TMF_PORT_MASK = 0x07FF;

#endif
