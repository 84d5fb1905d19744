// A forward log of numbered records: its writer, and a checker that goes by the
// documented format and uses nothing of the code under test.
#ifndef TESTS_POWERCUT_NUMBERED_LOG_H
#define TESTS_POWERCUT_NUMBERED_LOG_H

#include "fwutil/fwu_writer.h"

#include <cstdint>
#include <string>
#include <vector>

constexpr size_t LOG_TEXT_SIZE = 200; // of each record

// Null when the log cannot be written on.
fwu_writer *open_numbered_log(const std::string &config_file);

// Appends one transaction of n records behind number last; its source position is the
// last record's number.
bool append_numbered(fwu_writer *writer, uint32_t last, uint32_t n);

// The numbers of all records of a log directory.  Throws when a byte of it is not what
// the format says, or a record is not whole.
std::vector<uint32_t> numbers_in_log(const std::string &directory);

#endif
