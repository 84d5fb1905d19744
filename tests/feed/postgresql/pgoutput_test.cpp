// Messages of the output plugin, byte by byte.
#include "feed/postgresql/pgoutput.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static pgo_message decoded(const std::string &bytes)
{
    pgo_message message;
    const outcome done = pgo_decode(message, bytes);
    EXPECT_TRUE(done) << done.text();
    return message;
}

static std::string error_of(const std::string &bytes)
{
    pgo_message message;
    const outcome done = pgo_decode(message, bytes);
    return done ? "none" : done.text();
}

static const std::string begin_bytes = "B"
                                       "\0\0\0\1\0\0\0\x2B"     // commit at 1/2B
                                       "\0\0\0\0\0\x0F\x42\x40" // a second behind the year's begin
                                       "\0\0\3\x4E"s;           // transaction 846

static const std::string commit_bytes = "C\0"
                                        "\0\0\0\1\0\0\0\x2B"
                                        "\0\0\0\1\0\0\0\x30" // ends at 1/30
                                        "\0\0\0\0\0\x0F\x42\x40"s;

static const std::string relation_bytes = "R\0\0\x40\1"
                                          "sales\0"
                                          "orders\0"
                                          "f\0\2"
                                          "\1order_no\0\0\0\0\x17\xFF\xFF\xFF\xFF"
                                          "\0net\0\0\0\6\xA4\0\x0B\0\6"s; // numeric(11,2)

static const std::string insert_bytes = "I\0\0\x40\1N\0\3"
                                        "t\0\0\0\2"
                                        "17"
                                        "n"
                                        "t\0\0\0\0"s;

static const std::string update_bytes = "U\0\0\x40\1"
                                        "O\0\1t\0\0\0\1"
                                        "a"
                                        "N\0\2u"
                                        "t\0\0\0\1"
                                        "b"s;

static const std::string update_of_new_row_only_bytes = "U\0\0\x40\1N\0\1n"s;

static const std::string remove_bytes = "D\0\0\x40\1K\0\1t\0\0\0\1k"s;

static const std::string truncate_bytes = "T\0\0\0\2\1"
                                          "\0\0\x40\1"
                                          "\0\0\x40\2"s;

static const std::string message_bytes = "M\1"
                                         "\0\0\0\1\0\0\0\x20"
                                         "session\0"
                                         "\0\0\0\5"
                                         "pid=1"s;

static const std::string origin_bytes = "O\0\0\0\0\0\0\0\1node_b\0"s;

static const std::string type_bytes = "Y\0\0\x40\5public\0mood\0"s;

TEST(Pgoutput, BeginGivesPositionTimeAndTransaction)
{
    const pgo_message got = decoded(begin_bytes);
    EXPECT_EQ(got.kind, 'B');
    EXPECT_EQ(got.lsn, 0x10000002BU);
    EXPECT_EQ(got.time_us, 946684801000000); // 2000-01-01 00:00:01 UTC
    EXPECT_EQ(got.xid, 846U);
}

TEST(Pgoutput, CommitGivesWhereTheTransactionEnds)
{
    const pgo_message got = decoded(commit_bytes);
    EXPECT_EQ(got.kind, 'C');
    EXPECT_EQ(got.lsn, 0x10000002BU);
    EXPECT_EQ(got.end_lsn, 0x100000030U);
}

TEST(Pgoutput, RelationGivesColumnsWithTheirTypes)
{
    const pgo_relation got = decoded(relation_bytes).relation;
    EXPECT_EQ(got.id, 0x4001U);
    EXPECT_EQ(got.schema, "sales");
    EXPECT_EQ(got.name, "orders");
    EXPECT_EQ(got.identity, 'f');
    ASSERT_EQ(got.columns.size(), 2U);
    EXPECT_EQ(got.columns[0], (pgo_column{"order_no", 23, -1, true}));
    EXPECT_EQ(got.columns[1], (pgo_column{"net", 1700, 0x000B0006, false}));
}

// The CRC-32C of "23 -1 no" and "1043 24 note", a zero behind each.
TEST(Pgoutput, ShapeIsOfNamesAndTypes)
{
    pgo_relation table = {.id = 7, .schema = "s", .name = "t", .columns = {}};
    EXPECT_EQ(pgo_shape(table), 1U);
    table.columns = {{"no", 23, -1, true}, {"note", 1043, 24, false}};
    const uint32_t shape = pgo_shape(table);
    EXPECT_EQ(shape, 588900243U);
    pgo_relation other = table;
    other.id = 8;
    other.name = "u";
    other.identity = 'd';
    other.columns[1].identity = true;
    EXPECT_EQ(pgo_shape(other), shape) << "of nothing else";
    const auto differs = [&](const auto &change) {
        other = table;
        change(other.columns);
        return pgo_shape(other) != shape;
    };
    EXPECT_TRUE(differs([](auto &columns) { columns[0].name = "nO"; }));
    EXPECT_TRUE(differs([](auto &columns) { columns[0].type = 20; }));
    EXPECT_TRUE(differs([](auto &columns) { columns[1].modifier = 25; }));
    EXPECT_TRUE(differs([](auto &columns) { columns.pop_back(); }));
    EXPECT_TRUE(differs([](auto &columns) { std::swap(columns[0], columns[1]); }));
}

