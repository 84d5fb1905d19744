// How much of old rows is taken for known, of tables and of partitions in the name of theirs.
#include "feed/postgresql/old_row.h"
#include "tests/feed/postgresql/facts_rows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

using testing::HasSubstr;
using testing::Not;

class OldRow : public testing::Test {
  protected:
    // Columns by letters, those in upper case identify a row.
    void describe(uint32_t id, char identity, const std::string &columns)
    {
        pgo_relation told;
        told.id = id;
        told.schema = "app";
        told.name = "t" + std::to_string(id);
        told.identity = identity;
        for (const char letter : columns) {
            pgo_column &column = told.columns.emplace_back();
            column.name = std::string(1, static_cast<char>(letter | 0x20));
            column.type = 23;
            column.identity = letter < 'a';
        }
        pgb_describe(relations, told);
        pgb_note_described(relations, id);
    }

    static pgo_tuple tuple(char kind, const std::vector<std::string> &values)
    {
        pgo_tuple made;
        made.kind = kind;
        made.count = values.size();
        for (const std::string &value : values)
            made.values.push_back({.kind = value == "-"   ? 'n'
                                           : value == "*" ? 'u'
                                                          : 't',
                                   .text = value});
        return made;
    }

    // What is known of the old row of an update, "a=1 c=null".
    std::string old_of(uint32_t id, char kind, const std::vector<std::string> &old_values,
                       const std::vector<std::string> &new_values)
    {
        pgo_message message;
        message.old_row = tuple(kind, old_values);
        message.new_row = tuple('N', new_values);
        pgb_note_change(relations, id);
        pgb_relation &relation = relations.known[id];
        const feed_row *fresh = nullptr;
        const feed_row *old = nullptr;
        EXPECT_TRUE(pgb_row(fresh, relation, message.new_row));
        const outcome done = pgb_old_row(old, relation, relations, message);
        if (!done)
            return done.text();
        std::string text;
        for (size_t i = 0; i < old->count; i++) {
            const feed_column &column = old->columns[i];
            text += (text.empty() ? "" : " ") + column.name + "=" +
                    (column.kind == FEED_NULL ? "null" : std::string(column.value));
        }
        return text;
    }

    pgb_relations relations;
};

TEST_F(OldRow, WholeRowsHaveTheirNulls)
{
    describe(1, 'f', "ABC");
    EXPECT_EQ(old_of(1, 'O', {"1", "-", "3"}, {"1", "2", "3"}), "a=1 b=null c=3");
}

TEST_F(OldRow, KeysHaveNothingElse)
{
    describe(1, 'd', "aBC");
    EXPECT_EQ(old_of(1, 'K', {"-", "2", "3"}, {"1", "5", "3"}), "b=2 c=3");
}

TEST_F(OldRow, WithoutOneTheKeyHasNotChanged)
{
    describe(1, 'd', "aBC");
    EXPECT_EQ(old_of(1, 0, {}, {"1", "2", "3"}), "b=2 c=3");
    EXPECT_EQ(old_of(1, 0, {}, {"1", "2", "*"}), "b=2") << "what was not sent is not known";
    describe(1, 'n', "abc");
    EXPECT_EQ(old_of(1, 0, {}, {"1", "2", "3"}), "");
}

TEST_F(OldRow, BothRowsOfAnUpdateMayLackColumns)
{
    describe(1, 'd', "Abc");
    const std::vector<std::string> old_values = {"1", "-", "-"};
    const std::vector<std::string> new_values = {"9", "*", "3"};
    pgo_message message;
    message.old_row = tuple('K', old_values);
    message.new_row = tuple('N', new_values);
    const feed_row *fresh = nullptr;
    const feed_row *old = nullptr;
    ASSERT_TRUE(pgb_row(fresh, relations.known[1], message.new_row));
    ASSERT_TRUE(pgb_old_row(old, relations.known[1], relations, message));
    ASSERT_EQ(fresh->count, 2U);
    EXPECT_EQ(fresh->columns[0].value, "9");
    EXPECT_EQ(fresh->columns[1].value, "3");
    ASSERT_EQ(old->count, 1U);
    EXPECT_EQ(old->columns[0].value, "1");
}

TEST_F(OldRow, RowOfAnotherNumberOfColumnsIsRefused)
{
    describe(1, 'f', "AB");
    EXPECT_EQ(old_of(1, 'O', {"1"}, {"1", "2"}),
              "app.t1: a row of 1 columns came, the table has 2");
}

