// The report of a status file.
#include "fwutil/fwu_report.h"

#include "fwutil/fwu_status_text.h"
#include "tests/fwutil/log_fixture.h"

#include <gmock/gmock.h>

class ReportTest : public log_test {
  protected:
    std::string report(int verbose = 0, int expected = 0)
    {
        testing::internal::CaptureStdout();
        err = stderr_of([&] { EXPECT_EQ(Fwu_status(status.c_str(), verbose), expected); });
        return testing::internal::GetCapturedStdout();
    }
    std::string err;
};

TEST_F(ReportTest, TellsPositionAndHowFarBehindTheEndThatIs)
{
    two_files();
    on_record = [](const seen &record) { return record.recnum == 3 ? -1 : 0; };
    run();
    // Behind record 2: the delete of 80 bytes and a commit of 56 in file 1; a
    // layout of 88 and two inserts of 80 bytes in file 2.
    EXPECT_EQ(report(), "Position: 1-1.4\n"
                        "Last record: 2023-11-14 22:13:22.000000 UTC\n"
                        "Behind: 3 records, 384 bytes\n");
    const std::string real = std::filesystem::canonical(log).string();
    fwu_file_header header;
    ASSERT_EQ(fwu_file_header_get(
                  header, reinterpret_cast<const unsigned char *>(log_file_bytes(1).data())),
              nullptr);
    const std::string identity = fwu_identity_text(header.identity);
    EXPECT_EQ(report(1), "Status file: " + status +
                             "\nPosition: 1-1.4\n"
                             "Last record: 2023-11-14 22:13:22.000000 UTC\n"
                             "Log directory: " +
                             real +
                             "\nLog file: fw0001-00000001.log 520 bytes\n"
                             "Log file: fw0001-00000002.log 368 bytes\n"
                             "End position: 1-2.3\n"
                             "Lag: 1 seconds\n"
                             "Behind: 3 records, 384 bytes\n"
                             "Log identity: " +
                             identity +
                             "\nLast position: 1-1.4\n"
                             "Position on disk: 1-1.4\n"
                             "Boot: this one\n");
    on_record = nullptr;
    run();
    EXPECT_EQ(report(1), "Status file: " + status +
                             "\nPosition: 1-2.3\n"
                             "Last record: 2023-11-14 22:13:23.000000 UTC\n"
                             "Log directory: " +
                             real +
                             "\nLog file: fw0001-00000001.log 520 bytes\n"
                             "Log file: fw0001-00000002.log 368 bytes\n"
                             "End position: 1-2.3\n"
                             "Lag: 0 seconds\n"
                             "Behind: 0 records, 0 bytes\n"
                             "Log identity: " +
                             identity +
                             "\nLast position: 1-2.3\n"
                             "Position on disk: 1-2.3\n"
                             "Boot: this one\n");
}

TEST_F(ReportTest, WithoutAPositionEverythingLiesBehind)
{
    two_files();
    on_record = [](const seen &) { return -1; };
    run();
    // File 1: 88 + 80 + 56 and 96 + 80 + 56 bytes; file 2 up to its last record:
    // 88 + 80 + 80.
    EXPECT_EQ(report(), "Position: none\nLast record: none\nBehind: 5 records, 704 bytes\n");
    write_file(status, "");
    EXPECT_EQ(report(1), "Status file: " + status + "\nPosition: none\nLast record: none\n");
}

TEST_F(ReportTest, MissingAndDamagedFilesAreErrors)
{
    EXPECT_EQ(report(0, -1), "");
    EXPECT_EQ(err,
              "fwutil: " + status + ": cannot open the status file: No such file or directory\n");
    write_file(status, "x");
    EXPECT_EQ(report(0, -1), "");
    EXPECT_THAT(err, testing::HasSubstr(status + ": the status file is damaged"));
}

TEST_F(ReportTest, ALogWithoutThePositionIsAnError)
{
    two_files();
    run();
    std::filesystem::remove(file(2));
    report(0, -1);
    EXPECT_THAT(err, testing::HasSubstr("position 1-2.3: the log does not have that file"));
}

TEST_F(ReportTest, BehindAPowerCutThePositionIsTheOneOnDisk)
{
    two_files();
    run();
    std::string bytes = read_file(status);
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    fwu_place earlier = text.live;
    earlier.position.tag = 2; // another record of the same transaction
    write_file(status, fwu_status_put(text.log_directory, text.live,
                                      fwu_synced_put({earlier, "another", ""})));
    EXPECT_THAT(report(1),
                testing::AllOf(testing::HasSubstr("\nPosition: 1-2.2\n"),
                               testing::HasSubstr("Behind: 1 records, "),
                               testing::HasSubstr("\nLast position: 1-2.3\n"
                                                  "Position on disk: 1-2.2\nBoot: another one\n")));
    write_file(status,
               fwu_status_put(text.log_directory, text.live, fwu_synced_put({earlier, "any", ""})));
    EXPECT_THAT(report(1), testing::AllOf(testing::HasSubstr("\nPosition: 1-2.3\n"),
                                          testing::HasSubstr("\nBoot: any\n")));
}

TEST_F(ReportTest, AnotherLogUnderTheSameNameIsAnError)
{
    two_files();
    run();
    std::filesystem::remove_all(log);
    two_files();
    report(0, -1);
    EXPECT_THAT(err, testing::HasSubstr("position 1-2.3: the log has another record there"));
}
