// Numbers at their largest: of log files, tags, records and acknowledgements.  What goes round or
// begins anew is followed across, what ends is told; nothing before it is lost.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_file_number.h"

#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"
#include "tests/tools/fwlog/built_log.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <gmock/gmock.h>

using testing::HasSubstr;

constexpr int32_t LAST = FWU_SEQUENCE_MAX;

class TurnTest : public follow_test {
  protected:
    TurnTest()
    {
        calls.skip_pauses = true;
    }
    const system_calls_guard guard;

    // A log whose only file is the last but one of a generation.
    void last_but_one(int32_t generation = 1)
    {
        open_writer();
        add({insert(1)});
        close_writer();
        const std::string bytes = renumbered(log_file_bytes(1), generation, LAST - 1);
        std::filesystem::remove(file(1));
        std::filesystem::remove(log + "/acknowledged");
        write_file(file(LAST - 1, generation), bytes);
        config.log_file_size = 100; // each transaction has its own
    }
    void append(int32_t number)
    {
        open_writer();
        add({insert(number)});
        EXPECT_EQ(fwu_writer_acknowledge(writer), 0);
        close_writer();
    }
    run_result fwlog(const std::string &line)
    {
        run_setup options;
        options.directory = dir.path();
        options.env["FWUTIL_CFG"] = "fwutil.cfg";
        return run_program({"/bin/sh", "-c", KESTRO_BUILD_DIR "/bin/fwlog " + line}, options);
    }
};

TEST_F(TurnTest, TheFileBehindAnother)
{
    const struct {
        int32_t generation, sequence, next_generation, next_sequence;
    } rows[] = {{1, 1, 1, 2},          {1, LAST - 1, 1, LAST}, {1, LAST, 2, 1},
                {9998, LAST, 9999, 1}, {9999, 24, 9999, 25},   {9999, LAST, 10000, 1}};
    for (const auto &row : rows)
        EXPECT_EQ(fwu_file_number_behind({row.generation, row.sequence}),
                  (fwu_file_number{row.next_generation, row.next_sequence}));
}

// Writers that begin anew for each transaction, and a reader with a status file.
TEST_F(TurnTest, BehindTheLastNumberTheNextGenerationBegins)
{
    for (const int32_t generation : {1, 9998}) {
        std::filesystem::remove_all(log);
        std::filesystem::remove(status);
        written.clear();
        last_but_one(generation);
        for (int32_t i = 2; i <= 5; i++) {
            append(i);
            const run_outcome found = run();
            EXPECT_EQ(found.result, 0) << found.err;
            EXPECT_EQ(found.records, i == 2 ? written : written_from(static_cast<size_t>(i)));
        }
        for (const auto &[of, sequence] :
             {std::pair(0, LAST), std::pair(1, 1), std::pair(1, 2), std::pair(1, 3)})
            EXPECT_TRUE(std::filesystem::exists(file(sequence, generation + of))) << sequence;
        const run_result verify = fwlog("verify");
        EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
        const run_result dump = fwlog("dump --json | grep -c '\"op\"'");
        EXPECT_EQ(dump.out, "5\n") << dump.err;
        const run_result tail = fwlog("tail -n 3 --json | grep -o '\"id\":\"[^\"]*\"'");
        EXPECT_THAT(tail.out, HasSubstr("-1.")) << tail.err;
        EXPECT_EQ(std::count(tail.out.begin(), tail.out.end(), '\n'), 3) << tail.out;
        EXPECT_EQ(fwlog("repair").status, 0);
    }
}

TEST_F(TurnTest, AReaderFollowsIntoTheNextGeneration)
{
    last_but_one();
    start();
    EXPECT_EQ(next(), 1);
    for (int32_t i = 2; i <= 5; i++) {
        append(i);
        EXPECT_EQ(next(), i);
    }
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(std::filesystem::exists(file(2, 2)));
    EXPECT_TRUE(run().records.empty());
}

TEST_F(TurnTest, RecordsThatAreMissingWhereAGenerationBeginsAreDamage)
{
    last_but_one();
    for (int32_t i = 2; i <= 4; i++)
        append(i);
    std::filesystem::remove(log + "/acknowledged");
    // The last file of the old generation without its transaction.
    write_file(file(LAST), log_file_bytes(LAST).substr(0, FWU_FILE_HEADER_SIZE));
    const run_outcome found = run();
    EXPECT_EQ(found.result, -1);
    EXPECT_THAT(found.err, HasSubstr("fw0002-00000001.log: damaged at offset 64: 1 record is "
                                     "missing before it; "));
    EXPECT_THAT(found.err, HasSubstr("with this one as start position (2-1.0)"));
    EXPECT_EQ(found.records, written_from(1, 1));
    EXPECT_EQ(fwlog("verify").status, 1);
    std::filesystem::remove(file(2, 2));
    const std::string err = stderr_of([&] {
        fwu_writer *none = nullptr;
        EXPECT_EQ(fwu_writer_open(&none, config), -1);
    });
    EXPECT_THAT(err, HasSubstr("1 record is missing before it"));
    EXPECT_EQ(run("2-1.0").records, written_from(3, 3));
    EXPECT_EQ(fwlog("repair").status, 0);
    EXPECT_EQ(std::filesystem::file_size(file(1, 2)), FWU_FILE_HEADER_SIZE);
    std::filesystem::remove(status);
    EXPECT_EQ(run().records, written_from(1, 1));
}

