// A status position against the log that is there: another log under the same
// names, a log that went on differently, a log replaced while it is followed.
#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

using testing::AllOf;
using testing::HasSubstr;

class PlaceTest : public log_test {
  protected:
    // The start position that a message gives as the remedy.
    static std::string remedy(const std::string &err)
    {
        const size_t at = err.find("-start ");
        EXPECT_NE(at, err.npos) << err;
        return at == err.npos ? ""
                              : err.substr(at + 7, err.find_first_of(" ,;)\n", at + 7) - at - 7);
    }
    // Of the log's first file.
    std::string identity() const
    {
        fwu_file_header header;
        EXPECT_EQ(fwu_file_header_get(
                      header, reinterpret_cast<const unsigned char *>(log_file_bytes(1).data())),
                  nullptr);
        return fwu_identity_text(header.identity);
    }
    void begin_anew()
    {
        std::filesystem::remove_all(log);
        written.clear();
    }
};

TEST_F(PlaceTest, ALogMadeAnewUnderAnOldStatusIsRefused)
{
    open_writer();
    add({insert(1), insert(2), insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
    begin_anew();
    open_writer();
    add({insert(11), insert(12), insert(13), insert(14)});
    add({insert(15), insert(16), insert(17), insert(18)});
    close_writer();
    const std::string before = read_file(status);
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_TRUE(outcome.records.empty());
    EXPECT_EQ(read_file(status), before);

    outcome = run(remedy(outcome.err).c_str());
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
    EXPECT_TRUE(run().records.empty()) << "the status is one of the new log";
}

TEST_F(PlaceTest, TheErrorNamesBothSidesAndTheRemedy)
{
    open_writer();
    add({insert(1), insert(2), insert(3)});
    close_writer();
    const std::string identity = this->identity();
    run();
    begin_anew();
    open_writer();
    add({insert(1)}); // commit times and source positions go on
    add({insert(2)});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.err,
              "fwutil: " + status +
                  ": position 1-1.4: the log has another record there: this one was committed "
                  "2023-11-14 22:13:21.000000 UTC at source position 0/10 in log " +
                  identity +
                  ", that one committed 2023-11-14 22:13:23.000000 UTC at source position 0/30 in "
                  "log " +
                  this->identity() +
                  "; to go on with this log, give 1-1.0 as start position (-start 1-1.0), its "
                  "oldest record; or restore the log that belongs to it, or name another status "
                  "file; a start may empty the program's text files: keep them aside first\n");
    // The other remedies.
    const std::string kept = status;
    status = dir.file("other.status");
    EXPECT_EQ(run().records, written);
    status = kept;
    std::filesystem::remove_all(log);
    std::filesystem::create_directory(log);
    const run_outcome empty = run();
    EXPECT_EQ(empty.result, -1);
    EXPECT_THAT(empty.err, HasSubstr("position 1-1.4: the log has no files yet; to begin with the "
                                     "first record that this log will have, remove the status "
                                     "file; or restore"));
    std::filesystem::remove(status);
    EXPECT_EQ(run().result, 0);
    written.clear();
    open_writer();
    add({insert(9)});
    close_writer();
    EXPECT_EQ(run().records, written);
}

TEST_F(PlaceTest, APositionBehindTheLogsEndIsRefusedWithAStartPosition)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string kept = log_file_bytes(1);
    open_writer();
    add({insert(2), insert(3)});
    close_writer();
    run();
    write_file(file(1), kept);
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err,
                AllOf(HasSubstr("fw0001-00000001.log holds positions up to 1-1.3 only"),
                      HasSubstr("-start 1-1.3), which is behind its last older "
                                "transaction")));
    EXPECT_EQ(run(remedy(outcome.err).c_str()).result, 0);
    std::filesystem::remove(log + "/acknowledged");
    written.resize(1);
    open_writer();
    add({insert(4)});
    close_writer();
    EXPECT_EQ(run("1-1.3").records, written_from(2));
    EXPECT_TRUE(run().records.empty());
}

TEST_F(PlaceTest, OfALogReadFromItsSourceAgainOnlyWhatWasNotCapturedComes)
{
    open_writer();
    add({insert(1)});
    add({insert(2)});
    add({insert(3)});
    close_writer();
    run();
    begin_anew();
    commits = 0;
    open_writer();
    add({insert(1)}); // the same transactions in another log
    add({insert(2)});
    add({insert(3)});
    add({insert(4)});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err,
                HasSubstr(", which is behind its last older transaction, or, when it is fed from "
                          "another source than before, its oldest record (-start 1-1.0); or "
                          "restore"));
    EXPECT_EQ(run(remedy(outcome.err).c_str()).records, written_from(3))
        << "the transaction of the position comes again, whole";
    EXPECT_EQ(run("1-1.0").records, written);
}

