// What was acknowledged is never missing without an error, and nothing that was not
// stands in the way of a writer or a reader.
#include "fwutil/fwu_ack.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;

class AckTest : public log_test {
  protected:
    AckTest()
    {
        calls.skip_pauses = true; // what looks damaged is looked at again at once
    }
    const system_calls_guard guard;
    void acknowledge()
    {
        ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
    }
    // What opening the log for writing says; it must fail.
    std::string refused()
    {
        return stderr_of([&] {
            fwu_writer *none = nullptr;
            EXPECT_EQ(fwu_writer_open(&none, config), -1);
            EXPECT_EQ(none, nullptr);
        });
    }
    // Two transactions on disk and acknowledged, a third one behind them.
    void three()
    {
        open_writer();
        add({insert(1)});
        first_end = log_file_bytes(1).size();
        add({update(1), erase(1)});
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        acknowledge();
        acked_end = log_file_bytes(1).size();
        add({insert(2), insert(3)});
        close_writer();
        bytes = log_file_bytes(1);
    }
    // Back to these bytes of the log file, nothing read of them yet.
    void put_back(const std::string &now)
    {
        std::filesystem::remove(status);
        write_file(file(1), now);
    }
    std::string piece(size_t at) const
    {
        return log + "/cut-" + fwu_log_file_name(1, 1) + "-" + std::to_string(at);
    }
    size_t first_end = 0;
    size_t acked_end = 0;
    std::string bytes;
};

TEST_F(AckTest, FileIsTwoLinesOfFixedText)
{
    calls.random_from = 0x10;
    open_writer();
    add({insert(1)});
    ASSERT_EQ(fwu_writer_sync(writer), 0);
    acknowledge();
    acknowledge(); // nothing new: nothing written
    const std::string text = read_file(log + "/acknowledged");
    const std::string none = "0000000001 position 0000-00000000.0000000000 end 0000000000000000 "
                             "lsn 0000000000000000 time +0000000000000000000 log "
                             "101112131415161718191a1b1c1d1e1f lost no  crc ";
    const std::string one = "0000000002 position 0001-00000001.0000000003 end 0000000000000288 "
                            "lsn 0000000000000010 time +0001700000001000000 log "
                            "101112131415161718191a1b1c1d1e1f lost no  crc ";
    EXPECT_THAT(text, testing::MatchesRegex("fwutil acknowledged 1\n.{171}\n.{171}\n"));
    EXPECT_EQ(text.substr(22, one.size()), one);
    EXPECT_EQ(text.substr(22 + 172, none.size()), none);
}

TEST_F(AckTest, EveryChangedOrMissingByteLeavesTheOtherLine)
{
    three();
    const std::string text = read_file(log + "/acknowledged");
    fwu_ack good;
    ASSERT_EQ(fwu_ack_read(log, good), FWU_FOUND);
    EXPECT_EQ(good.end, static_cast<int64_t>(acked_end));
    for (size_t i = 0; i < text.size(); i++) {
        std::string changed = text;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        write_file(log + "/acknowledged", changed);
        fwu_ack ack;
        std::string err = stderr_of(
            [&] { EXPECT_EQ(fwu_ack_read(log, ack), i < 22 ? FWU_FAILED : FWU_FOUND) << i; });
        EXPECT_TRUE(i < 22 || ack.end == good.end || ack.position.generation == 0) << i;
        write_file(log + "/acknowledged", text.substr(0, i));
        err = stderr_of(
            [&] { EXPECT_EQ(fwu_ack_read(log, ack), i < 22 + 172 ? FWU_FAILED : FWU_FOUND) << i; });
        if (i < 22 + 172) {
            EXPECT_EQ(err, "fwutil: " + log +
                               "/acknowledged: damaged: it says what of the log was acknowledged; "
                               "restore it from a copy, or remove it: then nobody can tell whether "
                               "the end of the log is missing\n");
        }
    }
}

