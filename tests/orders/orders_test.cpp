// The recorded order-entry stream end to end: loaded into a forward log, captured
// as text and as messages, replayed, and compared with what the database held in the end.
#include "msgfile/tmf.h"
#include "tests/orders/orders_fixture.h"
#include "tests/support/markdown.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using testing::HasSubstr;

static int count_lines(const std::string &text)
{
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(OrdersTest, ReplayOfATextCaptureFileGivesTheFinalState)
{
    const run_result result = run({kestro, "-synconly", "-ascii", "all.txt"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "8431 Vostrel forward log file records processed.\n"
                          "8431 records written to capture file all.txt\n");
    replay state = open_replay();
    replay_file(state, dir.file("all.txt"));
    compare(state);
}

TEST_F(OrdersTest, CountsByTableAreThoseOfTheRecording)
{
    ASSERT_EQ(run({kestro, "-synconly", "-ascii", "all.txt"}).status, 0);
    std::map<std::string, int> counts;
    std::istringstream lines(read_file(dir.file("all.txt")));
    for (std::string line; std::getline(lines, line);)
        counts[line.substr(30, 16) + line.substr(60, 2)]++;

    const std::map<std::string, int> expected = {
        {"ITEMS           IP", 310},  {"ITEMS           IU", 44},  {"STOCK           IP", 620},
        {"STOCK           IU", 2146}, {"STOCK-MOVES     IP", 812}, {"STOCK-MOVES     ID", 586},
        {"CUSTOMERS       IP", 390},  {"CUSTOMERS       IU", 236}, {"CUSTOMERS       ID", 9},
        {"DAY-TOTALS      IP", 12},   {"DAY-TOTALS      IU", 16},  {"ORDER-LINES     IP", 915},
        {"ORDER-LINES     IU", 50},   {"ORDER-LINES     ID", 333}, {"ORDERS          IP", 378},
        {"ORDERS          IU", 1034}, {"ORDERS          ID", 124}, {"PAYMENTS        IP", 314},
        {"PAYMENTS        IU", 8},    {"PAYMENTS        ID", 94},
    };
    EXPECT_EQ(counts, expected);
}

TEST_F(OrdersTest, SelectedFilesShareTheRecordsOut)
{
    const run_result result =
        run({kestro, "-synconly", "-ascii", "-dset", "depot:", "depot.txt", "-ascii", "-dset",
             "sales:order@", "-dset", "sales:payments", "sales.txt", "-ascii", "-dset",
             "sales:customers", "-dset", "day-totals", "rest.txt"});
    ASSERT_EQ(result.status, 0) << result.err;

    // Together they hold every change once; one dataset's changes keep their order.
    replay state = open_replay();
    int lines = 0;
    for (const char *name : {"depot.txt", "sales.txt", "rest.txt"}) {
        lines += count_lines(read_file(dir.file(name)));
        replay_file(state, dir.file(name));
    }
    EXPECT_EQ(lines, CHANGES);
    compare(state);
}

TEST_F(OrdersTest, ASecondRunGoesOnBehindTheFirst)
{
    ASSERT_EQ(run({kestro, "-synconly", "-ascii", "all.txt"}).status, 0);
    const run_result again = run({kestro, "-synconly", "-ascii", "none.txt"});
    EXPECT_EQ(again.status, 0);
    EXPECT_THAT(again.out, HasSubstr("0 Vostrel forward log file records processed.\n"));
    EXPECT_THAT(again.out, HasSubstr("0 records written to capture file none.txt\n"));
    EXPECT_NE(access(dir.file("none.txt").c_str(), F_OK), 0);
}

TEST_F(OrdersTest, FirstRecordReadsAsTheFormatSays)
{
    ASSERT_EQ(run({kestro, "-synconly", "-ascii", "-exthdr", "-yyyy", "-recnum", "all.txt"}).status,
              0);
    std::istringstream lines(read_file(dir.file("all.txt")));
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line.substr(0, 141),
              "000000"                   // records before this one
              "DEPOT                   " // database
              "ITEMS           "         // dataset
              "2026112022:08:36"         // commit time
              "IP"                       // insert
              "loader                  " // program
              "BATCH   "                 // session user
              "batch                   " // database user
              " 24121"                   // process id
              "000000000000001");        // log record number
    EXPECT_EQ(line.substr(141, 8 + 36 + 3), "SC-00001brass paint, white 15 mm            pc ");
}

static int32_t records_in(const std::string &path)
{
    const std::string bytes = read_file(path);
    int32_t records = -1;
    if (bytes.size() >= 20)
        memcpy(&records, bytes.data() + 16, sizeof records);
    return records;
}

// Takes all records out of a message file and replays them.
static void consume(replay &state, const std::string &path, std::vector<std::string> &sequence)
{
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    ASSERT_NE(reader, nullptr) << path;
    int32_t records = 0;
    ASSERT_EQ(tmf_getinfo(reader, TMF_INFO_RECORDS, &records, 0), 0);
    std::string buffer(TMF_MAX_DATA, '\0');
    for (; records > 0; records--) {
        const int n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0);
        ASSERT_GT(n, 0);
        replay_message(state, buffer.substr(0, static_cast<size_t>(n)));
        sequence.push_back(buffer.substr(0, 6));
    }
    EXPECT_EQ(tmf_fclose(reader), 0);
}

