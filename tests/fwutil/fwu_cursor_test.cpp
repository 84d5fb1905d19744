// Reading a log that is cut at every length and changed at every byte, and one
// that a writer changes while it is read.
#include "fwutil/fwu_cursor.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_crc32c.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

class CursorTest : public log_test {
  protected:
    void SetUp() override
    {
        calls.skip_pauses = true; // what looks damaged is looked at again at once
        two_files();
        std::filesystem::remove(log + "/acknowledged"); // nobody knows what was
    }
    const system_calls_guard guard;
    // Runs from the beginning with these bytes in place of a log file.
    run_outcome run_with(int32_t sequence, const std::string &bytes)
    {
        std::filesystem::remove(status);
        write_file(file(sequence), bytes);
        return run();
    }
    void expect_prefix(const run_outcome &outcome, const std::string &what)
    {
        ASSERT_LE(outcome.records.size(), written.size()) << what;
        for (size_t i = 0; i < outcome.records.size(); i++)
            ASSERT_EQ(outcome.records[i], written[i]) << what;
    }
};

// Offsets worked out from the entry sizes: header 64, layout 88, records of 80
// and 96 bytes, commit 56.
constexpr size_t FIRST_COMMIT_END = 64 + 88 + 80 + 56;
constexpr size_t SECOND_COMMIT_END = FIRST_COMMIT_END + 96 + 80 + 56;
constexpr size_t LAST_FILE_END = 64 + 88 + 80 + 80 + 56;

TEST_F(CursorTest, EveryCutOfTheLastFileIsACleanEnd)
{
    const std::string bytes = log_file_bytes(2);
    ASSERT_EQ(bytes.size(), LAST_FILE_END);
    for (size_t length = 0; length < bytes.size(); length++) {
        const run_outcome outcome = run_with(2, bytes.substr(0, length));
        ASSERT_EQ(outcome.result, 0) << length << outcome.err;
        ASSERT_EQ(outcome.records, written_from(1, 3)) << length;
    }
    EXPECT_EQ(run_with(2, bytes).records, written);
}

TEST_F(CursorTest, ATailOfZerosIsACleanEnd)
{
    const run_outcome outcome = run_with(2, log_file_bytes(2) + std::string(5000, '\0'));
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
}

TEST_F(CursorTest, ACutFileThatAnotherFollowsIsDamage)
{
    const std::string bytes = log_file_bytes(1);
    ASSERT_EQ(bytes.size(), SECOND_COMMIT_END);
    for (size_t length = 0; length < bytes.size(); length++) {
        if (length == 64 || length == FIRST_COMMIT_END)
            continue; // whole transactions, or none
        const run_outcome outcome = run_with(1, bytes.substr(0, length));
        ASSERT_EQ(outcome.result, -1) << length;
        ASSERT_THAT(outcome.err, HasSubstr(file(1) + ": damaged at offset ")) << length;
        ASSERT_EQ(outcome.records, written_from(1, length > FIRST_COMMIT_END ? 1 : 0)) << length;
    }
    const run_outcome outcome = run_with(1, bytes.substr(0, 64));
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written_from(4));
}

TEST_F(CursorTest, EveryByteChangedInTheLastFileIsFoundOrATail)
{
    const std::string bytes = log_file_bytes(2);
    for (size_t i = 0; i < bytes.size(); i++) {
        for (const int flip : {0x01, 0xFF}) {
            std::string changed = bytes;
            changed[i] = static_cast<char>(changed[i] ^ flip);
            const run_outcome outcome = run_with(2, changed);
            const std::string what = "offset " + std::to_string(i) + ": " + outcome.err;
            ASSERT_EQ(outcome.records, written_from(1, 3)) << what;
            const bool in_commit = i >= LAST_FILE_END - 56;
            // A wrong reserved byte leaves a commit entry that others recognise.
            const bool reserved =
                in_commit && i - (LAST_FILE_END - 56) >= 20 && i - (LAST_FILE_END - 56) < 24;
            ASSERT_EQ(outcome.result, in_commit && !reserved ? 0 : -1) << what;
            if (outcome.result != 0) {
                ASSERT_THAT(outcome.err, HasSubstr(file(2) + ": damaged at offset ")) << what;
            }
        }
    }
}

