// Whole values beside their records: the bytes of the example file, decoding of what is cut
// short or changed, what a writer takes and how it divides it, and that readers of records
// pass over them.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwu_log.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <random>

using testing::HasSubstr;

constexpr size_t PIECE = 1048576;

// A value as it stands in a log: with the lengths of its pieces.
struct kept_value {
    int32_t item = 0;
    char image = 'a';
    std::string text;
    std::vector<size_t> pieces;
    bool operator==(const kept_value &) const = default;
};

class ValueTest : public log_test {
  protected:
    // With whole values; the change counts as written when result is 0.
    int put_with(seen change, const std::vector<fwu_value> &values)
    {
        const int result = fwu_writer_record(
            writer, change.opcode, config.datasets[0].layout, change.logtime, 16,
            change.opcode == FWU_OP_INSERT ? nullptr : change.before.data(),
            change.opcode == FWU_OP_DELETE ? nullptr : change.after.data(), values);
        if (result == 0) {
            change.recnum = static_cast<int32_t>(written.size() + 1);
            written.push_back(std::move(change));
        }
        return result;
    }
    std::string refused(const seen &change, const std::vector<fwu_value> &values)
    {
        return stderr_of([&] { EXPECT_EQ(put_with(change, values), -1); });
    }
    // The values before each record of the log, read without what is tested but for
    // fwu_entry_value; all entries fit together.
    std::vector<std::vector<kept_value>> kept_values()
    {
        std::vector<std::vector<kept_value>> records;
        std::vector<kept_value> next;
        fwu_layout_check check;
        bool more = false;
        EXPECT_EQ(fwu_log_walk(log,
                               [&](const fwu_walk_item &item) {
                                   if (item.what == FWU_WALK_FILE)
                                       check = {};
                                   if (item.what != FWU_WALK_ENTRY)
                                       return 0;
                                   EXPECT_EQ(fwu_layout_check_entry(check, item.entry), nullptr);
                                   take(item.entry, records, next, more);
                                   return 0;
                               }),
                  0);
        EXPECT_TRUE(next.empty());
        return records;
    }

  private:
    static void take(const fwu_entry &entry, std::vector<std::vector<kept_value>> &records,
                     std::vector<kept_value> &next, bool &more)
    {
        fwu_value_piece piece;
        if (fwu_entry_is_change(entry)) {
            records.push_back(std::move(next));
            next.clear();
        }
        if (!fwu_entry_value(entry, piece))
            return;
        if (!more)
            next.push_back({piece.item, piece.image, "", {}});
        EXPECT_EQ(next.back().item, piece.item);
        EXPECT_EQ(next.back().image, piece.image);
        next.back().text += piece.bytes;
        next.back().pieces.push_back(piece.bytes.size());
        more = piece.more;
    }
};

TEST_F(ValueTest, WriterProducesTheExampleFileByteForByte)
{
    const system_calls_guard guard;
    calls.clock_us = 1700000000000000;
    calls.random_from = 0x10;
    configure("byte-order little\ndatabase SALES\ndataset ORDERS\nitem NO I 4\n"
              "item NOTE X 4\nitem NULLS X 2 null-map\n");
    config.encoding = FWU_UTF8;
    const std::string image("\1\0\0\0gr\xC3\xB6.C", 10);
    const fwu_value note = {1, FWU_IMAGE_AFTER,
                            "gr\xC3\xB6\xC3\x9F"
                            "er"};
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, config.datasets[0].layout, 1700000001, 10,
                                nullptr, image.data(), {&note, 1}),
              0);
    ASSERT_EQ(fwu_writer_commit(writer, {1700000004000005, 7, 256}), 0);
    close_writer();
    const std::string expected = golden_bytes("forward_log_values.hex");
    const std::string found = log_file_bytes(1);
    ASSERT_EQ(expected.size(), 344U);
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(found[i], expected[i]) << "offset " << i;
}