// One changed byte in the last commit entry is no torn tail when that was
// acknowledged.
TEST_F(AckTest, NoChangedByteTakesAnAcknowledgedTransactionAway)
{
    three();
    for (size_t i = 0; i < acked_end; i++) {
        std::string changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ 0x10);
        put_back(changed);
        const std::string err = refused();
        ASSERT_NE(err, "") << i;
        ASSERT_EQ(log_file_bytes(1), changed) << i;
        if (i >= first_end) {
            ASSERT_THAT(err, HasSubstr(": the log ends behind position 1-1.3 (")) << i;
            ASSERT_THAT(err, HasSubstr("), but it was acknowledged up to position 1-1.6 (source "
                                       "position 0/20) in fw0001-00000001.log; restore the log "
                                       "from a copy, or go on without what is missing: fwlog "
                                       "repair --accept-loss\n"));
        }
        const run_outcome outcome = run();
        ASSERT_EQ(outcome.result, -1) << i;
        ASSERT_THAT(outcome.err, HasSubstr(": damaged at offset ")) << i;
        ASSERT_EQ(outcome.records, written_from(1, i < first_end ? 0 : 1)) << i;
    }
    EXPECT_EQ(std::filesystem::exists(piece(first_end)), false);
}

TEST_F(AckTest, NoCutTakesAnAcknowledgedTransactionAway)
{
    three();
    for (size_t length = 0; length < bytes.size(); length++) {
        put_back(bytes.substr(0, length));
        if (length >= acked_end)
            continue;
        ASSERT_THAT(refused(), HasSubstr("but it was acknowledged up to position 1-1.6")) << length;
        const run_outcome outcome = run();
        ASSERT_EQ(outcome.result, -1) << length << outcome.err;
        if (length == first_end) {
            EXPECT_THAT(outcome.err, HasSubstr("damaged at offset " + std::to_string(first_end) +
                                               ": it ends before what was acknowledged"));
        }
    }
}

// What seems damaged is looked at again five times; who is told to stop does not
// wait for that, and calls nothing damaged that was not looked at.
TEST_F(AckTest, ASignalEndsTheLooksAtWhatSeemsDamaged)
{
    three();
    std::string changed = bytes;
    changed[first_end + 40] = static_cast<char>(changed[first_end + 40] ^ 0x10);
    for (const int stop_at : {1, 2, 5, 0}) {
        put_back(changed);
        calls.pauses = 0;
        calls.stop_at_pause = stop_at;
        const run_outcome outcome = run();
        EXPECT_EQ(calls.pauses, stop_at != 0 ? stop_at : 5);
        EXPECT_EQ(outcome.result, stop_at != 0 ? 0 : -1) << stop_at;
        EXPECT_EQ(outcome.err.empty(), stop_at != 0) << outcome.err;
        EXPECT_EQ(outcome.records, written_from(1, 1));
    }
}

TEST_F(AckTest, WhatWasNotAcknowledgedIsATailWhateverItLooksLike)
{
    three();
    std::vector<std::string> tails;
    for (size_t i = acked_end; i < bytes.size(); i++) {
        tails.push_back(bytes);
        tails.back()[i] = static_cast<char>(tails.back()[i] ^ 0x10);
        tails.push_back(bytes.substr(0, i) + std::string(5000, '\0') + bytes.substr(i));
    }
    written.resize(3);
    for (const std::string &tail : tails) {
        put_back(tail);
        const run_outcome outcome = run();
        ASSERT_EQ(outcome.result, 0) << outcome.err;
        ASSERT_EQ(std::vector(outcome.records.begin(), outcome.records.begin() + 3), written);
        const bool whole = outcome.records.size() == 5;
        const std::string err = stderr_of([&] { open_writer(); });
        close_writer();
        if (whole)
            continue; // the change was behind its commit
        ASSERT_EQ(log_file_bytes(1), bytes.substr(0, acked_end));
        ASSERT_THAT(err, HasSubstr("; kept in cut-fw0001-00000001.log-" +
                                   std::to_string(acked_end) + "\n"));
        ASSERT_EQ(read_file(piece(acked_end)), tail.substr(acked_end));
    }
}

TEST_F(AckTest, TheNextWriterTakesNothingBack)
{
    three();
    open_writer();
    acknowledge(); // nothing is known to be on disk yet but what was acknowledged before
    fwu_ack ack;
    ASSERT_EQ(fwu_ack_read(log, ack), FWU_FOUND);
    EXPECT_EQ(ack.end, static_cast<int64_t>(acked_end));
    ASSERT_EQ(fwu_writer_sync(writer), 0);
    acknowledge();
    ASSERT_EQ(fwu_ack_read(log, ack), FWU_FOUND);
    EXPECT_EQ(ack.end, static_cast<int64_t>(bytes.size()));
}

