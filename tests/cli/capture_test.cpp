// Capture runs of the built program: output, exit status and files.
#include "tests/cli/cli_fixture.h"

class CliCapture : public Cli {
  protected:
    CliCapture()
    {
        options.env["TZ"] = "CET-1CEST,M3.5.0,M10.5.0/3";
    }
};

// Three records; 1704063600 is 1 January 2024, 00:00:00 there.
static const char orders[] = "item NO K 2 1 0\n"
                             "item NAME X 3 1 0\n"
                             "record ORDERS CUST 1704063600 3 11 - 0500416c61\n"
                             "record ORDERS CUST 1704063601 1 12 0500416c61 0500426f62\n"
                             "items\n"
                             "item TEXT X 2 1 0\n"
                             "record STOCK BINS 1719784800 5 13 6869 -\n";

TEST_F(CliCapture, TextFiles)
{
    script(orders);
    write_file(dir.file("none"), "kept\n");
    expect({"-ascii", "all", "-ascii", "-bwfmt", "-yyyy", "-recnum", "-dset", "orders:@", "some",
            "-ascii", "-dset", "other", "none"},
           0,
           "3 Vostrel forward log file records processed.\n"
           "3 records written to capture file all\n"
           "2 records written to capture file some\n"
           "0 records written to capture file none\n",
           "");
    EXPECT_EQ("000000ORDERS                  CUST            24010100:00:00IP"
              "              5Ala\n"
              "000001ORDERS                  CUST            24010100:00:01IU"
              "              5Ala              5Bob\n"
              "000002STOCK                   BINS            24070100:00:00ID"
              "hi\n",
              read_file(dir.file("all")));
    EXPECT_EQ("000000ORDERS                  CUST            2024010100:00:00IP000000000000011"
              "       00000005Ala\n"
              "000001ORDERS                  CUST            2024010100:00:01IU000000000000012"
              "       00000005Ala       00000005Bob\n",
              read_file(dir.file("some")));
    EXPECT_EQ("kept\n", read_file(dir.file("none")));
}

TEST_F(CliCapture, ExtendedHeaderAndInfo)
{
    script("entry pname /usr/bin/interp /app/orders.cmd -x\n"
           "entry user MGR\n"
           "entry login SALES\n"
           "entry pid 987\n"
           "entry info web shop\n"
           "item T X 1 1 0\n"
           "record A.B.C SET 1704063600 3 1 - 41\n");
    expect({"-ascii", "-exthdr", "-progterm", ".cmd", "-fga", "one", "-ascii", "-exthdr", "-info",
            "dbuser", "two"},
           0,
           "1 Vostrel forward log file records processed.\n"
           "1 records written to capture file one\n"
           "1 records written to capture file two\n",
           "");
    EXPECT_EQ("000000A       B       C       SET             24010100:00:00IP"
              "/app/orders             MGR     SALES                    00987A\n",
              read_file(dir.file("one")));
    EXPECT_EQ("000000A.B.C                   SET             24010100:00:00IP"
              "interp                  MGR     web shop                 00987A\n",
              read_file(dir.file("two")));
}

TEST_F(CliCapture, StatisticsOfBothKinds)
{
    script(orders);
    expect({"-capstats", "-showskip", "-ascii", "-dset", "orders:", "f"}, 0,
           "3 Vostrel forward log file records processed.\n"
           "\nNumber of records written to capture files:\n"
           "\n  Capture file: f\n"
           "    Capture file -dset  : ORDERS:@\n"
           "\n    Database ORDERS                      Inserts  Updates  Deletes    Total\n"
           "      CUST                                     1        1        0        2\n"
           "\n"
           "\nLog records not copied to any capture file:\n"
           "\n    Database STOCK                       Inserts  Updates  Deletes    Total\n"
           "      BINS                                     0        0        1        1\n"
           "\n",
           "");
}

TEST_F(CliCapture, ShowsetsPrintsLayoutsOfAllRecords)
{
    script(orders);
    expect({"-showsets", "-ascii", "-dset", "none", "f"}, 0,
           "***** Dataset ORDERS.CUST has 2 items\n"
           "    NO               K  2  1\n"
           "    NAME             X  3  1\n"
           "***** Dataset ORDERS.CUST has 2 items\n"
           "    NO               K  2  1\n"
           "    NAME             X  3  1\n"
           "***** Dataset STOCK.BINS has 1 items\n"
           "    TEXT             X  2  1\n"
           "3 Vostrel forward log file records processed.\n"
           "0 records written to capture file f\n",
           "");
}

TEST_F(CliCapture, DumprecsShowsImagesAndCaptureRecords)
{
    script("item T X 5 1 0\nrecord D S 1704063600 3 1 - 6162636465\n");
    expect({"-dumprecs", "-ascii", "f"}, 0,
           std::string(
               "Insert log record length 5 (0x0005) for D.S\n"
               "0000: 61 62 63 64  65                                   abcd e  \n"
               "Writing capture record length 67 (0x0043) to f\n"
               "0000: 30 30 30 30  30 30 44 20  20 20 20 20  20 20 20 20  0000 00D           \n"
               "0010: 20 20 20 20  20 20 20 20  20 20 20 20  20 20 53 20                   S \n"
               "0020: 20 20 20 20  20 20 20 20  20 20 20 20  20 20 32 34                   24\n"
               "0030: 30 31 30 31  30 30 3a 30  30 3a 30 30  49 50 61 62  0101 00:0 0:00 IPab\n") +
               "0040: 63 64 65 " + std::string(40, ' ') + " cde   \n" +
               "1 Vostrel forward log file records processed.\n"
               "1 records written to capture file f\n",
           "");
}

