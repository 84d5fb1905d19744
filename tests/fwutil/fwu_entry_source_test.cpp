// Sources of layouts and marks: the bytes of the example file, decoding of what is cut short
// or changed, what a writer takes, and what it knows of them behind a restart.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

// Of the fixture's first dataset.
static fwu_source source_of_orders()
{
    return {.schema = "sales",
            .table = "orders",
            .columns = {{"order_no", "integer", 0, 1},
                        {"gr\xC3\xB6\xC3\x9F"
                         "e",
                         "text", 1, 0},
                        {"remarks", "", -1, 0}}};
}

class SourceTest : public log_test {
  protected:
    void set_source(const fwu_source &source)
    {
        config.datasets[0].layout.source = std::make_shared<const fwu_source>(source);
    }
    // Has runs pass over what was truncated.
    void pass_over_truncates() const
    {
        write_file(cfg, read_file(cfg) + "truncate mark\n");
    }
    // The kinds of the entries of a log file.
    std::string kinds(int32_t sequence) const
    {
        const std::string bytes = log_file_bytes(sequence);
        std::string text;
        for (size_t at = FWU_FILE_HEADER_SIZE; at < bytes.size();) {
            const auto *p = reinterpret_cast<const unsigned char *>(bytes.data() + at);
            text += std::to_string(get_le16(p + 4));
            at += fwu_entry_padded(get_le32(p));
        }
        return text;
    }
    void restart()
    {
        close_writer();
        open_writer();
    }
    std::string record_refused()
    {
        return stderr_of([&] { EXPECT_EQ(put(insert(1)), -1); });
    }
    std::string mark_refused(const fwu_mark &mark)
    {
        return stderr_of([&] { EXPECT_EQ(fwu_writer_mark(writer, mark), -1); });
    }
};

static const fwu_mark TRUNCATED = {.kind = FWU_MARK_TRUNCATE,
                                   .dbname = "SALES",
                                   .dsetname = "ORDERS",
                                   .schema = "sales",
                                   .table = "orders",
                                   .reason = "TRUNCATE"};

TEST_F(SourceTest, WriterProducesTheExampleFileByteForByte)
{
    const system_calls_guard guard;
    calls.clock_us = 1700000000000000;
    calls.random_from = 0x10;
    configure("byte-order little\ndatabase SALES\ndataset ORDERS\nitem NO I 4\n"
              "item PRICE P 5 scale=2\nitem NULLS X 2 null-map\n");
    set_source({.schema = "sales",
                .table = "orders",
                .columns = {{"order_no", "integer", 0, 1},
                            {"price", "numeric(9,2)", 1, 0},
                            {"gr\xC3\xB6\xC3\x9F"
                             "e",
                             "text", -1, 0}},
                .null_map = 2});
    const std::string image("\1\0\0\0\0\0\0\x12\x5C..", 11);
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, config.datasets[0].layout, 1700000001, 11,
                                nullptr, image.data()),
              0);
    ASSERT_EQ(fwu_writer_mark(writer, TRUNCATED), 0);
    ASSERT_EQ(fwu_writer_commit(writer, {1700000004000005, 7, 256}), 0);
    close_writer();
    const std::string expected = golden_bytes("forward_log_source.hex");
    const std::string found = log_file_bytes(1);
    ASSERT_EQ(expected.size(), 536U);
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(found[i], expected[i]) << "offset " << i;
}

TEST_F(SourceTest, TheExampleFileIsReadAsWithoutThem)
{
    pass_over_truncates();
    std::filesystem::create_directory(log);
    write_file(file(1), golden_bytes("forward_log_source.hex"));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, (std::vector<seen>{{"SALES", "ORDERS", 1700000001, 3, 1, "",
                                                   std::string("\1\0\0\0\0\0\0\x12\x5C..", 11)}}));
}

// Calls with the payload at the very end of a heap block, so that a sanitizer sees a read
// beyond it.
template <typename F> static void decode(const std::string &payload, uint16_t kind, F with)
{
    const std::vector<unsigned char> exact(payload.begin(), payload.end());
    fwu_entry entry;
    entry.kind = kind;
    entry.payload = exact.data();
    entry.payload_length = exact.size();
    with(entry);
}

static bool decodes(const std::string &payload, uint16_t kind)
{
    bool good = false;
    decode(payload, kind, [&](const fwu_entry &entry) {
        fwu_layout_source of;
        fwu_mark mark;
        good = kind == FWU_KIND_SOURCE ? fwu_entry_source(entry, of) : fwu_entry_mark(entry, mark);
        EXPECT_FALSE(kind == FWU_KIND_SOURCE ? fwu_entry_mark(entry, mark)
                                             : fwu_entry_source(entry, of));
    });
    return good;
}

