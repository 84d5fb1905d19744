// Programs that read a log before and behind a repair: each way out of damage, and the start
// position that a run is given when what it read last is cut off.
#include "tests/tools/fwlog/repair_fixture.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>

using testing::HasSubstr;

// The start position that a message gives: "... (-start 1-2.5) ...".
static std::string start_in(const std::string &message)
{
    const std::string before = "(-start ";
    const size_t at = message.find(before);
    EXPECT_NE(at, message.npos) << message;
    const size_t from = at == message.npos ? message.size() : at + before.size();
    return message.substr(from, message.find(')', from) - from);
}

TEST_F(FwlogRepairTest, ARunInsideWhatWasCutOffIsGivenAStartThatWorks)
{
    const std::vector<std::string> capture = {kestro, "-synconly", "-ascii", "cap.txt"};
    make();
    for (const size_t at : {510U, 190U}) { // in the second, in the first transaction of file 2
        put_back(whole);
        std::filesystem::remove(dir.file("fwutil.status"));
        ASSERT_EQ(run(capture).status, 0);
        flip(file(2), at);
        ASSERT_EQ(repair({"--accept-loss"}).status, 0);
        run_result lost = run(capture);
        EXPECT_EQ(lost.status, 1);
        EXPECT_THAT(lost.err, HasSubstr("position 1-3.8: the log does not have that file"));
        // Also when other transactions stand there.
        append(6, 10, true);
        lost = run(capture);
        EXPECT_EQ(lost.status, 1);
        const std::string start = start_in(lost.err);
        std::vector<std::string> again = capture;
        again.insert(again.begin() + 1, {"-start", start});
        const run_result result = run(again);
        EXPECT_EQ(result.status, 0) << result.err << lost.err;
        EXPECT_THAT(result.out, HasSubstr("12 records written to capture file cap.txt\n"));
    }
}

// Each way out of damage, as the message and the operations page name them.
TEST_F(FwlogRepairTest, ARunThatMeetsDamageGoesOnByEachRemedy)
{
    const std::vector<std::string> capture = {kestro, "-synconly", "-ascii", "cap.txt"};
    for (const int remedy : {1, 2, 3}) {
        SCOPED_TRACE(remedy);
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::remove(dir.file("fwutil.status"));
        append(0, 2, true);
        ASSERT_EQ(run(capture).status, 0);
        append(2, 6, true);
        const std::string copy = read_file(file(2));
        flip(file(2), 510);
        run_result result = run(capture);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, HasSubstr("3 records written"));
        EXPECT_THAT(
            result.err,
            HasSubstr("log/fw0001-00000002.log: damaged at offset 480: the checksum of the "
                      "entry's payload is wrong; restore the file from a copy, cut the log "
                      "back to what is whole (fwlog repair), or leave the rest of the file "
                      "out with the next one as start position (1-3.0); a start may empty the "
                      "program's text files: keep them aside first\n"));
        EXPECT_EQ(run({program, "verify"}).status, 1);
        if (remedy == 1) {
            write_file(file(2), copy);
            EXPECT_EQ(run({program, "verify"}).status, 0);
            EXPECT_THAT(run(capture).out, HasSubstr("9 records written"));
        } else if (remedy == 2) {
            EXPECT_EQ(run({program, "repair", "--dry-run"}).status, 1);
            EXPECT_EQ(run({program, "repair", "--accept-loss"}).status, 0);
            append(3, 6, true); // loaded again
            EXPECT_THAT(run(capture).out, HasSubstr("9 records written"));
        } else {
            std::vector<std::string> words = capture;
            words.insert(words.begin() + 1, {"-start", "1-3.0"});
            EXPECT_THAT(run(words).out, HasSubstr("6 records written"));
            EXPECT_THAT(run(capture).out, HasSubstr("0 records written"));
        }
    }
}

// One that is following, and has read on in the file that is cut, does not take what comes
// to stand there for what it has read.
TEST_F(FwlogRepairTest, ARunThatFollowsInsideWhatIsCutOffEndsWithAStartThatWorks)
{
    append(0, 4, true); // two files
    run_setup options;
    options.directory = dir.path();
    const pid_t pid = start_program({kestro, "-ascii", "followed.txt"}, options,
                                    dir.file("out.txt"), dir.file("err.txt"));
    ASSERT_TRUE(poll_until([&] {
        const std::string text = std::filesystem::exists(dir.file("followed.txt"))
                                     ? read_file(dir.file("followed.txt"))
                                     : "";
        return std::count(text.begin(), text.end(), '\n') == 12;
    }));
    const int fd = open(file(2).c_str(), O_RDWR);
    ASSERT_EQ(pwrite(fd, "?", 1, 560), 1); // in the last transaction
    close(fd);
    ASSERT_EQ(repair({"--accept-loss"}).status, 0);
    EXPECT_EQ(wait_program(pid), 1);
    const std::string err = read_file(dir.file("err.txt"));
    EXPECT_THAT(err, HasSubstr("the log file was replaced while it was being read"));
    append(7, 9, true); // one transaction where the lost one stood, one in a new file
    const run_result result =
        run({kestro, "-synconly", "-start", start_in(err), "-ascii", "again.txt"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("6 records written to capture file again.txt\n"));
}
