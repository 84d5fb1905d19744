// tmf repair: what it says, what it keeps, what it leaves alone.
#include "tests/tools/tmf/tmf_fixture.h"

#include <filesystem>

class TmfRepairTool : public TmfTool {
  protected:
    const std::string sound = golden_bytes("message_file_small.hex");
    const std::string kept = path + ".damaged";

    std::string with_torn_record() const
    {
        std::string file = sound;
        file[4393] = 0;
        return file;
    }
};

TEST_F(TmfRepairTool, SoundFileIsSaidToBeSound)
{
    write_file(path, sound);
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"repair", path}, {"repair", "--dry-run", path}}) {
        const run_result result = tmf(words);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, path + ": sound, 2 records from 4352 to 4394\n");
        EXPECT_EQ(result.err, "");
        EXPECT_SAME_BYTES(bytes(), sound);
    }
    write_file(path, "");
    EXPECT_EQ(tmf({"repair", path}).out,
              path + ": empty; who opens it next makes a message file of it\n");
    EXPECT_FALSE(std::filesystem::exists(kept));
}

TEST_F(TmfRepairTool, RecordsThatAreNotCountedAreTold)
{
    write_file(path, sound.substr(0, 4394) + sound.substr(4368));
    const run_result result = tmf({"repair", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              path + ": sound, 2 records from 4352 to 4394\n"
                     "    behind   1 record that the file does not count: a writer was killed "
                     "before it\n"
                     "             did, or their count did not come to the disk; they stay "
                     "uncounted\n");
}

TEST_F(TmfRepairTool, DryRunSaysWhatIsWrongAndChangesNothing)
{
    write_file(path, with_torn_record());
    const run_result result = tmf({"repair", path, "--dry-run"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, path + "\n"
                                 "    damaged: what should be a record is none\n"
                                 "    damaged: the number of records is wrong\n"
                                 "    says     2 records, up to 4394; the file has 4396 bytes\n"
                                 "    has      1 record, from 4352 to 4368\n"
                                 "    behind   26 bytes that are no whole records, or stand behind "
                                 "a damaged one\n"
                                 "    nothing is changed\n");
    EXPECT_EQ(result.err, "");
    EXPECT_SAME_BYTES(bytes(), with_torn_record());
    EXPECT_FALSE(std::filesystem::exists(kept));
}

TEST_F(TmfRepairTool, RepairedFileIsReadAndTheOriginalKept)
{
    std::string damaged = sound;
    damaged[4369] = 0;
    write_file(path, damaged);
    const run_result torn = tmf({"read", "--keep", path}); // the remedy is this:
    EXPECT_EQ(torn.status, 1);
    EXPECT_EQ(torn.err, complaint("EOF reading data."));
    damaged = bytes(); // with the stamp of that read
    const run_result result = tmf({"repair", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, ::testing::EndsWith("    kept     " + kept +
                                                ": the file as it was\n"
                                                "    repaired: it has 1 record\n"));
    EXPECT_SAME_BYTES(read_file(kept), damaged);
    const run_result read = tmf({"read", "--wait", "0", path});
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(read.out, "first data\n");
}

TEST_F(TmfRepairTool, FileWhoseBeginningNeverCameToTheDiskIsEmptied)
{
    std::string file = sound;
    file.replace(0, 4352, 4352, '\0');
    write_file(path, file);
    EXPECT_EQ(tmf({"write", path}, "record\n").status, 1); // the remedy is this:
    const run_result result = tmf({"repair", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              path +
                  "\n"
                  "    damaged: zeros where its beginning should be, which never came to the disk\n"
                  "    kept     " +
                  kept +
                  ": the file as it was\n"
                  "    repaired: it is empty; who opens it next makes a message file of it\n");
    EXPECT_EQ(tmf({"write", path}, "record\n").status, 0);
    EXPECT_EQ(records(), std::vector<std::string>{"record"});
}

// The remedy of each refusal is carried out.
TEST_F(TmfRepairTool, CopyGoesWhereItIsToldTo)
{
    write_file(path, with_torn_record());
    write_file(kept, "earlier");
    run_result result = tmf({"repair", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tmf: " + kept +
                              ": there is such a file already, perhaps an earlier copy; name "
                              "another place with --keep\n");
    result = tmf({"repair", path, "--keep", dir.file("none/copy")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tmf: " + dir.file("none/copy") +
                              ": Error opening file: No such file or directory\n" +
                              complaint("nothing is changed, since no copy of it can be kept; name "
                                        "another place with --keep"));
    EXPECT_SAME_BYTES(bytes(), with_torn_record());
    result = tmf({"repair", path, "--keep", dir.file("copy")});
    EXPECT_EQ(result.status, 0);
    EXPECT_SAME_BYTES(read_file(dir.file("copy")), with_torn_record());
    EXPECT_EQ(read_file(kept), "earlier");
}

TEST_F(TmfRepairTool, WhatCannotBeRepairedIsLeftAlone)
{
    EXPECT_EQ(tmf({"repair", path}).err,
              complaint("Error opening file: No such file or directory"));
    EXPECT_FALSE(std::filesystem::exists(path));
    write_file(path, "#!/bin/sh\n");
    const run_result result = tmf({"repair", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, complaint("File is not a message file."));
    EXPECT_EQ(bytes(), "#!/bin/sh\n");
}

TEST_F(TmfRepairTool, WrongCommandLineIsTold)
{
    const struct {
        std::vector<std::string> words;
        std::string error;
    } rows[] = {{{"repair"}, "which file?: repair"},
                {{"repair", path, "other"}, "one file only: other"},
                {{"repair", path, "--keep"}, "which name?: --keep"},
                {{"repair", path, "--keep", ""}, "which name?: --keep"},
                {{"repair", path, "--json"}, "unknown option: --json"}};
    for (const auto &row : rows) {
        const run_result result = tmf(row.words);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, "tmf: " + row.error + "\nTry \"tmf --help\".\n");
    }
    const run_result help = tmf({"repair", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *option : {"--dry-run", "--keep NAME", "--help"})
        EXPECT_THAT(help.out, ::testing::HasSubstr(option));
}