TEST_F(OldRow, NullsOfAPartitionThatKeepsItsKeyAreNotKnown)
{
    describe(1, 'f', "ABC");
    describe(2, 'd', "Abc");
    EXPECT_EQ(old_of(1, 'O', {"1", "-", "-"}, {"9", "-", "3"}), "a=1");
    EXPECT_EQ(old_of(1, 0, {}, {"9", "2", "3"}), "a=9") << "its identity, not the table's";
}

TEST_F(OldRow, NullsOfPartitionsThatKeepAllAreKnown)
{
    describe(1, 'd', "Abc");
    describe(2, 'f', "ABC");
    EXPECT_EQ(old_of(1, 'K', {"1", "-", "3"}, {"9", "-", "3"}), "a=1 b=null c=3");
}

TEST_F(OldRow, OnePartitionThatKeepsItsKeyIsEnough)
{
    describe(1, 'f', "ABC");
    describe(2, 'f', "ABC");
    EXPECT_EQ(old_of(1, 'O', {"1", "-", "3"}, {"9", "-", "3"}), "a=1 b=null c=3");
    describe(1, 'f', "ABC");
    describe(3, 'd', "AbC");
    EXPECT_EQ(old_of(1, 'O', {"1", "-", "3"}, {"9", "-", "3"}), "a=1 c=3");
    EXPECT_EQ(old_of(1, 0, {}, {"9", "2", "3"}), "a=9 c=3");
    describe(1, 'f', "ABC");
    describe(3, 'f', "ABC"); // ALTER TABLE ... REPLICA IDENTITY FULL
    EXPECT_EQ(old_of(1, 'O', {"1", "-", "3"}, {"9", "-", "3"}), "a=1 b=null c=3");
}

TEST_F(OldRow, OnlyWhatAllPartitionsIdentifyRowsByStays)
{
    describe(1, 'd', "ABc");
    describe(2, 'd', "ABc");
    (void)old_of(1, 0, {}, {"1", "2", "3"});
    describe(1, 'd', "ABc");
    describe(3, 'i', "CBA"); // in another order
    EXPECT_EQ(old_of(1, 0, {}, {"1", "2", "3"}), "a=1 b=2");
    describe(1, 'd', "ABc");
    describe(4, 'i', "abC");
    EXPECT_EQ(old_of(1, 0, {}, {"1", "2", "3"}), "");
}

TEST_F(OldRow, TablesDescribedForATruncateAreNoPartitions)
{
    describe(1, 'f', "AB");
    describe(2, 'd', "Ab");
    pgb_note_truncate(relations, {1, 2, 77});
    EXPECT_EQ(old_of(1, 'O', {"1", "-"}, {"1", "2"}), "a=1 b=null");
    describe(3, 'd', "Ab");
    EXPECT_EQ(old_of(1, 'O', {"1", "-"}, {"1", "2"}), "a=1 b=null");
}

TEST_F(OldRow, TablesDescribedOneAfterTheOtherAreNoPartitions)
{
    describe(1, 'f', "AB");
    EXPECT_EQ(old_of(1, 'O', {"1", "-"}, {"1", "2"}), "a=1 b=null");
    describe(2, 'd', "Ab");
    EXPECT_EQ(old_of(2, 'K', {"1", "-"}, {"1", "2"}), "a=1");
    EXPECT_EQ(old_of(1, 'O', {"1", "-"}, {"1", "2"}), "a=1 b=null");
}

