// Standings of tables: the file, and what counts of it when the log ends anywhere.
#include "feed/postgresql/aside.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_writer.h"
#include "tests/support/tempdir.h"
#include "util/outcome.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/stat.h>

class Aside : public testing::Test {
  protected:
    Aside()
    {
        tell_as("prog");
        open(0);
    }

    void open(uint64_t last_lsn)
    {
        ASSERT_TRUE(pga_open(registry, dir.path(), 0640, last_lsn));
    }

    void keep(uint64_t last_lsn)
    {
        ASSERT_TRUE(pga_keep(registry, last_lsn));
    }

    pga_standing standing(const std::string &name) const
    {
        const pga_record *record = pga_find(registry, name);
        return record == nullptr ? PGA_FOLLOWED : record->standing;
    }

    tempdir dir;
    std::string path = dir.file("aside");
    pga_registry registry;
};

static pga_record aside_at(uint64_t at, const std::string &reason = "why")
{
    return {.standing = PGA_ASIDE, .at = at, .since = at, .since_us = 5, .reason = reason};
}

TEST_F(Aside, FileSaysAllInWords)
{
    registry.skipped = {"sales.\"two words\""};
    pga_put(registry, "sales", "orders", aside_at(0x10000002A, "100% odd\n"));
    pga_record taking = aside_at(0x20, "");
    taking.standing = PGA_TAKING;
    taking.at = 0x30;
    taking.replaces = true;
    taking.why = "resume";
    taking.rows = 7;
    taking.shape = 4294967295;
    taking.key = {"a b", ""};
    taking.reached = {"", "x=\xFF"};
    pga_put(registry, "", " ", taking);
    pga_put(registry, "", " ", {.at = 0x40});
    EXPECT_EQ(pga_describe(registry, 16385, "sales", "orders", 0x18).what, PGA_NEW);
    EXPECT_EQ(pga_describe(registry, 16386, "sales", "orders", 0x20).what, PGA_REMADE);
    pga_guess(registry, 16387, "sales", "lines", 0x50);
    pga_put_leaf(registry, 16401,
                 {.schema = "sales", .table = "p 1", .root = 16400, .node = 7, .at = 0x18});
    pga_put_leaf(registry, 16401,
                 {.schema = "sales", .table = "p 1", .root = 16400, .at = 0x20, .gone = true});
    registry.lacking = {{16387, 0x18}};
    registry.leaves_xid = 0x100000005;
    registry.sent = {.time_us = -5, .xid = 7, .lsn = 0x18};
    keep(0);
    const std::string text = read_file(path);
    EXPECT_EQ(text.substr(0, text.rfind("checksum ")),
              "fwlog aside 1\n"
              "skipped sales.\"two%20words\"\n"
              "id 16385 sales orders at=0/18 guessed=0/0\n"
              "id 16385 sales orders at=0/20 guessed=0/0 lost\n"
              "id 16386 sales orders at=0/20 guessed=0/0\n"
              "id 16387 sales lines at=0/0 guessed=0/50\n"
              "lacking 16387 at=0/18\n"
              "leaves 4294967301\n"
              "sent 0/18 7 -5\n"
              "leaf 16401 16400 sales p%201 node=7 at=0/18\n"
              "leaf 16401 16400 sales p%201 node=0 at=0/20 gone\n"
              "table % %20\n"
              "taking at=0/30 since=0/20 since_us=5 reason=% replaces=1 why=resume rows=7 "
              "shape=4294967295 key=a%20b key=% reached=% reached=x=\xFF\n"
              "followed at=0/40\n"
              "table sales orders\n"
              "aside at=1/2A since=1/2A since_us=5 reason=100%25%20odd%0a\n");
    struct stat file = {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0640U);
    const pga_registry kept = registry;
    open(UINT64_MAX);
    EXPECT_EQ(registry.skipped, kept.skipped);
    EXPECT_EQ(registry.ids, kept.ids);
    EXPECT_EQ(registry.leaves, kept.leaves);
    EXPECT_EQ(registry.lacking, kept.lacking);
    EXPECT_EQ(registry.leaves_xid, kept.leaves_xid);
    EXPECT_EQ(registry.sent.lsn, kept.sent.lsn);
    EXPECT_EQ(registry.sent.xid, kept.sent.xid);
    EXPECT_EQ(registry.sent.time_us, kept.sent.time_us);
    EXPECT_EQ(registry.holders, kept.holders);
    ASSERT_EQ(registry.tables.size(), 2U);
    for (const auto &[name, table] : kept.tables) {
        EXPECT_EQ(registry.tables[name].schema, table.schema);
        EXPECT_EQ(registry.tables[name].table, table.table);
        EXPECT_EQ(registry.tables[name].records, table.records);
    }
}

