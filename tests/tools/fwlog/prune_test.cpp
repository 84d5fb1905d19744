// fwlog prune on small logs: one transaction of three inserts in each file.
#include "fwutil/fwu_crc32c.h"
#include "tests/support/log_header.h"
#include "tests/tools/fwlog/pruned_log.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;
using testing::Not;

class FwlogPruneTest : public PrunedLogTest {
  protected:
    run_result prune(std::vector<std::string> words)
    {
        words.insert(words.begin(), {program, "prune"});
        return run(words);
    }
};

TEST_F(FwlogPruneTest, KeepsTheNewestFiles)
{
    make(5);
    const run_result result = prune({"--keep", "3"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "removed fw0001-00000001.log, 480 bytes\n"
              "removed fw0001-00000002.log, 480 bytes\n"
              "2 files removed, 960 bytes; 3 files left, the oldest is fw0001-00000003.log\n");
    EXPECT_EQ(left(), "1-3 1-4 1-5 ");
    EXPECT_EQ(prune({"--keep", "3"}).out,
              "0 files removed, 0 bytes; 3 files left, the oldest is fw0001-00000003.log\n");
    EXPECT_EQ(prune({"--keep", "18446744073709551615"}).status, 0);
    EXPECT_EQ(prune({"--keep", "1"}).status, 0);
    EXPECT_EQ(left(), "1-5 ");
}

TEST_F(FwlogPruneTest, KeepsTheFileOfAPositionAndAllBehindIt)
{
    make(6);
    for (const auto &[position, after] : std::vector<std::pair<std::string, std::string>>{
             {"1", "1-1 1-2 1-3 1-4 1-5 1-6 "},
             {"2", "1-2 1-3 1-4 1-5 1-6 "},
             {"1", "1-2 1-3 1-4 1-5 1-6 "}, // gone already
             {"1-3", "1-3 1-4 1-5 1-6 "},
             {"1-4.0", "1-4 1-5 1-6 "},
             {"1-5.2147483647", "1-5 1-6 "},
             {"6", "1-6 "}}) {
        EXPECT_EQ(prune({"--before", position}).status, 0) << position;
        EXPECT_EQ(left(), after) << position;
    }
}

TEST_F(FwlogPruneTest, APositionBehindTheLogIsRefused)
{
    make(2);
    for (const std::string position : {"3", "1-3.1", "2-1"}) {
        const run_result result = prune({"--before", position});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "fwlog: --before: the log does not have that file yet, its newest "
                              "one is fw0001-00000002.log (position 1-2); nothing removed\n");
    }
    EXPECT_EQ(left(), "1-1 1-2 ");
}

TEST_F(FwlogPruneTest, AFileNumberMeansTheNewestGenerationThatHasIt)
{
    make(3);
    for (const int sequence : {2, 3})
        write_file(file(sequence, 2), renumbered(read_file(file(1)), 2, sequence));
    EXPECT_EQ(prune({"--before", "4"}).status, 1);
    EXPECT_EQ(prune({"--before", "1"}).status, 0);
    EXPECT_EQ(left(), "1-1 1-2 1-3 2-2 2-3 ") << "1-1 is the only file 1";
    EXPECT_EQ(prune({"--before", "1-2"}).status, 0);
    EXPECT_EQ(left(), "1-2 1-3 2-2 2-3 ");
    EXPECT_EQ(prune({"--before", "3"}).status, 0);
    EXPECT_EQ(left(), "2-3 ") << "2-3 is the newest file 3";
}