TEST_F(CursorTest, EveryByteChangedInAnEarlierFileIsDamage)
{
    const std::string bytes = log_file_bytes(1);
    for (size_t i = 0; i < bytes.size(); i++) {
        std::string changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ 0x10);
        const run_outcome outcome = run_with(1, changed);
        const std::string what = "offset " + std::to_string(i) + ": " + outcome.err;
        ASSERT_EQ(outcome.result, -1) << what;
        ASSERT_THAT(outcome.err, HasSubstr(file(1) + ": damaged at offset ")) << what;
        ASSERT_EQ(outcome.records, written_from(1, i < FIRST_COMMIT_END ? 0 : 1)) << what;
    }
}

TEST_F(CursorTest, DamageNamesTheOffsetOfTheEntryAndWhatIsWrong)
{
    std::string bytes = log_file_bytes(1);
    bytes[FIRST_COMMIT_END + 60] ^= 1; // in the update's payload
    const run_outcome outcome = run_with(1, bytes);
    EXPECT_EQ(outcome.err,
              "fwutil: " + file(1) +
                  ": damaged at offset 288: the checksum of the entry's payload "
                  "is wrong; restore the file from a copy, cut the log back to what is "
                  "whole (fwlog repair), or leave the rest of the file out with the "
                  "next one as start position (1-2.0); a start may empty the "
                  "program's text files: keep them aside first\n");
}

// Makes both checksums of the entry at offset fit its changed bytes.
static void seal(std::string &bytes, size_t at)
{
    unsigned char place[12] = {};
    auto *p = reinterpret_cast<unsigned char *>(bytes.data() + at);
    const bool commit = get_le16(p + 4) == FWU_KIND_COMMIT;
    const auto begin = [&](size_t salt_at) {
        memcpy(place, header_of(bytes).salt.data() + salt_at, 4);
        put_le64(place + 4, at);
        return commit ? fwu_crc32c(0, place, sizeof place) : 0;
    };
    put_le32(p + 12, fwu_crc32c(begin(0), p, 12));
    put_le32(p + 16, fwu_crc32c(begin(4), p + 24, get_le32(p) - 24));
}

struct sealed_row {
    size_t entry;
    size_t at;
    char value;
    const char *error;
};

TEST_F(CursorTest, EntriesWithGoodChecksumsAreStillChecked)
{
    const std::string good = log_file_bytes(1);
    for (const sealed_row &row : std::vector<sealed_row>{
             {64, 64 + 4, 9,
              "damaged at offset 64: the entry's kind is unknown; a newer libfwutil"},
             {64, 64 + 8, 2, "damaged at offset 64: the entry's tag does not follow"},
             {64, 64 + 20, 1, "damaged at offset 64: reserved bytes"},
             {152, 152 + 24, 7, "damaged at offset 232: the commit entry does not belong to"},
             {232, 232 + 24 + 24, 9, "damaged at offset 232: the commit entry does not belong to"},
             {152, 231, 1, "damaged at offset 152: the bytes behind the entry are not zero"},
         }) {
        std::string bytes = good;
        bytes[row.at] = row.value;
        seal(bytes, row.entry);
        const run_outcome outcome = run_with(1, bytes);
        EXPECT_EQ(outcome.result, -1) << row.at;
        EXPECT_THAT(outcome.err, HasSubstr(file(1) + ": " + row.error));
        EXPECT_TRUE(outcome.records.empty());
    }
}

TEST_F(CursorTest, MalformedContentUnderGoodChecksumsIsDamage)
{
    // An image length that does not fit its entry; the chain is made to fit too.
    std::string bytes = log_file_bytes(1);
    bytes[152 + 24 + 12] = 15;
    seal(bytes, 152);
    uint32_t chain = fwu_crc32c(0, bytes.data() + 64 + 12, 8);
    chain = fwu_crc32c(chain, bytes.data() + 152 + 12, 8);
    put_le32(reinterpret_cast<unsigned char *>(bytes.data() + 232 + 24 + 28), chain);
    seal(bytes, 232);
    const run_outcome outcome = run_with(1, bytes);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err,
                HasSubstr(file(1) + ": damaged at offset 152: the entry's content is malformed"));
    EXPECT_TRUE(outcome.records.empty());
}

