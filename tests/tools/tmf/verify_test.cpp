// tmf verify: each disagreement with its offset, and nothing that is none.
#include "tests/tools/tmf/damaged_file.h"

#include <sys/stat.h>

class TmfVerify : public DamagedFile {
  protected:
    run_result verify(const std::string &file, const std::vector<std::string> &options = {}) const
    {
        write_file(path, file);
        std::vector<std::string> words = {"verify", path};
        words.insert(words.end(), options.begin(), options.end());
        run_result result = tmf(words);
        EXPECT_EQ(result.err, "");
        EXPECT_SAME_BYTES(bytes(), file);
        return result;
    }
};

TEST_F(TmfVerify, SoundFileIsSaidToBeSound)
{
    run_result result = verify(four_records());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, path + ": sound, 4 records from 4352 to 4412\n");
    std::filesystem::remove(path);
    make();
    EXPECT_EQ(tmf({"verify", path}).out, path + ": sound, 0 records from 4352 to 4352\n");
    make({"one"});
    EXPECT_EQ(tmf({"verify", path}).out, path + ": sound, 1 record from 4352 to 4361\n");
    EXPECT_EQ(tmf({"read", path}).status, 0); // the bytes of the record stay behind the end
    EXPECT_EQ(tmf({"verify", path}).out, path + ": sound, 0 records from 4352 to 4352\n");
}

// Its maker was killed before the slots were there, or while they were written.
TEST_F(TmfVerify, FileWithoutAllOfItsSlotsAndARecordIsSound)
{
    for (const size_t length : {256U, 257U, 1000U, 4351U}) {
        SCOPED_TRACE(length);
        std::filesystem::remove(path);
        make();
        std::filesystem::resize_file(path, length);
        const run_result looked = tmf({"verify", path});
        EXPECT_EQ(looked.status, 0);
        EXPECT_EQ(looked.out, path + ": sound, 0 records from 4352 to 4352\n");
        const run_result info = tmf({"info", path});
        EXPECT_EQ(info.status, 0);
        EXPECT_EQ(info.out.find("damage"), std::string::npos) << info.out;
        make({"one"});
        EXPECT_EQ(tmf({"verify", path}).out, path + ": sound, 1 record from 4352 to 4361\n");
    }
}

TEST_F(TmfVerify, FileOfTheOtherByteOrderIsVerifiedToo)
{
    std::string file = four_records();
    turn_around(file);
    EXPECT_EQ(verify(file).out, path + ": sound, 4 records from 4352 to 4412\n");
    file[19] = 5;
    EXPECT_EQ(verify(file).out, path + "\n"
                                       "    16: 5 records are counted, 4 are there\n"
                                       "    1 disagreement; 4 records from 4352 to 4412\n");
}