TEST_F(FwlogPruneTest, ADryRunRemovesNothing)
{
    make(3);
    const run_result result = prune({"--before", "1-3.2", "--dry-run"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(
        result.out,
        "would remove fw0001-00000001.log, 480 bytes\n"
        "would remove fw0001-00000002.log, 480 bytes\n"
        "2 files would be removed, 960 bytes; 1 files left, the oldest is fw0001-00000003.log\n");
    EXPECT_EQ(prune({"--keep", "2", "--dry-run", "--json"}).out,
              "{\"directory\":\"log\",\"dry_run\":true,\"removed\":[{\"file\":\"fw0001-00000001."
              "log\",\"size\":480}],\"files\":1,\"bytes\":480,\"left\":2,\"oldest\":\"fw0001-"
              "00000002.log\"}\n");
    EXPECT_EQ(left(), "1-1 1-2 1-3 ");
}

TEST_F(FwlogPruneTest, JsonIsOneObject)
{
    make(3);
    EXPECT_EQ(prune({"--keep", "1", "--json"}).out,
              "{\"directory\":\"log\",\"dry_run\":false,\"removed\":[{\"file\":\"fw0001-00000001."
              "log\",\"size\":480},{\"file\":\"fw0001-00000002.log\",\"size\":480}],\"files\":2,"
              "\"bytes\":960,\"left\":1,\"oldest\":\"fw0001-00000003.log\"}\n");
    EXPECT_EQ(left(), "1-3 ");
}

TEST_F(FwlogPruneTest, AnEmptyLogHasNothingToRemove)
{
    std::filesystem::create_directory(dir.file("log"));
    EXPECT_EQ(prune({"--keep", "1"}).out, "0 files removed, 0 bytes; 0 files left\n");
    const run_result result = prune({"--before", "7", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "{\"directory\":\"log\",\"dry_run\":false,\"removed\":[],\"files\":0,"
                          "\"bytes\":0,\"left\":0,\"oldest\":null}\n");
}

// A writer that starts anew has to find where the last one ended.
TEST_F(FwlogPruneTest, TheFileWithTheLastTransactionStays)
{
    make(3);
    const std::string header = read_file(file(3)).substr(0, FWU_FILE_HEADER_SIZE);
    for (const int sequence : {4, 5})
        write_file(file(sequence), renumbered(header, 1, sequence));
    EXPECT_EQ(prune({"--keep", "1"}).out,
              "removed fw0001-00000001.log, 480 bytes\n"
              "removed fw0001-00000002.log, 480 bytes\n"
              "2 files removed, 960 bytes; 3 files left, the oldest is fw0001-00000003.log\n");
    fwu_config config;
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    EXPECT_EQ(fwu_writer_last_lsn(writer), 8U) << "of the third transaction";
    EXPECT_EQ(fwu_writer_close(writer), 0);
}

TEST_F(FwlogPruneTest, AFileThatAStatusNeedsForbidsIt)
{
    make(4);
    status("one.status", {1, 4, 2});
    status("two.status", {1, 2, 4}); // the last record of its file
    const run_result result =
        prune({"--keep", "2", "--status", "one.status", "--status", "two.status"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "fwlog: two.status: its position on disk 1-2.4 needs fw0001-00000002.log and "
              "the files behind it; nothing removed; prune with --before 1-2, or when "
              "its run has gone on\n");
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 ");
    EXPECT_EQ(prune({"--keep", "2", "--dry-run", "--status", "two.status"}).status, 1);
    EXPECT_EQ(prune({"--before", "1-2", "--status", "one.status", "--status", "two.status"}).status,
              0);
    EXPECT_EQ(left(), "1-2 1-3 1-4 ");
    EXPECT_EQ(prune({"--keep", "1", "--status", "one.status"}).status, 0);
    EXPECT_EQ(left(), "1-4 ");
}

TEST_F(FwlogPruneTest, WhatIsOnDiskCountsNotTheLastPosition)
{
    make(4);
    two_places("run.status", {1, 4, 2}, {1, 2, 4});
    EXPECT_EQ(prune({"--keep", "2", "--status", "run.status"}).err,
              "fwlog: run.status: its position on disk 1-2.4 needs fw0001-00000002.log and the "
              "files behind it; nothing removed; prune with --before 1-2, or when its run has gone "
              "on\n");
    two_places("run.status", {1, 4, 2}, {});
    EXPECT_THAT(prune({"--keep", "2", "--status", "run.status"}).err,
                HasSubstr("the status file names no record yet that is known to be on disk, so "));
    two_places("run.status", {1, 4, 2}, {1, 1, 2}, "", "any");
    EXPECT_EQ(prune({"--keep", "2", "--status", "run.status"}).status, 0)
        << "the last position counts on any boot";
    EXPECT_EQ(left(), "1-3 1-4 ");
}

TEST_F(FwlogPruneTest, AStatusOfVersionOneIsTakenAsItSays)
{
    make(3);
    const std::string head = "fwutil status 1\nlog " + real(dir.file("log")) + "\n";
    std::string line = "0 position 0001-00000002.0000000004 time 2023-11-14 22:13:20.000000 UTC";
    std::string text = head;
    for (const char number : {'0', '1'}) {
        line[0] = number;
        char crc[16];
        (void)snprintf(
            crc, sizeof crc, " crc %08x\n",
            fwu_crc32c(fwu_crc32c(0, head.data(), head.size()), line.data(), line.size()));
        text += line + crc;
    }
    write_file(dir.file("old.status"), text);
    EXPECT_EQ(
        prune({"--keep", "1", "--status", "old.status"}).err,
        "fwlog: old.status: its position 1-2.4 needs fw0001-00000002.log and the files behind "
        "it; nothing removed; prune with --before 1-2, or when its run has gone on\n");
    EXPECT_EQ(prune({"--keep", "2", "--status", "old.status"}).status, 0);
    EXPECT_EQ(read_file(dir.file("old.status")), text);
}

TEST_F(FwlogPruneTest, AStatusOfAnotherLogOfThatNameForbidsIt)
{
    make(3);
    status("run.status", {1, 3, 2});
    std::filesystem::remove_all(dir.file("log"));
    make(3);
    EXPECT_THAT(prune({"--keep", "1", "--status", "run.status"}).err,
                HasSubstr("run.status: position on disk 1-3.2: the log has another record there"));
    EXPECT_EQ(left(), "1-1 1-2 1-3 ");
}

TEST_F(FwlogPruneTest, AStatusThatTellsNothingForbidsIt)
{
    make(3);
    write_file(dir.file("torn.status"), "Kestro");
    write_file(dir.file("empty.status"), "");
    status("none.status", {});
    status("other.status", {1, 3, 2}, "/var/other");
    status("gone.status", {1, 7, 2});
    const std::string unknown = ": what its run still needs is not known; nothing removed; mend "
                                "the status file, or leave out its --status when the run is over\n";
    const std::string none = ": the status file names no record yet, so its run begins with the "
                             "log's oldest file; nothing removed; prune when it has captured "
                             "something, or leave out its --status\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"absent.status",
         "fwlog: absent.status: cannot open the status file: No such file or directory\n"
         "fwlog: absent.status" +
             unknown},
        {"torn.status",
         "fwlog: torn.status: the status file is damaged; give the position that you know as "
         "start position, or remove the file to begin with the log's oldest record; "
         "a start may empty the program's text files: keep them aside first\n"
         "fwlog: torn.status" +
             unknown},
        {"empty.status", "fwlog: empty.status" + none},
        {"none.status", "fwlog: none.status" + none},
        {"other.status", "fwlog: other.status: the status file belongs to the log in /var/other, "
                         "not to the one in " +
                             real(dir.file("log")) +
                             "; nothing removed; name the right configuration, or leave out its "
                             "--status\n"},
        {"gone.status",
         "fwlog: gone.status: position on disk 1-7.2: the log does not have that file; it has "
         "fw0001-00000001.log (start position 1-1.0) to fw0001-00000003.log (1-3.0); to go on "
         "with this log, give 1-1.0 as start position (-start 1-1.0), its oldest record; or "
         "restore the log that belongs to it, or name another status file; a start "
         "may empty the program's text files: keep them aside first\n"
         "fwlog: gone.status: its run cannot go on; nothing removed; mend that, or leave out its "
         "--status\n"},
    };
    for (const auto &[name, message] : cases) {
        const run_result result = prune({"--keep", "1", "--status", name});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_EQ(result.err, message);
    }
    EXPECT_EQ(left(), "1-1 1-2 1-3 ");
}

TEST_F(FwlogPruneTest, AFileThatCannotBeRemovedEndsItWithTheNewerOnesLeft)
{
    make(4);
    // A directory of that name cannot be unlinked, whoever tries.
    std::filesystem::remove(file(2));
    std::filesystem::create_directory(file(2));
    const run_result result = prune({"--keep", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "removed fw0001-00000001.log, 480 bytes\n"
              "1 files removed, 480 bytes; 3 files left, the oldest is fw0001-00000002.log\n");
    EXPECT_EQ(result.err, "fwlog: log/fw0001-00000002.log: cannot remove the log file: Is a "
                          "directory; it and the newer ones are left\n");
    EXPECT_EQ(left(), "1-2 1-3 1-4 ");
}

TEST_F(FwlogPruneTest, ASyncThatFailsIsTold)
{
    make(3);
    status("run.status", {1, 3, 2});
    run_setup options;
    options.directory = dir.path();
    options.env = {{"LD_PRELOAD", FAILING_FSYNC},
                   {"FAILING_FSYNC", "directory"},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    const std::vector<std::string> words = {program, "prune",    "--keep",
                                            "1",     "--status", "run.status"};
    const run_result result = run_program(words, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("\n2 files removed, 960 bytes; 1 files left"));
    EXPECT_EQ(result.err, "fwlog: log: cannot bring the log directory to disk: Input/output error; "
                          "after a power cut removed files may be there again\n");
}

// Where not even a lock file can be made.
TEST_F(FwlogPruneTest, AFullFileSystemGetsRoom)
{
    make(4);
    std::filesystem::rename(dir.file("log"), dir.file("made"));
    std::filesystem::create_directory(dir.file("log"));
    const auto sh = [this](const std::string &script) { return run({"sh", "-c", script}); };
    const run_result probe = sh("unshare -Urm mount -t tmpfs none log");
    if (probe.status != 0)
        GTEST_SKIP() << "no file system of one's own is to be had here: " << probe.err;
    const auto prune_full = [&](const std::string &words) {
        return sh("unshare -Urm sh -c 'mount -t tmpfs -o nr_inodes=64 none log && cp made/* log; "
                  "n=0; while true >log/fill$n; do n=$((n+1)); done; " +
                  program + " prune " + words + "; echo status $?; ls log | grep -v fill' 2>err");
    };
    const run_result result = prune_full("--keep 2");
    EXPECT_EQ(result.out, "removed fw0001-00000001.log, 480 bytes\n"
                          "removed fw0001-00000002.log, 480 bytes\n"
                          "2 files removed, 960 bytes; 2 files left, the oldest is "
                          "fw0001-00000003.log\n"
                          "status 0\nacknowledged\nfw0001-00000003.log\nfw0001-00000004.log\n"
                          "readers.lock\nwriter.lock\n");
    EXPECT_THAT(read_file(dir.file("err")), Not(HasSubstr("fwlog:")));
    EXPECT_THAT(prune_full("--keep 3 --json").out,
                HasSubstr("\"removed\":[{\"file\":\"fw0001-00000001.log\",\"size\":480}],"
                          "\"files\":1,\"bytes\":480,\"left\":3,"));
    EXPECT_THAT(prune_full("--keep 4").out, HasSubstr("0 files removed, 0 bytes; 4 files left"));
    EXPECT_THAT(prune_full("--keep 1 --status none").out, HasSubstr("status 1\nacknowledged\n"
                                                                    "fw0001-00000001.log\n"));
}

// A last position that a power cut could take back behind what is gone keeps everything.
TEST_F(FwlogPruneTest, ALastPositionIsBroughtToDiskFirst)
{
    make(3);
    status("any.status", {1, 3, 2}, "", "any");
    status("synced.status", {1, 3, 2});
    run_setup options;
    options.directory = dir.path();
    options.env = {{"LD_PRELOAD", FAILING_FSYNC},
                   {"FAILING_FSYNC", "file"},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    const auto prune_for = [&](const std::string &name) {
        return run_program({program, "prune", "--keep", "1", "--status", name}, options);
    };
    const run_result result = prune_for("any.status");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("fwlog: any.status: cannot bring the status file to disk: "
                                      "Input/output error\n"));
    EXPECT_EQ(left(), "1-1 1-2 1-3 ");
    EXPECT_EQ(prune_for("synced.status").status, 0);
    EXPECT_EQ(left(), "1-3 ");
}

TEST_F(FwlogPruneTest, APrunedLogIsSoundAndReadFromItsOldestFile)
{
    make(4);
    ASSERT_EQ(prune({"--keep", "2"}).status, 0);
    const run_result verify = run({program, "verify"});
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out, "log/fw0001-00000003.log: 1 transactions, 5 entries\n"
                          "log/fw0001-00000004.log: 1 transactions, 5 entries\n");
    const run_result info = run({program, "info"});
    EXPECT_EQ(info.status, 0);
    EXPECT_THAT(info.out, HasSubstr("2 files, 960 bytes, 2 transactions\n"));
    const run_result late = run({kestro, "-synconly", "-ascii", "cap.txt"});
    EXPECT_THAT(late.out, HasSubstr("6 records written to capture file cap.txt\n"));
    EXPECT_EQ(late.err,
              "fwutil: warning: " + real(dir.file("log")) +
                  ": beginning with fw0001-00000003.log, the log's oldest file: older ones "
                  "were removed, and what they held is missing here\n");
    EXPECT_EQ(run({kestro, "-synconly", "-ascii", "cap.txt"}).err, "") << "it has a position now";
    EXPECT_EQ(run({kestro, "-start", "1-3.0", "-synconly", "-ascii", "cap.txt"}).err, "")
        << "as it was told to";
}

TEST_F(FwlogPruneTest, ARangeThatBeginsInFrontOfTheOldestFileIsTold)
{
    make(4);
    ASSERT_EQ(prune({"--keep", "2"}).status, 0);
    const std::string told = "fwlog: warning: log: beginning with fw0001-00000003.log, the log's "
                             "oldest file: older ones were removed, and what they held is missing "
                             "here\n";
    for (const char *from : {"1-1", "2", "1-2.4"})
        EXPECT_EQ(run({program, "dump", "--from", from}).err, told) << from;
    for (const char *from : {"1-3", "1-3.4", "4"})
        EXPECT_EQ(run({program, "dump", "--from", from}).err, "") << from;
}

TEST_F(FwlogPruneTest, ARunThatNeedsARemovedFileSaysWhereTheLogBegins)
{
    make(2);
    ASSERT_EQ(run({kestro, "-synconly", "-ascii", "cap.txt"}).status, 0);
    make(3);
    ASSERT_EQ(prune({"--before", "1-3"}).status, 0);
    const run_result result = run({kestro, "-synconly", "-ascii", "cap.txt"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "fwutil: fwutil.status: position 1-2.4: the log does not have that file; it has "
              "fw0001-00000003.log (start position 1-3.0) to fw0001-00000005.log (1-5.0); to go on "
              "with this log, give 1-3.0 as start position (-start 1-3.0), its oldest record; or "
              "restore the log that belongs to it, or name another status file; a start "
              "may empty the program's text files: keep them aside first\n"
              "Fwu_process() failed.\n");
}

TEST_F(FwlogPruneTest, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::string again = "Try \"fwlog --help\".\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "give --keep or --before: prune"},
        {{"--dry-run"}, "give --keep or --before: prune"},
        {{"--keep", "1", "--before", "1"}, "give only one of --keep and --before: prune"},
        {{"--bad"}, "unknown option: --bad"},
        {{"word"}, "unexpected word: word"},
        {{"-cfg"}, "option lacks its file name: -cfg"},
        {{"--keep", "1", "--status"}, "option lacks its file name: --status"},
        {{"--keep"}, "option lacks its number: --keep"},
        {{"--before"}, "option lacks its position: --before"},
        {{"--keep", "0"}, "not a number of files (1 or more): 0"},
        {{"--keep", "-1"}, "not a number of files (1 or more): -1"},
        {{"--keep", "2x"}, "not a number of files (1 or more): 2x"},
        {{"--keep", "18446744073709551616"},
         "not a number of files (1 or more): 18446744073709551616"},
        {{"--before", "1.2"}, "not a position (25, 1-25 or 1-25.340): 1.2"},
    };
    make(2);
    for (const auto &[words, message] : cases) {
        const run_result result = prune(words);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "fwlog: " + message + "\n" + again);
    }
    EXPECT_THAT(prune({"--help"}).out, testing::StartsWith("Usage: fwlog prune "));
    EXPECT_EQ(left(), "1-1 1-2 ");
    EXPECT_EQ(prune({"--keep", "1", "-cfg", "absent.cfg"}).status, 1);
}
