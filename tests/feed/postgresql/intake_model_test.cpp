// Tables that are taken in, against a naive model of the server: transactions of random changes,
// some of which others see late, pieces read in between, kills at any moment.  Replayed strictly,
// the log has what the tables hold.
#include "feed/postgresql/apply.h"
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_log.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <iostream>
#include <limits>
#include <map>
#include <random>
#include <set>

using rows_of = std::map<int, int>; // values by key

// How a table's rows are told apart.
struct model_table {
    uint32_t id;
    const char *name;
    char identity;
    bool has_key;
};

static const std::array<model_table, 3> tables = {{
    {16401, "whole", 'f', true},
    {16402, "key", 'd', true},
    {16403, "none", 'f', false}, // its rows have no order
}};

struct model_change {
    char kind; // I, U or D
    size_t table;
    int old_key, old_value;
    int key, value;
    bool sent; // an update's new value
};

struct model_transaction {
    uint32_t xid;
    uint64_t lsn; // of its commit
    bool visible;
    std::vector<model_change> changes;
};

// ---- the server

struct model_server {
    std::mt19937 random;
    uint64_t end = 0x1000; // of its log
    uint32_t next_xid = 700;
    std::array<rows_of, tables.size()> before; // what the tables held at first
    std::array<rows_of, tables.size()> now;    // with all that has committed
    std::vector<model_transaction> log;

    int below(int limit)
    {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    }

    // A row that is changed by a transaction which others do not see yet is locked.
    bool is_locked(size_t table, int key) const
    {
        return std::any_of(log.begin(), log.end(), [&](const model_transaction &one) {
            return !one.visible &&
                   std::any_of(one.changes.begin(), one.changes.end(), [&](const model_change &c) {
                       return c.table == table && (c.key == key || c.old_key == key);
                   });
        });
    }

    void change(model_transaction &into)
    {
        const auto table = static_cast<size_t>(below(static_cast<int>(tables.size())));
        rows_of &rows = now[table];
        const int key = below(40);
        const int moved = below(3) == 0 ? below(40) : key;
        if (is_locked(table, key) || is_locked(table, moved) || (moved != key && rows.count(moved)))
            return;
        const auto found = rows.find(key);
        model_change made = {'I', table, -1, 0, key, below(1000), true};
        if (found != rows.end()) {
            made.kind = below(4) == 0 ? 'D' : 'U';
            made.old_key = key;
            made.old_value = found->second;
            made.key = made.kind == 'D' ? -1 : moved;
            // A value that is stored apart is not sent again when it has not changed.
            made.sent = below(4) != 0;
            if (!made.sent)
                made.value = found->second;
            rows.erase(found);
        }
        if (made.kind != 'D')
            rows[made.key] = made.value;
        into.changes.push_back(made);
    }

    void run()
    {
        model_transaction one = {.xid = next_xid++, .lsn = 0, .visible = true, .changes = {}};
        for (int n = 1 + below(5); n > 0; n--)
            change(one);
        end += static_cast<uint64_t>(8 * below(4));
        one.lsn = end;
        end += 8U * (6 + static_cast<uint64_t>(below(4)));
        one.visible = below(4) != 0;
        if (!one.changes.empty())
            log.push_back(std::move(one));
    }

    std::vector<uint32_t> unseen() const
    {
        std::vector<uint32_t> xids;
        for (const model_transaction &one : log)
            if (!one.visible)
                xids.push_back(one.xid);
        return xids;
    }

    void let_see(bool all)
    {
        for (model_transaction &one : log)
            if (!one.visible && (all || below(2) == 0))
                one.visible = true;
    }

    std::string snapshot() const
    {
        const std::vector<uint32_t> open = unseen();
        std::string text = std::to_string(open.empty() ? next_xid : open.front()) + ":" +
                           std::to_string(next_xid) + ":";
        for (const uint32_t xid : open)
            text += (xid == open.front() ? "" : ",") + std::to_string(xid);
        return text;
    }

    // What a snapshot shows of a table.
    rows_of seen(size_t table) const
    {
        rows_of rows = before[table];
        for (const model_transaction &one : log)
            for (const model_change &c : one.changes) {
                if (!one.visible || c.table != table)
                    continue;
                if (c.kind != 'I')
                    rows.erase(c.old_key);
                if (c.kind != 'D')
                    rows[c.key] = c.value;
            }
        return rows;
    }
};

// ---- its messages

