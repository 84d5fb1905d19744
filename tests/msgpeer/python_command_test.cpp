// The commands of the Python program by which people look at a message file.
#include "tests/msgpeer/pair_test.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

class PythonCommandTest : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!missing_for(peer::python).empty())
            GTEST_SKIP() << missing_for(peer::python);
        // Two records, of the writers in slots 0 and 2: "abcdefghij" and "xyz".
        file_ = new_message_file(false, 0x5000);
        file_ += std::string("\x00\x10\x00\x11"
                             "abcdefghij"
                             "\x00\x10",
                             16);
        file_ += std::string("\x00\x09\x00\x13"
                             "xyz"
                             "\x00\x09",
                             9);
        file_ += "\xFF\xFF";
        put(AT_RECORD_COUNT, "\x02");
        put(AT_WRITE_OFFSET, "\x19\x11"); // 4377
        put(AT_HIGH_WATER, "\x19\x11");
    }
    void put(size_t at, const std::string &bytes)
    {
        file_.replace(at, bytes.size(), bytes);
    }
    run_result run(const std::string &command)
    {
        write_file(files_.dir.file("f"), file_);
        return run_python_peer({command, files_.dir.file("f")});
    }

    test_files files_;
    std::string file_;
};

TEST_F(PythonCommandTest, CheckIsContentWithASoundFile)
{
    const run_result result = run("check");
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(PythonCommandTest, CheckNamesWhatDisagrees)
{
    struct row {
        size_t at;
        std::string bytes;
        std::string line;
    };
    const row rows[] = {
        {AT_RECORD_COUNT, "\x03", "record_count is 3, the data area has 2 records"},
        {AT_WRITE_OFFSET, "\x18", "record at 4368 ends at 4377, write_offset is 4376"},
        {AT_READ_OFFSET, "\x20\x11",
         "read_offset 4384, write_offset 4377: not one behind the other"},
        {AT_HIGH_WATER, "\x18", "high_water is 4376, less than write_offset 4377"},
        {AT_DATA + 15, "\x11", "record at 4352: length 16, trailer 17"},
        {AT_DATA + 3, "\x10", "record at 4352: no writer has number 16"},
        {AT_DATA + 17, "\x08", "record at 4368: length 8, trailer 31232"},
        {AT_DATA + 25, "\xFE", "no end marker at 4377"},
        {AT_NUM_READERS, "\x01", "num_readers is 1, reader_map has 0 bits"},
        {AT_NUM_WRITERS, "\x02", "num_writers is 2, writer_map has 0 bits"},
        {AT_WRITER_MAP + 125, "\x80", "num_writers is 0, writer_map has 1 bits"},
        {AT_WRITER_MAP + 125, "\x80", "writer slot 1007 is taken and holds pid 0"},
        {AT_READER_SLOTS + 4, "\x07", "reader slot 1 is free and holds pid 7"},
        {AT_WRITER_SLOTS + 8, "\x07", "writer slot 2 is free and holds pid 7"},
        {72, "\x03", "a reader has the file exclusively, and num_readers is 0"},
        {72, "\x04", "a writer has the file exclusively, and num_writers is 0"},
        {72, "\x08", "flags has unknown bits: 0x8"},
        {74, "\x03", "format_version is 3, not 2"},
        {8, "\x01", "common_size is 257, not 256"},
        {AT_STAMP, "A", "file_stamp is not eight lower-case hexadecimal digits"},
        {AT_WAIT_LIST, "\x01", ""}, // left behind by a reader that gave up
    };
    std::vector<std::string> command = {"check"};
    for (const row &r : rows) {
        const std::string path = files_.dir.file(std::to_string(command.size()));
        std::string damaged = file_;
        damaged.replace(r.at, r.bytes.size(), r.bytes);
        write_file(path, damaged);
        command.push_back(path);
    }
    const run_result result = run_python_peer(command);
    EXPECT_EQ(result.status, 1) << result.err;
    for (size_t i = 0; i < std::size(rows); i++) {
        const std::string name = command[i + 1] + ": ";
        if (rows[i].line.empty()) {
            EXPECT_THAT(result.out, Not(HasSubstr(name)));
        } else {
            EXPECT_THAT(result.out, HasSubstr(name + rows[i].line + "\n"));
        }
    }
}

TEST_F(PythonCommandTest, CheckSeesACutFile)
{
    file_.resize(AT_DATA + 20);
    EXPECT_EQ(run("check").out, "write_offset is 4377, the file has 4372 bytes\n");
    file_.resize(4000);
    EXPECT_THAT(run("check").out, HasSubstr("the file has 4000 bytes, less than 4352\n"));
    file_.resize(100);
    EXPECT_EQ(run("check").status, 2);
}

TEST_F(PythonCommandTest, DumpShowsEachFieldWithItsOffset)
{
    put(AT_NUM_WRITERS, "\x01");
    put(AT_WRITER_MAP, "\x04");
    put(AT_WRITER_SLOTS + 8, "\x39\x30");
    const std::string out = run("dump").out;
    for (const char *line : {
             "f: 4379 bytes, little-endian\n",
             "\n       0  byte_order_mark   ff fe                    65279\n",
             "\n       4  magic             54 4d 30 31              \"TM01\"\n",
             "\n      44  write_offset      19 11 00 00              4377\n",
             "\n      80  signal_addr       7f 00 00 01              127.0.0.1\n",
             "\n      92  signal_ports                               20480 20481 20482",
             "\n     128  writer_map                                 bits 2\n",
             "\n     328  writer slot 2     39 30 00 00              pid 12345\n",
             "\n    4352  record of 16 bytes by user 17\n",
             "\n    4356  61 62 63 64 65 66 67 68 69 6a                    abcdefghij\n",
             "\n    4366  00 10                                            length again\n",
             "\n    4368  record of 9 bytes by user 19\n",
             "\n    4377  ff ff                                            behind the last",
         })
        EXPECT_THAT(out, HasSubstr(line));
}

TEST_F(PythonCommandTest, WriteAndReadPassRecordsOn)
{
    const std::string f = files_.dir.file("new");
    EXPECT_EQ(run_python_peer({"write", f, "--count", "3", "--tag", "T", "--size", "4"}).status, 0);
    EXPECT_EQ(run_python_peer({"read", f, "--copy", "--until-eof"}).out,
              "'T-1-'\n'T-2-'\n'T-3-'\n");
    EXPECT_EQ(run_python_peer({"read", f, "--hex"}).out, "54 2d 31 2d\n");
    EXPECT_EQ(run_python_peer({"read", f, "--until-eof"}).out, "'T-2-'\n'T-3-'\n");
    EXPECT_EQ(run_python_peer({"read", f, "--until-eof"}).out, "");
    const run_result refused = run_python_peer({"write", files_.dir.file("no/such")});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("message file error -5205 No such file or directory"));
    EXPECT_THAT(run_python_peer({"--help"}).out, HasSubstr("Writes, reads, lists and checks"));
}
