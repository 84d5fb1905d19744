// A small file that tests damage and repair, what it is when it is cut back, and verbs
// for checking and repairing it.
#ifndef TESTS_MSGFILE_REPAIRED_FILE_H
#define TESTS_MSGFILE_REPAIRED_FILE_H

#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <fcntl.h>
#include <linux/falloc.h>

// Two records, of 16 and 26 bytes, in 4352 to 4394; writer slot 0 is process 4711's.
inline const std::string golden_file = golden_bytes("message_file_small.hex");

// The golden file cut back to its first record, by hand: 1 record (at 16), the end at
// 4368 = 0x1110 (44), which is the greatest one, too (60), and the mark there.
inline std::string with_first_record()
{
    std::string file = golden_file.substr(0, 4368) + "\xFF\xFF";
    file[16] = 1;
    file[44] = file[60] = 0x10;
    file[45] = file[61] = 0x11;
    return file;
}

// And to none: 0 records, the end at 4352 = 0x1100.
inline std::string with_no_record()
{
    std::string file = golden_file.substr(0, 4352) + "\xFF\xFF";
    file[16] = 0;
    file[44] = file[60] = 0x00;
    file[45] = file[61] = 0x11;
    return file;
}

// Reverses all numbers of the common area that have the byte order of a host.
inline std::string turned_around(std::string file)
{
    for (const long at : {8, 12, 16, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60})
        std::reverse(file.begin() + at, file.begin() + at + 4);
    for (const long at : {0, 2, 64, 66, 68, 70, 72, 74, 76, 78})
        std::reverse(file.begin() + at, file.begin() + at + 2);
    return file;
}

class RepairedFile : public MessageFile {
  protected:
    system_calls_guard guard;
    std::string aside = dir.file("aside");

    tmf_check_result check() const
    {
        tmf_check_result result;
        EXPECT_EQ(tmf_check(path.c_str(), &result), 0);
        return result;
    }
    tmf_check_result repair(int keep_end = 0) const
    {
        tmf_check_result result;
        EXPECT_EQ(tmf_repair(path.c_str(), keep_end, aside.c_str(), &result), 0);
        return result;
    }
    bool has_aside() const
    {
        return std::filesystem::exists(aside) || std::filesystem::exists(aside + ".part");
    }
    // What a reader takes out of the file.
    std::vector<std::string> records_read() const
    {
        opened_file reader(path, TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
        std::vector<std::string> all;
        for (record_read r = read_record(reader, TMF_MAX_DATA); r.result != 0;
             r = read_record(reader, TMF_MAX_DATA)) {
            EXPECT_GT(r.result, 0);
            if (r.result < 0)
                break;
            all.push_back(r.data);
        }
        return all;
    }
    void punch(off_t at, off_t length) const
    {
        const int fd = ::open(path.c_str(), O_RDWR);
        ASSERT_EQ(fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, length), 0);
        ::close(fd);
    }
};

#endif