static void put_number(std::string &bytes, uint64_t value, int width)
{
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
}

static void put_value(std::string &bytes, int value)
{
    const std::string text = std::to_string(value);
    bytes += 't';
    put_number(bytes, text.size(), 4);
    bytes += text;
}

static void put_row(std::string &bytes, char kind, int key, const int *value, char lacking)
{
    bytes += kind;
    put_number(bytes, 2, 2);
    put_value(bytes, key);
    if (value != nullptr)
        put_value(bytes, *value);
    else
        bytes += lacking;
}

static std::string begin_message(const model_transaction &one)
{
    std::string bytes = "B";
    put_number(bytes, one.lsn, 8);
    put_number(bytes, 0, 8);
    put_number(bytes, one.xid, 4);
    return bytes;
}

static std::string commit_message(const model_transaction &one)
{
    std::string bytes("C\0", 2);
    put_number(bytes, one.lsn, 8);
    put_number(bytes, one.lsn + 40, 8);
    put_number(bytes, 0, 8);
    return bytes;
}

static pgo_relation relation_of(const model_table &table)
{
    const bool whole = table.identity == 'f';
    return {.id = table.id,
            .schema = "app",
            .name = table.name,
            .identity = table.identity,
            .columns = {{"id", 23, -1, true}, {"v", 23, -1, whole}}};
}

static std::string relation_message(const model_table &table)
{
    const pgo_relation relation = relation_of(table);
    std::string bytes = "R";
    put_number(bytes, relation.id, 4);
    bytes += relation.schema + '\0' + relation.name + '\0' + relation.identity;
    put_number(bytes, relation.columns.size(), 2);
    for (const pgo_column &column : relation.columns) {
        bytes += static_cast<char>(column.identity);
        bytes += column.name + '\0';
        put_number(bytes, column.type, 4);
        put_number(bytes, static_cast<uint32_t>(column.modifier), 4);
    }
    return bytes;
}

static std::string change_message(const model_change &change)
{
    const model_table &table = tables[change.table];
    const bool whole = table.identity == 'f';
    std::string bytes(1, change.kind);
    put_number(bytes, table.id, 4);
    // Of an old row that is a key, only one that changes is sent.
    if (change.kind == 'D' || (change.kind == 'U' && (whole || change.key != change.old_key)))
        put_row(bytes, whole ? 'O' : 'K', change.old_key, whole ? &change.old_value : nullptr, 'n');
    if (change.kind != 'D')
        put_row(bytes, 'N', change.key, change.sent ? &change.value : nullptr, 'u');
    return bytes;
}

// ---- the bridge

class IntakeModel : public testing::TestWithParam<unsigned> {
  protected:
    IntakeModel()
    {
        config.path = dir.file("fwutil.cfg");
        config.log_directory = dir.file("log");
        config.sync = FWU_SYNC_NONE;
    }
    ~IntakeModel() override
    {
        (void)fwu_writer_close(tx.writer);
    }

    // A process begins; the server sends again what the log may have.
    void start()
    {
        tx = {};
        ASSERT_EQ(fwu_writer_open(&tx.writer, config), 0);
        relations = {};
        relations.tables.config = &config;
        relations.tables.default_policy = FWU_POLICY_MARK;
        ASSERT_TRUE(pga_open(relations.aside, config.log_directory, 0600, last_lsn()));
        connect();
    }

    void connect()
    {
        apply = {};
        pgi_open(apply.intake);
        pgb_forget_all(relations);
        described.clear();
        before = model.unseen();
        next = 0;
        while (next < model.log.size() && model.log[next].lsn <= last_lsn())
            next++;
        next -= next == 0 ? 0 : static_cast<size_t>(model.below(static_cast<int>(next)));
    }

    void end_process()
    {
        feed_abandon(tx);
        ASSERT_EQ(fwu_writer_close(tx.writer), 0);
        tx.writer = nullptr;
    }

    uint64_t last_lsn() const
    {
        return fwu_writer_last_lsn(tx.writer);
    }

    void take(const std::string &bytes)
    {
        const outcome done = pgb_apply_message(apply, tx, relations, bytes);
        ASSERT_TRUE(done) << done.text();
    }

    // What pgi_pass does between two transactions, but for the reading.
    void pass(uint64_t position)
    {
        if (!apply.intake.in_hand || position < apply.intake.piece.high)
            return;
        const outcome done = pgi_log_piece(
            apply.intake, {.server = server, .state = state, .tx = tx, .relations = relations});
        ASSERT_TRUE(done) << done.text();
    }

