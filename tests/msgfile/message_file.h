// A message file in a temporary directory, and verbs for its bytes.
#ifndef TESTS_MSGFILE_MESSAGE_FILE_H
#define TESTS_MSGFILE_MESSAGE_FILE_H

#include "msgfile/tmf.h"
#include "msgfile/tmf_handle.h"
#include "tests/support/golden.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

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

// Descriptors that the process has open.
inline size_t open_descriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        n++;
    return n;
}

// Offset of the first difference, or of the end of the shorter one; npos for none.
inline size_t first_difference(const std::string &a, const std::string &b)
{
    const size_t common = std::min(a.size(), b.size());
    for (size_t at = 0; at < common; at++)
        if (a[at] != b[at])
            return at;
    return a.size() == b.size() ? std::string::npos : common;
}

#define EXPECT_SAME_BYTES(actual, expected)                                      \
    EXPECT_EQ(first_difference(actual, expected), std::string::npos)             \
        << "bytes differ at this offset; lengths " << (actual).size() << " and " \
        << (expected).size()

class MessageFile : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");

    // Not while a handle is open in this process: closing a second descriptor of
    // the file drops its locks.
    std::string bytes() const
    {
        return read_file(path);
    }
    template <typename T> T stored(size_t at) const
    {
        return number_at<T>(bytes(), at);
    }
    // The bytes as a handle's own descriptor sees them, which keeps its locks.
    static std::string bytes_through(const tmf_handle *h)
    {
        struct stat info;
        if (fstat(h->fd, &info) != 0)
            throw std::runtime_error("no file behind the handle");
        std::string all(static_cast<size_t>(info.st_size), '\0');
        if (pread(h->fd, all.data(), all.size(), 0) != info.st_size)
            throw std::runtime_error("cannot read the file");
        return all;
    }
    // Changes a number of the closed file.
    template <typename T> void store(size_t at, T value) const
    {
        std::string changed = bytes();
        put_number(changed, at, value);
        write_file(path, changed);
    }
    // The process id in a slot.
    int32_t slot(int number) const
    {
        return stored<int32_t>(256 + 4 * static_cast<size_t>(number));
    }
    // Expects no user in the file.
    void expect_nobody() const
    {
        const std::string file = bytes();
        EXPECT_EQ(number_at<int16_t>(file, 68), 0);
        EXPECT_EQ(number_at<int16_t>(file, 70), 0);
        EXPECT_EQ(number_at<uint16_t>(file, 72) & 6, 0);
        EXPECT_EQ(file.substr(124, 4096 + 256 - 124), std::string(4096 + 256 - 124, '\0'));
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