// Not even a tail that could be cut off is touched.
TEST_F(AckTest, ALogThatIsRefusedStaysAsItIs)
{
    two_files();
    write_file(file(1), log_file_bytes(1).substr(0, 300));
    const std::string two = log_file_bytes(2) + "torn";
    write_file(file(2), two);
    EXPECT_THAT(refused(), HasSubstr(file(1) + ": damaged at offset 288"));
    EXPECT_EQ(log_file_bytes(2), two);
}

TEST_F(AckTest, OnlyTheNewestPieceCutOffIsKept)
{
    three();
    write_file(file(1), bytes + std::string(30, 't'));
    stderr_of([&] { open_writer(); });
    EXPECT_EQ(read_file(piece(bytes.size())), std::string(30, 't'));
    add({insert(4)});
    close_writer();
    const size_t end = log_file_bytes(1).size();
    write_file(file(1), log_file_bytes(1) + std::string(40, 'a'));
    stderr_of([&] { open_writer(); });
    EXPECT_EQ(read_file(piece(end)), std::string(40, 'a'));
    EXPECT_FALSE(std::filesystem::exists(piece(bytes.size())));
}

TEST_F(AckTest, ALastFileThatIsMissingOrOlderIsRefused)
{
    two_files();
    open_writer();
    ASSERT_EQ(fwu_writer_sync(writer), 0);
    acknowledge();
    close_writer();
    const std::string two = log_file_bytes(2);
    std::filesystem::remove(file(2));
    EXPECT_THAT(refused(), HasSubstr("the log ends behind position 1-1.6, but it was acknowledged "
                                     "up to position 1-2.4 (source position 0/30) in "
                                     "fw0001-00000002.log; restore"));
    std::filesystem::remove(file(1));
    EXPECT_THAT(refused(), HasSubstr("the log ends before its first transaction, but it was "
                                     "acknowledged up to position 1-2.4"));
    write_file(file(2), two.substr(0, 64));
    EXPECT_THAT(refused(), HasSubstr("the log ends before its first transaction, but"));
    write_file(file(2), two);
    open_writer();
    EXPECT_EQ(fwu_writer_last_lsn(writer), 48U);
}

// The file is named before its bytes are on disk by systems that went down.
TEST_F(AckTest, ALastFileOfZerosIsEmpty)
{
    two_files();
    for (const size_t length : {0U, 1U, 64U, 5000U}) {
        std::filesystem::remove(status);
        write_file(file(3), std::string(length, '\0'));
        if (std::filesystem::exists(log + "/acknowledged")) {
            EXPECT_EQ(run().result, 0);
        }
        stderr_of([&] { open_writer(); });
        EXPECT_EQ(fwu_writer_last_lsn(writer), commits * 16);
        add({insert(9)});
        close_writer();
        const run_outcome outcome = run();
        EXPECT_EQ(outcome.result, 0) << outcome.err;
        std::filesystem::remove(status);
        EXPECT_EQ(run().records, written);
        std::filesystem::remove(file(3));
        written.pop_back();
        commits--;
        // An older log knows of nothing acknowledged.
        std::filesystem::remove(log + "/acknowledged");
    }
}

TEST_F(AckTest, ALogWithoutTheFileIsToldOnceAndGoesOn)
{
    two_files();
    std::filesystem::remove(log + "/acknowledged");
    EXPECT_EQ(stderr_of([&] { open_writer(); }),
              "fwutil: " + log + "/acknowledged: the file is missing: the log is taken as it is\n");
    close_writer();
    EXPECT_EQ(stderr_of([&] { open_writer(); }), "");
}

TEST_F(AckTest, TheFileOfAnotherLogIsRefused)
{
    three();
    const std::string other = read_file(log + "/acknowledged");
    std::filesystem::remove_all(log);
    open_writer();
    add({insert(1)});
    close_writer();
    write_file(log + "/acknowledged", other);
    EXPECT_THAT(refused(), HasSubstr("/acknowledged: it belongs to the log "));
    std::filesystem::remove(log + "/acknowledged");
    stderr_of([&] { open_writer(); });
    EXPECT_NE(writer, nullptr);
}