TEST_F(TmfVerify, EachDisagreementIsToldWithItsOffset)
{
    const struct {
        size_t at;
        std::string bytes;
        std::string lines;
        std::string records;
    } table[] = {
        {16, le32(3), "16: 3 records are counted, 4 are there\n", "4 records from 4352 to 4412"},
        {16, le32(-1), "16: -1 records are counted, 4 are there\n", "4 records from 4352 to 4412"},
        {16, le32(1), "16: 1 record is counted, 4 are there\n", "4 records from 4352 to 4412"},
        {8, le32(255), "8: common_size is 255, and is 256 in every message file\n",
         "4 records from 4352 to 4412"},
        {12, le32(-1), "12: lock_area_size is -1, and is 4096 in every message file\n",
         "4 records from 4352 to 4412"},
        {28, le32(4353), "28: data_start is 4353, and is 4352 in every message file\n",
         "4 records from 4352 to 4412"},
        {52, le32(0), "52: lock_area_offset is 0, and is 256 in every message file\n",
         "4 records from 4352 to 4412"},
        {64, std::string("\x11\0", 2), "64: max_readers is 17, and is 16 in every message file\n",
         "4 records from 4352 to 4412"},
        {66, std::string("\0\0", 2),
         "66: max_writers is 0, and is 1008 in every message file\n"
         "    70: 1 writers are counted, the map at 128 has 0\n",
         "4 records from 4352 to 4412"},
        {76, std::string("\5\0", 2), "76: writer_slot_size is 5, and is 4 in every message file\n",
         "4 records from 4352 to 4412"},
        {78, std::string("\5\0", 2), "78: reader_slot_size is 5, and is 4 in every message file\n",
         "4 records from 4352 to 4412"},
        {36, le32(4351), "36: the oldest record is at 4351, before any can begin, at 4352\n",
         "4 records from 4352 to 4412"},
        {36, le32(4413), "36: the oldest record is at 4413, the records end at 4412\n",
         "4 records from 4352 to 4412"},
        {44, le32(4351), "44: the records end at 4351, before any can begin, at 4352\n",
         "4 records from 4352 to 4412"},
        {44, le32(-2), "44: the records end at -2, before any can begin, at 4352\n",
         "4 records from 4352 to 4412"},
        {68, "\1", "68: 1 readers are counted, the map at 126 has 0\n",
         "4 records from 4352 to 4412"},
        {128, "\3", "70: 1 writers are counted, the map at 128 has 2\n",
         "4 records from 4352 to 4412"},
        {4352, be16(17),
         "4352 to 4368: the length of the record is 17, behind it stands 4096 at 4367\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4352, be16(6),
         "4352 to 4368: the length of the record is 6, which none has\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4352, be16(32768),
         "4352 to 4368: the length of the record is 32768, which none has\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4352, be16(100),
         "4352 to 4368: the length of the record is 100, the file has 62 bytes more\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4392, be16(27),
         "4368 to 4394: the length of the record is 26, behind it stands 27 at 4392\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4410, be16(8),
         "4405 to 4412: the length of the record is 7, behind it stands 8 at 4410\n"
         "    16: 4 records are counted, 3 are there\n",
         "3 records from 4352 to 4412"},
        {4370, be16(0), "4368 to 4394: the record's writer is 0, which is none\n",
         "4 records from 4352 to 4412"},
        {4370, be16(1025), "4368 to 4394: the record's writer is 1025, which is none\n",
         "4 records from 4352 to 4412"},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.lines);
        const run_result result = verify(with(row.at, row.bytes));
        EXPECT_EQ(result.status, 1);
        const auto told = std::count(row.lines.begin(), row.lines.end(), '\n');
        EXPECT_EQ(result.out, path + "\n    " + row.lines + "    " + std::to_string(told) +
                                  (told == 1 ? " disagreement; " : " disagreements; ") +
                                  row.records + "\n");
    }
}

TEST_F(TmfVerify, EndInsideOfARecordIsTold)
{
    // The records are said to end at 4400, inside of the third.
    EXPECT_EQ(verify(with(44, le32(4400))).out,
              path + "\n"
                     "    4394 to 4405: the record ends at 4405, behind the end of the records, "
                     "4400\n"
                     "    1 disagreement; 4 records from 4352 to 4412\n");
}

TEST_F(TmfVerify, FileThatIsCutAtAnyLengthDisagrees)
{
    const std::string file = four_records();
    for (size_t length = 4352; length < 4412; length++) {
        const run_result result = verify(file.substr(0, length));
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, testing::HasSubstr("44: the records end at 4412, behind the end "
                                                   "of the file, " +
                                                   std::to_string(length) + "\n"));
    }
    EXPECT_EQ(verify(file.substr(0, 4412)).status, 0); // only the end mark is missing
}

