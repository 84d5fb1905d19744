// tmf salvage: what it takes, what it says, and that it leaves the file as it was.
#include "tests/tools/tmf/damaged_file.h"

using testing::ElementsAre;

class TmfSalvage : public DamagedFile {
  protected:
    const std::string out = dir.file("saved");
    const std::string framed_four = std::string("\0\0\0\x0a"
                                                "first data",
                                                14) +
                                    std::string("\0\0\0\x14"
                                                "the second of twenty",
                                                24) +
                                    std::string("\0\0\0\5third\0\0\0\1"
                                                "4",
                                                14);

    run_result salvage(const std::string &file, const std::vector<std::string> &options = {}) const
    {
        write_file(path, file);
        std::vector<std::string> words = {"salvage", path, out};
        words.insert(words.end(), options.begin(), options.end());
        run_result result = tmf(words);
        EXPECT_EQ(result.err, "");
        EXPECT_SAME_BYTES(bytes(), file);
        return result;
    }
    std::vector<std::string> saved() const
    {
        return split(tmf({"read", "--keep", out}).out);
    }
};

TEST_F(TmfSalvage, RecordsInFrontOfAndBehindADamagedOneAreTaken)
{
    const run_result result = salvage(with(4392, be16(27)));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, path +
                              "\n"
                              "    4368 to 4394: lost: the length of the record is 26, behind it "
                              "stands 27 at 4392\n"
                              "    salvaged  3 records, 16 bytes of data\n"
                              "    lost      26 bytes at 1 place\n");
    EXPECT_THAT(saved(), ElementsAre("first data", "third", "4"));
    EXPECT_EQ(tmf({"verify", out}).out, out + ": sound, 3 records from 4352 to 4386\n");
}

TEST_F(TmfSalvage, WhatEachDamageLeaves)
{
    const struct {
        const char *name;
        size_t at;
        std::string bytes;
        std::vector<std::string> records;
    } table[] = {
        {"nothing", 16, le32(4), {"first data", "the second of twenty", "third", "4"}},
        {"count", 16, le32(0), {"first data", "the second of twenty", "third", "4"}},
        {"first place", 36, le32(0), {"first data", "the second of twenty", "third", "4"}},
        {"first place inside of a record", 36, le32(4360), {"the second of twenty", "third", "4"}},
        {"taken records", 36, le32(4394), {"third", "4"}},
        {"end", 44, le32(0), {"first data", "the second of twenty", "third", "4"}},
        {"end inside of a record",
         44,
         le32(4400),
         {"first data", "the second of twenty", "third", "4"}},
        {"end behind the file",
         44,
         le32(5000),
         {"first data", "the second of twenty", "third", "4"}},
        {"end in front of records",
         44,
         le32(4394),
         {"first data", "the second of twenty", "third", "4"}},
        {"format", 74, "\3", {"first data", "the second of twenty", "third", "4"}},
        {"magic", 4, "XX", {"first data", "the second of twenty", "third", "4"}},
        {"whole beginning",
         0,
         std::string(4352, '\0'),
         {"first data", "the second of twenty", "third", "4"}},
        {"length of the first", 4352, be16(0), {"the second of twenty", "third", "4"}},
        {"both lengths of the first",
         4352,
         be16(0) + std::string(12, 'x') + be16(0),
         {"the second of twenty", "third", "4"}},
        {"length of the second", 4368, be16(7), {"first data", "third", "4"}},
        {"length of the last", 4405, be16(9), {"first data", "the second of twenty", "third"}},
        {"behind the last", 4410, be16(9), {"first data", "the second of twenty", "third"}},
        {"writer", 4370, be16(0), {"first data", "the second of twenty", "third", "4"}},
        {"a page of zeros", 4352, std::string(60, '\0'), {}},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(salvage(with(row.at, row.bytes)).status, 0);
        EXPECT_EQ(saved(), row.records);
        std::filesystem::remove(out);
    }
}

TEST_F(TmfSalvage, WhatIsSaidOfABeginningThatIsGone)
{
    EXPECT_EQ(salvage(with(0, std::string(4352, '\0'))).out,
              path + "\n"
                     "    0 to 4352: no beginning of a message file; records are taken from there "
                     "on, up to the end mark\n"
                     "    salvaged  4 records, 36 bytes of data\n"
                     "    lost      0 bytes at 0 places\n");
}

TEST_F(TmfSalvage, RecordsThatAreNotCountedAreTakenAndTold)
{
    EXPECT_EQ(salvage(with(44, le32(4394))).out,
              path + "\n"
                     "    uncounted 2 records behind the end, taken, too\n"
                     "    salvaged  4 records, 36 bytes of data\n"
                     "    lost      0 bytes at 0 places\n");
}

// A record of an emptied file that a shorter one was written over is none.
TEST_F(TmfSalvage, WhatReadersHaveTakenStaysTaken)
{
    make({"first", "second", "third"});
    EXPECT_EQ(tmf({"read", path}).status, 0);
    make({"new"});
    EXPECT_EQ(tmf({"salvage", path, out}).status, 0);
    EXPECT_THAT(saved(), ElementsAre("new"));
}

