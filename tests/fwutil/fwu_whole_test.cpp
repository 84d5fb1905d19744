// A log of which something is gone without a trace in its files: records cut off at the end
// of a transaction, files that are not there; and the file of what was acknowledged when it
// cannot tell.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_repair.h"

#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"
#include "tests/tools/fwlog/built_log.h"

#include <climits>
#include <csignal>
#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;
using testing::Not;

class WholeTest : public follow_test {
  protected:
    WholeTest()
    {
        calls.skip_pauses = true;
    }
    const system_calls_guard guard;
    // Files of two records each, a transaction of its own each; all acknowledged.
    void files_of_two(int32_t count)
    {
        config.log_file_size = 300;
        open_writer();
        for (int32_t i = 1; i <= 2 * count; i++)
            add({insert(i)});
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        close_writer();
        ASSERT_TRUE(std::filesystem::exists(file(count)));
        ASSERT_FALSE(std::filesystem::exists(file(count + 1)));
        fwu_cursor cursor;
        ASSERT_EQ(fwu_cursor_open(cursor, {1, 1, fwu_log_file_name(1, 1), file(1)}), 0);
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_FOUND);
        first_end = static_cast<size_t>(cursor.tx_end);
        fwu_cursor_close(cursor);
    }
    void cut(int32_t sequence, size_t length)
    {
        write_file(file(sequence), log_file_bytes(sequence).substr(0, length));
    }
    std::string opened(int result)
    {
        return stderr_of([&] {
            fwu_writer *none = nullptr;
            EXPECT_EQ(fwu_writer_open(&none, config), result);
            (void)fwu_writer_close(none);
        });
    }
    run_result fwlog(std::vector<std::string> words)
    {
        run_setup options;
        options.directory = dir.path();
        words.insert(words.begin(), KESTRO_BUILD_DIR "/bin/fwlog");
        return run_program(words, options);
    }
    size_t first_end = 0; // of the first transaction of a file
};