// What a server sends of random tables, partitioned and not, whose identities change all the
// time: nothing is taken for known that is not so, and all is known where everybody keeps all.
TEST_F(OldRow, NothingIsTakenForKnownThatIsNot)
{
    constexpr int width = 4;
    struct stored {
        bool full = false;
        std::vector<bool> key = std::vector<bool>(width);
        bool sent = false;
    };
    struct table {
        stored own;
        std::vector<stored> leaves; // none: the table has the rows
    };
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    const auto alter = [&](stored &one) {
        one.full = below(2) == 0;
        for (size_t i = 0; i < width; i++)
            one.key[i] = below(2) == 0;
        one.sent = false;
    };
    std::vector<table> tables(6);
    for (size_t i = 0; i < tables.size(); i++) {
        tables[i].leaves.resize(i % 3);
        alter(tables[i].own);
        for (stored &leaf : tables[i].leaves)
            alter(leaf);
    }
    const auto send = [&](uint32_t id, const stored &one) {
        std::string columns;
        for (size_t i = 0; i < width; i++)
            columns += static_cast<char>((one.full || one.key[i] ? 'A' : 'a') + i);
        describe(id, one.full ? 'f' : 'd', columns);
    };
    for (int step = 0; step < 20000; step++) {
        const auto number = static_cast<uint32_t>(below(6));
        table &root = tables[number];
        stored &kept = root.leaves.empty()
                           ? root.own
                           : root.leaves[below(static_cast<unsigned>(root.leaves.size()))];
        if (below(10) == 0)
            alter(kept);
        const uint32_t id = 10 * (number + 1);
        if (!kept.sent) {
            send(id, root.own);
            if (!root.leaves.empty())
                send(id + 1 + static_cast<uint32_t>(&kept - root.leaves.data()), kept);
        }
        kept.sent = true;
        std::vector<std::string> old_values;
        std::vector<std::string> new_values;
        bool key_changed = false;
        for (size_t i = 0; i < width; i++) {
            const bool may_be_null = !kept.key[i];
            old_values.push_back(may_be_null && below(3) == 0 ? "-" : std::to_string(below(9)));
            new_values.push_back(below(2) == 0                  ? old_values[i]
                                 : may_be_null && below(3) == 0 ? "-"
                                                                : std::to_string(below(9)));
            key_changed = key_changed || (kept.key[i] && old_values[i] != new_values[i]);
        }
        std::vector<std::string> sent = old_values;
        for (size_t i = 0; i < width; i++)
            if (!kept.full && !kept.key[i])
                sent[i] = "-";
        const char kind = !kept.full && !key_changed ? '\0' : root.own.full ? 'O' : 'K';
        const std::string known = old_of(id, kind, sent, new_values);
        std::string all;
        for (size_t i = 0; i < width; i++) {
            const std::string value = old_values[i] == "-" ? "null" : old_values[i];
            const std::string name(1, static_cast<char>('a' + i));
            all += (i == 0 ? "" : " ") + name + "=" + value;
            if (known.find(name + "=") != std::string::npos) {
                ASSERT_THAT(known, HasSubstr(name + "=" + value)) << "step " << step;
            } else if (root.leaves.empty()) {
                ASSERT_FALSE(kept.full || kept.key[i]) << "step " << step;
            }
        }
        const bool all_keep =
            std::all_of(root.leaves.begin(), root.leaves.end(),
                        [](const stored &leaf) { return leaf.full && leaf.sent; });
        if (kept.full && all_keep) {
            ASSERT_EQ(known, all) << "step " << step;
        }
    }
}

TEST_F(OldRow, ColumnsThatIdentifyRowsAreBrought)
{
    const auto brought = [&](uint32_t id) {
        std::string names;
        const pgb_relation &relation = relations.known[id];
        for (size_t i = 0; i < relation.told.columns.size(); i++)
            if (pgb_is_brought(relation, relations, i))
                names += relation.told.columns[i].name;
        return names;
    };
    describe(1, 'd', "Abc");
    describe(2, 'f', "ABC");
    describe(3, 'n', "abc");
    EXPECT_EQ(brought(1), "a");
    EXPECT_EQ(brought(2), "abc");
    EXPECT_EQ(brought(3), "");
    relations.known[1].leaves = {2};
    EXPECT_EQ(brought(1), "abc") << "what the table itself keeps does not count";
    describe(4, 'i', "cBA"); // in its own order
    relations.known[1].leaves = {2, 4};
    EXPECT_EQ(brought(1), "ab");
    relations.known[1].leaves = {2, 4, 3};
    EXPECT_EQ(brought(1), "");
}

TEST_F(OldRow, TellsTheCommandsThatTheCatalogueSays)
{
    fwu_config config;
    feed_table table;
    table.name = "app.t1";
    describe(1, 'd', "Ab");
    pgb_relation &relation = relations.known[1];
    relation.table = &table;
    EXPECT_EQ(pgb_no_old_row_text(relation, relations),
              "app.t1: the change comes without the whole old row; let the server send it:\n"
              "  ALTER TABLE \"app\".\"t1\" REPLICA IDENTITY FULL;\n"
              "  or leave the table out with the line skip-table app.t1");
    relations.facts.ask = [](const std::string &query, pgs_result &rows) {
        EXPECT_THAT(query, HasSubstr("pg_partition_tree('1')"));
        rows = facts_rows({{"app.t1", "", "", ""}, {"app.\"t 2\"", "", "", ""}});
        return true;
    };
    EXPECT_THAT(pgb_no_old_row_text(relation, relations),
                HasSubstr("ALTER TABLE app.t1 REPLICA IDENTITY FULL;\n"
                          "  ALTER TABLE app.\"t 2\" REPLICA IDENTITY FULL;\n"));
    relations.facts.ask = [](const std::string &, pgs_result &rows) {
        rows = facts_rows({});
        return true;
    };
    const std::string text = pgb_no_old_row_text(relation, relations);
    EXPECT_THAT(text, Not(HasSubstr("ALTER TABLE")));
    EXPECT_THAT(text, HasSubstr("made before the table got REPLICA IDENTITY FULL"));
}
