// A small file, put together by hand, that tests damage: four records.
#ifndef TESTS_TOOLS_TMF_DAMAGED_FILE_H
#define TESTS_TOOLS_TMF_DAMAGED_FILE_H

#include "tests/tools/tmf/tmf_fixture.h"

class DamagedFile : public TmfTool {
  protected:
    // The golden file with two more records behind its two, of 16 and 26 bytes, from writer
    // slot 1: "third" at 4394, 11 bytes, "4" at 4405, 7 bytes, the end mark at 4412 = 0x113C.
    static std::string four_records()
    {
        std::string file = golden_bytes("message_file_small.hex").substr(0, 4394) +
                           std::string("\x00\x0b\x00\x12third\x00\x0b", 11) +
                           std::string("\x00\x07\x00\x12"
                                       "4\x00\x07\xff\xff",
                                       9);
        file[16] = 4;
        file[44] = file[60] = 0x3c;
        return file;
    }
    // The same with bytes replaced.
    std::string with(size_t at, const std::string &bytes) const
    {
        std::string file = four_records();
        return file.replace(at, bytes.size(), bytes);
    }
    static std::string be16(int number)
    {
        return {static_cast<char>(number >> 8), static_cast<char>(number)};
    }
    static std::string le32(int32_t number)
    {
        std::string bytes(4, '\0');
        put_number(bytes, 0, number);
        return bytes;
    }
};

#endif
