// Changes of logs, from and up to positions, with their datasets, sessions and marks.
#include "changes/reader.h"

#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

using testing::ElementsAre;
using testing::HasSubstr;

static fwu_layout layout_of(const char *dsetname, int32_t text_size = 2)
{
    return {"SALES", dsetname, {{"NO", 'I', 2, 1, 0}, {"TEXT", 'X', text_size, 1, 0}}};
}

static std::string image(uint64_t number, const std::string &text)
{
    return le(number, 2) + text;
}

static std::string image_text(const change &next, const unsigned char *bytes)
{
    return bytes == nullptr ? "-"
                            : std::to_string(bytes[0]) +
                                  std::string(reinterpret_cast<const char *>(bytes) + 2,
                                              static_cast<size_t>(next.dataset->image_length) - 2);
}

// "c ORDERS 1-1.2 #1 n1 - 7ab"
static std::string shown(const change &next)
{
    std::string out = std::string(1, static_cast<char>(next.op)) + " " +
                      (next.dataset == nullptr ? "?" : next.dataset->layout.dsetname) + " " +
                      fwu_position_text(next.position) + " #" + std::to_string(next.record) + " n" +
                      std::to_string(next.n);
    if (next.mark != nullptr)
        return out + " " + next.mark->reason;
    return out + " " + image_text(next, next.before.image) + " " +
           image_text(next, next.after.image);
}

struct all_changes {
    std::vector<std::string> lines; // changes, and "commit 1-1.3" behind them
    change_found end = CHANGE_FOUND;
    std::string err;
};

static all_changes read_all(const written_log &log, change_range range = {})
{
    all_changes result;
    change_reader reader;
    change next;
    testing::internal::CaptureStderr();
    result.end =
        change_open(reader, log.config, std::move(range)) == 0 ? CHANGE_FOUND : CHANGE_FAILED;
    while (result.end == CHANGE_FOUND || result.end == CHANGE_COMMITTED ||
           result.end == CHANGE_PASSED) {
        result.end = change_next(reader, next);
        if (result.end == CHANGE_FOUND)
            result.lines.push_back(shown(next));
        else if (result.end == CHANGE_COMMITTED || result.end == CHANGE_PASSED)
            result.lines.push_back((result.end == CHANGE_PASSED ? "passed " : "commit ") +
                                   fwu_position_text(reader.transaction.position));
    }
    result.err = testing::internal::GetCapturedStderr();
    return result;
}

// Three transactions in two files: two changes of ORDERS, one of LINES; an update of LINES
// and a delete of ORDERS in the second file.
static void write_three(written_log &log)
{
    const fwu_layout orders = layout_of("ORDERS");
    const fwu_layout lines = layout_of("LINES");
    log.begin();
    log.insert(orders, image(1, "ab"));
    log.insert(orders, image(2, "cd"));
    log.commit();
    log.begin();
    log.insert(lines, image(3, "ef"));
    log.commit();
    log.new_file();
    log.begin();
    log.change(FWU_OP_UPDATE, lines, image(3, "ef"), image(4, "gh"));
    log.change(FWU_OP_DELETE, orders, image(1, "ab"), "");
    log.commit();
}

TEST(ChangeReader, GivesEveryChangeAndEveryCommit)
{
    written_log log;
    write_three(log);
    const all_changes all = read_all(log);
    EXPECT_THAT(all.lines, ElementsAre("c ORDERS 1-1.2 #1 n1 - 1ab", "c ORDERS 1-1.3 #2 n2 - 2cd",
                                       "commit 1-1.4", "c LINES 1-1.6 #3 n1 - 3ef", "commit 1-1.7",
                                       "u LINES 1-2.2 #4 n1 3ef 4gh", "d ORDERS 1-2.4 #5 n2 1ab -",
                                       "commit 1-2.5"));
    EXPECT_EQ(all.end, CHANGE_NO_MORE);
    EXPECT_EQ(all.err, "");
}

struct range_row {
    const char *after, *from, *to;
    std::vector<std::string> lines;
    change_found end;
};