TEST_F(CursorTest, AFileOfAnotherLogIsNotReadOn)
{
    const auto with = [this](uint16_t version, unsigned char changed) {
        const std::string bytes = log_file_bytes(2);
        fwu_file_header header = header_of(bytes);
        header.version = version;
        header.identity.bytes[15] = static_cast<unsigned char>(header.identity.bytes[15] ^ changed);
        return header_bytes(header) + bytes.substr(64);
    };
    for (const std::string &bytes : {with(FWU_VERSION_SALTED, 1), with(FWU_VERSION_PLAIN, 0)}) {
        const run_outcome outcome = run_with(2, bytes);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.records, written_from(1, 3));
        EXPECT_THAT(outcome.err,
                    HasSubstr(file(2) + ": damaged at offset 0: it belongs to another log than the "
                                        "files before it: its identity differs; "));
    }
}

// A log of version 1 that a writer of today goes on with.
TEST_F(CursorTest, PlainFilesAreReadAndGoneOnBehindWithANewFile)
{
    std::filesystem::remove_all(log);
    std::filesystem::create_directory(log);
    write_file(file(1), golden_bytes("forward_log_small.hex"));
    const std::string before = log_file_bytes(1);
    written.resize(3); // what its three records are does not matter here
    open_writer();
    EXPECT_EQ(fwu_writer_last_lsn(writer), 256U);
    commits = 16;
    add({insert(9)});
    close_writer();
    EXPECT_EQ(log_file_bytes(1), before);
    EXPECT_EQ(header_of(log_file_bytes(2)).version, FWU_VERSION_SALTED);
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    ASSERT_EQ(outcome.records.size(), 4U);
    EXPECT_EQ(outcome.records[3], written[3]);
}

TEST_F(CursorTest, FilesOfALogHaveOneIdentityAndEachASaltOfItsOwn)
{
    const fwu_file_header one = header_of(log_file_bytes(1));
    const fwu_file_header two = header_of(log_file_bytes(2));
    EXPECT_TRUE(fwu_identity_known(one.identity));
    EXPECT_EQ(one.identity, two.identity);
    EXPECT_NE(one.salt, two.salt);
    config.log_file_size = 64;
    open_writer();
    add({insert(4)});
    close_writer();
    EXPECT_EQ(header_of(log_file_bytes(3)).identity, one.identity);
    std::filesystem::remove_all(log);
    open_writer();
    add({insert(4)});
    close_writer();
    EXPECT_NE(header_of(log_file_bytes(1)).identity, one.identity);
}

// An entry of a kind that only later versions know.
TEST_F(CursorTest, AnOptionalEntryIsPassedOver)
{
    std::string bytes = log_file_bytes(1);
    bytes[152 + 4] = 9; // the insert becomes it
    bytes[152 + 6] = FWU_ENTRY_OPTIONAL;
    seal(bytes, 152);
    uint32_t chain = fwu_crc32c(0, bytes.data() + 64 + 12, 8);
    chain = fwu_crc32c(chain, bytes.data() + 152 + 12, 8);
    put_le32(reinterpret_cast<unsigned char *>(bytes.data() + 232 + 24 + 28), chain);
    seal(bytes, 232);
    const run_outcome outcome = run_with(1, bytes);
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written_from(2));
}

TEST_F(CursorTest, HeaderAndNameMustAgree)
{
    const run_outcome outcome = run_with(2, log_file_bytes(1));
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err, HasSubstr(file(2) + ": damaged at offset 0: its file header names "
                                                 "another generation or sequence"));
}

TEST(LogFileName, OnlyTheFixedPatternIsALogFile)
{
    int32_t generation = 0;
    int32_t sequence = 0;
    EXPECT_EQ(fwu_log_file_name(1, 25), "fw0001-00000025.log");
    ASSERT_TRUE(fwu_log_file_parse("fw0012-00000025.log", generation, sequence));
    EXPECT_EQ(generation, 12);
    EXPECT_EQ(sequence, 25);
    for (const char *name :
         {"", "fw0001-0000025.log", "fw0001-000000025.log", "fw0000-00000025.log",
          "fw0001-00000000.log", "fw0001-0000002x.log", "FW0001-00000025.log",
          "fw0001_00000025.log", "fw0001-00000025.log~", "fw-001-00000025.log"})
        EXPECT_FALSE(fwu_log_file_parse(name, generation, sequence)) << name;
}