TEST_F(PlaceTest, ALogThatLostItsEndAndWentOnDifferentlyIsRefused)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string kept = log_file_bytes(1);
    open_writer();
    add({insert(2), insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
    write_file(file(1), kept); // a power cut took the second transaction
    std::filesystem::remove(log + "/acknowledged");
    written.resize(1);
    open_writer();
    add({insert(4)});
    add({insert(5), insert(6)});
    close_writer();
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_TRUE(outcome.records.empty());

    outcome = run(remedy(outcome.err).c_str());
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written_from(2)) << "none is lost";
}

TEST_F(PlaceTest, TimesThatHaveNoTextAreTheSameAsTheNearestOne)
{
    open_writer();
    for (const int64_t time : {INT64_MIN, INT64_MAX}) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(put(insert(1)), 0);
        ASSERT_EQ(fwu_writer_commit(writer, {time, 1, 1}), 0);
        EXPECT_EQ(run().records.size(), 1U);
        EXPECT_EQ(run().err, "");
    }
    close_writer();
}

TEST_F(PlaceTest, TheLogFileIsOnDiskBeforeAPositionInIt)
{
    const system_calls_guard guard;
    two_files();
    on_record = [](const seen &record) {
        calls.fail_fdatasync = record.recnum == 5;
        return 0;
    };
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err, "fwutil: " + std::filesystem::canonical(file(2)).string() +
                               ": cannot bring the log file to disk: Input/output error\n")
        << "the status file is not even tried";
    EXPECT_EQ(outcome.records, written);
    calls.fail_fdatasync = false;
    const run_outcome again = run();
    EXPECT_EQ(again.records, written) << "the system may have forgotten them";
    EXPECT_THAT(again.err, HasSubstr("the last run could not bring to disk all that it had "
                                     "written: going on behind none"));
}

class PlaceFollowTest : public follow_test {};

TEST_F(PlaceFollowTest, ADirectoryMadeAnewUnderAFollowerEndsItsRun)
{
    open_writer();
    add({insert(1), insert(2), insert(3)});
    close_writer();
    start();
    for (int32_t i = 1; i <= 3; i++)
        ASSERT_EQ(next(), i);
    std::filesystem::rename(log, log + ".old");
    open_writer();
    written.clear();
    add({insert(4)});
    close_writer();
    EXPECT_EQ(finish_within(10), 1) << "it goes on reading a log that has no name any more";
    EXPECT_THAT(told(), HasSubstr("fw0001-00000001.log: "));
}

TEST_F(PlaceFollowTest, AFileReplacedOrRemovedUnderAFollowerEndsItsRun)
{
    two_files();
    const std::string bytes = log_file_bytes(2);
    for (const bool replaced : {true, false}) {
        std::filesystem::remove(status);
        start();
        for (int32_t i = 1; i <= 5; i++)
            ASSERT_EQ(next(), i);
        write_file(dir.file("copy"), bytes);
        if (replaced)
            std::filesystem::rename(dir.file("copy"), file(2));
        else
            std::filesystem::remove(file(2));
        EXPECT_EQ(finish_within(10), 1);
        const std::string what = "fw0001-00000002.log: the log file was ";
        if (replaced) {
            EXPECT_THAT(told(), AllOf(HasSubstr(what + "replaced while it was being read\n"),
                                      HasSubstr("start again to go on with the log that is there "
                                                "now; a start may empty the program's text "
                                                "files: keep them aside first\n")));
            EXPECT_EQ(run().result, 0) << "the remedy: a copy of the same file";
        } else {
            EXPECT_THAT(told(), AllOf(HasSubstr(what + "removed, and no newer one is there, while "
                                                       "it was being read\n"),
                                      HasSubstr("-start 1-1.6), which is behind its last older "
                                                "transaction")));
            EXPECT_EQ(run("1-1.6").result, 0);
        }
    }
}

TEST_F(PlaceFollowTest, FilesRemovedFromTheFrontAreNoError)
{
    two_files();
    start("", false, true);
    ASSERT_EQ(next(), 1);
    std::filesystem::remove(file(1)); // it is still being read
    for (int32_t i = 2; i <= 5; i++) {
        ASSERT_EQ(write(step, "x", 1), 1);
        ASSERT_EQ(next(), i);
    }
    ASSERT_EQ(write(step, "x", 1), 1);
    ASSERT_TRUE(waiting());
    config.log_file_size = 1;
    open_writer();
    add({insert(6)}); // in file 3
    close_writer();
    std::filesystem::remove(file(2));
    ASSERT_EQ(next(), 6);
    ASSERT_EQ(write(step, "x", 1), 1);
    EXPECT_EQ(end(SIGTERM), 0) << told();
}