TEST(ChangeReader, ARangeBeginsAndEndsAtFilesAndEntries)
{
    written_log log;
    write_three(log);
    const std::string c1 = "c ORDERS 1-1.2 #1 n1 - 1ab";
    const std::string c2 = "c ORDERS 1-1.3 #2 n2 - 2cd";
    const std::string c3 = "c LINES 1-1.6 #3 n1 - 3ef";
    const std::string u4 = "u LINES 1-2.2 #4 n1 3ef 4gh";
    const std::string d5 = "d ORDERS 1-2.4 #5 n2 1ab -";
    const range_row rows[] = {
        {"1-1.2",
         "",
         "",
         {c2, "commit 1-1.4", c3, "commit 1-1.7", u4, d5, "commit 1-2.5"},
         CHANGE_NO_MORE},
        {"1-1.4",
         "",
         "",
         {"passed 1-1.4", c3, "commit 1-1.7", u4, d5, "commit 1-2.5"},
         CHANGE_NO_MORE},
        {"1-2.5", "", "", {"passed 1-2.5"}, CHANGE_NO_MORE},
        {"1-2.0", "", "", {u4, d5, "commit 1-2.5"}, CHANGE_NO_MORE},
        {"", "2", "", {u4, d5, "commit 1-2.5"}, CHANGE_NO_MORE},
        {"", "1-2", "", {u4, d5, "commit 1-2.5"}, CHANGE_NO_MORE},
        {"", "1-2.4", "", {d5, "commit 1-2.5"}, CHANGE_NO_MORE},
        {"", "1-1.3", "1-1.6", {c2, "commit 1-1.4", c3, "commit 1-1.7"}, CHANGE_RANGE_ENDED},
        {"", "", "1-1.2", {c1}, CHANGE_RANGE_ENDED},
        {"", "", "1-1.4", {c1, c2, "commit 1-1.4"}, CHANGE_RANGE_ENDED},
        {"", "", "1", {c1, c2, "commit 1-1.4", c3, "commit 1-1.7"}, CHANGE_RANGE_ENDED},
        {"", "", "1-1", {c1, c2, "commit 1-1.4", c3, "commit 1-1.7"}, CHANGE_RANGE_ENDED},
        {"",
         "",
         "9",
         {c1, c2, "commit 1-1.4", c3, "commit 1-1.7", u4, d5, "commit 1-2.5"},
         CHANGE_NO_MORE},
    };
    for (const range_row &row : rows) {
        change_range range;
        for (const auto &[text, position] :
             {std::pair(row.after, &range.after), std::pair(row.from, &range.from),
              std::pair(row.to, &range.to)})
            if (*text != '\0') {
                ASSERT_TRUE(fwu_position_parse(text, *position)) << text;
            }
        const all_changes all = read_all(log, range);
        EXPECT_EQ(all.lines, row.lines) << row.after << " " << row.from << " " << row.to;
        EXPECT_EQ(all.end, row.end) << row.after << " " << row.from << " " << row.to;
    }
}

TEST(ChangeReader, OtherDatasetsArePassedOverAndCountAllTheSame)
{
    written_log log;
    write_three(log);
    std::vector<std::string> asked;
    change_range range;
    range.dataset = [&asked](const std::string &dbname, const std::string &dsetname) {
        asked.push_back(dbname + ":" + dsetname);
        return dsetname == "ORDERS";
    };
    EXPECT_THAT(read_all(log, range).lines,
                ElementsAre("c ORDERS 1-1.2 #1 n1 - 1ab", "c ORDERS 1-1.3 #2 n2 - 2cd",
                            "commit 1-1.4", "passed 1-1.7", "d ORDERS 1-2.4 #5 n2 1ab -",
                            "commit 1-2.5"));
    EXPECT_THAT(asked, ElementsAre("SALES:ORDERS", "SALES:LINES", "SALES:LINES", "SALES:ORDERS"))
        << "once for each dataset of a file";
}

TEST(ChangeReader, APositionThatTheLogDoesNotHaveIsAnError)
{
    written_log log;
    write_three(log);
    for (const char *text : {"1-2.6", "1-1.8", "1-1.99"}) {
        change_range range;
        ASSERT_TRUE(fwu_position_parse(text, range.after));
        const all_changes all = read_all(log, range);
        EXPECT_EQ(all.end, CHANGE_FAILED) << text;
        EXPECT_EQ(all.err, std::string("fwutil: --after ") + text +
                               ": its log file ends before it; give a position that the log has\n");
    }
    change_range range;
    ASSERT_TRUE(fwu_position_parse("1-3", range.from));
    const all_changes all = read_all(log, range);
    EXPECT_EQ(all.end, CHANGE_FAILED);
    EXPECT_THAT(all.err, HasSubstr("--from 1-3.0: the log does not have that file; it has "
                                   "fw0001-00000001.log (start position 1-1.0) to "
                                   "fw0001-00000002.log (1-2.0)"));
}