// What is known of partitions goes with the log's positions, too.
TEST_F(Aside, PartitionsAreAsTheLogsEndSays)
{
    const pga_leaf known = {.schema = "s", .table = "p", .root = 20000, .node = 7, .at = 16};
    pga_put_leaf(registry, 20001, known);
    pga_put_leaf(registry, 20002, known);
    pga_forget_nodes(registry, 20003, 24); // another table's
    EXPECT_EQ(registry.leaves.at(20001).back(), known);
    pga_forget_nodes(registry, 20000, 24);
    EXPECT_EQ(registry.leaves.at(20001).back().node, 0U);
    EXPECT_EQ(registry.leaves.at(20001).back().at, 24U);
    pga_leaf gone = known;
    gone.gone = true;
    gone.at = 32;
    pga_put_leaf(registry, 20002, gone);
    keep(16);
    open(16); // neither has come to the log
    EXPECT_EQ(registry.leaves.at(20001), std::vector{known});
    EXPECT_EQ(registry.leaves.at(20002), std::vector{known});
    pga_put_leaf(registry, 20002, gone);
    keep(32);
    open(32);
    EXPECT_EQ(registry.leaves.size(), 1U) << "nothing rests on what is gone for good";
    pga_put_leaf(registry, 20004, gone);
    registry.lacking = {{20005, 16}, {20006, 17}};
    pga_withdraw(registry, 16);
    EXPECT_EQ(registry.leaves.size(), 1U);
    EXPECT_EQ(registry.lacking, (std::map<uint32_t, uint64_t>{{20005, 16}}));
}

TEST_F(Aside, NamesOfAnyBytesComeBackAsTheyWere)
{
    std::string bytes; // all that a name may have, none of it UTF-8 from 128 on
    for (int byte = 1; byte < 256; byte++)
        bytes += static_cast<char>(byte);
    const std::string cut = "a\xC3";
    const std::string name = fwu_source_name(bytes, cut);
    pga_record record = aside_at(16, bytes);
    record.standing = PGA_TAKING;
    record.key = {bytes, cut};
    record.reached = {cut, bytes};
    registry.skipped = {name};
    pga_put(registry, bytes, cut, record);
    pga_put(registry, bytes, "a\xC4", aside_at(16)); // another one, though not to be told apart
    (void)pga_describe(registry, 16385, bytes, cut, 16);
    keep(0);
    const pga_registry kept = registry;
    open(16);
    EXPECT_EQ(registry.skipped, kept.skipped);
    EXPECT_EQ(registry.ids, kept.ids);
    EXPECT_EQ(registry.holders, kept.holders);
    EXPECT_EQ(registry.tables.size(), 2U);
    ASSERT_TRUE(registry.tables.contains(name));
    EXPECT_EQ(registry.tables[name].schema, bytes);
    EXPECT_EQ(registry.tables[name].table, cut);
    EXPECT_EQ(registry.tables[name].records.back(), record);
}

