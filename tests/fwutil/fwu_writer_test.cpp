// Appending: what is refused, rotation, recovery, and a disk that fails.
#include "fwutil/fwu_writer.h"

#include "fwutil/fwu_log.h"
#include "fwutil/fwu_txn.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;

class WriterTest : public log_test {
  protected:
    std::string refused(const seen &change)
    {
        return stderr_of([&] { EXPECT_EQ(put(change), -1); });
    }
    std::string reopen_failing()
    {
        return stderr_of([&] { EXPECT_EQ(fwu_writer_open(&writer, config), -1); });
    }
};

TEST_F(WriterTest, ASmallTransactionIsOneWrite)
{
    const system_calls_guard guard;
    open_writer();
    add({insert(1)});
    const int before = calls.writes;
    add({insert(2), update(2), erase(2)});
    EXPECT_EQ(calls.writes, before + 1);
    close_writer();
}

TEST_F(WriterTest, WithoutRecordsNothingIsAppended)
{
    open_writer();
    add({});
    EXPECT_FALSE(std::filesystem::exists(file(1)));
    fwu_session session;
    add({}, &session);
    EXPECT_FALSE(std::filesystem::exists(file(1)));
    add({insert(1)});
    const std::string bytes = log_file_bytes(1);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(2)), 0);
    fwu_writer_rollback(writer);
    close_writer();
    EXPECT_EQ(log_file_bytes(1), bytes);
}

TEST_F(WriterTest, CallsOutOfOrderAreErrors)
{
    open_writer();
    EXPECT_EQ(refused(insert(1)), "fwutil: " + log + ": a record outside a transaction\n");
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
              "fwutil: " + log + ": a commit outside a transaction\n");
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_begin(writer, nullptr), -1); }),
              "fwutil: " + log +
                  ": a transaction is open already; commit it or roll it back first\n");
}

TEST_F(WriterTest, RecordsThatDoNotFitAreRefusedAndTheRestGoesOn)
{
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    seen change = insert(1);
    change.opcode = 2;
    change.before = change.after;
    EXPECT_EQ(refused(change), "fwutil: SALES.ORDERS: operation 2 is none of update (1), insert "
                               "(3) and delete (5)\n");
    change = insert(1);
    change.after += "x";
    EXPECT_EQ(refused(change), "fwutil: SALES.ORDERS: a record of 17 bytes, but the layout's items "
                               "add up to 16\n");
    const fwu_layout &layout = config.datasets[0].layout;
    const char image[16] = {};
    const auto record = [&](int32_t opcode, const fwu_layout &with, int32_t length,
                            const void *before, const void *after) {
        return stderr_of([&] {
            EXPECT_EQ(fwu_writer_record(writer, opcode, with, 1, length, before, after), -1);
        });
    };
    EXPECT_EQ(record(FWU_OP_INSERT, layout, 16, image, image),
              "fwutil: SALES.ORDERS: operation 3 takes an after image only\n");
    EXPECT_EQ(record(FWU_OP_DELETE, layout, 16, nullptr, image),
              "fwutil: SALES.ORDERS: operation 5 takes a before image only\n");
    EXPECT_EQ(record(FWU_OP_UPDATE, layout, 16, image, nullptr),
              "fwutil: SALES.ORDERS: operation 1 takes a before and an after image\n");
    EXPECT_THAT(record(FWU_OP_INSERT, layout, -1, nullptr, image),
                HasSubstr("a record of -1 bytes"));
    EXPECT_THAT(record(FWU_OP_INSERT, {"D", "S", {{"A", 'X', 0, 1, 0}}}, 0, nullptr, image),
                HasSubstr("D.S: item A: size and count must be at least 1"));
    EXPECT_THAT(record(FWU_OP_INSERT, {"D", "S", {{std::string(18, 'A'), 'X', 1, 1, 0}}}, 1,
                       nullptr, image),
                HasSubstr("item names have 1 to 17 bytes"));
    for (const std::string &name : {std::string(), std::string(17, 'D'), std::string("D\0x", 3)})
        EXPECT_THAT(record(FWU_OP_INSERT, {name, "S", {}}, 0, nullptr, image),
                    HasSubstr("database and dataset names have 1 to 16 bytes"));
    EXPECT_THAT(
        record(FWU_OP_UPDATE, {"D", "S", {{"A", 'X', 32767, 2000, 0}}}, 65534000, image, image),
        HasSubstr("a record of 65534000 bytes is too long for a log entry"));
    ASSERT_EQ(put(insert(5)), 0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    const run_outcome outcome = run();
    ASSERT_EQ(outcome.records.size(), 1U);
    EXPECT_EQ(outcome.records[0].after, insert(5).after);
    EXPECT_EQ(outcome.records[0].recnum, 1) << "refused records use no number";
}

TEST_F(WriterTest, SessionTextsAreChecked)
{
    open_writer();
    fwu_session session;
    session.user = std::string("a\0b", 3);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_begin(writer, &session), -1); }),
              "fwutil: a session text holds a zero byte\n");
    session.user = std::string(65 * 1024 * 1024, 'x');
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_writer_begin(writer, &session), -1); }),
                HasSubstr("too long for a log entry"));
    add({insert(1)});
}