TEST(Pgoutput, InsertGivesTextsAndNulls)
{
    const pgo_message got = decoded(insert_bytes);
    EXPECT_EQ(got.relation_id, 0x4001U);
    EXPECT_EQ(got.old_row.kind, 0);
    ASSERT_EQ(got.new_row.kind, 'N');
    ASSERT_EQ(got.new_row.count, 3U);
    EXPECT_EQ(got.new_row.values[0].text, "17");
    EXPECT_EQ(got.new_row.values[1].kind, 'n');
    EXPECT_EQ(got.new_row.values[2].kind, 't');
    EXPECT_EQ(got.new_row.values[2].text, "");
}

TEST(Pgoutput, UpdateGivesBothRowsAndWhatWasNotSent)
{
    pgo_message got = decoded(update_bytes);
    EXPECT_EQ(got.old_row.kind, 'O');
    EXPECT_EQ(got.old_row.values[0].text, "a");
    EXPECT_EQ(got.new_row.values[0].kind, 'u');
    EXPECT_EQ(got.new_row.values[1].text, "b");
    ASSERT_TRUE(pgo_decode(got, update_of_new_row_only_bytes));
    EXPECT_EQ(got.old_row.kind, 0) << "that of the message before";
}

TEST(Pgoutput, DeleteTellsAKeyFromAWholeRow)
{
    const pgo_message got = decoded(remove_bytes);
    EXPECT_EQ(got.old_row.kind, 'K');
    EXPECT_EQ(got.new_row.kind, 0);
}

TEST(Pgoutput, TruncateMessageOriginAndType)
{
    EXPECT_EQ(decoded(truncate_bytes).truncated, (std::vector<uint32_t>{0x4001, 0x4002}));
    const pgo_message got = decoded(message_bytes);
    EXPECT_TRUE(got.transactional);
    EXPECT_EQ(got.prefix, "session");
    EXPECT_EQ(got.content, "pid=1");
    EXPECT_EQ(decoded(origin_bytes).origin, "node_b");
    EXPECT_EQ(decoded(type_bytes).kind, 'Y');
}

TEST(Pgoutput, MessagesCutAnywhereAreRefused)
{
    for (const std::string &whole :
         {begin_bytes, commit_bytes, relation_bytes, insert_bytes, update_bytes, remove_bytes,
          truncate_bytes, message_bytes, origin_bytes, type_bytes}) {
        for (size_t length = 1; length < whole.size(); length++) {
            // In memory of its own, so that a read behind the end is seen.
            const std::vector<char> bytes(whole.begin(),
                                          whole.begin() + static_cast<std::ptrdiff_t>(length));
            pgo_message got;
            const outcome done = pgo_decode(got, {bytes.data(), bytes.size()});
            ASSERT_EQ(done.kind(), OUTCOME_BAD) << whole[0] << length;
            ASSERT_EQ(done.text(),
                      std::string("a message of kind ") + whole[0] + " is cut short or malformed");
        }
        EXPECT_EQ(error_of(whole + "x"),
                  std::string("a message of kind ") + whole[0] + " goes on behind its end");
    }
}

TEST(Pgoutput, HostileMessagesAreRefused)
{
    const struct {
        std::string bytes;
        const char *error;
    } rows[] = {
        {"", "a message of unknown kind 0 came"},
        {"S\0\0\0\1\1"s, "a message of unknown kind 83 came"},
        {"I\0\0\x40\1N\xFF\xFF"s, "a message of kind I is cut short or malformed"},
        {"I\0\0\x40\1N\0\1t\xFF\xFF\xFF\xFF"s, "a message of kind I is cut short or malformed"},
        {"I\0\0\x40\1N\0\1b\0\0\0\0"s, "a message of kind I is cut short or malformed"},
        {"I\0\0\x40\1O\0\1n"s, "a message of kind I is cut short or malformed"},
        {"D\0\0\x40\1N\0\1n"s, "a message of kind D is cut short or malformed"},
        {"T\xFF\xFF\xFF\xFF\0"s, "a message of kind T is cut short or malformed"},
        {"R\0\0\0\1s\0t\0f\xFF\xFF"s, "a message of kind R is cut short or malformed"},
        {"M\0\0\0\0\0\0\0\0\0p\0\xFF\xFF\xFF\xFF"s,
         "a message of kind M is cut short or malformed"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(error_of(row.bytes), row.error);
}