TEST_F(CliCapture, VerboseLogsTheFilesLife)
{
    script(orders);
    const run_result result =
        run_program(command({"-verbose", "-ascii", "-exthdr", "f", "g"}), options);
    const std::string err = without_stamps(result.err);
    const size_t at = err.find("Opened capture file f, #");
    ASSERT_NE(std::string::npos, at) << err;
    const std::string number = std::to_string(atoi(err.c_str() + at + 24));
    EXPECT_EQ("LOG Capture file maximum size is 2147418112 bytes.\n"
              "LOG Setup capture file f header, size=124\n"
              "LOG Capture file maximum size is 2147418112 bytes.\n"
              "LOG Setup capture file g header, size=62\n"
              "LOG Opened capture file f, #" +
                  number + "\n",
              err.substr(0, err.find('\n', at) + 1));
    EXPECT_NE(std::string::npos, err.find("LOG Closed capture file f, #" + number + "\n"));
}

TEST_F(CliCapture, VerboseTakesEffectWhereItStands)
{
    options.env["KESTRO_MAXCAP"] = "1000x";
    expect({"f", "-verbose", "-ascii", "g"}, 0,
           "0 Vostrel forward log file records processed.\n"
           "Current position=0-0.0\n"
           "0 records written to capture file f\n"
           "0 records written to capture file g\n",
           "LOG Capture file maximum size is 1000 bytes.\n"
           "LOG Setup capture file g header, size=62\n"
           "LOG Closed capture file f, #0\n"
           "LOG Closed capture file g, #0\n");
}

TEST_F(CliCapture, SecondVerbosePrintsSessionData)
{
    script("data first\ndata second one\nitem T X 1 1 0\nrecord D S 0 3 1 - 41\n");
    const std::string data = "session_data[0]=first\nsession_data[1]=second one\n";
    const run_result result =
        run_program(command({"-verbose", "-verbose", "-ascii", "f", "-ascii", "g"}), options);
    EXPECT_EQ(0, result.status);
    // Once at each file's set-up, once for each file that takes the record.
    EXPECT_EQ(data + data + data + data +
                  "1 Vostrel forward log file records processed.\n"
                  "Current position=0-0.0\n"
                  "1 records written to capture file f\n"
                  "1 records written to capture file g\n",
              result.out);
}

TEST_F(CliCapture, UnknownOperationsAreReportedAndNotCounted)
{
    script("record D S 0 2 1 - 41\nitem T X 1 1 0\nrecord D S 0 3 2 - 41\nrecord D S 0 4 3 - 41\n");
    expect({"-ascii", "f"}, 0,
           "1 Vostrel forward log file records processed.\n"
           "1 records written to capture file f\n",
           "Unrecognized operation: #2\n\nUnrecognized operation: #4\n\n");
}

TEST_F(CliCapture, FailedSessionIsReported)
{
    script("result 3\n");
    expect({"-ascii", "f", "-showskip"}, 1,
           no_skips + std::string("0 records written to capture file f\n") + failed,
           "Fwu_process() failed.\n");
}

TEST_F(CliCapture, FullDiskIsReportedForEveryRecord)
{
    script(orders + std::string("result 1\n"));
    const std::string error = "CAPERR: Success\nError writing to capture file: /dev/full\n";
    expect({"-ascii", "/dev/full"}, 1,
           std::string("3 records written to capture file /dev/full\n") + failed,
           error + error + error + "Fwu_process() failed.\n");
}

TEST_F(CliCapture, UnopenableFilesFailTheirRecords)
{
    script("item T X 1 1 0\nrecord D S 0 3 1 - 41\nresult 1\n");
    expect({"-ascii", "no/f"}, 1, std::string("0 records written to capture file no/f\n") + failed,
           "CAPERR: No such file or directory\n"
           "Error opening ASCII capture file: no/f\n"
           "Fwu_process() failed.\n");
    const run_result result = run_program(command({"no/g"}), options);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(std::string("0 records written to capture file no/g\n") + failed, result.out);
    EXPECT_EQ("CAPERR: ", result.err.substr(0, 8));
    EXPECT_EQ("Error opening message capture file: no/g\nFwu_process() failed.\n",
              result.err.substr(result.err.find('\n') + 1));
}

TEST_F(CliCapture, ConversionErrorsAreReportedAndTheRecordIsWritten)
{
    script("item T X 1 1 0\nitem N I 3 1 0\nrecord D S 1704063600 3 1 - 41010203\n");
    expect({"-ascii", "f"}, 0,
           "0 Vostrel forward log file records processed.\n"
           "1 records written to capture file f\n",
           "ASCII unsupported data type: I size 3\n");
    EXPECT_EQ("000000D                       S               24010100:00:00IPA \n",
              read_file(dir.file("f")));
}