TEST_F(TmfVerify, HoleInARecordIsTold)
{
    const std::string data(20000, 'x'); // from 4356 to 24356, over whole pages
    make({data, "two"});
    const std::string file = bytes();
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    ASSERT_EQ(::pwrite(fd, file.data(), 8192, 0), 8192);
    const auto rest = static_cast<off_t>(file.size()) - 16384;
    ASSERT_EQ(::pwrite(fd, file.data() + 16384, static_cast<size_t>(rest), 16384), rest);
    ASSERT_EQ(lseek(fd, 0, SEEK_HOLE), 8192) << "no file system with holes";
    ::close(fd);
    const run_result result = tmf({"verify", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, path + "\n"
                                 "    4352 to 24358: a hole in the record, at 8192, which never "
                                 "came to the disk\n"
                                 "    16: 2 records are counted, 1 is there\n"
                                 "    2 disagreements; 1 record from 4352 to 24367\n");
}

// Behind a hole of nearly 2 GiB, up to 0x7FFFF000, one record begins with the hole's last byte, and
// another one stands behind it.
TEST_F(TmfVerify, RecordsBehindALargeHoleAreFound)
{
    const std::string data("\x0b\x00\x12third\x00\x0b\x00\x07\x00\x12"
                           "4\x00\x07",
                           17);
    constexpr int32_t hole_end = 0x7FFFF000;
    std::string file = four_records();
    put_number(file, 44, hole_end + 17);
    write_file(path, file);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::pwrite(fd, data.data(), data.size(), hole_end), ssize_t{17});
    ASSERT_EQ(lseek(fd, 8192, SEEK_DATA), hole_end) << "no file system with holes";
    run_result result = tmf({"verify", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              path + "\n"
                     "    4412 to 2147479551: the length of the record is 65535, which none has\n"
                     "    2147479551 to 2147479562: a hole in the record, at 2147479551, which "
                     "never came to the disk\n"
                     "    16: 4 records are counted, 5 are there\n"
                     "    3 disagreements; 5 records from 4352 to 2147479569\n");
    EXPECT_EQ(tmf({"salvage", "--text", path, "-"}).out, tmf({"read", "--keep", path}).out + "4\n");
    // Nothing but the hole behind the first records.
    ASSERT_EQ(ftruncate(fd, hole_end), 0);
    ::close(fd);
    result = tmf({"verify", path});
    EXPECT_EQ(result.out,
              path + "\n"
                     "    44: the records end at 2147479569, behind the end of the file, "
                     "2147479552\n"
                     "    4412 to 2147479552: the length of the record is 65535, which none has\n"
                     "    2 disagreements; 4 records from 4352 to 2147479552\n");
}

TEST_F(TmfVerify, RecordsThatAreNotCountedAreNoDisagreement)
{
    std::string file = four_records();
    file[16] = 3;
    file[44] = 0x35; // 4405
    const run_result result = verify(file);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, path + ": sound, 3 records from 4352 to 4405\n"
                                 "    behind   1 record that the file does not count\n");
}

TEST_F(TmfVerify, JsonIsOneObject)
{
    EXPECT_EQ(verify(four_records(), {"--json"}).out,
              "{\"file\":\"" + path +
                  "\",\"disagreements\":[],\"sound\":true,\"records\":4,\"first\":4352,"
                  "\"end\":4412,\"size\":4414,\"uncounted\":0}\n");
    const run_result result = verify(with(4392, be16(27)), {"--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "{\"file\":\"" + path +
                  "\",\"disagreements\":["
                  "{\"offset\":4368,\"length\":26,\"text\":\"the length of the record is 26, "
                  "behind it stands 27 at 4392\"},"
                  "{\"offset\":16,\"length\":null,\"text\":\"4 records are counted, 3 are there\"}"
                  "],\"sound\":false,\"records\":3,\"first\":4352,\"end\":4412,\"size\":4414,"
                  "\"uncounted\":0}\n");
}

TEST_F(TmfVerify, OtherFilesAreRefused)
{
    write_file(path, "");
    EXPECT_EQ(tmf({"verify", path}).err, complaint("File is not a message file."));
    write_file(path, four_records().substr(0, 255));
    const run_result cut = tmf({"verify", path});
    EXPECT_EQ(cut.status, 1);
    EXPECT_EQ(cut.err, complaint("EOF reading common area."));
    std::filesystem::remove(path);
    EXPECT_EQ(tmf({"verify", path}).err, complaint("No such file or directory"));
    EXPECT_EQ(tmf({"verify", "/dev/null"}).err, "tmf: /dev/null: File is not a message file.\n");
    EXPECT_EQ(tmf({"verify"}).err, "tmf: which file?: verify\nTry \"tmf --help\".\n");
}

// A file that may only be read is enough; users are waited for, and wait.
TEST_F(TmfVerify, UsersAreWaitedFor)
{
    write_file(path, four_records());
    ASSERT_EQ(chmod(path.c_str(), 0400), 0);
    EXPECT_EQ(tmf({"verify", path}).status, 0);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    pid_t pid = -1;
    {
        const lock_holder holder(path, 0, 256);
        pid = start({"verify", path});
        EXPECT_TRUE(poll_until([&] { return is_asleep(pid); }));
        EXPECT_EQ(output(), "");
    }
    EXPECT_EQ(finish(pid), 0);
    EXPECT_EQ(output(), path + ": sound, 4 records from 4352 to 4412\n");
}

// Each byte of the file changed, and each length: an answer, never a crash.
TEST_F(TmfVerify, EveryChangedByteHasAnAnswer)
{
    const std::string sound = four_records();
    for (size_t at = 0; at < sound.size(); at = at == 319 ? 4352 : at + 1) {
        std::string file = sound;
        file[at] = static_cast<char>(~file[at]);
        write_file(path, file);
        EXPECT_LE(tmf({"verify", path}).status, 1) << at;
    }
}