static std::string payload_of(const std::vector<unsigned char> &entry)
{
    const size_t length = get_le32(entry.data());
    return {entry.begin() + FWU_ENTRY_HEADER_SIZE, entry.begin() + static_cast<ptrdiff_t>(length)};
}

static std::string source_payload()
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_source(bytes, 1,
                         {.dbname = "SALES",
                          .dsetname = "ORDERS",
                          .items = {},
                          .source = std::make_shared<const fwu_source>(source_of_orders())});
    return payload_of(bytes);
}

static std::string mark_payload(const fwu_mark &mark)
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_mark(bytes, 1, mark);
    return payload_of(bytes);
}

TEST(SourceEntry, WhatWasPutIsThere)
{
    decode(source_payload(), FWU_KIND_SOURCE, [](const fwu_entry &entry) {
        fwu_layout_source of;
        of.source.columns.resize(9); // of another one
        ASSERT_TRUE(fwu_entry_source(entry, of));
        EXPECT_EQ(of.dbname, "SALES");
        EXPECT_EQ(of.dsetname, "ORDERS");
        EXPECT_EQ(of.source, source_of_orders());
    });
}

TEST(MarkEntry, WhatWasPutIsThere)
{
    for (const fwu_mark &put : {TRUNCATED, fwu_mark()})
        decode(mark_payload(put), FWU_KIND_MARK, [&](const fwu_entry &entry) {
            fwu_mark mark = TRUNCATED;
            ASSERT_TRUE(fwu_entry_mark(entry, mark));
            EXPECT_EQ(mark.kind, put.kind);
            EXPECT_EQ(mark.dbname, put.dbname);
            EXPECT_EQ(mark.dsetname, put.dsetname);
            EXPECT_EQ(mark.schema, put.schema);
            EXPECT_EQ(mark.table, put.table);
            EXPECT_EQ(mark.reason, put.reason);
        });
}

TEST(SourceEntry, EveryCutAndEveryChangedByteIsDecodedSafely)
{
    for (const auto &[payload, kind] : {std::pair(source_payload(), FWU_KIND_SOURCE),
                                        std::pair(mark_payload(TRUNCATED), FWU_KIND_MARK)}) {
        ASSERT_TRUE(decodes(payload, kind));
        EXPECT_FALSE(decodes(payload + std::string(1, '\0'), kind));
        for (size_t cut = 0; cut < payload.size(); cut++)
            EXPECT_FALSE(decodes(payload.substr(0, cut), kind))
                << "kind " << kind << " cut to " << cut;
        for (size_t i = 0; i < payload.size(); i++)
            for (const int flip : {1, 0x80, 0xFF}) {
                std::string changed = payload;
                changed[i] = static_cast<char>(changed[i] ^ flip);
                (void)decodes(changed, kind);
            }
    }
}

struct changed_row {
    size_t at;
    std::string bytes;
    const char *what;
};

TEST(SourceEntry, WhatCannotBeIsMalformed)
{
    using namespace std::string_literals;
    const std::string payload = source_payload();
    for (const changed_row &row :
         std::vector<changed_row>{{0, "\0"s, "no database name"},
                                  {0, "\x11"s, "a database name of 17 bytes"},
                                  {2, "\1"s, "not zero"},
                                  {4, "\4"s, "more columns than there are"},
                                  {4, "\xFF\xFF\xFF\xFF"s, "far more"},
                                  {4, "\2"s, "fewer columns"},
                                  {8, "\0\0\0\x80"s, "an index above 2147483646"},
                                  {14, "\0"s, "a zero byte in the database name"},
                                  {42, "\0\0\0\x80"s, "a column's item"},
                                  {46, "\0\0\0\x80"s, "a column's key"}}) {
        std::string changed = payload;
        changed.replace(row.at, row.bytes.size(), row.bytes);
        EXPECT_FALSE(decodes(changed, FWU_KIND_SOURCE)) << row.what;
    }
    fwu_source nameless = source_of_orders();
    nameless.columns[1].name.clear();
    std::vector<unsigned char> bytes;
    fwu_layout layout{.dbname = "S", .dsetname = "O", .items = {}};
    layout.source = std::make_shared<const fwu_source>(nameless);
    fwu_entry_put_source(bytes, 1, layout);
    EXPECT_FALSE(decodes(payload_of(bytes), FWU_KIND_SOURCE));
    nameless = source_of_orders();
    nameless.table.clear();
    layout.source = std::make_shared<const fwu_source>(nameless);
    bytes.clear();
    fwu_entry_put_source(bytes, 1, layout);
    EXPECT_FALSE(decodes(payload_of(bytes), FWU_KIND_SOURCE));
}

