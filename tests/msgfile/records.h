// Records as a test sees them: their bytes in the file, the header's numbers about
// them, and reads whose buffer is watched.
#ifndef TESTS_MSGFILE_RECORDS_H
#define TESTS_MSGFILE_RECORDS_H

#include "tests/msgfile/message_file.h"

#include <ostream>

// A 16-bit number as records have it, the high byte first.
inline std::string be16(size_t value)
{
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

// A record's bytes; user 17 is the first writer.
inline std::string framed(const std::string &data, size_t user = 17)
{
    const std::string length = be16(data.size() + 6);
    return length + be16(user) + data + length;
}

// n bytes in which each place and each kind differs.
inline std::string some_data(size_t n, unsigned kind = 0)
{
    std::string data(n, '\0');
    for (size_t i = 0; i < n; i++)
        data[i] = static_cast<char>((i * 7 + i / 256 + kind * 31) & 0xFF);
    return data;
}

// The header's numbers that records change.
struct positions {
    int32_t records;
    int32_t read_offset;
    int32_t write_offset;
    int32_t high_water;

    bool operator==(const positions &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const positions &p)
{
    return out << p.records << " records from " << p.read_offset << " to " << p.write_offset
               << ", at most " << p.high_water;
}

inline positions positions_in(const std::string &file)
{
    return {number_at<int32_t>(file, 16), number_at<int32_t>(file, 36),
            number_at<int32_t>(file, 44), number_at<int32_t>(file, 60)};
}

inline void put_positions(std::string &file, const positions &p)
{
    put_number(file, 16, p.records);
    put_number(file, 36, p.read_offset);
    put_number(file, 44, p.write_offset);
    put_number(file, 60, p.high_water);
}

inline positions positions_of(const tmf_handle *h)
{
    std::string area(256, '\0');
    if (pread(h->fd, area.data(), area.size(), 0) != 256)
        throw std::runtime_error("no common area");
    return positions_in(area);
}

// A handle for as long as its block; throws when it cannot be had.
class opened_file {
  public:
    opened_file(const std::string &path, int mode) : h_(tmf_fopen(path.c_str(), mode))
    {
        if (h_ == nullptr)
            throw std::runtime_error("cannot open: " + std::to_string(tmf_geterrno(nullptr)));
    }
    ~opened_file()
    {
        if (h_ != nullptr)
            tmf_fclose(h_);
    }
    opened_file(const opened_file &) = delete;
    opened_file &operator=(const opened_file &) = delete;

    operator tmf_handle *() const
    {
        return h_;
    }
    tmf_handle *operator->() const
    {
        return h_;
    }
    int close()
    {
        const int code = tmf_fclose(h_);
        h_ = nullptr;
        return code;
    }

  private:
    tmf_handle *h_;
};

// What a read gave: its result, and the bytes put into the buffer.
struct record_read {
    int result;
    std::string data;

    bool operator==(const record_read &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const record_read &r)
{
    return out << r.result << " and " << r.data.size() << " bytes " << r.data.substr(0, 40);
}

// Reads by read(buffer, len), and expects that nothing is put behind the bytes
// that it says it gave, nor behind len when it gives a code.
template <typename F> record_read watched_read(int len, F read)
{
    const auto room = static_cast<size_t>(len);
    const std::string canary(64, '\xC5');
    std::string buf(room, '\xC5');
    buf += canary;
    const int result = read(buf.data(), len);
    const size_t given = result > 0 ? static_cast<size_t>(result) : 0;
    EXPECT_LE(given, room);
    const size_t sure = result < 0 ? room : std::min(given, room);
    EXPECT_EQ(buf.find_first_not_of('\xC5', sure), std::string::npos) << "written behind " << sure;
    return {result, buf.substr(0, given)};
}

inline record_read read_record(tmf_handle *h, int len, int flags = 0)
{
    return watched_read(len, [=](void *buf, int n) { return tmf_fread(h, buf, n, flags); });
}

// The result of reading all of a record.
inline record_read whole(const std::string &data)
{
    return {static_cast<int>(data.size()), data};
}

inline int write_record(tmf_handle *h, const std::string &data)
{
    return tmf_fwrite(h, data.data(), static_cast<int>(data.size()));
}

#endif