TEST_F(AckTest, TheFileBeforeTheLastMustEndWhole)
{
    two_files();
    write_file(file(1), log_file_bytes(1).substr(0, 300));
    EXPECT_THAT(refused(), HasSubstr(file(1) + ": damaged at offset 288: it ends inside a "
                                               "transaction, but a newer log file follows"));
}

struct mode_row {
    const char *setting;
    int directory; // made before with this mode; 0: not made
    mode_t file_mode, directory_mode;
};

TEST_F(AckTest, FilesAndDirectoryHaveTheModesAskedForWhateverTheUmask)
{
    for (const mode_row &row :
         {mode_row{"", 0, 0600, 0700}, mode_row{"log-mode 0640", 0, 0640, 0750},
          mode_row{"log-mode 644", 0, 0644, 0755}, mode_row{"", 0770, 0660, 0770},
          mode_row{"", 0755, 0644, 0755}, mode_row{"log-mode 0600", 0755, 0600, 0755}}) {
        std::filesystem::remove_all(log);
        if (row.directory != 0) {
            std::filesystem::create_directory(log);
            ASSERT_EQ(chmod(log.c_str(), static_cast<mode_t>(row.directory)), 0);
        }
        configure(std::string(row.setting) + "\ndatabase SALES\ndataset ORDERS\nitem NO I 4\n"
                                             "item TEXT X 12\n");
        const mode_t before = umask(0077);
        open_writer();
        add({insert(1)});
        umask(before);
        struct stat st = {};
        ASSERT_EQ(stat(log.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, row.directory_mode) << row.setting;
        for (const char *name : {"acknowledged", "fw0001-00000001.log"}) {
            ASSERT_EQ(stat((log + "/" + name).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, row.file_mode) << row.setting << name;
        }
        // Those who may only read it could hold it locked.
        ASSERT_EQ(stat((log + "/writer.lock").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, row.file_mode == 0660 ? 0660U : 0600U) << row.setting;
        EXPECT_EQ(fwu_writer_file_mode(writer), row.file_mode);
        close_writer();
    }
}

// Bytes of a row that spell a commit entry as a file of version 1 would have it.
static std::string fake_commit()
{
    std::vector<unsigned char> out;
    fwu_entry_put_commit(out, 7, {{1, 1, 1}, 1, 1}, {}, 0);
    return {out.begin(), out.end()};
}

// A writer killed inside the write of such a row: what is there of it is a tail, for
// readers beside it and for the writer that starts again.
TEST_F(AckTest, DataThatLookLikeACommitEntryAreData)
{
    configure("byte-order little\ndatabase SALES\ndataset BIG\nitem TEXT X 280\n");
    const auto row = [](const std::string &text) {
        std::string image = text;
        image.resize(280, 'x');
        return seen{"SALES", "BIG", 1, FWU_OP_INSERT, 0, "", image};
    };
    open_writer();
    add({row("first")});
    const std::string before = log_file_bytes(1);
    // A copy of a real commit entry of this very file, and one made of constants, at
    // each place that the row can have them.
    const std::string real = before.substr(before.size() - 56);
    for (const std::string &fake : {fake_commit(), real})
        for (size_t shift = 0; shift < 8; shift++)
            add({row(std::string(shift, 'a') + fake + fake + fake + fake)});
    close_writer();
    const std::string whole = log_file_bytes(1);
    EXPECT_EQ(run().records, written);
    const std::string acked = read_file(log + "/acknowledged");
    for (const bool known : {true, false}) {
        for (size_t length = before.size() + 1; length < whole.size(); length += 13) {
            write_file(file(1), whole.substr(0, length));
            std::filesystem::remove(status);
            if (known)
                write_file(log + "/acknowledged", acked);
            else
                std::filesystem::remove(log + "/acknowledged");
            const run_outcome outcome = run();
            ASSERT_EQ(outcome.result, 0) << length << outcome.err;
            fwu_writer *again = nullptr;
            stderr_of([&] { ASSERT_EQ(fwu_writer_open(&again, config), 0) << length; });
            (void)fwu_writer_close(again);
        }
    }
}