TEST_F(TurnTest, DamageInAGenerationsLastFileIsPassedOverByTheNextOnes)
{
    last_but_one();
    for (int32_t i = 2; i <= 3; i++)
        append(i);
    std::string bytes = log_file_bytes(LAST);
    bytes[FWU_FILE_HEADER_SIZE + 30] ^= 1;
    write_file(file(LAST), bytes);
    const run_outcome found = run();
    EXPECT_EQ(found.result, -1);
    EXPECT_THAT(found.err, HasSubstr("with the next one as start position (2-1.0)"));
    EXPECT_EQ(run("2-1.0").records, written_from(3));
}

TEST_F(TurnTest, OldFilesArePrunedAcrossGenerations)
{
    last_but_one();
    for (int32_t i = 2; i <= 5; i++)
        append(i);
    const run_result pruned = fwlog("prune --before 2-2");
    EXPECT_EQ(pruned.status, 0) << pruned.err;
    EXPECT_FALSE(std::filesystem::exists(file(LAST)));
    EXPECT_FALSE(std::filesystem::exists(file(1, 2)));
    append(6);
    EXPECT_EQ(fwlog("verify").status, 0);
    EXPECT_EQ(run().records, written_from(4));
}

// A file with as many entries as tags takes more than 50 GB, so the cursor is told that it has
// read them.
TEST_F(TurnTest, NoEntryStandsBehindTheLargestTag)
{
    for (const int32_t more : {0, 1}) {
        log_file built(1, false);
        built.layout();
        built.commit();
        const int32_t read = built.tag;
        built.tag = INT_MAX - 2;
        built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
        built.commit();
        EXPECT_EQ(built.tag, INT_MAX);
        built.tag = more == 0 ? -1 : INT_MAX; // the next one's: 0, and what comes by adding 1
        std::filesystem::create_directory(log);
        built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
        built.commit();
        write_file(file(1), {built.bytes.begin(), built.bytes.end()});
        fwu_cursor cursor;
        ASSERT_EQ(fwu_cursor_open(cursor, {1, 1, fwu_log_file_name(1, 1), file(1)}), 0);
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_FOUND);
        ASSERT_EQ(cursor.tx_last_tag, read);
        cursor.tx_last_tag = INT_MAX - 2;
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_FOUND);
        EXPECT_EQ(cursor.tx_last_tag, INT_MAX);
        fwu_entry entry;
        EXPECT_EQ(fwu_cursor_entry(cursor, entry), FWU_FOUND);
        EXPECT_EQ(entry.tag, INT_MAX - 1);
        EXPECT_EQ(fwu_cursor_entry(cursor, entry), FWU_FOUND);
        EXPECT_EQ(fwu_cursor_entry(cursor, entry), FWU_END);
        EXPECT_EQ(fwu_cursor_next(cursor), FWU_DAMAGED);
        EXPECT_STREQ(cursor.verdict.reason, "the entry's tag does not follow the one before it");
        fwu_cursor_close(cursor);
    }
}

TEST_F(TurnTest, TheNewestAcknowledgementCountsWhereItsNumbersGoRound)
{
    std::filesystem::create_directory(log);
    for (const bool reads_back : {false, true}) {
        fwu_ack ack;
        ack.identity.bytes[0] = 1;
        ack.number = 9'999'999'997;
        ASSERT_EQ(fwu_ack_create(log, ack, 0600), 0);
        for (int32_t tag = 1; tag <= 5; tag++) {
            ack.position = {1, 1, tag};
            ASSERT_EQ(fwu_ack_write(log, ack), 0);
            fwu_ack found;
            ASSERT_EQ(fwu_ack_read(log, found), FWU_FOUND);
            EXPECT_EQ(found.position.tag, tag) << reads_back;
            if (reads_back) // as the next writer does
                ack = found;
        }
        EXPECT_THAT(read_file(log + "/acknowledged"), HasSubstr("\n0000000003 position 0001-"));
    }
}

// From the configuration to a reader with a status file.
TEST_F(TurnTest, RecordNumbersGoRound)
{
    std::filesystem::create_directory(log);
    log_file built(1, false, FWU_VERSION_SALTED);
    built.header.identity.bytes[0] = 1;
    fwu_file_header_put(built.bytes.data(), built.header);
    built.layout();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE, "ORDERS", INT_MAX - 2);
    built.commit();
    write_file(file(1), {built.bytes.begin(), built.bytes.end()});
    EXPECT_EQ(run().records.at(0).recnum, INT_MAX - 2);
    const int32_t expected[] = {INT_MAX - 1, INT_MAX, 1, 2};
    config.log_file_size = 4096;
    for (const int32_t number : expected) {
        append(number);
        EXPECT_EQ(run().records.at(0).recnum, number);
    }
    EXPECT_EQ(fwlog("verify").status, 0);
}