TEST(ChangeReader, ALogWithoutFilesHasNoChangesYet)
{
    written_log log;
    EXPECT_EQ(read_all(log).end, CHANGE_NO_MORE);
    write_three(log);
    EXPECT_EQ(read_all(log).lines.size(), 8U);
}

TEST(ChangeReader, GoesOnWithWhatIsCommittedLater)
{
    written_log log;
    change_reader reader;
    change next;
    ASSERT_EQ(change_open(reader, log.config, {}), 0);
    ASSERT_EQ(change_next(reader, next), CHANGE_NO_MORE);
    const fwu_layout orders = layout_of("ORDERS");
    for (uint64_t number = 1; number <= 6; number++) {
        if (number == 3)
            log.new_file();
        log.begin();
        log.insert(orders, image(number, "xy"));
        ASSERT_EQ(change_next(reader, next), CHANGE_NO_MORE) << "before the commit";
        log.commit();
        reader.log.look = true;
        ASSERT_EQ(change_next(reader, next), CHANGE_FOUND);
        EXPECT_EQ(next.after.image[0], number);
        ASSERT_EQ(change_next(reader, next), CHANGE_COMMITTED);
        EXPECT_EQ(reader.transaction.commit.xid, 100 + number);
    }
}

TEST(ChangeReader, ALayoutThatStaysIsOneDatasetAndAnotherOneAnother)
{
    written_log log;
    const fwu_layout narrow = layout_of("ORDERS", 2);
    const fwu_layout wide = layout_of("ORDERS", 3);
    const auto add = [&log](const fwu_layout &layout, const std::string &text) {
        log.begin();
        log.insert(layout, image(1, text));
        log.commit();
    };
    add(narrow, "ab");
    log.new_file();
    add(narrow, "cd");
    add(wide, "efg");
    add(narrow, "hi");
    change_reader reader;
    change next;
    ASSERT_EQ(change_open(reader, log.config, {}), 0);
    std::vector<const change_dataset *> seen;
    for (change_found found; (found = change_next(reader, next)) != CHANGE_NO_MORE;)
        if (found == CHANGE_FOUND)
            seen.push_back(next.dataset);
    ASSERT_EQ(seen.size(), 4U);
    EXPECT_EQ(seen[0], seen[1]) << "the next file repeats it";
    EXPECT_NE(seen[1], seen[2]);
    EXPECT_EQ(seen[2]->layout, wide);
    EXPECT_EQ(seen[2]->begun, (fwu_position{1, 2, 4}));
    EXPECT_EQ(seen[3], seen[0]) << "as it was before";
}

TEST(ChangeReader, ASessionCountsForItsTransactionFromWhereItStands)
{
    written_log log;
    const fwu_layout orders = layout_of("ORDERS");
    fwu_session ann;
    ann.user = "ann";
    fwu_session bob;
    bob.user = "bob";
    log.begin(&ann);
    log.insert(orders, image(1, "ab"));
    ASSERT_EQ(fwu_writer_session(log.writer, bob), 0);
    log.insert(orders, image(2, "ab"));
    log.commit();
    log.begin();
    log.insert(orders, image(3, "ab"));
    log.commit();
    change_reader reader;
    change next;
    ASSERT_EQ(change_open(reader, log.config, {}), 0);
    std::vector<std::string> users;
    for (change_found found; (found = change_next(reader, next)) != CHANGE_NO_MORE;)
        if (found == CHANGE_FOUND)
            users.emplace_back(next.session == nullptr ? "none" : next.session->entry[1]);
    EXPECT_THAT(users, ElementsAre("ann", "bob", "none"));
}

TEST(ChangeReader, RowsOfASnapshotAreThoseWhoseSessionEndsWithIt)
{
    written_log log;
    const fwu_layout orders = layout_of("ORDERS");
    const auto add = [&](std::vector<std::string> data) {
        fwu_session session;
        session.data = std::move(data);
        log.begin(&session);
        log.insert(orders, image(1, "ab"));
        log.commit();
    };
    add({"xid=0", "lsn=0/10", "snapshot=00000003-1"});
    add({"snapshot=x", "xid=7", "lsn=0/20"}); // a client says so
    add({});
    std::string ops;
    for (const std::string &line : read_all(log).lines)
        ops += line.substr(0, 1);
    EXPECT_EQ(ops, "rccccc") << "c of the commits too";
}