TEST(MarkEntry, WhatCannotBeIsMalformed)
{
    using namespace std::string_literals;
    for (const changed_row &row :
         std::vector<changed_row>{{0, "x"s, "no such mark"},
                                  {1, "\0"s, "a dataset without its database"},
                                  {2, "\0"s, "a database without a dataset"},
                                  {1, "\x11"s, "a database name of 17 bytes"},
                                  {3, "\1"s, "not zero"},
                                  {17, "\xFF\xFF\xFF\xFF"s, "a schema longer than all"}}) {
        std::string changed = mark_payload(TRUNCATED);
        changed.replace(row.at, row.bytes.size(), row.bytes);
        EXPECT_FALSE(decodes(changed, FWU_KIND_MARK)) << row.what;
    }
}

struct wrong_row {
    void (*change)(fwu_source &source);
    const char *wrong;
};

static const char TEXTS[] =
    "the source's table and columns have names of 1 to 65535 bytes, schema and "
    "types have at most as many, none zero";
static const char FITS[] = "the source of the records does not fit their items";

static const wrong_row WRONG[] = {
    {[](fwu_source &s) { s.table.clear(); }, TEXTS},
    {[](fwu_source &s) { s.columns[2].name.clear(); }, TEXTS},
    {[](fwu_source &s) { s.schema.push_back('\0'); }, TEXTS},
    {[](fwu_source &s) { s.table.push_back('\0'); }, TEXTS},
    {[](fwu_source &s) { s.columns[0].name.push_back('\0'); }, TEXTS},
    {[](fwu_source &s) { s.columns[2].type.push_back('\0'); }, TEXTS},
    {[](fwu_source &s) { s.columns[1].type.assign(65536, 'x'); }, TEXTS},
    {[](fwu_source &s) { s.schema.assign(65536, 'x'); }, TEXTS},
    {[](fwu_source &s) { s.columns[1].item = 3; }, FITS},
    {[](fwu_source &s) { s.columns[1].item = 2; }, FITS},
    {[](fwu_source &s) { s.null_map = -2; }, FITS},
    {[](fwu_source &s) {
         s.null_map = 1; // which is no null map
         s.columns[1].item = -1;
     },
     FITS},
    {[](fwu_source &s) { s.columns[0].key = 2; }, FITS},
};

TEST_F(SourceTest, ASourceThatDoesNotFitItsLayoutIsRefused)
{
    configure("database SALES\ndataset ORDERS\nitem NO I 4\nitem TEXT X 12\nitem NULLS X 2\n");
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    seen change = insert(1);
    change.after += "..";
    for (const wrong_row &row : WRONG) {
        fwu_source source = source_of_orders();
        source.null_map = 2;
        row.change(source);
        set_source(source);
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(put(change), -1); }),
                  std::string("fwutil: SALES.ORDERS: ") + row.wrong + "\n");
    }
    fwu_source keys = source_of_orders(); // in any order, also of a column that is left out
    keys.null_map = 2;
    keys.columns[0].key = 3;
    keys.columns[1].key = 1;
    keys.columns[2].key = 2;
    keys.columns[1].type.assign(65535, 'x');
    set_source(keys);
    EXPECT_EQ(put(change), 0);
    ASSERT_EQ(commit(), 0);
}

TEST_F(SourceTest, ASourceTooLongForAnEntryIsRefused)
{
    fwu_source source = source_of_orders();
    for (int i = 0; i < 1025; i++)
        source.columns.push_back({"c", std::string(65535, 't'), -1, 0});
    set_source(source);
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    EXPECT_EQ(record_refused(), "fwutil: SALES.ORDERS: the source's texts are too long for a log "
                                "entry (67108864 bytes)\n");
}

// 1 layout, 7 source, 3 insert, 8 mark, 6 commit
TEST_F(SourceTest, ItStandsBehindItsLayoutOnceInEachFile)
{
    set_source(source_of_orders());
    open_writer();
    add({insert(1)});
    add({insert(2), insert(3)});
    EXPECT_EQ(kinds(1), "1736"
                        "336");
    restart(); // the log's own copy is compared by what it holds
    add({insert(4)});
    add({insert(5)});
    EXPECT_EQ(kinds(1), "1736"
                        "336"
                        "36"
                        "36");
    set_source(source_of_orders()); // an equal one of the caller's
    add({insert(6)});
    EXPECT_EQ(kinds(1), "1736"
                        "336"
                        "36"
                        "36"
                        "36");
    fwu_source other = source_of_orders();
    other.columns[1].type = "varchar(12)";
    set_source(other);
    add({insert(7), insert(8)});
    EXPECT_EQ(kinds(1), "1736"
                        "336"
                        "36"
                        "36"
                        "36"
                        "17336");
    restart();
    add({insert(9)});
    EXPECT_EQ(kinds(1), "1736"
                        "336"
                        "36"
                        "36"
                        "36"
                        "17336"
                        "36");
    config.datasets[0].layout.source = nullptr;
    add({insert(10)});
    restart();
    add({insert(11)});
    EXPECT_EQ(kinds(1), "1736"
                        "336"
                        "36"
                        "36"
                        "36"
                        "17336"
                        "36"
                        "136"
                        "36");
    set_source(other);
    close_writer();
    config.log_file_size = 100;
    open_writer();
    add({insert(12)});
    EXPECT_EQ(kinds(2), "1736");
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
}