TEST_F(Aside, DamagedFileIsRefusedAndTheRemedyHelps)
{
    pga_put(registry, "sales", "orders", aside_at(16));
    (void)pga_describe(registry, 16385, "sales", "orders", 16);
    keep(0);
    const std::string whole = read_file(path);
    const auto refused = [this](const std::string &bytes) {
        write_file(path, bytes);
        testing::internal::CaptureStderr();
        const outcome opened = pga_open(registry, dir.path(), 0640, 16);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  opened ? ""
                         : "prog: " + path +
                               ": damaged: it says which tables are set aside or being taken in; "
                               "go on with --accept-gap, which leaves a gap mark for all tables "
                               "in the log and follows them from there on, and take those in with "
                               "--resume that the log may lack rows of (a snapshot that was not "
                               "done is taken anew)\n");
        return opened.kind() == OUTCOME_FAILED;
    };
    for (size_t length = 0; length < whole.size(); length++)
        EXPECT_TRUE(refused(whole.substr(0, length))) << length;
    for (size_t at = 0; at < whole.size(); at++) {
        std::string bytes = whole;
        bytes[at] ^= 1;
        EXPECT_TRUE(refused(bytes)) << at;
    }
    EXPECT_TRUE(refused(whole + "\n"));
    EXPECT_TRUE(pga_open(registry, dir.path(), 0640, 16, true));
    EXPECT_EQ(standing("sales.orders"), PGA_FOLLOWED);
    EXPECT_TRUE(registry.damaged && registry.anew && registry.ids.empty());
    registry.dirty = true;
    keep(16);
    open(16);
    EXPECT_FALSE(registry.damaged || registry.anew);
    std::filesystem::remove(path);
    open(16);
    EXPECT_TRUE(registry.anew && !registry.damaged);
    write_file(path, whole);
    open(16);
    EXPECT_EQ(standing("sales.orders"), PGA_ASIDE);
}

