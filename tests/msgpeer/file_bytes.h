// The bytes of message files as tests make them and look at them, in both byte
// orders; and UDP ports that belong to one test.
#ifndef TESTS_MSGPEER_FILE_BYTES_H
#define TESTS_MSGPEER_FILE_BYTES_H

#include <cstdint>
#include <string>
#include <sys/types.h>

// Offsets in the file.
constexpr size_t AT_MARK = 0;
constexpr size_t AT_RECORD_COUNT = 16;
constexpr size_t AT_RESERVED_1 = 20;
constexpr size_t AT_READ_OFFSET = 36;
constexpr size_t AT_WRITE_OFFSET = 44;
constexpr size_t AT_HIGH_WATER = 60;
constexpr size_t AT_NUM_READERS = 68;
constexpr size_t AT_NUM_WRITERS = 70;
constexpr size_t AT_SIGNAL_ADDR = 80;
constexpr size_t AT_STAMP = 84;
constexpr size_t AT_SIGNAL_PORTS = 92;
constexpr size_t AT_WAIT_LIST = 124;
constexpr size_t AT_READER_MAP = 126;
constexpr size_t AT_WRITER_MAP = 128;
constexpr size_t AT_READER_SLOTS = 256;
constexpr size_t AT_WRITER_SLOTS = 320;
constexpr size_t AT_DATA = 4352;

// A message file without records and users, as a host of either order makes it;
// reader slot i waits on port first_port + i.
std::string new_message_file(bool big_endian, int first_port);

uint16_t be16_at(const std::string &file, size_t at);
// Host integers, in the order that the file's mark tells.
int host16_at(const std::string &file, size_t at);
int host32_at(const std::string &file, size_t at);

bool is_waiting(const std::string &file, int reader_slot);
// Whether a process listens on a UDP port; looks and does not touch it.
bool is_bound(int port);

// The first of 16 ports in a row that are free and outside the ranges from which
// the system and the library take theirs.
int own_ports();

#endif