TEST_F(SourceTest, ARollbackTakesItBack)
{
    set_source(source_of_orders());
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(1)), 0);
    fwu_writer_rollback(writer);
    add({insert(1)});
    EXPECT_EQ(kinds(1), "1736");
}

TEST_F(SourceTest, ATransactionMayHoldMarksAlone)
{
    pass_over_truncates();
    open_writer();
    add({insert(1)});
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(fwu_writer_mark(writer, TRUNCATED), 0);
    ASSERT_EQ(fwu_writer_mark(writer, {.kind = FWU_MARK_GAP, .reason = "the source lost its slot"}),
              0);
    ASSERT_EQ(commit(), 0);
    add({insert(2)});
    EXPECT_EQ(kinds(1), "136"
                        "886"
                        "36");
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
}

TEST_F(SourceTest, BehindAFileOfMarksAloneRecordsAndSourceGoOn)
{
    pass_over_truncates();
    config.log_file_size = 100; // a transaction each
    open_writer();
    add({insert(1)});
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(fwu_writer_mark(writer, TRUNCATED), 0);
        ASSERT_EQ(commit(), 0);
    }
    const uint64_t last = fwu_writer_last_lsn(writer);
    restart();
    EXPECT_EQ(fwu_writer_last_lsn(writer), last);
    ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
    restart();
    add({insert(2)});
    EXPECT_EQ(kinds(2), "86");
    EXPECT_EQ(kinds(3), "86");
    close_writer();
    EXPECT_THAT(read_file(log + "/acknowledged"), HasSubstr("position 0001-00000003.0000000002"));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
}

TEST_F(SourceTest, RecordsMissingAreDamageBehindTheMarksThatAreThere)
{
    const system_calls_guard guard;
    config.log_file_size = 250; // a record with its layout is more
    const auto write_log = [this](const std::vector<seen> &first) {
        calls.random_from = 0x10; // the same identity
        std::filesystem::remove_all(log);
        open_writer();
        add(first);
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(fwu_writer_mark(writer, {}), 0);
        ASSERT_EQ(commit(), 0);
        add({insert(3)});
        close_writer();
    };
    write_log({insert(1), insert(2)});
    ASSERT_EQ(kinds(2), "86136");
    const std::string behind = log_file_bytes(2);
    write_log({insert(1)});
    write_file(file(2), behind);
    const std::string wrong = file(2) + ": damaged at offset 168: 1 record is missing before it";
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_writer_open(&writer, config), -1); }),
                HasSubstr(wrong));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err, HasSubstr(wrong));
}

TEST_F(SourceTest, MarksThatDoNotFitAreRefused)
{
    open_writer();
    EXPECT_EQ(mark_refused(TRUNCATED), "fwutil: " + log + ": a mark outside a transaction\n");
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    fwu_mark mark = TRUNCATED;
    mark.kind = static_cast<fwu_mark_kind>('x');
    EXPECT_EQ(mark_refused(mark), "fwutil: mark 120 is neither truncate (t) nor gap (g)\n");
    const std::string names = "database and dataset names have 1 to 16 bytes, none zero, or both "
                              "are empty\n";
    mark = TRUNCATED;
    mark.dbname.clear();
    EXPECT_EQ(mark_refused(mark), "fwutil: a mark of \"\".\"ORDERS\": " + names);
    mark = TRUNCATED;
    mark.dsetname.assign(17, 'X');
    EXPECT_THAT(mark_refused(mark), HasSubstr(names));
    mark.dsetname = std::string("A\0B", 3);
    EXPECT_THAT(mark_refused(mark), HasSubstr(names));
    for (std::string fwu_mark::*text : {&fwu_mark::schema, &fwu_mark::table, &fwu_mark::reason}) {
        mark = TRUNCATED;
        (mark.*text).push_back('\0');
        EXPECT_EQ(mark_refused(mark), "fwutil: a text of a mark holds a zero byte\n");
    }
    mark = TRUNCATED;
    mark.reason.assign(64 * 1024 * 1024, 'r');
    EXPECT_EQ(mark_refused(mark),
              "fwutil: a mark's texts are too long for a log entry (67108864 bytes)\n");
    ASSERT_EQ(commit(), 0);
    EXPECT_FALSE(std::filesystem::exists(file(1))) << "nothing of it";
}
