// tmf read: what it prints, when it waits and ends, and that nothing is lost when
// its output fails.
#include "tests/tools/tmf/tmf_fixture.h"

using testing::ElementsAre;

// ---- formats

TEST_F(TmfTool, ReadPrintsRecordsByteForByte)
{
    const struct {
        std::vector<std::string> options;
        std::string output;
    } table[] = {
        {{}, std::string("one\na\nb\n\0\xff\x7f\n\"\\~ \n", 17)},
        {{"--raw"}, std::string("onea\nb\0\xff\x7f\"\\~ ", 13)},
        {{"--hex"}, "6f6e65\n610a62\n00ff7f\n225c7e20\n"},
        {{"--json"},
         "{\"number\":1,\"length\":3,\"hex\":\"6f6e65\",\"text\":\"one\"}\n"
         "{\"number\":2,\"length\":3,\"hex\":\"610a62\"}\n"
         "{\"number\":3,\"length\":3,\"hex\":\"00ff7f\"}\n"
         "{\"number\":4,\"length\":4,\"hex\":\"225c7e20\",\"text\":\"\\\"\\\\~ \"}\n"},
    };
    for (const auto &row : table) {
        for (const char *how : {"", "--keep", "--shared", "--follow"}) {
            std::filesystem::remove(path);
            make({"one", "a\nb", std::string("\0\xff\x7f", 3), "\"\\~ "});
            std::vector<std::string> words = {"read", "--count", "4", path};
            words.insert(words.end(), row.options.begin(), row.options.end());
            if (*how != '\0')
                words.emplace_back(how);
            const run_result result = tmf(words);
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(result.out, row.output) << how;
            EXPECT_EQ(result.err, "");
            EXPECT_EQ(record_count(), std::string(how) == "--keep" ? 4 : 0);
            expect_nobody();
        }
    }
}

TEST_F(TmfTool, ReadGivesTheLongestRecordWhole)
{
    std::string longest(32761, 'x');
    longest.back() = 'y';
    make({longest});
    EXPECT_EQ(tmf({"read", "--raw", path}).out, longest);
}

// No writer appends a record without data, but a file may hold one.
TEST_F(TmfTool, ReadGivesARecordWithoutDataAsAnEmptyLine)
{
    make({"one", "two", "three"});
    std::string file = bytes();
    // "one" is at 4352, "two" of 9 bytes at 4361; in its place one of 6 bytes and,
    // moved up, "three" of 11.
    file.replace(4361, 6, std::string("\0\x06\0\x11\0\x06", 6));
    file.erase(4367, 3);
    put_number<int32_t>(file, 44, 4378);
    write_file(path, file);
    EXPECT_EQ(tmf({"read", "--keep", path}).out, "one\n\nthree\n");
    EXPECT_EQ(tmf({"read", path}).out, "one\n\nthree\n");
    EXPECT_EQ(record_count(), 0);
}

TEST_F(TmfTool, ReadTakesAFileOfTheOtherByteOrder)
{
    make({"one", "two"});
    std::string file = bytes();
    turn_around(file);
    write_file(path, file);
    EXPECT_EQ(tmf({"read", path}).out, "one\ntwo\n");
}

// ---- how many, how long

TEST_F(TmfTool, ReadOfAnEmptyFileWithoutWritersEnds)
{
    make();
    for (const auto &words : {std::vector<std::string>{"read", path},
                              {"read", "--keep", path},
                              {"read", "--shared", path},
                              {"read", "--wait", "0", path},
                              {"read", "--wait", "1", path}}) {
        const run_result result = tmf(words);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out + result.err, "");
    }
}

TEST_F(TmfTool, ReadTakesSoManyRecordsAndLeavesTheOthers)
{
    make({"one", "two", "three"});
    EXPECT_EQ(tmf({"read", "--count", "1", path}).out, "one\n");
    EXPECT_EQ(tmf({"read", "--count", "1", "--keep", path}).out, "two\n");
    EXPECT_THAT(records(), ElementsAre("two", "three"));
    EXPECT_EQ(tmf({"read", "--count", "9", path}).out, "two\nthree\n");
    expect_nobody();
}

TEST_F(TmfTool, ReadGoesOnWhileAWriterHasTheFileOpen)
{
    for (const char *how : {"--raw", "--shared"}) { // --raw: alone
        std::filesystem::remove(path);
        other_writer writer(path, {"one", "two"});
        const pid_t pid = start({"read", how, path});
        ASSERT_EQ(writer.write(), 0);
        ASSERT_TRUE(poll_until([&] { return output().substr(0, 3) == "one"; }));
        ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
        ASSERT_EQ(writer.write(), 0);
        ASSERT_TRUE(poll_until([&] { return output().find("two") != std::string::npos; }));
        ASSERT_EQ(writer.close(), 0);
        EXPECT_EQ(finish(pid), 0);
        EXPECT_EQ(errors(), "");
        expect_no_user();
    }
}