TEST_F(Aside, FileThatCannotBeReadOrWrittenIsAnError)
{
    std::filesystem::create_directory(path);
    testing::internal::CaptureStderr();
    EXPECT_EQ(pga_open(registry, dir.path(), 0640, 0).kind(), OUTCOME_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "prog: " + path + ": cannot read which tables are set aside: Is a directory\n");
    pga_put(registry, "sales", "orders", aside_at(16));
    testing::internal::CaptureStderr();
    EXPECT_EQ(pga_keep(registry, 0).kind(), OUTCOME_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "prog: " + path + ": cannot keep which tables are set aside: Is a directory\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    std::filesystem::remove(path);
    keep(0); // still to be written
    open(16);
    EXPECT_EQ(standing("sales.orders"), PGA_ASIDE);
}

TEST_F(Aside, NothingIsWrittenAsLongAsNothingChanges)
{
    keep(0);
    EXPECT_FALSE(std::filesystem::exists(path));
    pga_put(registry, "sales", "orders", aside_at(16));
    keep(0);
    std::filesystem::remove(path);
    keep(16);
    pga_withdraw(registry, 16);
    keep(16);
    EXPECT_EQ(pga_describe(registry, 1, "a", "b", 24).what, PGA_NEW);
    keep(16);
    std::filesystem::remove(path);
    EXPECT_EQ(pga_describe(registry, 1, "a", "b", 32).what, PGA_SAME);
    keep(24);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Aside, VersionChangesWithEveryStanding)
{
    uint64_t before = registry.version;
    const auto has_changed = [&] { return std::exchange(before, registry.version) != before; };
    pga_put(registry, "sales", "orders", aside_at(16));
    EXPECT_TRUE(has_changed());
    pga_find_table(registry, "sales.orders")->missed++;
    keep(0);
    EXPECT_FALSE(has_changed());
    pga_withdraw(registry, 16);
    EXPECT_FALSE(has_changed());
    pga_put(registry, "sales", "orders", {.at = 24});
    EXPECT_TRUE(has_changed());
    keep(24); // the table is forgotten
    EXPECT_TRUE(has_changed());
    EXPECT_EQ(pga_find_table(registry, "sales.orders"), nullptr);
    pga_put(registry, "sales", "orders", aside_at(32));
    EXPECT_TRUE(has_changed());
    pga_withdraw(registry, 24);
    EXPECT_TRUE(has_changed());
    open(24);
    EXPECT_TRUE(has_changed());
}

TEST_F(Aside, WhatAPowerCutMayBringBackStays)
{
    pga_put(registry, "s", "t", aside_at(16));
    (void)pga_describe(registry, 5, "s", "t", 16);
    keep(0);
    pga_put(registry, "s", "t", {.at = 24});
    (void)pga_describe(registry, 5, "s", "u", 24);
    keep(16);
    pga_put(registry, "s", "t", aside_at(32, "again"));
    (void)pga_describe(registry, 5, "s", "v", 32);
    keep(16); // the log has 24, not yet on disk
    const std::string text = read_file(path);
    struct {
        uint64_t last;
        pga_standing standing;
        const char *name;
    } const ends[] = {{16, PGA_ASIDE, "t"}, {24, PGA_FOLLOWED, "u"}, {32, PGA_ASIDE, "v"}};
    for (const auto &end : ends) {
        write_file(path, text);
        open(end.last);
        EXPECT_EQ(standing("s.t"), end.standing) << end.last;
        EXPECT_EQ(registry.ids.at(5).back().table, end.name) << end.last;
    }
    registry.dirty = true;
    keep(32);
    EXPECT_EQ(registry.tables.at("s.t").records.size(), 1U) << "old records stay";
    EXPECT_EQ(registry.ids.at(5).size(), 1U) << "old names stay";
    EXPECT_EQ(registry.tables.at("s.t").records.back().reason, "again");
}

// Of a log whose end no sync has reached, the part before is what counts.
TEST_F(Aside, LogThatLostItsEndHasTheStandingsOfBefore)
{
    for (const fwu_sync_mode sync : {FWU_SYNC_NONE, FWU_SYNC_INTERVAL}) {
        SCOPED_TRACE(sync);
        fwu_config config;
        config.path = "shop.cfg";
        config.log_directory = dir.file("log" + std::to_string(sync));
        config.sync = sync;
        config.sync_interval_ms = 3'600'000;
        pgb_relations relations;
        relations.tables.config = &config;
        feed_transaction tx;
        ASSERT_EQ(fwu_writer_open(&tx.writer, config), 0);
        ASSERT_TRUE(pga_open(relations.aside, config.log_directory, 0600, 0));
        const auto commit = [&](uint64_t lsn, const pga_record &record) {
            feed_begin(tx, {.time_us = 5, .xid = 7, .lsn = lsn});
            EXPECT_TRUE(feed_put_mark(tx, pgb_gap_of(relations, "s", "t", record.reason)));
            pga_put(relations.aside, "s", "t", record);
            EXPECT_TRUE(pgb_commit(tx, relations));
        };
        commit(16, aside_at(16, "first"));
        ASSERT_EQ(fwu_writer_sync(tx.writer), 0);
        const std::string log = config.log_directory + "/" + fwu_log_file_name(1, 1);
        const auto durable = std::filesystem::file_size(log);
        commit(24, {.at = 24});
        commit(32, {.at = 32});
        EXPECT_GT(std::filesystem::file_size(log), durable);
        fwu_writer_close(tx.writer);
        std::filesystem::resize_file(log, durable);
        ASSERT_EQ(fwu_writer_open(&tx.writer, config), 0);
        EXPECT_EQ(fwu_writer_last_lsn(tx.writer), 16U);
        ASSERT_TRUE(pga_open(registry, config.log_directory, 0600, 16));
        fwu_writer_close(tx.writer);
        ASSERT_EQ(standing("s.t"), PGA_ASIDE);
        EXPECT_EQ(pga_find(registry, "s.t")->reason, "first");
    }
}

// A log that is written, given up, killed and cut back by power cuts at random, against a list of
// all that was committed.
TEST_F(Aside, EveryKillLeavesWhatTheLogHas)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    using model = std::map<std::string, pga_record>;
    model logged; // as of last
    uint64_t last = 0;
    uint64_t durable = 0;
    std::map<uint64_t, model> ends = {{0, {}}}; // of the log, from durable on
    for (int i = 0; i < 3000; i++) {
        const uint64_t at = last + 8 + 8 * below(3);
        model hand = logged;
        for (unsigned n = below(4); n > 0; n--) {
            const std::string table = "t" + std::to_string(below(3));
            pga_record record = aside_at(at, std::to_string(i));
            record.standing = static_cast<pga_standing>(below(3));
            if (record.standing == PGA_FOLLOWED)
                record = {.at = at};
            pga_put(registry, "s", table, record);
            hand["s." + table] = record;
        }
        const unsigned how = below(9);
        if (how > 0) // else killed, or given up, before
            keep(durable);
        if (how > 2) {
            last = at;
            logged = hand;
            ends[last] = hand;
        }
        if (how == 3) { // a power cut
            const auto end = std::next(
                ends.begin(), static_cast<long>(below(static_cast<unsigned>(ends.size()))));
            last = end->first;
            logged = end->second;
            ends.erase(std::next(end), ends.end());
        }
        if (how == 2)
            pga_withdraw(registry, last);
        else if (how < 6)
            open(last);
        if (below(4) == 0) {
            durable = last;
            ends.erase(ends.begin(), ends.find(last));
        }
        for (const char *name : {"s.t0", "s.t1", "s.t2"}) {
            const pga_record *found = pga_find(registry, name);
            const auto expected = logged.find(name);
            if (expected == logged.end() || expected->second.standing == PGA_FOLLOWED)
                EXPECT_TRUE(found == nullptr || found->standing == PGA_FOLLOWED);
            else if (found == nullptr)
                ADD_FAILURE() << name << " is not known";
            else
                EXPECT_EQ(*found, expected->second);
        }
        if (HasFailure())
            break;
    }
}