TEST_F(WriterTest, ADatasetWithoutItemsCanBeWritten)
{
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, {"D", "S", {}}, 1, 0, nullptr, ""), 0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    on_record = [](const seen &) {
        return Fwu_get_item(nullptr, nullptr, nullptr, nullptr, nullptr);
    };
    EXPECT_EQ(run().records, (std::vector<seen>{{"D", "S", 1, FWU_OP_INSERT, 1, "", ""}}));
}

TEST_F(WriterTest, GoesOnWithNumbersAndPositionOfAnEarlierFile)
{
    two_files();
    // A last file that holds nothing, as a writer that died before its first
    // transaction leaves it.
    write_file(file(3), renumbered(log_file_bytes(2).substr(0, 64), 1, 3));
    config.log_file_size = 100000;
    open_writer();
    EXPECT_EQ(fwu_writer_last_lsn(writer), 48U);
    add({insert(9)});
    EXPECT_EQ(fwu_writer_last_lsn(writer), 64U);
    close_writer();
    EXPECT_GT(log_file_bytes(3).size(), 64U);
    EXPECT_EQ(run().records, written);
}

TEST_F(WriterTest, AnEmptyLogHasNoPosition)
{
    open_writer();
    EXPECT_EQ(fwu_writer_last_lsn(writer), 0U);
}

TEST_F(WriterTest, RecordNumbersBeginAgainBehindTheLargest)
{
    open_writer();
    add({insert(1)});
    close_writer();
    // The same record with the largest number.
    std::vector<unsigned char> out;
    fwu_layout layout = config.datasets[0].layout;
    const seen record = insert(1);
    fwu_change change{
        "SALES",   "ORDERS", 1001,    FWU_OP_INSERT,
        INT32_MAX, 16,       nullptr, reinterpret_cast<const unsigned char *>(record.after.data())};
    fwu_txn txn;
    fwu_txn_begin(txn, 1);
    fwu_entry_put_layout(txn.entries, 1, layout);
    ASSERT_EQ(fwu_txn_added(txn, log), 0);
    fwu_entry_put_change(txn.entries, 2, change);
    ASSERT_EQ(fwu_txn_added(txn, log), 0);
    fwu_entry_put_commit(txn.entries, 3, {{1, 1, 1}, txn.count, txn.chain}, {}, 0);
    write_file(file(1), plain_header(1) + std::string(txn.entries.begin(), txn.entries.end()));
    open_writer();
    add({insert(2)});
    close_writer();
    const run_outcome outcome = run();
    ASSERT_EQ(outcome.records.size(), 2U) << outcome.err;
    EXPECT_EQ(outcome.records[0].recnum, INT32_MAX);
    EXPECT_EQ(outcome.records[1].recnum, 1);
}