    // Takes the next transaction; killed: not its commit, but the standings that go with it.
    void follow(bool killed = false)
    {
        if (next == model.log.size()) {
            pass(model.end);
            return;
        }
        const model_transaction &one = model.log[next++];
        ASSERT_NO_FATAL_FAILURE(pass(one.lsn));
        take(begin_message(one));
        for (const model_change &change : one.changes) {
            if (described.insert(change.table).second)
                take(relation_message(tables[change.table]));
            take(change_message(change));
        }
        if (killed)
            ASSERT_TRUE(pga_keep(relations.aside, fwu_writer_durable_lsn(tx.writer)));
        else
            take(commit_message(one));
    }

    const pga_record *taking(size_t table) const
    {
        const pga_record *const record =
            pga_find(relations.aside, std::string("app.") + tables[table].name);
        return record != nullptr && record->standing == PGA_TAKING ? record : nullptr;
    }

    bool is_busy() const
    {
        for (size_t i = 0; i < tables.size(); i++)
            if (taking(i) != nullptr)
                return true;
        return false;
    }

    void want(size_t table)
    {
        pga_put(relations.aside, "app", tables[table].name,
                {.standing = PGA_TAKING, .at = last_lsn(), .replaces = true, .why = "resume"});
        ASSERT_TRUE(pga_keep(relations.aside, fwu_writer_durable_lsn(tx.writer)));
        const std::vector<uint32_t> unseen = model.unseen();
        before.insert(before.end(), unseen.begin(), unseen.end());
    }

    pgp_part part_of(size_t table, const pga_record &record, size_t limit)
    {
        pgp_part part;
        part.want = apply.intake.wants.size();
        part.relation = relation_of(tables[table]);
        part.shape = pgo_shape(part.relation);
        const rows_of rows = model.seen(table);
        auto row = rows.begin();
        if (tables[table].has_key) {
            part.key = {"23 23 id"};
            part.order = {.columns = {0}, .types = {23}};
            part.from = record.reached;
            if (!part.from.empty())
                row = rows.upper_bound(std::stoi(part.from[0]));
        } else {
            limit = SIZE_MAX;
        }
        for (; row != rows.end() && part.rows < limit; ++row, part.rows++) {
            part.lines += std::to_string(row->first) + "\t" + std::to_string(row->second) + "\n";
            if (tables[table].has_key)
                part.to = {std::to_string(row->first)};
        }
        part.ends = part.rows < limit;
        return part;
    }

    // What pgi_pass does when it reads a piece.
    void read()
    {
        pgi_intake &intake = apply.intake;
        const std::string snapshot = model.snapshot();
        const auto is_missing = [&](uint32_t xid) { return !pgf_has_transaction(snapshot, xid); };
        if (intake.in_hand || !is_busy() || model.end <= last_lsn() + PGI_BELOW_HIGH ||
            std::any_of(intake.passed.begin(), intake.passed.end(), is_missing) ||
            std::any_of(before.begin(), before.end(), is_missing))
            return;
        intake.piece = {};
        intake.wants.clear();
        intake.part_of.clear();
        intake.piece.snapshot = intake.seen = snapshot;
        intake.piece.high = model.end;
        for (size_t table = 0; table < tables.size(); table++) {
            const pga_record *const record = taking(table);
            if (record == nullptr || model.below(4) == 0)
                continue;
            pgp_part part = part_of(table, *record, 1 + static_cast<size_t>(model.below(12)));
            intake.part_of[part.relation.id] = intake.piece.parts.size();
            intake.wants.push_back({.schema = "app", .table = tables[table].name});
            intake.piece.parts.push_back(std::move(part));
        }
        intake.in_hand = !intake.piece.parts.empty();
        if (!intake.in_hand)
            return;
        intake.judged = 0;
        intake.passed.clear();
        before.clear();
        model.end += 64; // the message behind it
    }

    // ---- the log

    static int number_at(const unsigned char *image, size_t at)
    {
        uint32_t value = 0;
        for (size_t i = 4; i > 0; i--)
            value = value << 8 | image[at + i - 1];
        return static_cast<int>(value);
    }

