// tmf's command line, and tmf write.
#include "tests/tools/tmf/tmf_fixture.h"

#include <csignal>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

// ---- command line

TEST_F(TmfTool, HelpGoesToStandardOutput)
{
    const struct {
        std::vector<std::string> words;
        std::string first_line;
    } table[] = {
        {{"--help"}, "Usage: tmf info [--json] FILE...\n"},
        {{"info", "--help"}, "Usage: tmf info [--json] FILE...\n"},
        {{"read", "--help"}, "Usage: tmf read [--raw | --hex | --json | --framed] [--count N]\n"},
        {{"read", path, "--help"},
         "Usage: tmf read [--raw | --hex | --json | --framed] [--count N]\n"},
        {{"write", "--help"},
         "Usage: tmf write [--null | --size N | --framed] [--all-users] [-v] FILE\n"},
    };
    for (const auto &row : table) {
        const run_result result = tmf(row.words);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, StartsWith(row.first_line));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(TmfTool, VersionIsOneLine)
{
    const run_result result = tmf({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, MatchesRegex("tmf [0-9]+\\.[0-9]+\n"));
}

TEST_F(TmfTool, WithoutWordsSaysHowToUseIt)
{
    const run_result result = tmf({});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, StartsWith("Usage: tmf info"));
}

TEST_F(TmfTool, WrongCommandLinesEndWithStatus2AndTouchNothing)
{
    const struct {
        std::vector<std::string> words;
        std::string error;
    } table[] = {
        {{"copy", "q"}, "unknown subcommand: copy"},
        {{"--copy"}, "unknown option: --copy"},
        {{"info"}, "which file?: info"},
        {{"info", "--hex", path}, "unknown option: --hex"},
        {{"read"}, "which file?: read"},
        {{"read", path, "other"}, "more than one file: other"},
        {{"read", "--null", path}, "unknown option: --null"},
        {{"read", "--raw", "--hex", path}, "more than one format: --hex"},
        {{"read", "--framed", "--json", path}, "more than one format: --json"},
        {{"read", path, "--count"}, "option lacks its number: --count"},
        {{"read", "--count", "0", path}, "not a number of records: 0"},
        {{"read", "--count", "3x", path}, "not a number of records: 3x"},
        {{"read", "--count", "", path}, "not a number of records: "},
        {{"read", "--wait", "-1", path}, "not a number of seconds: -1"},
        {{"read", "--wait", "2147483648", path}, "not a number of seconds: 2147483648"},
        {{"read", "--wait", "1", "--follow", path}, "contradicts --follow: --wait"},
        {{"read", "--keep", "--follow", path}, "never waits: --keep"},
        {{"read", "--keep", "--wait", "0", path}, "never waits: --keep"},
        {{"read", "--keep", "--shared", path}, "needs the file alone: --keep"},
        {{"write"}, "which file?: write"},
        {{"write", "a", "b"}, "more than one file: b"},
        {{"write", "--size", "0", path}, "not a size of records (1 to 32761): 0"},
        {{"write", "--size", "32762", path}, "not a size of records (1 to 32761): 32762"},
        {{"write", "--size", "4", "--null", path}, "contradicts --size: --null"},
        {{"write", "--framed", "--null", path}, "contradicts --null: --framed"},
        {{"write", "--size", "4", "--framed", path}, "contradicts --size: --framed"},
        {{"write", "--raw", path}, "unknown option: --raw"},
    };
    for (const auto &row : table) {
        const run_result result = tmf(row.words, "record\n");
        EXPECT_EQ(result.status, 2) << row.error;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "tmf: " + row.error + "\nTry \"tmf --help\".\n");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(TmfTool, FailingStandardOutputIsAnError)
{
    make();
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const auto &words :
         {std::vector<std::string>{"--version"}, {"info", path}, {"verify", path}}) {
        EXPECT_EQ(finish(start_at(words, -1, full)), 1);
        EXPECT_EQ(errors(), "tmf: writing standard output: No space left on device\n");
    }
    ::close(full);
}

// ---- tmf write

TEST_F(TmfTool, WriteMakesTheFileByteForByte)
{
    const run_result result = tmf({"write", path}, "first data\nthe second of twenty\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    // The golden file shows its writer; this one has closed.
    std::string expected = golden_bytes("message_file_small.hex");
    const std::string file = bytes();
    put_number<int16_t>(expected, 70, 0);
    put_number<int32_t>(expected, 320, 0);
    expected[128] = 0;
    expected.replace(84, 8, file, 84, 8);
    EXPECT_SAME_BYTES(file, expected);
}

TEST_F(TmfTool, WriteAppendsToWhatIsThere)
{
    make({"one"});
    EXPECT_EQ(tmf({"write", path}, "two\nthree").status, 0);
    EXPECT_THAT(records(), ElementsAre("one", "two", "three"));
    expect_nobody();
}

TEST_F(TmfTool, WriteOfNoInputMakesAnEmptyFile)
{
    EXPECT_EQ(tmf({"write", path}).status, 0);
    EXPECT_EQ(bytes().size(), 4352U);
    EXPECT_EQ(record_count(), 0);
}

TEST_F(TmfTool, WriteTakesRecordsEndedByNul)
{
    const std::string input("one\ntwo\0three\0", 14);
    EXPECT_EQ(tmf({"write", "--null", path}, input).status, 0);
    EXPECT_EQ(tmf({"read", "--raw", "--count", "1", path}).out, "one\ntwo");
    EXPECT_EQ(tmf({"read", "--raw", path}).out, "three");
}

TEST_F(TmfTool, WriteTakesRecordsOfOneSize)
{
    const std::string input("ab\ncd\0", 6);
    const run_result result = tmf({"write", "--size", "3", "-v", path}, input);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "2 records written\n");
    EXPECT_EQ(tmf({"read", "--hex", path}).out, "61620a\n636400\n");
}

TEST_F(TmfTool, WriteOfAnIncompleteLastPieceNamesIt)
{
    const run_result result = tmf({"write", "--size", "4", path}, "abcdefgh12");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tmf: standard input: record 3 has 2 of 4 bytes\n");
    EXPECT_THAT(records(), ElementsAre("abcd", "efgh"));
}

TEST_F(TmfTool, WriteEndsAtAnEmptyRecord)
{
    const run_result result = tmf({"write", "-v", path}, "one\ntwo\n\nfour\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "2 records written\n");
    EXPECT_EQ(result.err, "tmf: standard input: record 3 is empty\n");
    EXPECT_THAT(records(), ElementsAre("one", "two"));
    expect_nobody();
}

TEST_F(TmfTool, WriteTakesTheLongestRecordAndNoLongerOne)
{
    const std::string longest(32761, 'x');
    const struct {
        const char *name;
        std::vector<std::string> options;
        std::string input; // behind the longest record
        int status;
    } table[] = {
        {"line", {}, "\n" + longest + "\n", 0},
        {"line without end", {}, "\n" + longest, 0},
        {"longer line", {}, "\n" + longest + "y\n", 1},
        {"longer line without end", {}, "\n" + longest + "y", 1},
        {"far longer line", {}, "\n" + longest + longest + longest, 1},
        {"size", {"--size", "32761"}, longest, 0},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(path);
        std::vector<std::string> words = {"write", path};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const run_result result = tmf(words, longest + row.input);
        EXPECT_EQ(result.status, row.status);
        EXPECT_EQ(result.err, row.status == 0 ? ""
                                              : "tmf: standard input: record 2 is longer than "
                                                "32761 bytes\n");
        EXPECT_EQ(records(), std::vector<std::string>(row.status == 0 ? 2 : 1, longest));
    }
}

TEST_F(TmfTool, WriteKeepsManyRecordsOfAllLengthsInOrder)
{
    std::string input;
    for (size_t i = 0; i < 3000; i++)
        input += std::string(1 + i * 31 % 997, static_cast<char>('a' + i % 26)) + "\n";
    EXPECT_EQ(tmf({"write", path}, input).status, 0);
    EXPECT_EQ(record_count(), 3000);
    EXPECT_EQ(tmf({"read", path}).out, input);
}

TEST_F(TmfTool, WriteCreatesTheFileForItsOwnerOrForAll)
{
    const mode_t before = umask(022);
    struct stat about;
    EXPECT_EQ(tmf({"write", path}).status, 0);
    ASSERT_EQ(stat(path.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 0777, 0600U);
    const std::string shared = dir.file("shared");
    EXPECT_EQ(tmf({"write", "--all-users", shared}).status, 0);
    ASSERT_EQ(stat(shared.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 0777, 0666U);
    umask(before);
}

TEST_F(TmfTool, WriteLeavesForeignFilesAsTheyAre)
{
    const std::string text(5000, 'x');
    write_file(path, text);
    const run_result result = tmf({"write", path}, "record\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, complaint("File is not a message file."));
    EXPECT_EQ(bytes(), text);
    EXPECT_EQ(tmf({"write", dir.path()}, "record\n").err,
              "tmf: " + dir.path() + ": File is not a message file.\n");
    EXPECT_EQ(tmf({"write", "/dev/null"}, "record\n").err,
              "tmf: /dev/null: File is not a message file.\n");
}

TEST_F(TmfTool, WriteIntoNoDirectoryHasTheSystemsText)
{
    const std::string name = dir.file("none") + "/queue";
    const run_result result = tmf({"write", name}, "record\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tmf: " + name + ": Error opening file: No such file or directory\n");
}

TEST_F(TmfTool, WriteBesideAnExclusiveWriterIsRefused)
{
    other_user writer(path, TMF_MODE_EXCLUSIVE);
    const run_result result = tmf({"write", path}, "record\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, complaint("File already opened exclusively for write access."));
    EXPECT_EQ(writer.close(), 0);
}

// Three records of 1006 bytes end at 7370; the fourth does not fit into 8192.
TEST_F(TmfTool, WriteBeyondAFileSizeLimitNamesTheRecord)
{
    std::string input;
    for (int i = 0; i < 5; i++)
        input += std::string(1000, 'x') + "\n";
    pipe_ends in;
    ASSERT_EQ(::write(in.fd[1], input.data(), input.size()), ssize_t{5005});
    in.close_end(1);
    EXPECT_EQ(finish(start_at({"write", path}, in.fd[0], -1, "err", 8192)), 1);
    EXPECT_EQ(errors(), complaint("record 4: EOF writing data."));
    EXPECT_EQ(record_count(), 3);
    expect_nobody();
}

TEST_F(TmfTool, WriteTellsOfAReaderThatCannotBeWoken)
{
    make();
    std::string file = bytes();
    file.replace(80, 4, "\xff\xff\xff\xff"); // a broadcast needs a permission
    file[124] = 1;
    write_file(path, file);
    // The readers are told once of those that came together.
    const run_result result = tmf({"write", "-v", path}, "one\ntwo\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "2 records written\n");
    EXPECT_THAT(result.err, HasSubstr("record 2 is in the file, but a waiting reader could not "
                                      "be told: Error #"));
    EXPECT_THAT(records(), ElementsAre("one", "two"));
}

TEST_F(TmfTool, WriteEndsOnASignalAfterAWholeRecord)
{
    for (const int number : {SIGTERM, SIGINT}) {
        std::filesystem::remove(path);
        pipe_ends in;
        const pid_t pid = start_at({"write", path}, in.fd[0], -1);
        ASSERT_EQ(::write(in.fd[1], "one\ntwo\nthr", 11), 11);
        ASSERT_TRUE(poll_until([&] {
            return std::filesystem::exists(path) && bytes().size() > 4352 && record_count() == 2;
        }));
        kill(pid, number);
        EXPECT_EQ(finish(pid), 128 + number);
        EXPECT_EQ(errors(),
                  complaint("stopped by signal " + std::to_string(number) + " after 2 records"));
        expect_nobody();
        EXPECT_THAT(records(), ElementsAre("one", "two"));
    }
}

TEST_F(TmfTool, WriteOfInputWithoutEndEndsOnASignal)
{
    const int zero = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
    const pid_t pid = start_at({"write", "--size", "1", path}, zero, -1, "err", rlim_t{1} << 26);
    ::close(zero);
    EXPECT_EQ(signalled_to_its_end(pid), 143);
    EXPECT_THAT(errors(), MatchesRegex(".*: stopped by signal 15 after [0-9]+ records\n"));
    expect_nobody();
}

TEST_F(TmfTool, WriteWaitingForTheFileEndsOnASignal)
{
    make();
    const lock_holder holder(path, 0, 256);
    const pid_t pid = start({"write", path});
    EXPECT_EQ(signalled_to_its_end(pid), 143);
    EXPECT_EQ(errors(), "");
    expect_nobody();
}

TEST_F(TmfTool, WriteDoesNotReadItsOwnFile)
{
    make({"one"});
    const std::string before = bytes();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(finish(start_at({"write", path}, fd, -1)), 1);
    ::close(fd);
    EXPECT_EQ(errors(), complaint("is standard input, too"));
    EXPECT_EQ(bytes(), before);
}