TEST_F(WriterTest, EveryTornTailIsCutAndReported)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string one = log_file_bytes(1);
    open_writer();
    add({insert(2), erase(2)});
    close_writer();
    const std::string two = log_file_bytes(1);
    for (size_t length = one.size() + 1; length < two.size(); length++) {
        write_file(file(1), two.substr(0, length));
        EXPECT_EQ(stderr_of([&] { open_writer(); }),
                  "fwutil: " + file(1) + ": cut " + std::to_string(length - one.size()) +
                      " bytes behind offset " + std::to_string(one.size()) +
                      ": the rest of a transaction that was not finished\n");
        written.resize(1);
        commits = 1;
        add({insert(2), erase(2)});
        close_writer();
        ASSERT_EQ(log_file_bytes(1), two) << length;
    }
}

TEST_F(WriterTest, ATornFileHeaderIsWrittenAnew)
{
    two_files();
    write_file(file(2), log_file_bytes(2).substr(0, 30));
    written.resize(3);
    EXPECT_THAT(stderr_of([&] { open_writer(); }), HasSubstr(file(2) + ": cut 30 bytes"));
    add({insert(8)});
    close_writer();
    EXPECT_EQ(run().records, written);
    EXPECT_FALSE(std::filesystem::exists(file(3)));
}

TEST_F(WriterTest, ADamagedLogIsNotAppendedTo)
{
    two_files();
    std::filesystem::remove(log + "/acknowledged"); // nobody knows what was
    std::string bytes = log_file_bytes(2);
    bytes[160] ^= 1;
    write_file(file(2), bytes);
    EXPECT_THAT(reopen_failing(), HasSubstr(file(2) + ": damaged at offset 152"));
    EXPECT_EQ(log_file_bytes(2), bytes);
}

TEST_F(WriterTest, AnotherByteOrderIsRefused)
{
    two_files();
    config.big_endian = true;
    EXPECT_THAT(reopen_failing(), HasSubstr("the log holds images of little-endian numbers"));
}

// The encoding that the headers of the log's files say.
static std::string encodings(const std::string &log)
{
    std::string text;
    std::vector<fwu_log_file> files;
    EXPECT_EQ(fwu_log_list(log, files), 0);
    for (const fwu_log_file &file : files) {
        fwu_file_header header;
        EXPECT_EQ(fwu_log_header(file, header), FWU_FOUND);
        text += header.encoding == FWU_UTF8 ? 'U' : '1';
    }
    return text;
}

TEST_F(WriterTest, ANewLogHasTheEncodingThatIsSaidElseTheProgramsOwn)
{
    const std::optional<fwu_encoding> unsaid;
    for (const auto &[said, of_new, expected] :
         std::vector<std::tuple<std::optional<fwu_encoding>, fwu_encoding, fwu_encoding>>{
             {unsaid, FWU_LATIN1, FWU_LATIN1},
             {unsaid, FWU_UTF8, FWU_UTF8},
             {FWU_LATIN1, FWU_UTF8, FWU_LATIN1},
             {FWU_UTF8, FWU_LATIN1, FWU_UTF8}}) {
        std::filesystem::remove_all(log);
        written.clear();
        config.encoding = said;
        config.new_log_encoding = of_new;
        open_writer();
        EXPECT_EQ(fwu_writer_encoding(writer), expected);
        add({insert(1)});
        close_writer();
        EXPECT_EQ(encodings(log), expected == FWU_UTF8 ? "U" : "1");
    }
    EXPECT_EQ(fwu_config().new_log_encoding, FWU_LATIN1);
}

TEST_F(WriterTest, ALogKeepsItsEncodingAndAnotherOneIsRefused)
{
    for (const fwu_encoding encoding : {FWU_UTF8, FWU_LATIN1}) {
        const fwu_encoding other = encoding == FWU_UTF8 ? FWU_LATIN1 : FWU_UTF8;
        std::filesystem::remove_all(log);
        std::filesystem::remove(status);
        written.clear();
        config.encoding = encoding;
        config.new_log_encoding = other;
        two_files();
        config.encoding = other;
        EXPECT_EQ(reopen_failing(),
                  "fwutil: " + file(2) + ": the log holds texts in " +
                      (encoding == FWU_UTF8 ? "utf-8" : "iso-8859-1") +
                      ", but the configuration says otherwise; correct text-encoding in it, or "
                      "leave it out\n");
        config.encoding = encoding;
        open_writer();
        close_writer();
        config.encoding.reset();
        config.log_file_size = 100;
        open_writer();
        EXPECT_EQ(fwu_writer_encoding(writer), encoding);
        add({insert(6)});
        close_writer();
        EXPECT_EQ(encodings(log), encoding == FWU_UTF8 ? "UUU" : "111");
        EXPECT_EQ(run().records, written);
    }
}

