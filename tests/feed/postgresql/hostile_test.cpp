// Whatever tables and rows come, each change is logged or refused before the log has any of it: no
// check of the writer is reached that would end the feed.
#include "feed/postgresql/change.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <iterator>
#include <random>

class Hostile : public testing::Test {
  protected:
    Hostile()
    {
        relations.tables.config = &config;
        relations.tables.default_policy = FWU_POLICY_MARK;
    }
    ~Hostile() override
    {
        (void)fwu_writer_close(tx.writer); // looked at below
    }

    void open(fwu_encoding encoding)
    {
        config.path = dir.file("fwutil.cfg");
        config.log_directory = dir.file("log");
        config.new_log_encoding = encoding;
        relations.encoding = encoding;
        tx.work.settings.encoding = encoding;
        ASSERT_EQ(fwu_writer_open(&tx.writer, config), 0);
    }

    uint32_t below(uint32_t limit)
    {
        return static_cast<uint32_t>(random()) % limit;
    }

    // Bytes of all kinds, mostly few, without zeros.
    std::string text(size_t most)
    {
        static const char *const parts[] = {"a",
                                            "7",
                                            "-",
                                            "{",
                                            "}",
                                            ",",
                                            "\"",
                                            "\\",
                                            " ",
                                            ".",
                                            "_",
                                            "A",
                                            "\n",
                                            "\t",
                                            "'",
                                            "[",
                                            "NULL",
                                            "t",
                                            "f",
                                            "2026-03-09 08:18:01",
                                            "\xC3\xA4",
                                            "\xE2\x82\xAC",
                                            "\xF0\x9F\x8C\x8D",
                                            "\xFF",
                                            "\xC3",
                                            "\xED\xA0\x80"};
        std::string made;
        const size_t length = below(8) == 0 ? below(static_cast<uint32_t>(most)) : below(12);
        while (made.size() < length)
            made += parts[below(std::size(parts))];
        return made;
    }

    std::string name()
    {
        std::string made = text(63);
        made.resize(std::min<size_t>(made.size(), 63));
        return made.empty() ? "x" : made;
    }

    pgo_relation relation(uint32_t id)
    {
        static const uint32_t types[] = {
            16,   17,   18,   20,   21,   23,   25,   26,   700,  701,  1000, 1007, 1009, 1042,
            1043, 1082, 1083, 1114, 1184, 1186, 1266, 1560, 1562, 1700, 2950, 3802, 3904, 90'000};
        static const int32_t modifiers[] = {-1,        0,         4,       5,          14,
                                            32771,     40'000,    589'830, 10'485'764, 0x03E80004,
                                            INT32_MAX, INT32_MIN, 65'540,  67'109'000};
        static const char identities[] = "dnfi";
        pgo_relation made;
        made.id = id;
        made.schema = below(3) == 0 ? name() : "app";
        made.name = name();
        made.identity = identities[below(4)];
        const uint32_t columns = below(6) == 0 ? below(1601) : below(12);
        const uint32_t same = below(2) == 0 ? 0 : types[below(std::size(types))];
        for (uint32_t i = 0; i < columns; i++)
            made.columns.push_back({.name = std::to_string(i) + name(),
                                    .type = same != 0 ? same : types[below(std::size(types))],
                                    .modifier = modifiers[below(std::size(modifiers))],
                                    .identity = below(2) == 0});
        for (pgo_column &column : made.columns)
            column.name.resize(std::min<size_t>(column.name.size(), 63));
        return made;
    }

    // Its values stay where they are in texts.
    void fill(pgo_tuple &tuple, char kind, size_t columns)
    {
        tuple = {.kind = kind, .count = columns, .values = {}};
        for (size_t i = 0; i < columns; i++) {
            const uint32_t what = below(8);
            texts.push_back(text(columns > 100 ? 100 : 70'000));
            tuple.values.push_back({.kind = what == 0   ? 'n'
                                            : what == 1 ? 'u'
                                                        : 't',
                                    .text = texts.back()});
        }
    }

    outcome log_change(uint32_t id, size_t columns)
    {
        static const char kinds[] = "IUD";
        pgb_relation *found = nullptr;
        outcome done = pgb_find(found, relations, id, tx.work.notes);
        if (!done || found->table->dataset == nullptr)
            return done;
        pgo_message message;
        message.kind = kinds[below(3)];
        message.relation_id = id;
        texts.clear();
        if (message.kind != 'D')
            fill(message.new_row, 'N', columns);
        if (message.kind != 'I' && (message.kind == 'D' || below(3) != 0))
            fill(message.old_row, below(2) == 0 ? 'O' : 'K', columns);
        done = pgb_log_change(tx, relations, *found, message);
        tx.work.notes.clear();
        return done;
    }

    // A few transactions of tables that come and change; the changes that were logged.
    uint64_t follow()
    {
        for (uint64_t lsn = 8; lsn <= 80; lsn += 8) {
            feed_begin(tx, {.time_us = 1, .xid = lsn, .lsn = lsn});
            for (int i = 0; i < 12; i++) {
                const uint32_t id = 1 + below(6);
                if (below(3) == 0 || !relations.known.contains(id))
                    pgb_describe(relations, relation(id));
                const outcome done = log_change(id, relations.known[id].told.columns.size());
                EXPECT_TRUE(done || done.kind() == OUTCOME_BAD) << done.text();
            }
            EXPECT_TRUE(feed_commit(tx));
        }
        return tx.totals.inserts + tx.totals.updates + tx.totals.deletes;
    }

    tempdir dir;
    fwu_config config;
    feed_transaction tx;
    pgb_relations relations;
    std::deque<std::string> texts;
    std::minstd_rand random;
};

class HostileRounds : public Hostile, public testing::WithParamInterface<int> {};

TEST_P(HostileRounds, NoChangeEndsTheFeed)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    open(GetParam() % 2 == 0 ? FWU_UTF8 : FWU_LATIN1);
    testing::internal::CaptureStderr();
    const uint64_t logged = follow();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the writer has refused something";
    EXPECT_GT(logged, 0U);
    ASSERT_EQ(fwu_writer_close(tx.writer), 0);
    tx.writer = nullptr;
    write_file(config.path, "log-directory log\n");
    const run_result verified =
        run_program({KESTRO_BUILD_DIR "/bin/fwlog", "verify", "-cfg", config.path});
    EXPECT_EQ(verified.status, 0) << verified.err;
}

INSTANTIATE_TEST_SUITE_P(Rounds, HostileRounds, testing::Range(0, 8));
