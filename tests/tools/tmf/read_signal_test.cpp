// tmf read ended by signals: while it waits for records, for its output and for
// the file's lock.
#include "tests/tools/tmf/tmf_fixture.h"

#include <csignal>
#include <fstream>

TEST_F(TmfTool, ReadThatWaitsDeregistersOnASignal)
{
    for (const int number : {SIGTERM, SIGINT}) {
        for (const bool with_writer : {false, true}) {
            std::filesystem::remove(path);
            make({"one"});
            std::unique_ptr<other_user> writer;
            if (with_writer)
                writer = std::make_unique<other_user>(path, 0);
            const pid_t pid =
                with_writer ? start({"read", path}) : start({"read", "--follow", path});
            ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
            kill(pid, number);
            EXPECT_EQ(finish(pid), 128 + number);
            EXPECT_EQ(output(), "one\n");
            EXPECT_EQ(errors(), "");
            if (with_writer) {
                ASSERT_EQ(writer->close(), 0);
            }
            expect_no_user();
        }
    }
}

// A pipe's 65536 bytes take 16 records of 4001 bytes each and no part of another.
TEST_F(TmfTool, ReadStoppedBeforeARecordLeavesItInTheFile)
{
    std::string input;
    for (int i = 0; i < 30; i++)
        input += std::string(4000, static_cast<char>('a' + i % 26)) + "\n";
    ASSERT_EQ(tmf({"write", path}, input).status, 0);
    pipe_ends out;
    const pid_t pid = start_at({"read", path}, -1, out.fd[1]);
    out.close_end(1);
    ASSERT_TRUE(poll_until([&] {
        const int filled = out.bytes_inside();
        return filled > 60000 && filled == (30 - record_count()) * 4001 && is_asleep(pid);
    }));
    kill(pid, SIGTERM);
    EXPECT_EQ(finish(pid), 143);
    expect_nobody();
    EXPECT_TRUE(out.read_all() + tmf({"read", path}).out == input);
}

// Two records of 30001 bytes and a part of the third.
TEST_F(TmfTool, ReadStoppedWithinARecordWritesItWhole)
{
    std::string input;
    for (int i = 0; i < 5; i++)
        input += std::string(30000, static_cast<char>('a' + i)) + "\n";
    for (const bool impatient : {false, true}) {
        std::filesystem::remove(path);
        ASSERT_EQ(tmf({"write", path}, input).status, 0);
        pipe_ends out;
        const pid_t pid = start_at({"read", path}, -1, out.fd[1]);
        out.close_end(1);
        ASSERT_TRUE(poll_until(
            [&] { return out.bytes_inside() > 60002 && record_count() == 3 && is_asleep(pid); }));
        if (impatient) // more than one signal gives the rest up
            EXPECT_EQ(signalled_to_its_end(pid), 143);
        else
            kill(pid, SIGTERM);
        const std::string got = out.read_all();
        if (!impatient) {
            EXPECT_EQ(finish(pid), 143);
        }
        expect_nobody();
        EXPECT_EQ(record_count(), impatient ? 3 : 2);
        EXPECT_TRUE(impatient ? got.size() > 60002 && got.size() < 90003
                              : got == input.substr(0, 90003));
        EXPECT_TRUE(tmf({"read", path}).out == input.substr(impatient ? 60002 : 90003));
    }
}

TEST_F(TmfTool, ReadWaitingForTheFileEndsOnASignal)
{
    for (const auto &records : {std::initializer_list<std::string>{}, {"one"}}) {
        std::filesystem::remove(path);
        make(records);
        const lock_holder holder(path, 0, 256);
        const pid_t pid = start({"read", "--follow", path});
        EXPECT_EQ(signalled_to_its_end(pid), 143);
        EXPECT_EQ(output() + errors(), "");
        expect_nobody();
    }
}

// A pipe of one page holds the program in the output of a record until the file is locked
// and the record's line of 30001 bytes has been read.
class TmfReadLocked : public TmfTool {
  protected:
    void begin(const std::vector<std::string> &words, int records, size_t given = 1)
    {
        for (int i = 0; i < records; i++)
            input += std::string(30000, static_cast<char>('a' + i)) + "\n";
        ASSERT_EQ(tmf({"write", path}, input).status, 0);
        ASSERT_GE(fcntl(out.fd[1], F_SETPIPE_SZ, 4096), 4096);
        pid = start_at(words, -1, out.fd[1]);
        out.close_end(1);
        const size_t before = (given - 1) * 30001;
        ASSERT_TRUE(out.read_all(before) == input.substr(0, before));
        ASSERT_TRUE(poll_until([&] { return out.bytes_inside() > 0 && is_asleep(pid); }));
        holder = std::make_unique<lock_holder>(path, 0, 256);
        ASSERT_EQ(out.read_all(30001), input.substr(before, 30001));
    }
    // Ends what begin has begun; the program's exit status.
    int unlock_and_finish()
    {
        EXPECT_EQ(holder->unlock(), 0);
        const int status = finish(pid);
        EXPECT_EQ(out.read_all(), "");
        expect_nobody();
        return status;
    }
    pipe_ends out;
    std::string input;
    pid_t pid = -1;
    std::unique_ptr<lock_holder> holder;
};