TEST_F(TmfTool, ReadEndsWhenTheOnlyWriterGoesWithoutARecord)
{
    for (const bool killed : {false, true}) {
        std::filesystem::remove(path);
        other_writer writer(path, {});
        const pid_t pid = start({"read", path});
        ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
        if (killed)
            writer.kill();
        else
            ASSERT_EQ(writer.close(), 0);
        EXPECT_EQ(finish(pid), 0);
        EXPECT_EQ(output() + errors(), "");
    }
}

TEST_F(TmfTool, ReadFollowsBeyondTheEndOfWriters)
{
    make({"one"});
    const pid_t pid = start({"read", "--follow", "--count", "3", path});
    for (const char *record : {"two", "three"}) {
        ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
        ASSERT_EQ(tmf({"write", path}, std::string(record) + "\n").status, 0);
        ASSERT_TRUE(poll_until([&] { return output().find(record) != std::string::npos; }));
    }
    EXPECT_EQ(finish(pid), 0);
    EXPECT_EQ(output(), "one\ntwo\nthree\n");
    expect_no_user();
}

TEST_F(TmfTool, ReadWithATimeLimitTakesWhatIsThereBesideAWriter)
{
    make({"one", "two"});
    other_user writer(path, 0);
    for (const char *seconds : {"0", "1"}) {
        const run_result result = tmf({"read", "--wait", seconds, path});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, *seconds == '0' ? "one\ntwo\n" : "");
        EXPECT_EQ(result.err, "");
    }
    EXPECT_EQ(writer.close(), 0);
}

TEST_F(TmfTool, ReadWithATimeLimitIsWokenByARecord)
{
    make();
    const pid_t pid = start({"read", "--wait", "600", "--count", "1", path});
    ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
    ASSERT_EQ(tmf({"write", path}, "late\n").status, 0);
    EXPECT_EQ(finish(pid), 0);
    EXPECT_EQ(output(), "late\n");
}

// ---- nothing is lost

TEST_F(TmfTool, ReadLosesNothingWhenStandardOutputFails)
{
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    pipe_ends closed;
    closed.close_end(0);
    const int not_writable = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const struct {
        int fd;
        std::string text;
    } table[] = {
        {full, "No space left on device"},
        {closed.fd[1], "Broken pipe"},
        {not_writable, "Bad file descriptor"},
    };
    make({"one", "two", "three"});
    for (const auto &row : table) {
        for (const char *how : {"--raw", "--json", "--follow"}) {
            EXPECT_EQ(finish(start_at({"read", how, path}, -1, row.fd)), 1);
            EXPECT_EQ(errors(), "tmf: writing standard output: " + row.text + "\n");
            EXPECT_EQ(record_count(), 3);
            expect_nobody();
        }
    }
    ::close(full);
    ::close(not_writable);
    EXPECT_THAT(records(), ElementsAre("one", "two", "three"));
}

// Lines of 100 bytes: 10 fit into the 1024 bytes, the eleventh in part.
TEST_F(TmfTool, ReadGivesARecordAgainThatWasWrittenInPart)
{
    std::string input;
    for (int i = 10; i < 30; i++)
        input += std::string(97, '.') + std::to_string(i) + "\n";
    ASSERT_EQ(tmf({"write", path}, input).status, 0);
    const std::string name = dir.file("limited");
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    // The message file is longer than the limit; a read writes only to its front.
    EXPECT_EQ(finish(start_at({"read", path}, -1, fd, "err", 1024)), 1);
    ::close(fd);
    EXPECT_EQ(errors(), "tmf: writing standard output: File too large\n");
    EXPECT_EQ(read_file(name), input.substr(0, 1024));
    EXPECT_EQ(record_count(), 10);
    EXPECT_EQ(tmf({"read", path}).out, input.substr(1000));
}

TEST_F(TmfTool, SharedReadRemovesARecordBeforeItIsWritten)
{
    make({"one", "two", "three"});
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(finish(start_at({"read", "--shared", path}, -1, full)), 1);
    ::close(full);
    EXPECT_THAT(records(), ElementsAre("two", "three"));
}

TEST_F(TmfTool, ReadWaitsForAPipeThatDoesNotBlock)
{
    std::string input;
    for (int i = 0; i < 100; i++)
        input += std::string(4000, static_cast<char>('a' + i % 26)) + "\n";
    ASSERT_EQ(tmf({"write", path}, input).status, 0);
    pipe_ends out;
    ASSERT_EQ(fcntl(out.fd[1], F_SETFL, O_NONBLOCK), 0);
    const pid_t pid = start_at({"read", path}, -1, out.fd[1]);
    out.close_end(1);
    EXPECT_TRUE(out.read_all() == input);
    EXPECT_EQ(finish(pid), 0);
    EXPECT_EQ(record_count(), 0);
}

