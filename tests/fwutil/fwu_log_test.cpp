// From file to file, and the walk for programs that show a log.
#include "fwutil/fwu_log.h"

#include "tests/fwutil/log_fixture.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

class LogTest : public log_test {
  protected:
    std::string walk()
    {
        std::string text;
        err = stderr_of([&] {
            result = fwu_log_walk(log, [&](const fwu_walk_item &item) {
                const std::string at =
                    item.file->name.substr(7, 8) + "@" + std::to_string(item.offset);
                if (item.what == FWU_WALK_FILE)
                    text += "file " + std::to_string(item.header.sequence) + "\n";
                else if (item.what == FWU_WALK_ENTRY)
                    text += at + " kind " + std::to_string(item.entry.kind) + "\n";
                else if (item.what == FWU_WALK_TAIL)
                    text += at + " tail " + std::to_string(item.length) + "\n";
                else
                    text += at + " damage: " + item.reason + "\n";
                return 0;
            });
        });
        return text;
    }
    int result = 0;
    std::string err;
};

TEST_F(LogTest, OtherNamesInTheDirectoryArePassedOver)
{
    two_files();
    write_file(log + "/fw0001-00000003.log.bak", "x");
    write_file(log + "/readme", "x");
    EXPECT_EQ(run().records, written);
}

TEST_F(LogTest, AMissingFileInTheMiddleIsNamed)
{
    two_files();
    std::filesystem::rename(file(2), file(3));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.records, written_from(1, 3));
    EXPECT_EQ(
        outcome.err,
        "fwutil: " + std::filesystem::canonical(log).string() +
            "/fw0001-00000002.log: the log file is missing, the next one there "
            "is fw0001-00000003.log; restore it, or begin with that file (start "
            "position 1-3.0); a start may empty the program's text files: keep them aside first\n");
}

TEST_F(LogTest, ANewGenerationMayBeginWithAnyNumber)
{
    two_files();
    const std::string bytes = renumbered(log_file_bytes(2), 2, 70);
    std::filesystem::remove(file(2));
    write_file(file(70, 2), bytes);
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
    EXPECT_EQ(Fwu_CurrentLogGeneration(), 2);
    EXPECT_EQ(Fwu_CurrentLogSequence(), 70);
}

TEST_F(LogTest, WalkShowsEveryEntryAndTheTail)
{
    two_files();
    write_file(file(2), log_file_bytes(2) + "torn");
    EXPECT_EQ(walk(), "file 1\n"
                      "00000001@64 kind 1\n"
                      "00000001@152 kind 3\n"
                      "00000001@232 kind 6\n"
                      "00000001@288 kind 4\n"
                      "00000001@384 kind 5\n"
                      "00000001@464 kind 6\n"
                      "file 2\n"
                      "00000002@64 kind 1\n"
                      "00000002@152 kind 3\n"
                      "00000002@232 kind 3\n"
                      "00000002@312 kind 6\n"
                      "00000002@368 tail 4\n");
    EXPECT_EQ(result, 0) << err;
}

TEST_F(LogTest, WalkEndsAtDamage)
{
    two_files();
    std::string bytes = log_file_bytes(1);
    bytes[300] ^= 1;
    write_file(file(1), bytes);
    EXPECT_EQ(walk(), "file 1\n"
                      "00000001@64 kind 1\n"
                      "00000001@152 kind 3\n"
                      "00000001@232 kind 6\n"
                      "00000001@288 damage: the checksum of the entry's header is wrong\n");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(err, HasSubstr(file(1) + ": damaged at offset 288"));
}

TEST_F(LogTest, WalkShowsATornHeaderAsATail)
{
    std::filesystem::create_directory(log);
    write_file(file(1), "KFW");
    EXPECT_EQ(walk(), "00000001@0 tail 3\n");
    EXPECT_EQ(result, 0);
}

TEST_F(LogTest, WalkPassesTheVisitorsResultUp)
{
    two_files();
    EXPECT_EQ(fwu_log_walk(log, [](const fwu_walk_item &) { return 7; }), 7);
    int visits = 0;
    EXPECT_EQ(fwu_log_walk(log, [&](const fwu_walk_item &) { return ++visits == 3 ? 9 : 0; }), 9);
    EXPECT_EQ(visits, 3);
}

TEST_F(LogTest, AMissingDirectoryIsAnError)
{
    walk();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, "fwutil: " + log +
                       ": cannot open the log directory: No such file or directory; check "
                       "log-directory in the configuration file\n");
}

// Several files of one transaction each.
class RemovedFileTest : public LogTest {
  protected:
    void make(int files)
    {
        config.log_file_size = 1;
        open_writer();
        for (int n = 1; n <= files; n++)
            add({insert(n)});
        close_writer();
    }
    void remove(std::initializer_list<int> sequences)
    {
        for (const int sequence : sequences)
            std::filesystem::remove(file(sequence));
    }
};

TEST_F(RemovedFileTest, TheWalkGoesOnWithTheOldestFileLeft)
{
    make(4);
    std::string seen_files;
    EXPECT_EQ(fwu_log_walk(log,
                           [&](const fwu_walk_item &item) {
                               if (item.what == FWU_WALK_FILE)
                                   seen_files += std::to_string(item.file->sequence) + " ";
                               if (item.file->sequence == 1)
                                   remove({1, 2, 3});
                               return 0;
                           }),
              0);
    EXPECT_EQ(seen_files, "1 4 ");
}

TEST_F(RemovedFileTest, OneThatIsMissingAmongOthersEndsTheWalk)
{
    make(3);
    int walked = 0;
    err = stderr_of([&] {
        walked = fwu_log_walk(log, [&](const fwu_walk_item &) {
            remove({2});
            return 0;
        });
    });
    EXPECT_EQ(walked, -1);
    EXPECT_EQ(err,
              "fwutil: " + file(2) + ": cannot open the log file: No such file or directory\n");
}

TEST_F(RemovedFileTest, AReaderInsideARemovedFileReadsItToItsEndAndGoesOn)
{
    make(3);
    on_record = [&](const seen &) {
        remove({1});
        return 0;
    };
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
}

TEST_F(RemovedFileTest, AReaderWhoseNextFileIsRemovedSaysWhatThereIs)
{
    make(4);
    on_record = [&](const seen &) {
        remove({1, 2});
        return 0;
    };
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.records, written_from(1, 1));
    EXPECT_EQ(
        outcome.err,
        "fwutil: " + std::filesystem::canonical(log).string() +
            "/fw0001-00000002.log: the log file is missing, the next one there "
            "is fw0001-00000003.log; restore it, or begin with that file (start "
            "position 1-3.0); a start may empty the program's text files: keep them aside first\n");
}