TEST_F(ValueTest, TheExampleFileIsReadAsWithoutThem)
{
    std::filesystem::create_directory(log);
    write_file(file(1), golden_bytes("forward_log_values.hex"));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, (std::vector<seen>{{"SALES", "ORDERS", 1700000001, 3, 1, "",
                                                   std::string("\1\0\0\0gr\xC3\xB6.C", 10)}}));
}

// What a release that knows no values makes of them: it passes over entries of a kind that it
// does not know.
TEST_F(ValueTest, ItsEntriesAreThoseThatOtherReadersPassOver)
{
    const std::string bytes = golden_bytes("forward_log_values.hex");
    const auto *const p = reinterpret_cast<const unsigned char *>(bytes.data());
    fwu_entry entry;
    EXPECT_EQ(fwu_entry_header_get(entry, p + 176, 2, header_of(bytes), 176), nullptr);
    EXPECT_EQ(entry.kind, 9);
    EXPECT_EQ(entry.flags, FWU_ENTRY_OPTIONAL);
    EXPECT_TRUE(fwu_entry_known(entry));
    entry.flags = 0;
    EXPECT_FALSE(fwu_entry_known(entry));
}

// The payload at the very end of a heap block, so that a sanitizer sees a read beyond it.
static bool decodes(const std::string &payload, fwu_value_piece &piece,
                    uint16_t kind = FWU_KIND_VALUE)
{
    static std::vector<unsigned char> exact; // the piece points into it
    exact = std::vector<unsigned char>(payload.begin(), payload.end());
    fwu_entry entry;
    entry.kind = kind;
    entry.payload = exact.data();
    entry.payload_length = exact.size();
    return fwu_entry_value(entry, piece);
}

static std::string payload_of(const fwu_value_piece &piece)
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_value(bytes, 1, piece);
    fwu_entry entry;
    fwu_entry_fields(entry, bytes.data());
    return std::string(fwu_entry_payload(entry));
}

TEST(ValueEntry, WhatWasPutIsThere)
{
    using namespace std::string_view_literals;
    for (const fwu_value_piece &put :
         std::vector<fwu_value_piece>{{0, FWU_IMAGE_AFTER, false, ""},
                                      {7, FWU_IMAGE_BEFORE, true, "\0 \xFF"sv},
                                      {INT32_MAX, FWU_IMAGE_AFTER, true, "x"}}) {
        fwu_value_piece piece;
        ASSERT_TRUE(decodes(payload_of(put), piece));
        EXPECT_EQ(piece.item, put.item);
        EXPECT_EQ(piece.image, put.image);
        EXPECT_EQ(piece.more, put.more);
        EXPECT_EQ(piece.bytes, put.bytes);
        EXPECT_FALSE(decodes(payload_of(put), piece, FWU_KIND_MARK));
        EXPECT_FALSE(decodes(payload_of(put), piece, FWU_KIND_INSERT));
    }
}

TEST(ValueEntry, EveryCutAndEveryChangedByteIsDecodedSafely)
{
    const std::string payload = payload_of({3, FWU_IMAGE_BEFORE, true, "whole"});
    fwu_value_piece piece;
    for (size_t cut = 0; cut < payload.size(); cut++)
        EXPECT_EQ(decodes(payload.substr(0, cut), piece), cut >= 8) << cut;
    for (size_t i = 0; i < payload.size(); i++)
        for (const int flip : {1, 0x80, 0xFF}) {
            std::string changed = payload;
            changed[i] = static_cast<char>(changed[i] ^ flip);
            (void)decodes(changed, piece);
        }
}

TEST(ValueEntry, WhatCannotBeIsMalformed)
{
    struct changed_row {
        size_t at;
        unsigned char byte;
        const char *what;
    };
    const std::string payload = payload_of({3, FWU_IMAGE_BEFORE, true, "whole"});
    fwu_value_piece piece;
    for (const changed_row &row : std::vector<changed_row>{{3, 0x80, "an item above 2147483647"},
                                                           {4, 0, "no image"},
                                                           {4, 'B', "no such image"},
                                                           {5, 2, "neither more nor not"},
                                                           {6, 1, "not zero"},
                                                           {7, 1, "not zero"}}) {
        std::string changed = payload;
        changed[row.at] = static_cast<char>(row.byte);
        EXPECT_FALSE(decodes(changed, piece)) << row.what;
    }
    const std::string largest(PIECE, 'x');
    EXPECT_TRUE(decodes(payload.substr(0, 8) + largest, piece));
    EXPECT_FALSE(decodes(payload.substr(0, 8) + largest + "x", piece));
}