TEST_F(WriterTest, AnotherEncodingIsCorrectedOrLeftOutInTheConfiguration)
{
    const auto encoded = [&](const std::string &line) {
        configure(line + "byte-order little\ndatabase SALES\ndataset ORDERS\nitem NO I 4\n"
                         "item TEXT X 12\n");
    };
    encoded("text-encoding utf-8\n");
    open_writer();
    add({insert(1)});
    close_writer();
    encoded("text-encoding iso-8859-1\n");
    EXPECT_THAT(reopen_failing(), HasSubstr("correct text-encoding in it, or leave it out"));
    for (const char *line : {"text-encoding utf-8\n", ""}) {
        encoded(line);
        open_writer();
        add({insert(2)});
        close_writer();
    }
    EXPECT_EQ(encodings(log), "U");
    EXPECT_EQ(run().records, written);
}

// The header of the last file is lost; the file before says what the log's texts are.
TEST_F(WriterTest, ATornFileHeaderIsWrittenAnewInTheEncodingOfTheLog)
{
    config.encoding = FWU_UTF8;
    two_files();
    write_file(file(2), log_file_bytes(2).substr(0, 30));
    written.resize(3);
    config.encoding = FWU_LATIN1;
    EXPECT_THAT(reopen_failing(), HasSubstr(file(2) + ": the log holds texts in utf-8"));
    config.encoding.reset();
    EXPECT_THAT(stderr_of([&] { open_writer(); }), HasSubstr(file(2) + ": cut 30 bytes"));
    EXPECT_EQ(fwu_writer_encoding(writer), FWU_UTF8);
    add({insert(8)});
    close_writer();
    EXPECT_EQ(encodings(log), "UU");
    EXPECT_EQ(run().records, written);
}

TEST_F(WriterTest, ADirectoryThatCannotBeMadeIsNamed)
{
    config.log_directory = dir.file("none/log");
    EXPECT_EQ(reopen_failing(), "fwutil: " + config.log_directory +
                                    ": cannot create the log directory: No such file or "
                                    "directory\n");
}

TEST_F(WriterTest, ASecondWriterIsRefused)
{
    open_writer();
    const pid_t child = fork();
    if (child == 0) {
        fwu_writer *other = nullptr;
        const std::string err = stderr_of([&] { (void)fwu_writer_open(&other, config); });
        const std::string expected = "fwutil: " + log + "/writer.lock: another writer, process " +
                                     std::to_string(getppid()) +
                                     ", has the log open; stop it first\n";
        _exit(other == nullptr && err == expected ? 0 : 1);
    }
    int result = -1;
    EXPECT_EQ(waitpid(child, &result, 0), child);
    EXPECT_EQ(result, 0);
}