// A cursor on a file that grows and is rewritten under it.
class FollowedFile : public log_test {
  protected:
    void SetUp() override
    {
        open_writer();
        add({insert(1)});
        close_writer();
        before = log_file_bytes(1);
        open_writer();
        add({insert(2), insert(3), update(3)});
        close_writer();
        one = log_file_bytes(1).substr(before.size());
        write_file(file(1), before);
        written.pop_back();
        written.pop_back();
        written.pop_back();
        open_writer();
        add({insert(7), insert(8)});
        close_writer();
        other = log_file_bytes(1).substr(before.size());
        write_file(file(1), before);
        ASSERT_EQ(fwu_cursor_open(cursor, {1, 1, fwu_log_file_name(1, 1), file(1)}), 0);
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_FOUND);
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_END);
    }
    void TearDown() override
    {
        fwu_cursor_close(cursor);
    }
    std::vector<int32_t> entries()
    {
        std::vector<int32_t> logtimes;
        fwu_entry entry;
        fwu_change change;
        while (fwu_cursor_entry(cursor, entry) == FWU_FOUND)
            if (fwu_entry_change(entry, change))
                logtimes.push_back(static_cast<int32_t>(change.logtime));
        return logtimes;
    }
    // As a writer does: the same file, its end cut off and other bytes appended.
    void rewrite(const std::string &tail)
    {
        write_file(file(1), before + tail);
    }
    std::string before, one, other;
    fwu_cursor cursor;
};

TEST_F(FollowedFile, ATransactionArrivingInAnyTwoPiecesIsFoundOnce)
{
    for (size_t cut = 1; cut < one.size(); cut++) {
        rewrite(one.substr(0, cut));
        ASSERT_EQ(fwu_cursor_next(cursor), FWU_END) << cut;
    }
    rewrite(one);
    ASSERT_EQ(fwu_cursor_next(cursor), FWU_FOUND);
    EXPECT_EQ(entries(), (std::vector<int32_t>{1002, 1003, 1003}));
    EXPECT_EQ(fwu_cursor_next(cursor), FWU_END);
}

TEST_F(FollowedFile, ATailThatIsReplacedAtAnyPointIsReadAsItIsNow)
{
    for (size_t cut = 0; cut < one.size(); cut++) {
        for (const size_t arrived : {other.size(), other.size() / 2}) {
            fwu_cursor fresh;
            rewrite(one.substr(0, cut));
            ASSERT_EQ(fwu_cursor_open(fresh, cursor.file), 0);
            ASSERT_EQ(fwu_cursor_next(fresh), FWU_FOUND);
            ASSERT_EQ(fwu_cursor_next(fresh), FWU_END) << cut;
            rewrite(other.substr(0, arrived));
            if (arrived < other.size()) {
                ASSERT_EQ(fwu_cursor_next(fresh), FWU_END) << cut;
                rewrite(other);
            }
            ASSERT_EQ(fwu_cursor_next(fresh), FWU_FOUND) << cut << " " << fresh.verdict.reason;
            std::swap(cursor, fresh);
            EXPECT_EQ(entries(), (std::vector<int32_t>{1007, 1008})) << cut;
            std::swap(cursor, fresh);
            fwu_cursor_close(fresh);
        }
    }
}

TEST_F(FollowedFile, WhatIsWrongWithATailIsSaidOfTheTailThatIsThere)
{
    std::string wrong = one.substr(0, one.size() - 56); // no commit entry
    wrong[60] ^= 1;                                     // in the first record's payload
    rewrite(wrong);
    ASSERT_EQ(fwu_cursor_next(cursor), FWU_END);
    EXPECT_STREQ(cursor.verdict.reason, "the checksum of the entry's payload is wrong");
    rewrite(other.substr(0, 20)); // nothing wrong but that it ends in the first entry
    ASSERT_EQ(fwu_cursor_next(cursor), FWU_END);
    EXPECT_EQ(cursor.verdict.reason, nullptr);
    EXPECT_EQ(cursor.verdict.at, static_cast<int64_t>(before.size()));
}

TEST_F(FollowedFile, BecomingShorterThanWhatWasReadIsAnError)
{
    write_file(file(1), before.substr(0, 100));
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_cursor_next(cursor), FWU_FAILED); }),
                HasSubstr(file(1) + ": the log file has become shorter than what was read from it "
                                    "already (100 of 288 bytes)"));
}