// ---- files that are not to be read

TEST_F(TmfTool, ReadDoesNotCreateAFile)
{
    const run_result result = tmf({"read", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, complaint("No such file or directory"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(TmfTool, ReadLeavesForeignFilesAsTheyAre)
{
    make({"one"});
    const std::string good = bytes();
    std::string version = good;
    put_number<int16_t>(version, 74, 3);
    std::string order = good;
    put_number<uint16_t>(order, 0, 0x1234);
    const struct {
        std::string bytes;
        std::string text;
    } table[] = {
        {"", "File is not a message file."},
        {"some text", "File is not a message file."},
        {std::string(5000, 'x'), "File is not a message file."},
        {version, "Records are in an unsupported format."},
        {order, "Message file created on an incompatible system."},
        {good.substr(0, 255), "File is not a message file."},
    };
    for (const auto &row : table) {
        for (const char *how : {"--raw", "--keep", "--shared"}) {
            write_file(path, row.bytes);
            const run_result result = tmf({"read", how, path});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, complaint(row.text));
            EXPECT_EQ(bytes(), row.bytes);
        }
    }
    EXPECT_EQ(tmf({"read", dir.path()}).err,
              "tmf: " + dir.path() + ": File is not a message file.\n");
}

TEST_F(TmfTool, ReadOfADamagedFileGivesWhatIsSound)
{
    make({"one", "two", "three"});
    const std::string good = bytes();
    const struct {
        const char *name;
        std::function<void(std::string &)> damage;
        std::string output;
        std::string text;
    } table[] = {
        {"cut off", [](std::string &file) { file.resize(4372); }, "one\ntwo\n",
         "EOF reading data."},
        {"length", [](std::string &file) { file[4361] = 0x70; }, "one\n", "EOF reading data."},
        {"no length", [](std::string &file) { file[4362] = 0; }, "one\n", "EOF reading data."},
        {"count", [](std::string &file) { put_number<int32_t>(file, 16, -7); }, "",
         "damaged: -7 records"},
    };
    for (const auto &row : table) {
        for (const char *how : {"--keep", "--shared", "--follow"}) {
            SCOPED_TRACE(std::string(row.name) + " " + how);
            std::string file = good;
            row.damage(file);
            write_file(path, file);
            const run_result result = tmf({"read", how, path});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, row.output);
            EXPECT_EQ(result.err, complaint(row.text));
        }
    }
}

TEST_F(TmfTool, ReadBesideAnotherReaderSaysWhyNot)
{
    make({"one", "two"});
    {
        other_user reader(path, TMF_MODE_READ);
        for (const char *how : {"--raw", "--keep"}) {
            const run_result result = tmf({"read", how, path});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err,
                      complaint("Exclusively read access requested for file already open."));
        }
        EXPECT_EQ(tmf({"read", "--shared", "--count", "1", path}).out, "one\n");
        ASSERT_EQ(reader.close(), 0);
    }
    other_user reader(path, TMF_MODE_READ | TMF_MODE_EXCLUSIVE);
    for (const char *how : {"--raw", "--keep", "--shared"}) {
        const run_result result = tmf({"read", how, path});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, complaint("File already opened exclusively for read access."));
    }
    ASSERT_EQ(reader.close(), 0);
    EXPECT_THAT(records(), ElementsAre("two"));
}

TEST_F(TmfTool, SharedReadersTakeEachRecordOnce)
{
    std::string input;
    for (int i = 1000; i < 3000; i++)
        input += std::to_string(i) + "\n";
    ASSERT_EQ(tmf({"write", path}, input).status, 0);
    std::vector<pid_t> readers;
    for (int i = 0; i < 3; i++)
        readers.push_back(start({"read", "--shared", path}, "out" + std::to_string(i)));
    std::vector<std::string> all;
    for (size_t i = 0; i < readers.size(); i++) {
        EXPECT_EQ(finish(readers[i]), 0);
        const std::vector<std::string> part = split(read_file(dir.file("out" + std::to_string(i))));
        EXPECT_TRUE(std::is_sorted(part.begin(), part.end()));
        all.insert(all.end(), part.begin(), part.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, split(input));
}

TEST_F(TmfTool, ReadDoesNotWriteIntoItsOwnFile)
{
    make({"one"});
    const std::string before = bytes();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(finish(start_at({"read", path}, -1, fd)), 1);
    ::close(fd);
    EXPECT_EQ(errors(), complaint("is standard output, too"));
    EXPECT_EQ(bytes(), before);
}
