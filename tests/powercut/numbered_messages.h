// The records of a message file by the documented format, with nothing of the code
// under test.
#ifndef TESTS_POWERCUT_NUMBERED_MESSAGES_H
#define TESTS_POWERCUT_NUMBERED_MESSAGES_H

#include "tests/support/tempdir.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

// Adds the records of a file.  Throws where the bytes are not what the format says, behind
// those before.
inline void add_messages(std::vector<std::string> &records, const std::string &path)
{
    const std::string file = read_file(path);
    if (file.empty())
        return;
    const auto number = [&](size_t at, size_t width) {
        if (at + width > file.size())
            throw std::runtime_error("cut off at " + std::to_string(at));
        uint32_t value = 0;
        memcpy(&value, file.data() + at, width);
        return value;
    };
    const auto length_at = [&](size_t at) { return (number(at, 1) << 8) + number(at + 1, 1); };
    if (file.compare(4, 4, "TM01") != 0)
        throw std::runtime_error("no message file");
    const size_t before = records.size();
    size_t at = number(36, 4);
    for (const size_t end = number(44, 4); at < end;) {
        const size_t length = length_at(at);
        if (length < 7 || at + length > end || length_at(at + length - 2) != length)
            throw std::runtime_error("no record at " + std::to_string(at));
        records.push_back(file.substr(at + 4, length - 6));
        at += length;
    }
    if (records.size() - before != number(16, 4))
        throw std::runtime_error("wrong count of records");
}

#endif