    // Images are ID, V and a character of the null map for each; "?" is a value that was not sent.
    static void replay(std::map<std::string, rows_of> &copy, const fwu_change &change)
    {
        rows_of &rows = copy[change.dsetname];
        int value = 0;
        ASSERT_EQ(change.reclen, 10);
        if (change.before != nullptr) {
            const auto row = rows.find(number_at(change.before, 0));
            ASSERT_NE(row, rows.end())
                << change.dsetname << " lacks what is changed, " << number_at(change.before, 0);
            if (change.before[9] == '.') {
                ASSERT_EQ(row->second, number_at(change.before, 4));
            }
            value = row->second;
            rows.erase(row);
        }
        if (change.after == nullptr)
            return;
        if (change.after[9] == '.')
            value = number_at(change.after, 4);
        else
            ASSERT_NE(change.before, nullptr) << "an insert without its value";
        ASSERT_TRUE(rows.emplace(number_at(change.after, 0), value).second)
            << change.dsetname << " has " << number_at(change.after, 0) << " already";
    }

    std::map<std::string, rows_of> replayed() const
    {
        std::map<std::string, rows_of> copy;
        std::vector<fwu_log_file> files;
        EXPECT_EQ(fwu_log_list(config.log_directory, files), 0);
        uint64_t last = 0;
        for (const fwu_log_file &file : files) {
            fwu_cursor cursor;
            EXPECT_EQ(fwu_log_open(cursor, file), FWU_FOUND);
            while (fwu_cursor_next(cursor) == FWU_FOUND) {
                EXPECT_GT(cursor.commit.commit.lsn, last);
                last = cursor.commit.commit.lsn;
                fwu_entry entry;
                while (fwu_cursor_entry(cursor, entry) == FWU_FOUND) {
                    fwu_change change;
                    fwu_mark mark;
                    if (fwu_entry_change(entry, change))
                        replay(copy, change);
                    else if (fwu_entry_mark(entry, mark))
                        copy[mark.dsetname].clear();
                }
            }
            fwu_cursor_close(cursor);
        }
        return copy;
    }

    tempdir dir;
    fwu_config config;
    model_server model;
    pgs_server server;
    pgb_state state;
    feed_transaction tx;
    pgb_relations relations;
    pgb_apply apply;
    size_t next = 0;              // transaction of the stream
    std::set<size_t> described;   // tables, in this connection
    std::vector<uint32_t> before; // that others have to see before the next piece
};

TEST_P(IntakeModel, TheLogHasWhatTheTablesHold)
{
    const unsigned seed = GetParam() != 0 ? GetParam() : std::random_device()();
    std::cout << "seed " << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    model.random.seed(seed);
    for (size_t table = 0; table < tables.size(); table++)
        for (int key = 0; key < 40; key += 1 + model.below(3))
            model.before[table][key] = model.now[table][key] = model.below(1000);
    ASSERT_NO_FATAL_FAILURE(start());
    for (size_t table = 0; table < tables.size(); table++)
        ASSERT_NO_FATAL_FAILURE(want(table));
    int kills = 0;
    for (int step = 0; step < 400; step++) {
        const int kind = model.below(20);
        if (kind < 7)
            model.run();
        else if (kind < 13)
            follow();
        else if (kind < 15)
            model.let_see(false);
        else if (kind < 18)
            read();
        else if (model.below(8) == 0)
            pgi_drop_piece(apply.intake); // too many changes were kept beside it
        else if (model.below(8) == 0 && next == model.log.size())
            want(static_cast<size_t>(model.below(static_cast<int>(tables.size()))));
        else if (model.below(4) == 0) {
            follow(model.below(2) == 0);
            ASSERT_FALSE(HasFatalFailure()) << "step " << step;
            ASSERT_NO_FATAL_FAILURE(end_process());
            ASSERT_NO_FATAL_FAILURE(start());
            kills++;
        }
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    model.let_see(true);
    for (int round = 0; round < 1000 && (is_busy() || next < model.log.size()); round++) {
        read();
        ASSERT_NO_FATAL_FAILURE(follow());
    }
    ASSERT_FALSE(is_busy()) << kills << " kills";
    ASSERT_NO_FATAL_FAILURE(end_process());
    std::map<std::string, rows_of> copy = replayed();
    for (size_t table = 0; table < tables.size(); table++) {
        std::string name = tables[table].name;
        std::transform(name.begin(), name.end(), name.begin(), toupper);
        EXPECT_EQ(copy[name], model.now[table]) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, IntakeModel,
                         testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0));