TEST_F(WholeTest, WhatIsAcknowledgedOfALogOfVersion1IsKept)
{
    std::filesystem::create_directory(log);
    log_file built(1, false);
    built.layout();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    built.commit();
    const size_t first = built.bytes.size();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    built.commit();
    const std::string bytes(built.bytes.begin(), built.bytes.end());
    write_file(file(1), bytes);
    open_writer();
    ASSERT_EQ(fwu_writer_sync(writer), 0);
    ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
    close_writer();
    fwu_ack ack;
    ASSERT_EQ(fwu_ack_read(log, ack), FWU_FOUND) << "there is no such file";
    EXPECT_TRUE(fwu_identity_known(ack.identity));
    EXPECT_EQ(ack.end, static_cast<int64_t>(bytes.size()));
    cut(1, first);
    EXPECT_THAT(opened(-1), HasSubstr("the log ends behind position 1-1.3, but it was acknowledged "
                                      "up to position 1-1.5"));
    EXPECT_EQ(fwlog({"verify"}).status, 1);
    write_file(file(1), bytes);
    EXPECT_EQ(opened(0), "");
    open_writer();
    add({insert(1)});
    close_writer();
    EXPECT_EQ(header_of(log_file_bytes(2)).identity, ack.identity);
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(WholeTest, ACutOfALogThatKnowsOfNothingAcknowledgedSaysSo)
{
    std::filesystem::create_directory(log);
    log_file built(1, false);
    built.layout();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    built.commit();
    const std::string bytes(built.bytes.begin(), built.bytes.end());
    write_file(file(1), bytes + std::string(30, 'x'));
    EXPECT_EQ(opened(0), "fwutil: " + file(1) + ": cut 30 bytes behind offset " +
                             std::to_string(bytes.size()) +
                             ": not known whether it was acknowledged, and not whole; kept in "
                             "cut-fw0001-00000001.log-" +
                             std::to_string(bytes.size()) + "\n");
}

struct gap_row {
    int32_t sequence; // of the file that is cut
    bool to_header;   // to its header alone, else behind its first transaction
    int records;      // that are missing
};

// At a commit boundary a file looks whole; its last records are missing all the same.
TEST_F(WholeTest, RecordsMissingBeforeAFileAreDamage)
{
    for (const gap_row &row : {gap_row{2, false, 1}, {2, true, 2}, {3, true, 2}, {1, true, 0}}) {
        std::filesystem::remove_all(log);
        std::filesystem::remove(status);
        written.clear();
        files_of_two(4);
        cut(row.sequence, row.to_header ? 64 : first_end);
        const std::string behind = "fw0001-0000000" + std::to_string(row.sequence + 1) + ".log";
        const std::string what = std::to_string(row.records) +
                                 (row.records == 1 ? " record is" : " records are") +
                                 " missing before it";
        const run_result verify = fwlog({"verify"});
        const run_result look = fwlog({"repair", "--dry-run"});
        const run_outcome read = run();
        const std::string written_again = row.sequence == 3 ? opened(-1) : "";
        if (row.records == 0) { // as if pruned: nobody knows of earlier ones
            EXPECT_EQ(verify.status, 0) << verify.out;
            EXPECT_EQ(read.records, written_from(3));
            continue;
        }
        EXPECT_EQ(verify.status, 1) << row.sequence;
        EXPECT_THAT(verify.out, HasSubstr(behind + ": damaged at offset 64: " + what));
        EXPECT_THAT(look.out, HasSubstr(behind + ": damaged at offset 64: " + what));
        EXPECT_EQ(read.result, -1);
        EXPECT_EQ(read.records.size(),
                  2U * static_cast<size_t>(row.sequence) - static_cast<size_t>(row.records));
        const std::string start = "1-" + std::to_string(row.sequence + 1) + ".0";
        const std::string remedy = ": damaged at offset 64: " + what +
                                   "; restore the file before it from a copy, cut the log back to "
                                   "what is whole (fwlog repair), or go on without what is missing "
                                   "with this one as start position (" +
                                   start +
                                   "); a start may empty the program's text files: keep them "
                                   "aside first\n";
        EXPECT_THAT(read.err, HasSubstr(behind + remedy));
        if (row.sequence == 3) {
            EXPECT_THAT(written_again, HasSubstr(behind + remedy));
        }
        // The remedies.
        EXPECT_EQ(run(start.c_str()).records,
                  written_from(2 * static_cast<size_t>(row.sequence) + 1));
        EXPECT_EQ(run().result, 0);
        std::filesystem::remove(status);
        EXPECT_EQ(fwlog({"repair"}).status, 1) << "acknowledged";
        EXPECT_EQ(fwlog({"repair", "--accept-loss"}).status, 0);
        EXPECT_EQ(fwlog({"verify"}).status, 0);
        EXPECT_EQ(opened(0), "");
        EXPECT_EQ(run().records, read.records);
    }
}

// The number goes round behind the largest one.
TEST_F(WholeTest, RecordNumbersBeginAgainBehindTheLargest)
{
    for (const int32_t next : {1, 2, INT_MAX}) {
        std::filesystem::remove_all(log);
        std::filesystem::create_directory(log);
        for (const int32_t sequence : {1, 2}) {
            log_file built(sequence, false);
            built.layout();
            built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE, "ORDERS",
                         sequence == 1 ? INT_MAX : next);
            built.commit();
            write_file(file(sequence), {built.bytes.begin(), built.bytes.end()});
        }
        const run_result verify = fwlog({"verify"});
        EXPECT_EQ(verify.status, next == 2 ? 1 : 0) << next << verify.out;
        if (next == 2) {
            EXPECT_THAT(verify.out, HasSubstr(": 1 record is missing before it"));
        }
    }
}

TEST_F(WholeTest, PrunedLogsAndFilesWithoutRecordsAreWhole)
{
    files_of_two(4);
    std::filesystem::remove(file(1));
    std::filesystem::remove(file(2));
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    EXPECT_EQ(opened(0), "");
    EXPECT_EQ(run().records, written_from(5));
    // Each file has commit entries that know its salt, so the number alone may change.
    write_file(file(5), renumbered(log_file_bytes(4), 1, 5));
    cut(4, 64);
    std::filesystem::remove(log + "/acknowledged");
    std::filesystem::remove(status);
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    EXPECT_THAT(opened(0), Not(HasSubstr("missing before")));
    EXPECT_EQ(run().records, written_from(5));
}