TEST_F(ValueTest, ALongValueIsDividedIntoPieces)
{
    const std::string text = std::string(3 * PIECE, 'a') + "end";
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    std::vector<std::vector<kept_value>> expected;
    for (const auto &[size, pieces] : std::vector<std::pair<size_t, std::vector<size_t>>>{
             {0, {0}},
             {1, {1}},
             {PIECE - 1, {PIECE - 1}},
             {PIECE, {PIECE}},
             {PIECE + 1, {PIECE, 1}},
             {2 * PIECE, {PIECE, PIECE}},
             {3 * PIECE + 3, {PIECE, PIECE, PIECE, 3}}}) {
        const std::string part = text.substr(text.size() - size);
        ASSERT_EQ(put_with(insert(1), {{1, FWU_IMAGE_AFTER, part}}), 0);
        expected.push_back({{1, 'a', part, pieces}});
    }
    ASSERT_EQ(commit(), 0);
    close_writer();
    EXPECT_EQ(kept_values(), expected);
    EXPECT_EQ(run().records, written);
}

// Beyond what a transaction keeps in memory, and across a restart and a new file.
TEST_F(ValueTest, WhatWasGivenStandsBeforeItsRecord)
{
    const unsigned seed = std::random_device()();
    printf("seed %u\n", seed);
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
    config.log_file_size = 4'000'000;
    std::vector<std::vector<kept_value>> expected;
    open_writer();
    for (int transaction = 0; transaction < 6; transaction++) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        for (size_t record = below(4) + 1; record > 0; record--) {
            const seen change = below(2) == 0 ? update(7) : below(2) == 0 ? insert(7) : erase(7);
            std::vector<kept_value> given;
            for (const int32_t item : {1, 0})
                for (const char image : {'a', 'b'}) {
                    if (below(2) == 0 || (image == 'a' ? change.after : change.before).empty())
                        continue;
                    std::string text(below(3) == 0 ? below(3 * PIECE) : below(20), '\0');
                    std::generate(text.begin(), text.end(),
                                  [&] { return static_cast<char>(below(256)); });
                    given.push_back({item, image, text, {}});
                    for (size_t left = text.size(); left > PIECE; left -= PIECE)
                        given.back().pieces.push_back(PIECE);
                    given.back().pieces.push_back(text.size() == 0 ? 0
                                                                   : (text.size() - 1) % PIECE + 1);
                }
            std::vector<fwu_value> values;
            values.reserve(given.size());
            for (const kept_value &value : given)
                values.push_back({value.item,
                                  value.image == 'a' ? FWU_IMAGE_AFTER : FWU_IMAGE_BEFORE,
                                  value.text});
            ASSERT_EQ(put_with(change, values), 0);
            expected.push_back(given);
        }
        ASSERT_EQ(commit(), 0);
        if (transaction == 2) {
            close_writer();
            open_writer();
        }
    }
    close_writer();
    EXPECT_EQ(kept_values(), expected);
    EXPECT_EQ(run().records, written);
}

TEST_F(ValueTest, ALargeTransactionGoesThroughItsSpillFile)
{
    const std::string text(3 * PIECE, 'v');
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    std::vector<std::vector<kept_value>> expected;
    for (int32_t i = 0; i < 4; i++) {
        ASSERT_EQ(put_with(update(i),
                           {{1, FWU_IMAGE_BEFORE, text.substr(0, 5)}, {1, FWU_IMAGE_AFTER, text}}),
                  0);
        expected.push_back({{1, 'b', "vvvvv", {5}}, {1, 'a', text, {PIECE, PIECE, PIECE}}});
    }
    ASSERT_EQ(commit(), 0);
    close_writer();
    EXPECT_EQ(kept_values(), expected);
}

