// Clocks that jump, and years behind 2038 and 2106: of the machine, and of the changes in the log.
#include "tests/procs/small_run.h"

using testing::HasSubstr;

class Clock : public small_run, public testing::Test {
  protected:
    void SetUp() override
    {
        make_log();
    }
    // The words under another clock.
    run_result at(const char *seconds, const words &argv, bool jumps = false)
    {
        words under = {"env", "LD_PRELOAD=" JUMPING_CLOCK,
                       std::string("KESTRO_TEST_CLOCK=") + seconds};
        if (jumps)
            under.push_back("KESTRO_TEST_CLOCK_JUMPS=yes");
        return run(argv, under);
    }
};

static const char *const YEARS[] = {"0",          "1767225600", "2147483640", "2147483648",
                                    "4294967290", "4294967296", "4323283200"};

TEST_F(Clock, NoYearAndNoJumpLosesARecord)
{
    for (const bool jumps : {false, true}) {
        for (const char *year : YEARS) {
            SCOPED_TRACE(year + std::string(jumps ? ", jumping" : ""));
            const run_result captured = at(year, with(RUN, {"out"}), jumps);
            EXPECT_EQ(captured.status, 0) << captured.err;
            EXPECT_THAT(captured.out, HasSubstr(std::to_string(RECORDS) + " records written"));
            // One that waits for more; the others know how many there are.
            const bool waits = jumps && year == YEARS[3];
            const words how = waits ? words{"--wait", "1"} : words{"--count", "20"};
            const run_result read = at(year, with(with({"tmf", "read"}, how), {"out"}), jumps);
            EXPECT_EQ(read.status, 0) << read.err;
            EXPECT_THAT(at(year, {"tmf", "info", "out"}, jumps).out, HasSubstr("records  0,"));
            EXPECT_EQ(at(year, {"fwlog", "verify", "-cfg", "fwutil.cfg"}, jumps).status, 0);
            for (const char *name : {"s", "out"})
                std::filesystem::remove(dir.file(name));
        }
    }
}

// Eight digits are stored of a time that has nine; what matters is that two users agree on it.
TEST_F(Clock, StampOfAMessageFileHasItsEightDigitsInEveryYear)
{
    const struct {
        const char *seconds;
        const char *stamp; // without the last digit, which seconds later may be another one
    } rows[] = {
        {"0", "0000000"},          {"2147483648", "8000000"}, {"4294967040", "ffffff0"},
        {"4294967296", "1000000"}, {"4323283200", "101b011"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(at(row.seconds, {"tmf", "write", "m"}).status, 0);
        const std::string stamp = read_file(dir.file("m")).substr(84, 8);
        EXPECT_EQ(stamp.substr(0, 7), row.stamp) << row.seconds;
        EXPECT_EQ(stamp.find_first_not_of("0123456789abcdef"), std::string::npos) << stamp;
        std::filesystem::remove(dir.file("m"));
    }
}

// The log and what is printed of it have 64 bits for a time.  The log record that Kestro is given
// has 32 with a sign, and so has the date of a capture record.
TEST_F(Clock, ChangesOfEveryYearComeThrough)
{
    const struct {
        const char *time;
        const char *milliseconds;
        const char *captured;
    } rows[] = {
        {"2026-03-29 01:59:59", "1774749599000", "2026032901:59:59"},
        {"2038-01-19 03:14:07", "2147483647000", "2038011903:14:07"},
        {"2038-01-19 03:14:08", "2147483648000", "1901121320:45:52"},
        {"2106-02-07 06:28:15", "4294967295000", "1969123123:59:59"},
        {"2106-02-07 06:28:16", "4294967296000", "1970010100:00:00"},
        {"2107-01-01 00:00:00", "4323283200000", "1970112417:31:44"},
    };
    std::filesystem::create_directory(dir.file("years"));
    write_file(dir.file("years.cfg"), "log-directory years\nlog-file-size 1M\n"
                                      "database D\ndataset S\nitem TEXT X 4 key\n");
    std::string changes;
    int n = 0;
    for (const auto &row : rows) {
        const std::string number = std::to_string(++n);
        const std::string about = R"j(,"xid":)j" + number + R"j(,"timestamp":")j" + row.time +
                                  R"j(+00","lsn":"0/)j" + number + "\"";
        const std::string next = about + R"j(,"nextlsn":"0/)j" + number + "\"}\n";
        const std::string row_text =
            R"j(,"schema":"d","table":"s","columns":[{"name":"text","type":"character(4)",)j"
            R"j("value":"r)j" +
            number + "\"}]}\n";
        changes += R"j({"action":"B")j" + next;
        changes += R"j({"action":"I")j" + about + row_text;
        changes += R"j({"action":"C")j" + next;
    }
    write_file(dir.file("changes"), changes);
    const run_result loaded = run({"fwlog", "load", "-cfg", "years.cfg", "changes"});
    ASSERT_EQ(loaded.status, 0) << loaded.err;
    const std::string json = run({"fwlog", "tail", "-n", "100", "--json", "-cfg", "years.cfg"}).out;
    const std::string csv =
        run({"fwlog", "csv", "-cfg", "years.cfg", "--columns", "_time,TEXT"}).out;
    ASSERT_EQ(
        run({"Kestro", "-synconly", "-cfg", "years.cfg", "-stat", "s", "-ascii", "-yyyy", "out"})
            .status,
        0);
    const std::string text = read_file(dir.file("out"));
    for (const auto &row : rows) {
        EXPECT_THAT(json, HasSubstr("\"ts_ms\":" + std::string(row.milliseconds))) << json;
        EXPECT_THAT(csv, HasSubstr(std::string(row.time) + ".000000,r")) << csv;
        EXPECT_THAT(text, HasSubstr(row.captured)) << text;
    }
}