static std::vector<std::string> six_digit_numbers(int n)
{
    std::vector<std::string> numbers;
    for (int i = 0; i < n; i++) {
        char text[16];
        snprintf(text, sizeof text, "%06d", i);
        numbers.emplace_back(text);
    }
    return numbers;
}

TEST_F(OrdersTest, ReplayOfAMessageFileGivesTheFinalState)
{
    const run_result result = run({kestro, "-synconly", "-exthdr", "-yyyy", "-recnum", "all.msg"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "8431 Vostrel forward log file records processed.\n"
                          "8431 records written to capture file all.msg\n");
    replay state = open_replay();
    std::vector<std::string> sequence;
    consume(state, dir.file("all.msg"), sequence);
    EXPECT_EQ(sequence, six_digit_numbers(CHANGES));
    compare(state);
    EXPECT_EQ(read_file(dir.file("all.msg")).size(), 65536U) << "an emptied file is cut down";
}

TEST_F(OrdersTest, ReplayOfAChainOfFullFilesGivesTheFinalState)
{
    setenv("KESTRO_MAXCAP", "200000", 1);
    const run_result result =
        run({kestro, "-synconly", "-rollover", "-exthdr", "-yyyy", "-recnum", "all.msg"});
    unsetenv("KESTRO_MAXCAP");
    EXPECT_EQ(result.status, 0) << result.err;

    replay state = open_replay();
    std::vector<std::string> sequence;
    std::vector<std::string> names = {"all.msg"};
    while (access(dir.file(names.back()).c_str(), F_OK) == 0)
        names.push_back("all" + std::to_string(names.size()) + ".msg");
    names.pop_back();
    EXPECT_GT(names.size(), 5U);
    for (const std::string &name : names) {
        const size_t size = read_file(dir.file(name)).size();
        EXPECT_LT(size, 200000U + 600U) << name;
        if (name != names.back()) {
            EXPECT_GT(size, 200000U) << name << " was left before it was full";
        }
        consume(state, dir.file(name), sequence);
    }
    EXPECT_EQ(result.out, "8431 Vostrel forward log file records processed.\n"
                          "8431 records written to capture file " +
                              names.back() + "\n");
    EXPECT_EQ(sequence, six_digit_numbers(CHANGES));
    compare(state);
}

TEST_F(OrdersTest, AFullFileStopsTheRunAndTheNextFileGoesOn)
{
    setenv("KESTRO_MAXCAP", "200000", 1);
    const run_result full = run({kestro, "-synconly", "-exthdr", "-yyyy", "-recnum", "a.msg"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "End of file on capture file a.msg\nFwu_process() failed.\n");
    const run_result again = run({kestro, "-synconly", "-exthdr", "-yyyy", "-recnum", "a.msg"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "Capture file a.msg is full.\nFwu_process() failed.\n");
    unsetenv("KESTRO_MAXCAP");
    EXPECT_EQ(run({kestro, "-synconly", "-exthdr", "-yyyy", "-recnum", "b.msg"}).status, 0);
    // The record that filled the first file counts as failed, so it comes again.
    EXPECT_EQ(records_in(dir.file("a.msg")) + records_in(dir.file("b.msg")), CHANGES + 1);
}

TEST_F(OrdersTest, FirstRecordIsTheExampleOfThePage)
{
    ASSERT_EQ(run({kestro, "-synconly", "-ascii", "-exthdr", "-yyyy", "-recnum", "all.txt"}).status,
              0);
    const std::string record = read_file(dir.file("all.txt"));
    std::istringstream lines(md_find_block(md_page("docs/capture-record.md"), "000000"));
    std::string line;
    size_t at = 0;
    for (const size_t width : {6U, 24U, 16U, 16U, 2U, 24U, 8U, 24U, 6U, 15U}) {
        ASSERT_TRUE(std::getline(lines, line));
        const std::string item = line.substr(0, line.find("  "));
        EXPECT_EQ(record.substr(at, width), item + std::string(width - item.size(), ' ')) << line;
        at += width;
    }
    ASSERT_TRUE(std::getline(lines, line));
    ASSERT_GT(line.size(), 60U);
    EXPECT_EQ(record.compare(at, line.size() - 4, line, 0, line.size() - 4), 0) << line;
}