TEST_F(ValueTest, WhatDoesNotBelongToTheRecordIsRefusedAndLeavesTheTransaction)
{
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put_with(insert(1), {{1, FWU_IMAGE_AFTER, "one"}}), 0);
    EXPECT_EQ(refused(insert(2), {{2, FWU_IMAGE_AFTER, "x"}}),
              "fwutil: SALES.ORDERS: a whole value of item 2, but the layout has 2 items\n");
    EXPECT_EQ(refused(insert(2), {{-1, FWU_IMAGE_AFTER, "x"}}),
              "fwutil: SALES.ORDERS: a whole value of item -1, but the layout has 2 items\n");
    EXPECT_EQ(refused(insert(2), {{1, FWU_IMAGE_BEFORE, "x"}}),
              "fwutil: SALES.ORDERS: item TEXT: a whole value of an image that operation 3 has "
              "not\n");
    EXPECT_EQ(refused(erase(2), {{1, FWU_IMAGE_AFTER, "x"}}),
              "fwutil: SALES.ORDERS: item TEXT: a whole value of an image that operation 5 has "
              "not\n");
    EXPECT_EQ(
        refused(update(2), {{0, static_cast<fwu_image>('x'), "x"}}),
        "fwutil: SALES.ORDERS: item NO: a whole value of an image that operation 1 has not\n");
    EXPECT_EQ(refused(update(2), {{1, FWU_IMAGE_BEFORE, "x"},
                                  {1, FWU_IMAGE_AFTER, "x"},
                                  {1, FWU_IMAGE_BEFORE, "y"}}),
              "fwutil: SALES.ORDERS: item TEXT: two whole values for one image\n");
    const std::string_view endless("x", size_t{1} << 52); // refused before it is looked at
    EXPECT_EQ(refused(update(2), {{1, FWU_IMAGE_AFTER, endless}}),
              "fwutil: " + log + ": the transaction has too many entries for one log file\n");
    ASSERT_EQ(put_with(update(3), {{1, FWU_IMAGE_BEFORE, "two"}}), 0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    EXPECT_EQ(kept_values(), (std::vector<std::vector<kept_value>>{{{1, 'a', "one", {3}}},
                                                                   {{1, 'b', "two", {3}}}}));
    EXPECT_EQ(run().records, written);
}

TEST_F(ValueTest, WhatCannotBeKeptGivesTheTransactionUp)
{
    const system_calls_guard guard;
    const std::string text(10 * PIECE, 'v'); // more than is kept in memory
    open_writer();
    add({insert(1)});
    const std::string before = log_file_bytes(1);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    calls.write_room = 100;
    EXPECT_THAT(refused(insert(2), {{1, FWU_IMAGE_AFTER, text}}),
                HasSubstr("cannot write to the spill file of a large transaction: No space left"));
    calls.write_room = -1;
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
                HasSubstr("the transaction is given up: part of it could not be kept"));
    EXPECT_EQ(log_file_bytes(1), before);
    add({insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
}

// Restarted between pieces, at each of them: the tail goes, whole values come again.
TEST_F(ValueTest, ATailThatEndsAmongPiecesIsCutOff)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string one = log_file_bytes(1);
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put_with(update(2), {{0, FWU_IMAGE_BEFORE, "12"}, {1, FWU_IMAGE_AFTER, "thirteen"}}),
              0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    const std::string two = log_file_bytes(1);
    for (size_t length = one.size() + 1; length < two.size(); length++) {
        write_file(file(1), two.substr(0, length));
        std::filesystem::remove(log + "/acknowledged");
        std::string err = stderr_of([&] { open_writer(); });
        ASSERT_THAT(err, HasSubstr("cut " + std::to_string(length - one.size()) + " bytes"));
        close_writer();
        ASSERT_EQ(log_file_bytes(1), one) << length;
    }
}