TEST_F(Aside, NamesOfTablesAreFollowedThroughRenamesAndDrops)
{
    struct step {
        uint32_t id;
        const char *table;
        pga_description what;
        const char *before; // the OID's name
        bool lost;
        bool was_known;
    };
    static const step steps[] = {
        {1, "t", PGA_NEW, "", false, false},
        {1, "t", PGA_SAME, "t", false, false},
        {2, "new", PGA_NEW, "", false, false},
        // t to old, new to t, of which the latter is told first
        {2, "t", PGA_RENAMED, "new", false, true},
        {1, "old", PGA_RENAMED, "t", true, false},
        {1, "old", PGA_SAME, "old", false, false},
        // dropped, and made anew
        {3, "t", PGA_REMADE, "", false, true},
        {3, "t", PGA_SAME, "t", false, false},
        {4, "new", PGA_REMADE, "", false, true}, // the log has rows of the one that left it
        // the one that was taken for dropped comes with its name again
        {2, "t", PGA_RENAMED, "t", true, true},
        // two that change their names with each other
        {5, "a", PGA_NEW, "", false, false},
        {6, "b", PGA_NEW, "", false, false},
        {5, "b", PGA_RENAMED, "a", false, true},
        {6, "a", PGA_RENAMED, "b", true, true},
        // there and back
        {5, "c", PGA_RENAMED, "b", false, false},
        {5, "b", PGA_RENAMED, "c", false, true},
        {7, "c", PGA_REMADE, "", false, true},
    };
    uint64_t at = 0;
    for (const step &s : steps) {
        SCOPED_TRACE(at += 8);
        for (const bool again : {false, true}) { // the server sends the transaction again
            const pga_identity found = pga_describe(registry, s.id, "s", s.table, at);
            EXPECT_EQ(found.what, s.what);
            EXPECT_EQ(found.before.table, s.before);
            EXPECT_EQ(found.before.lost, s.lost);
            EXPECT_EQ(found.was_known, s.was_known);
            keep(at - 8);
            open(again ? at : at - 8);
        }
    }
}

TEST_F(Aside, CatalogueAheadOfTheStreamIsNoRename)
{
    EXPECT_EQ(pga_describe(registry, 5, "s", "kept", 8).what, PGA_NEW);
    pga_guess(registry, 5, "s", "other", 100); // known already
    pga_guess(registry, 6, "s", "kept", 100);  // likewise
    pga_guess(registry, 1, "s", "later", 100);
    pga_guess(registry, 2, "s", "t", 100);
    pga_guess(registry, 3, "s", "u", 100);
    EXPECT_EQ(registry.ids.size(), 4U);
    EXPECT_EQ(pga_describe(registry, 1, "s", "before", 16).what, PGA_NEW);
    EXPECT_EQ(pga_describe(registry, 1, "s", "later", 96).what, PGA_RENAMED);
    // The table that was t before, dropped since.
    EXPECT_EQ(pga_describe(registry, 4, "s", "t", 16).what, PGA_NEW);
    EXPECT_EQ(pga_describe(registry, 2, "s", "t", 24).what, PGA_REMADE);
    // A name that was left waits for the stream.
    EXPECT_EQ(pga_describe(registry, 4, "s", "moved", 32).what, PGA_RENAMED);
    EXPECT_EQ(pga_describe(registry, 2, "s", "gone", 32).what, PGA_RENAMED);
    pga_guess(registry, 7, "s", "t", 100);
    EXPECT_EQ(pga_describe(registry, 7, "s", "t", 104).what, PGA_REMADE);
    // What the catalogue said counts from where it was said.
    EXPECT_EQ(pga_describe(registry, 3, "s", "u", 104).what, PGA_SAME);
    EXPECT_EQ(pga_describe(registry, 3, "s", "v", 112).what, PGA_RENAMED);
}