TEST(ChangeReader, MarksStandAmongTheChanges)
{
    written_log log;
    const fwu_layout orders = layout_of("ORDERS");
    log.begin();
    log.insert(orders, image(1, "ab"));
    log.mark({FWU_MARK_TRUNCATE, "SALES", "ORDERS", "sales", "orders", "emptied"});
    log.mark({FWU_MARK_GAP, "", "", "sales", "odd table", "no layout"});
    log.insert(orders, image(2, "ab"));
    log.commit();
    log.begin();
    log.mark({FWU_MARK_GAP, "", "", "", "", "all"});
    log.commit();
    EXPECT_THAT(read_all(log).lines,
                ElementsAre("c ORDERS 1-1.2 #1 n1 - 1ab", "t ORDERS 1-1.3 #0 n2 emptied",
                            "g ? 1-1.4 #0 n3 no layout", "c ORDERS 1-1.5 #2 n4 - 2ab",
                            "commit 1-1.6", "g ? 1-1.7 #0 n1 all", "commit 1-1.8"));
    change_range range;
    range.dataset = [](const std::string &, const std::string &name) { return name == "LINES"; };
    EXPECT_THAT(read_all(log, range).lines, ElementsAre("g ? 1-1.4 #0 n3 no layout", "commit 1-1.6",
                                                        "g ? 1-1.7 #0 n1 all", "commit 1-1.8"))
        << "what may concern any dataset is given to all";
}

TEST(ChangeReader, ASourceBelongsToTheLayoutBeforeIt)
{
    written_log log;
    fwu_layout orders = layout_of("ORDERS");
    orders.source = std::make_shared<fwu_source>(
        fwu_source{"sales", "orders", {{"no", "integer", 0, 1}, {"text", "text", 1, 0}}, -1});
    log.begin();
    log.insert(orders, image(1, "ab"));
    log.commit();
    change_reader reader;
    change next;
    ASSERT_EQ(change_open(reader, log.config, {}), 0);
    ASSERT_EQ(change_next(reader, next), CHANGE_FOUND);
    EXPECT_EQ(next.dataset->table, "sales.orders");
    EXPECT_THAT(next.dataset->key, ElementsAre(0));
    EXPECT_EQ(next.dataset->layout, orders);
}

// A file whose entries are good by themselves and do not fit together.
static void replace_in_file(const std::string &path, const std::string &from, const std::string &to)
{
    std::string bytes = read_file(path);
    const size_t at = bytes.find(from);
    ASSERT_NE(at, std::string::npos);
    bytes.replace(at, from.size(), to);
    write_file(path, bytes);
}

TEST(ChangeReader, DamageEndsItWithTheChangesBefore)
{
    written_log log;
    write_three(log);
    replace_in_file(log.log + "/fw0001-00000001.log", "ef", "eg");
    const all_changes all = read_all(log);
    EXPECT_EQ(all.end, CHANGE_FAILED);
    EXPECT_EQ(all.lines.size(), 3U);
    EXPECT_THAT(all.err, HasSubstr("fw0001-00000001.log: damaged at offset "));
}

TEST(ChangeReader, RandomLogsReadAsTheyWereWritten)
{
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    written_log log;
    std::vector<std::string> expected;
    int32_t record = 0;
    for (int tx = 0; tx < 60; tx++) {
        if (random() % 8 == 0)
            log.new_file();
        log.begin();
        const uint64_t changes = 1 + random() % 5;
        for (uint64_t n = 1; n <= changes; n++) {
            const int32_t size = 1 + static_cast<int32_t>(random() % 3);
            const fwu_layout layout = layout_of(random() % 2 == 0 ? "A" : "B", size);
            const std::string text(static_cast<size_t>(size),
                                   static_cast<char>('a' + random() % 26));
            const uint64_t number = random() % 200;
            log.insert(layout, image(number, text));
            expected.push_back(layout.dsetname + " #" + std::to_string(++record) + " n" +
                               std::to_string(n) + " - " + std::to_string(number) + text);
        }
        log.commit();
    }
    const all_changes all = read_all(log);
    EXPECT_EQ(all.end, CHANGE_NO_MORE);
    std::vector<std::string> found;
    for (const std::string &line : all.lines) {
        if (line.starts_with("commit"))
            continue;
        const size_t at = line.find(' ', 2);
        found.push_back(line.substr(2, at - 2) + line.substr(line.find(' ', at + 1)));
    }
    EXPECT_EQ(found, expected);
}