TEST_F(TmfSalvage, FileThatIsCutAtAnyLengthGivesItsWholeRecords)
{
    const std::vector<std::string> all = {"first data", "the second of twenty", "third", "4"};
    const size_t ends[] = {4368, 4394, 4405, 4412};
    for (size_t length = 4352; length <= 4414; length++) {
        SCOPED_TRACE(length);
        EXPECT_EQ(salvage(four_records().substr(0, length)).status, 0);
        const auto whole = std::upper_bound(std::begin(ends), std::end(ends), length);
        EXPECT_EQ(saved(), std::vector<std::string>(all.begin(), all.begin() + (whole - ends)));
        std::filesystem::remove(out);
    }
}

TEST_F(TmfSalvage, TextAndFramedFilesAndPipes)
{
    const std::string text = "first data\nthe second of twenty\nthird\n4\n";
    EXPECT_EQ(salvage(four_records(), {"--text"}).status, 0);
    EXPECT_EQ(read_file(out), text);
    std::filesystem::remove(out);
    EXPECT_EQ(salvage(four_records(), {"--framed"}).status, 0);
    EXPECT_SAME_BYTES(read_file(out), framed_four);
    const std::string told = path + "\n"
                                    "    salvaged  4 records, 36 bytes of data\n"
                                    "    lost      0 bytes at 0 places\n";
    const run_result lines = tmf({"salvage", "--text", path, "-"});
    EXPECT_EQ(lines.out, text);
    EXPECT_EQ(lines.err, told);
    const run_result framed = tmf({"salvage", "--framed", path, "-"});
    EXPECT_SAME_BYTES(framed.out, framed_four);
    EXPECT_EQ(framed.err, told);
}

// The remedy of each refusal is carried out.
TEST_F(TmfSalvage, RefusalsChangeNothing)
{
    write_file(path, four_records());
    write_file(out, "mine");
    const run_result there = tmf({"salvage", path, out});
    EXPECT_EQ(there.status, 1);
    EXPECT_EQ(there.err, "tmf: " + out + ": there is such a file already; name another one\n");
    EXPECT_EQ(read_file(out), "mine");
    EXPECT_EQ(tmf({"salvage", path, out + "2"}).status, 0);

    EXPECT_EQ(tmf({"salvage", path, path}).err,
              complaint("there is such a file already; name another one"));
    EXPECT_EQ(tmf({"salvage", "--text", path, dir.file("none") + "/out"}).err,
              "tmf: " + dir.file("none") + "/out: No such file or directory\n");
    EXPECT_EQ(tmf({"salvage", path, "-"}).err,
              "tmf: standard output takes --text or --framed: -\nTry \"tmf --help\".\n");
    EXPECT_EQ(tmf({"salvage", path}).err,
              "tmf: into which file?: " + path + "\nTry \"tmf --help\".\n");
    EXPECT_EQ(tmf({"salvage", path, "a", "b"}).err,
              "tmf: more than two files: b\nTry \"tmf --help\".\n");
    EXPECT_EQ(tmf({"salvage", "--text", "--framed", path, "a"}).err,
              "tmf: more than one format: --framed\nTry \"tmf --help\".\n");
    EXPECT_SAME_BYTES(bytes(), four_records());

    const int itself = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(finish(start_at({"salvage", "--text", path, "-"}, -1, itself)), 1);
    ::close(itself);
    EXPECT_EQ(errors(), complaint("is standard output, too"));
    EXPECT_SAME_BYTES(bytes(), four_records());

    write_file(path, std::string(5000, 'x'));
    EXPECT_EQ(tmf({"salvage", path, dir.file("more")}).err,
              complaint("File is not a message file."));
    EXPECT_FALSE(std::filesystem::exists(dir.file("more")));
}

TEST_F(TmfSalvage, OutputThatFailsLeavesNone)
{
    std::string input;
    for (int i = 0; i < 100; i++)
        input += std::string(1000, 'x') + "\n";
    EXPECT_EQ(tmf({"write", path}, input).status, 0);
    const std::string before = bytes();
    EXPECT_EQ(finish(start_at({"salvage", path, out}, -1, -1, "err", 8192)), 1);
    EXPECT_EQ(errors(), "tmf: " + out + ": EOF writing data.\n");
    EXPECT_FALSE(std::filesystem::exists(out));
    EXPECT_EQ(finish(start_at({"salvage", path, out}, -1, -1, "err", 255)), 1);
    EXPECT_EQ(errors(), "tmf: " + out + ": EOF initially writing common area.\n");
    EXPECT_FALSE(std::filesystem::exists(out));
    EXPECT_EQ(finish(start_at({"salvage", "--text", path, out}, -1, -1, "err", 8192)), 1);
    EXPECT_EQ(errors(), "tmf: " + out + ": File too large\n");
    EXPECT_FALSE(std::filesystem::exists(out));
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(finish(start_at({"salvage", "--text", path, "-"}, -1, full)), 1);
    ::close(full);
    EXPECT_THAT(errors(),
                testing::EndsWith("tmf: writing standard output: No space left on device\n"));
    EXPECT_SAME_BYTES(bytes(), before);
}

TEST_F(TmfSalvage, EveryChangedByteHasAnAnswer)
{
    const std::string sound = four_records();
    for (size_t at = 0; at < sound.size(); at = at == 127 ? 4352 : at + 1) {
        std::string file = sound;
        file[at] = static_cast<char>(~file[at]);
        write_file(path, file);
        EXPECT_EQ(tmf({"salvage", "--text", path, "-"}).status, 0) << at;
    }
}
