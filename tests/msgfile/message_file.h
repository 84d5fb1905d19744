// A message file in a temporary directory, and verbs for its bytes.
#ifndef TESTS_MSGFILE_MESSAGE_FILE_H
#define TESTS_MSGFILE_MESSAGE_FILE_H

#include "msgfile/tmf.h"
#include "tests/support/tempdir.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

// A number at an offset of a file's bytes, in this host's order.
template <typename T> T number_at(const std::string &bytes, size_t at)
{
    T value = 0;
    if (at + sizeof(T) > bytes.size())
        throw std::out_of_range("no number at " + std::to_string(at));
    memcpy(&value, bytes.data() + at, sizeof(T));
    return value;
}

template <typename T> void put_number(std::string &bytes, size_t at, T value)
{
    if (at + sizeof(T) > bytes.size())
        throw std::out_of_range("no number at " + std::to_string(at));
    memcpy(bytes.data() + at, &value, sizeof(T));
}

class MessageFile : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");

    std::string bytes() const
    {
        return read_file(path);
    }
    template <typename T> T stored(size_t at) const
    {
        return number_at<T>(bytes(), at);
    }
    // Changes a number of the closed file.
    template <typename T> void store(size_t at, T value) const
    {
        std::string changed = bytes();
        put_number(changed, at, value);
        write_file(path, changed);
    }
    tmf_handle *open(int mode) const
    {
        return tmf_fopen(path.c_str(), mode);
    }
    // A file with these records and no user.
    void make(const std::initializer_list<std::string> &records = {}) const
    {
        tmf_handle *writer = open(0);
        ASSERT_NE(writer, nullptr);
        for (const std::string &record : records)
            ASSERT_EQ(tmf_fwrite(writer, record.data(), static_cast<int>(record.size())), 0);
        ASSERT_EQ(tmf_fclose(writer), 0);
    }
    static std::string message_of(tmf_handle *h)
    {
        char text[TMF_ERRMSG_SIZE];
        return tmf_geterrmsg(h, text);
    }
};

#endif