TEST_F(TmfReadLocked, SignalEndsTheLookForMoreRecords)
{
    begin({"read", "--keep", path}, 1);
    signal_asleep(pid);
    EXPECT_EQ(unlock_and_finish(), 143);
    EXPECT_EQ(errors(), "");
}

TEST_F(TmfReadLocked, SignalEndsTheReadOfTheNextRecord)
{
    begin({"read", "--shared", path}, 2);
    signal_asleep(pid);
    EXPECT_EQ(unlock_and_finish(), 143);
    EXPECT_EQ(errors(), "");
}

// Four of them are read at once.
TEST_F(TmfReadLocked, SignalEndsTheReadOfTheNextKeptRecords)
{
    begin({"read", "--keep", path}, 5, 4);
    signal_asleep(pid);
    EXPECT_EQ(unlock_and_finish(), 143);
    EXPECT_EQ(errors(), "");
}

TEST_F(TmfReadLocked, SignalDoesNotKeepAWrittenRecordInTheFile)
{
    begin({"read", path}, 2);
    signal_asleep(pid);
    EXPECT_EQ(unlock_and_finish(), 143);
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(record_count(), 1);
}

TEST_F(TmfReadLocked, SecondSignalLeavesAWrittenRecordInTheFileAndSaysSo)
{
    begin({"read", path}, 2);
    signal_asleep(pid);
    signal_asleep(pid);
    EXPECT_EQ(unlock_and_finish(), 1);
    EXPECT_EQ(errors(), complaint("record 1 is written, but may still be in the file: "
                                  "Error applying wait lock."));
    EXPECT_EQ(record_count(), 2);
}

// The close is the last to want the lock: what it leaves is removed by the next user.
TEST_F(TmfReadLocked, ManySignalsEndItAlthoughTheFileIsLocked)
{
    begin({"read", "--keep", path}, 1);
    EXPECT_EQ(signalled_to_its_end(pid), 143);
    EXPECT_EQ(errors(), complaint("Error applying wait lock."));
    EXPECT_EQ(holder->unlock(), 0);
    EXPECT_EQ(number_at<int16_t>(bytes(), 68), 1);
    EXPECT_EQ(tmf({"read", path}).out, input);
    expect_nobody();
}

TEST_F(TmfTool, KilledReadLeavesItsPlaceToTheNextOne)
{
    make();
    const pid_t pid = start({"read", "--follow", path});
    ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
    kill(pid, SIGKILL);
    EXPECT_EQ(finish(pid), 137);
    ASSERT_EQ(tmf({"write", path}, "one\n").status, 0);
    EXPECT_EQ(tmf({"read", path}).out, "one\n");
    expect_nobody();
}

// Another file whose wait list names all ports that a reader in slot 0 may have
// got, and whose writer writes on and on.
TEST_F(TmfTool, ReadEndsInTimeAlthoughAnotherFilesWriterWakesIt)
{
    make();
    std::string file = bytes();
    for (int i = 0; i < 16; i++) {
        const int port = 0xD000 + 16 * i;
        file[92 + 2 * static_cast<size_t>(i)] = static_cast<char>(port >> 8);
        file[93 + 2 * static_cast<size_t>(i)] = static_cast<char>(port & 0xFF);
    }
    file.replace(124, 2, "\xff\xff");
    const std::string other = dir.file("other");
    write_file(other, file);
    other_process writer({[&] {
        tmf_handle *h = tmf_fopen(other.c_str(), 0);
        while (tmf_fwrite(h, "x", 1) == 0) { // a wake-up each
        }
        return 1;
    }});
    writer.start();
    const auto written = [&] {
        std::string beginning(20, '\0'); // of a file that becomes long
        std::ifstream(other).read(beginning.data(), 20);
        return number_at<int32_t>(beginning, 16);
    };
    ASSERT_TRUE(poll_until([&] { return written() > 0; }));

    EXPECT_EQ(tmf({"read", "--wait", "1", path}).status, 0);
    const pid_t reader = start({"read", "--follow", path});
    EXPECT_TRUE(poll_until([&] { return reader_waits(); }));
    kill(reader, SIGTERM);
    EXPECT_EQ(finish(reader), 143);

    const int32_t before = written();
    EXPECT_TRUE(poll_until([&] { return written() > before; })) << "it wrote all the time";
    writer.kill();
    expect_no_user();
}