TEST_F(WholeTest, AMissingFileBeforeTheLastStopsAWriter)
{
    files_of_two(3);
    std::filesystem::remove(file(2));
    const std::string missing = "fwutil: " + file(2) +
                                ": the log file is missing, the next one there is "
                                "fw0001-00000003.log; restore it from a copy, or cut the log back "
                                "to what is whole: fwlog repair\n";
    EXPECT_EQ(opened(-1), missing);
    EXPECT_EQ(fwlog({"repair", "--accept-loss"}).status, 0);
    EXPECT_EQ(opened(0), "");
    // A file that does not belong there at all.
    write_file(file(99), "");
    EXPECT_THAT(opened(-1), HasSubstr(file(2) + ": the log file is missing, the next one there is "
                                                "fw0001-00000099.log; restore"));
    EXPECT_EQ(fwlog({"repair"}).status, 0);
    EXPECT_EQ(opened(0), "");
}

TEST_F(WholeTest, ADamagedAcknowledgedFileIsToldOnceByAFollower)
{
    files_of_two(1);
    write_file(log + "/acknowledged", "damaged");
    start();
    ASSERT_EQ(next(), 1);
    ASSERT_EQ(next(), 2);
    ASSERT_TRUE(waiting());
    // Each look at the directory is a chance to tell it again.
    for (int i = 0; i < 10; i++) {
        write_file(log + "/touched", std::to_string(i));
        std::filesystem::remove(log + "/touched");
        usleep(250'000);
    }
    EXPECT_EQ(end(SIGTERM), 0);
    const std::string err = told();
    const std::string line = "/acknowledged: damaged: it says what of the log was acknowledged";
    const size_t first = err.find(line);
    ASSERT_NE(first, err.npos) << err;
    EXPECT_EQ(err.find(line, first + 1), err.npos) << err;
}

TEST_F(WholeTest, TheEndOfALogWhoseLastFileHoldsNothingIsNamed)
{
    files_of_two(3);
    cut(3, 64);
    const std::string end = "the log ends behind position 1-2.5, but it was acknowledged up to "
                            "position 1-3.5";
    EXPECT_THAT(opened(-1), HasSubstr(end));
    std::filesystem::remove(file(3));
    const run_result verify = fwlog({"verify"});
    EXPECT_THAT(verify.err, HasSubstr(end));
    cut(2, 64);
    EXPECT_THAT(fwlog({"verify"}).err, HasSubstr("the log ends behind position 1-1.5, but"));
    EXPECT_THAT(opened(-1), HasSubstr("the log ends behind position 1-1.5, but"));
}

// Nothing that counts is lost with it, and it may be larger than what the disk has left.
TEST_F(WholeTest, TheGoodBeginningOfATransactionIsCutOffAndNotKept)
{
    files_of_two(1);
    const std::string bytes = log_file_bytes(1);
    open_writer();
    config.log_file_size = 1 << 20;
    close_writer();
    open_writer();
    add({insert(3), insert(4), insert(5)});
    close_writer();
    const std::string longer = log_file_bytes(1);
    const std::string at = std::to_string(bytes.size());
    for (size_t length = bytes.size() + 1; length < longer.size(); length += 3) {
        write_file(file(1), longer.substr(0, length));
        ASSERT_EQ(opened(0), "fwutil: " + file(1) + ": cut " +
                                 std::to_string(length - bytes.size()) + " bytes behind offset " +
                                 at + ": the rest of a transaction that was not finished\n");
        ASSERT_FALSE(std::filesystem::exists(log + "/cut-fw0001-00000001.log-" + at));
        ASSERT_EQ(log_file_bytes(1), bytes);
    }
    write_file(file(1), longer.substr(0, longer.size() - 60) + std::string(60, 'x'));
    EXPECT_THAT(opened(0), HasSubstr("; kept in cut-fw0001-00000001.log-" + at));
}

TEST_F(WholeTest, AnAcknowledgedFileThatIsNoRegularFileIsRefused)
{
    files_of_two(1);
    const std::string path = log + "/acknowledged";
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const run_result verify = fwlog({"repair"});
    EXPECT_EQ(verify.status, 1);
    EXPECT_THAT(verify.err, HasSubstr("log/acknowledged: it is not a regular file; "));
    EXPECT_THAT(opened(-1), HasSubstr(path + ": it is not a regular file; restore it from a copy, "
                                             "or remove it: then nobody can tell whether the end "
                                             "of the log is missing\n"));
}