TEST_F(WriterTest, AFullDiskLeavesWholeTransactionsAndWritingGoesOn)
{
    const system_calls_guard guard;
    open_writer();
    add({insert(1)});
    const std::string before = log_file_bytes(1);
    for (const int64_t room : {0, 1, 23, 24, 80, 135}) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(put(insert(2)), 0);
        calls.write_room = room;
        std::string err = stderr_of([&] { EXPECT_EQ(commit(), -1); });
        calls.write_room = -1;
        EXPECT_EQ(err, "fwutil: " + file(1) +
                           ": cannot write to the log file: No space left on device\n");
        ASSERT_EQ(log_file_bytes(1), before);
    }
    add({insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
}

TEST_F(WriterTest, WhatCouldNotBeCutOffIsCutOffBeforeTheNextTransaction)
{
    const system_calls_guard guard;
    open_writer();
    add({insert(1)});
    const auto fail = [&] {
        return stderr_of([&] {
            ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
            ASSERT_EQ(put(insert(2)), 0);
            EXPECT_EQ(commit(), -1);
        });
    };
    calls.write_room = 50;
    calls.fail_ftruncate = true;
    EXPECT_THAT(fail(), HasSubstr(": cannot cut the log file back to its last transaction"));
    calls.write_room = -1;
    EXPECT_THAT(fail(), HasSubstr(": cannot cut the log file back")) << "not appended behind it";
    calls.fail_ftruncate = false;
    add({insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
}

TEST_F(WriterTest, AFileThatCannotBeBegunLeavesTheOldOneInUse)
{
    const system_calls_guard guard;
    config.log_file_size = 100;
    open_writer();
    add({insert(1)});
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(2)), 0);
    calls.write_room = 10;
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
                HasSubstr(file(2) + ": cannot create the log file: No space left"));
    calls.write_room = -1;
    EXPECT_FALSE(std::filesystem::exists(file(2)));
    add({insert(3)});
    close_writer();
    EXPECT_TRUE(std::filesystem::exists(file(2)));
    EXPECT_EQ(run().records, written);
}

static size_t directory_entries(const std::string &path)
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(path))
        n++;
    return n;
}

TEST_F(WriterTest, ALargeTransactionGoesThroughASpillFileThatHasNoName)
{
    configure("database SALES\ndataset ORDERS\nitem TEXT X 30000\n");
    open_writer();
    std::vector<seen> many;
    many.reserve(700);
    for (int32_t i = 0; i < 700; i++) // 21 MB
        many.push_back({"SALES", "ORDERS", i, FWU_OP_INSERT, 0, "",
                        std::string(30000, static_cast<char>('a' + i % 26))});
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    for (const seen &change : many)
        ASSERT_EQ(put(change), 0);
    EXPECT_EQ(directory_entries(log), 1U) << "the lock file only";
    fwu_writer_rollback(writer);
    add(many);
    add({many[0]});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_TRUE(outcome.records == written);
}

TEST_F(WriterTest, RecordsThatAreLargeThemselvesFollowEachOther)
{
    configure("database SALES\ndataset ORDERS\nitem TEXT X 30000 x300\n");
    open_writer();
    const std::string large(9'000'000, 'x');
    const std::string other(9'000'000, 'y');
    add({{"SALES", "ORDERS", 2, FWU_OP_UPDATE, 0, large, other},
         {"SALES", "ORDERS", 3, FWU_OP_INSERT, 0, "", large},
         {"SALES", "ORDERS", 4, FWU_OP_DELETE, 0, other, ""}});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_TRUE(outcome.records == written);
}

TEST_F(WriterTest, AFullDiskWhileSpillingGivesTheTransactionUp)
{
    const system_calls_guard guard;
    configure("database SALES\ndataset ORDERS\nitem TEXT X 30000\n");
    open_writer();
    const seen change{"SALES", "ORDERS", 1, FWU_OP_INSERT, 0, "", std::string(30000, 'a')};
    add({change});
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    calls.write_room = 1000;
    int result = 0;
    EXPECT_THAT(stderr_of([&] {
                    for (int i = 0; i < 1000 && result == 0; i++)
                        result = put(change);
                }),
                HasSubstr("cannot write to the spill file of a large transaction: No space left"));
    calls.write_room = -1;
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
                HasSubstr("the transaction is given up"));
    add({change});
    close_writer();
    EXPECT_EQ(run().records, written);
}

TEST_F(WriterTest, TheLastFileNumberIsTheEnd)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string bytes = renumbered(log_file_bytes(1), 9999, 99999999);
    std::filesystem::remove(file(1));
    write_file(file(99999999, 9999), bytes);
    config.log_file_size = 100;
    for (int times = 0; times < 2; times++) {
        open_writer();
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(put(insert(2)), 0);
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
                  "fwutil: " + log + ": the log has used all its file numbers\n");
        close_writer();
        EXPECT_EQ(read_file(file(99999999, 9999)), bytes);
        std::filesystem::remove(status);
        const run_outcome outcome = run();
        EXPECT_EQ(outcome.result, 0) << outcome.err;
        EXPECT_EQ(outcome.records, written);
    }
}
