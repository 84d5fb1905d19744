// The csv command: which changes go to which file, what stops it, and what is left then.
#include "tests/changes/written_log.h"
#include "tests/support/run.h"
#include "tests/tools/fwlog/built_log.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

static run_result run_csv(const std::string &cfg, std::vector<std::string> words,
                          const run_setup &setup = {})
{
    words.insert(words.begin(), {KESTRO_BUILD_DIR "/bin/fwlog", "csv", "-cfg", cfg});
    return run_program(words, setup);
}

static std::string csv_of(const std::string &cfg, const std::vector<std::string> &words)
{
    const run_result result = run_csv(cfg, words);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    return result.out;
}

static fwu_layout layout_of(const std::string &database, const std::string &dataset, int32_t size)
{
    return {.dbname = database,
            .dsetname = dataset,
            .items = {{.name = "A", .type = 'X', .size = size}}};
}

static const fwu_layout ORDERS = layout_of("SALES", "ORDERS", 3);
static const fwu_layout WIDER = layout_of("SALES", "ORDERS", 5);
static const fwu_layout STOCK = layout_of("DEPOT", "STOCK", 2);

static std::set<std::string> names_in(const std::string &directory)
{
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

TEST(FwlogCsv, PrintsTheChangesOfADataset)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.insert(STOCK, "xy");
    log.change(FWU_OP_UPDATE, ORDERS, "abc", "d,e");
    log.change(FWU_OP_DELETE, ORDERS, "d,e", "");
    log.commit();
    fwu_session snapshot;
    snapshot.data = {"xid=5", "snapshot=1"};
    log.begin(&snapshot);
    log.insert(ORDERS, "ghi");
    log.mark({.kind = FWU_MARK_TRUNCATE, .dbname = "SALES", .dsetname = "ORDERS"});
    log.commit();
    EXPECT_EQ(csv_of(log.cfg, {"--dset", "orders"}), "_op,_position,A\r\n"
                                                     "c,1-1.2,abc\r\n"
                                                     "u,1-1.5,\"d,e\"\r\n"
                                                     "d,1-1.6,\"d,e\"\r\n"
                                                     "r,1-1.9,ghi\r\n"
                                                     "t,1-1.10,\r\n");
    EXPECT_EQ(csv_of(log.cfg, {"--dset", "orders", "--after", "1-1.2", "--to", "1-1.6", "--before",
                               "--columns", "_record,A"}),
              "_op,_position,_record,A,before.A\r\n"
              "u,1-1.5,3,\"d,e\",abc\r\n"
              "d,1-1.6,4,\"d,e\",\"d,e\"\r\n");
    EXPECT_EQ(csv_of(log.cfg, {"--dset", "none"}), "");
}

// Two layouts of a dataset, the first one again behind the second.
static void write_layouts(written_log &log)
{
    log.begin();
    log.insert(ORDERS, "abc");
    log.commit();
    log.begin();
    log.insert(WIDER, "defgh");
    log.commit();
    log.begin();
    log.insert(ORDERS, "ijk");
    log.commit();
}

TEST(FwlogCsv, SecondLayoutHasNoPlaceOnStandardOutput)
{
    written_log log;
    write_layouts(log);
    const run_result refused = run_csv(log.cfg, {});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: 1-1.5: SALES.ORDERS has another layout from here on; give "
                           "--dir for a file of each layout, or --to 1-1.2 and, for the rest, "
                           "--after 1-1.2\n");
    EXPECT_EQ(refused.out, "_op,_position,A\r\nc,1-1.2,abc\r\n");
    EXPECT_EQ(csv_of(log.cfg, {"--to", "1-1.2"}), refused.out);
    EXPECT_EQ(csv_of(log.cfg, {"--after", "1-1.2", "--to", "1-1.5"}),
              "_op,_position,A\r\nc,1-1.5,defgh\r\n");
    EXPECT_THAT(run_csv(log.cfg, {"--after", "1-1.2"}).err, HasSubstr("--to 1-1.5 and"));
}

TEST(FwlogCsv, SecondDatasetHasNoPlaceOnStandardOutput)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.insert(STOCK, "xy");
    log.commit();
    const run_result refused = run_csv(log.cfg, {});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: 1-1.4: changes of a second dataset, DEPOT.STOCK, begin here; "
                           "choose one with --dset, or give --dir for a file of each\n");
    EXPECT_EQ(refused.out, "_op,_position,A\r\nc,1-1.2,abc\r\n");
    EXPECT_EQ(csv_of(log.cfg, {"--dset", "depot:"}), "_op,_position,A\r\nc,1-1.4,xy\r\n");
}

TEST(FwlogCsv, EachLayoutOfEachDatasetHasItsFile)
{
    written_log log;
    write_layouts(log);
    log.begin();
    log.insert(STOCK, "xy");
    log.commit();
    const tempdir out;
    const auto file = [&out](const std::string &name) { return read_file(out.file(name)); };
    EXPECT_EQ(csv_of(log.cfg, {"--dir", out.path()}),
              out.file("SALES.ORDERS.csv") + ": 1 changes\n" + out.file("SALES.ORDERS.2.csv") +
                  ": 1 changes\n" + out.file("SALES.ORDERS.3.csv") + ": 1 changes\n" +
                  out.file("DEPOT.STOCK.csv") + ": 1 changes\n");
    EXPECT_EQ(file("SALES.ORDERS.csv"), "_op,_position,A\r\nc,1-1.2,abc\r\n");
    EXPECT_EQ(file("SALES.ORDERS.2.csv"), "_op,_position,A\r\nc,1-1.5,defgh\r\n");
    EXPECT_EQ(file("SALES.ORDERS.3.csv"), "_op,_position,A\r\nc,1-1.8,ijk\r\n");
    EXPECT_EQ(file("DEPOT.STOCK.csv"), "_op,_position,A\r\nc,1-1.11,xy\r\n");
    EXPECT_EQ(names_in(out.path()).size(), 4U);
}

TEST(FwlogCsv, SameLayoutGoesOnInTheNextLogFileWhateverItsByteOrder)
{
    place here;
    for (const int32_t sequence : {1, 2}) {
        log_file file(sequence, sequence == 2);
        file.layout();
        file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
        file.commit();
        here.add(sequence, file.bytes);
    }
    EXPECT_EQ(csv_of(here.dir.file("fwutil.cfg"), {}), "_op,_position,NO,NET,TAG[1],TAG[2]\r\n"
                                                       "c,1-1.2,5,12.3,a,b\r\n"
                                                       "c,1-2.2,1280,12.3,a,b\r\n");
}

TEST(FwlogCsv, NamesOfFilesAreSafe)
{
    log_file file(1, false);
    int32_t record = 0;
    for (const auto &[database, dataset] :
         {std::pair("../UP", "A/B"), std::pair("A.B", "C"), std::pair("A", "B.C"),
          std::pair("\n\xFF", "-% "), std::pair("A", "B%2EC")}) {
        const fwu_layout layout = layout_of(database, dataset, 1);
        fwu_entry_put_layout(file.bytes, ++file.tag, layout);
        file.added();
        fwu_entry_put_change(file.bytes, ++file.tag,
                             {.dbname = database,
                              .dsetname = dataset,
                              .opcode = FWU_OP_INSERT,
                              .recnum = ++record,
                              .reclen = 1,
                              .after = reinterpret_cast<const unsigned char *>("x")});
        file.added();
    }
    file.commit();
    place here;
    here.add(1, file.bytes);
    const tempdir out;
    csv_of(here.dir.file("fwutil.cfg"), {"--dir", out.path()});
    EXPECT_THAT(names_in(out.path()),
                testing::UnorderedElementsAre("%2E%2E%2FUP.A%2FB.csv", "A%2EB.C.csv", "A.B%2EC.csv",
                                              "%0A%FF.-%25%20.csv", "A.B%252EC.csv"));
}

TEST(FwlogCsv, FileThatIsThereIsNotReplacedUnasked)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.commit();
    const tempdir out;
    const std::string name = out.file("SALES.ORDERS.csv");
    write_file(name, "something that is longer than what replaces it, and somebody's");
    std::filesystem::permissions(name, std::filesystem::perms::owner_read |
                                           std::filesystem::perms::owner_write);
    const run_result refused = run_csv(log.cfg, {"--dir", out.path()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: " + name + ": there is such a file; --force replaces it\n");
    EXPECT_THAT(read_file(name), StartsWith("something"));
    csv_of(log.cfg, {"--dir", out.path(), "--force"});
    EXPECT_EQ(read_file(name), "_op,_position,A\r\nc,1-1.2,abc\r\n");
    struct stat about = {};
    ASSERT_EQ(stat(name.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777, 0600U) << "rows that nobody else was to read";
}

TEST(FwlogCsv, WhatIsNoPlainFileIsReplacedAndNotWrittenTo)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.commit();
    const tempdir out;
    const std::string name = out.file("SALES.ORDERS.csv");
    const std::string other = out.file("other");
    int reader = -1;
    const struct {
        const char *what;
        std::function<bool()> make;
    } rows[] = {
        {"a link", [&] { return symlink("other", name.c_str()) == 0; }},
        {"a link that leads nowhere", [&] { return symlink("none", name.c_str()) == 0; }},
        {"another name", [&] { return link(other.c_str(), name.c_str()) == 0; }},
        {"a pipe", [&] { return mkfifo(name.c_str(), 0600) == 0; }},
        {"a pipe that is read",
         [&] {
             return mkfifo(name.c_str(), 0600) == 0 &&
                    (reader = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) >= 0;
         }},
    };
    write_file(other, "somebody's");
    for (const auto &row : rows) {
        std::filesystem::remove(name);
        ASSERT_TRUE(row.make()) << row.what;
        csv_of(log.cfg, {"--dir", out.path(), "--force"});
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(name)))
            << row.what;
        EXPECT_EQ(read_file(name), "_op,_position,A\r\nc,1-1.2,abc\r\n") << row.what;
        EXPECT_EQ(read_file(other), "somebody's") << row.what;
        EXPECT_FALSE(std::filesystem::exists(out.file("none"))) << row.what;
    }
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
    std::filesystem::remove(name);
    std::filesystem::create_directory(name);
    const run_result refused = run_csv(log.cfg, {"--dir", out.path(), "--force"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: " + name + ": cannot create the file: Is a directory\n");
}

TEST(FwlogCsv, MissingDirectoryIsAFailure)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.commit();
    const run_result refused = run_csv(log.cfg, {"--dir", "/nonexistent/dir"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: /nonexistent/dir/SALES.ORDERS.csv: cannot create the file: No "
                           "such file or directory\n");
}

TEST(FwlogCsv, MarksReachTheFilesOfWhatTheyAreAbout)
{
    written_log log;
    log.begin();
    log.mark({.kind = FWU_MARK_GAP, .reason = "all"}); // before anything has a file
    log.mark({.kind = FWU_MARK_TRUNCATE, .dbname = "DEPOT", .dsetname = "STOCK"});
    log.insert(ORDERS, "abc");
    log.mark({.kind = FWU_MARK_GAP, .dbname = "NO", .dsetname = "SUCH", .reason = "none"});
    log.commit();
    log.new_file();
    log.begin();
    log.mark({.kind = FWU_MARK_GAP, .dbname = "SALES", .dsetname = "ORDERS", .reason = "own"});
    log.mark({.kind = FWU_MARK_GAP, .reason = "later"});
    log.insert(STOCK, "xy");
    log.commit();
    const tempdir out;
    const run_result result =
        run_csv(log.cfg, {"--dir", out.path(), "--columns", "A,_dataset,_n,_reason"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "fwlog: 1-1.5: a gap stands in no file, since there is no change of "
                          "NO.SUCH\n");
    EXPECT_EQ(read_file(out.file("SALES.ORDERS.csv")), "_op,_position,A,_dataset,_n,_reason\r\n"
                                                       "g,1-1.1,,,1,all\r\n"
                                                       "c,1-1.4,abc,ORDERS,3,\r\n"
                                                       "g,1-2.1,,ORDERS,1,own\r\n"
                                                       "g,1-2.2,,,2,later\r\n");
    EXPECT_EQ(read_file(out.file("DEPOT.STOCK.csv")), "_op,_position,A,_dataset,_n,_reason\r\n"
                                                      "g,1-1.1,,,1,all\r\n"
                                                      "t,1-1.2,,STOCK,2,\r\n"
                                                      "g,1-2.2,,,2,later\r\n"
                                                      "c,1-2.4,xy,STOCK,3,\r\n");
    const run_result nothing = run_csv(log.cfg, {"--to", "1-1.1"});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(nothing.err,
              "fwlog: 1-1.1: a gap stands in no file, since there is no change of any dataset\n");
}

// Transactions of three changes each, longer together than what is written at once.
static void write_triples(written_log &log, const fwu_layout &layout, int transactions)
{
    for (int n = 0; n < transactions; n++) {
        log.begin();
        for (int i = 0; i < 3; i++)
            log.insert(layout, std::string(static_cast<size_t>(layout.items[0].size), 'x'));
        log.commit();
    }
}

// How many changes a file has, all of whose lines must be whole.
static size_t whole_lines(const std::string &text)
{
    size_t lines = 0;
    size_t at = 0;
    for (size_t end = text.find("\r\n"); end != text.npos; end = text.find("\r\n", at)) {
        at = end + 2;
        lines++;
    }
    EXPECT_EQ(at, text.size());
    return lines - 1;
}

TEST(FwlogCsv, FullDiskLeavesWholeTransactionsAndSaysWhatToDo)
{
    written_log log;
    const fwu_layout layout = layout_of("SALES", "ORDERS", 9'000);
    write_triples(log, layout, 20);
    const tempdir out;
    const std::string name = out.file("SALES.ORDERS.csv");
    // 100 blocks of 1024 bytes: the second write, of five, is cut short.
    const std::string command = "trap '' XFSZ; ulimit -f 100; exec " KESTRO_BUILD_DIR
                                "/bin/fwlog csv -cfg " +
                                log.cfg + " --dir " + out.path();
    const run_result full = run_program({"bash", "-c", command});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "fwlog: " + name +
                            ": cannot write: File too large; it ends behind a whole transaction; "
                            "make room, and run this again with --force\n");
    const size_t lines = whole_lines(read_file(name));
    EXPECT_EQ(lines % 3, 0U);
    EXPECT_EQ(lines, 6U) << "8 lines of 9,011 bytes make a first write";
    csv_of(log.cfg, {"--dir", out.path(), "--force"});
    EXPECT_EQ(whole_lines(read_file(name)), 60U);
}

TEST(FwlogCsv, FullDiskLeavesWholeTransactionsInFilesOfEarlierLayoutsToo)
{
    written_log log;
    log.begin();
    log.insert(ORDERS, "abc");
    log.commit();
    log.begin();
    log.insert(ORDERS, "def");
    log.insert(layout_of("SALES", "ORDERS", 32'000), std::string(32'000, 'x'));
    for (int i = 0; i < 4; i++)
        log.insert(layout_of("SALES", "ORDERS", 32'000), std::string(32'000, 'y'));
    log.commit();
    const tempdir out;
    const std::string command = "trap '' XFSZ; ulimit -f 64; exec " KESTRO_BUILD_DIR
                                "/bin/fwlog csv -cfg " +
                                log.cfg + " --dir " + out.path();
    const run_result full = run_program({"bash", "-c", command});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err,
                StartsWith("fwlog: " + out.file("SALES.ORDERS.2.csv") + ": cannot write: "));
    EXPECT_EQ(read_file(out.file("SALES.ORDERS.csv")), "_op,_position,A\r\nc,1-1.2,abc\r\n");
    EXPECT_EQ(read_file(out.file("SALES.ORDERS.2.csv")), "_op,_position,A\r\n");
}

TEST(FwlogCsv, FullStandardOutputIsAFailure)
{
    written_log log;
    write_triples(log, ORDERS, 1);
    const run_result full = run_program(
        {"bash", "-c", KESTRO_BUILD_DIR "/bin/fwlog csv -cfg " + log.cfg + " > /dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "fwlog: writing standard output: No space left on device\n");
}

TEST(FwlogCsv, SignalEndsItBehindAWholeTransaction)
{
    written_log log;
    const fwu_layout layout = layout_of("SALES", "ORDERS", 9'000);
    write_triples(log, layout, 20);
    const tempdir out;
    run_setup ended;
    ended.env = {{"LD_PRELOAD", ENDING_CALLS}, {"ENDING_CALL", "term:1"}};
    const run_result result = run_csv(log.cfg, {"--dir", out.path()}, ended);
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_EQ(result.out, out.file("SALES.ORDERS.csv") + ": 9 changes\n");
    EXPECT_EQ(whole_lines(read_file(out.file("SALES.ORDERS.csv"))), 9U)
        << "the signal comes with the eighth line";
}

TEST(FwlogCsv, DamageIsAFailureBehindWhatIsWhole)
{
    log_file file = whole_file(1);
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    const size_t damaged = file.bytes.size() - 4;
    file.commit();
    file.bytes[damaged] ^= 1;
    log_file next(2, false);
    next.layout();
    next.commit();
    place here;
    here.add(1, file.bytes);
    here.add(2, next.bytes);
    const tempdir out;
    const run_result result = run_csv(here.dir.file("fwutil.cfg"), {"--dir", out.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("damaged at offset 504: "));
    EXPECT_EQ(whole_lines(read_file(out.file("SALES.ORDERS.csv"))), 3U);
}

TEST(FwlogCsv, RowsOf16MiBAndWideTablesArePrintedWhole)
{
    fwu_layout large = layout_of("SALES", "LARGE", 32767);
    large.items[0].count = 512;
    fwu_layout wide = layout_of("SALES", "WIDE", 1);
    for (int n = 1; n < 1600; n++)
        wide.items.push_back({.name = "C" + std::to_string(n), .type = 'X', .size = 1});
    written_log log;
    log.begin();
    log.change(FWU_OP_UPDATE, large, std::string(32767 * 512, 'x'), std::string(32767 * 512, 'y'));
    log.insert(wide, std::string(1600, ','));
    log.commit();
    const std::string text = csv_of(log.cfg, {"--dset", "large", "--before"});
    const std::string line = text.substr(text.find('\n') + 1);
    // 1024 values of 32767, and commas between all fields
    EXPECT_EQ(line.size(), std::string("u,1-1.2").size() + 1024 * 32768 + 2);
    EXPECT_TRUE(line.ends_with("xxx\r\n"));
    const std::string commas = csv_of(log.cfg, {"--dset", "wide"});
    EXPECT_EQ(commas.size() - commas.find('\n') - 1, std::string("c,1-1.4").size() + 1600 * 4 + 2);
}

TEST(FwlogCsv, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--force"}, "option needs --dir: --force"},
        {{"--dir"}, "option lacks its directory: --dir"},
        {{"--dir="}, "option lacks its directory: --dir="},
        {{"--columns"}, "option lacks its list of columns: --columns"},
        {{"--columns", "A,,B"}, "not a list of columns (NO,NET,_lsn): A,,B"},
        {{"--after", "25"}, "not the position of an entry (1-25.340): 25"},
        {{"file.csv"}, "unexpected word: file.csv"},
    };
    place here;
    for (const auto &[words, error] : cases) {
        const run_result result = run_csv(here.dir.file("fwutil.cfg"), words);
        EXPECT_EQ(result.status, 2) << error;
        EXPECT_EQ(result.err, "fwlog: " + error + "\nTry \"fwlog --help\".\n");
    }
}

TEST(FwlogCsv, UnknownColumnIsAFailureWithTheDatasetsName)
{
    written_log log;
    write_triples(log, ORDERS, 1);
    const run_result refused = run_csv(log.cfg, {"--columns", "B"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, StartsWith("fwlog: --columns: SALES.ORDERS in its layout of 1-1.1 has "
                                        "no column B; about changes there are _op, "));
    EXPECT_EQ(refused.out, "");
}

TEST(FwlogCsv, OfMoreColumnsThanALineCanHaveThoseAreNamedThatAreWanted)
{
    written_log log;
    const fwu_layout wide{.dbname = "SALES",
                          .dsetname = "WIDE",
                          .items = {{.name = "NO", .type = 'X', .size = 2},
                                    {.name = "LIST", .type = 'X', .size = 1, .count = 1'000'000}}};
    const std::string list(1'000'000, 'l');
    for (const char *no : {"01", "02"}) {
        log.begin();
        log.insert(wide, no + list);
        log.commit();
    }
    const run_result refused = run_csv(log.cfg, {});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    EXPECT_THAT(refused.err, HasSubstr("SALES.WIDE in its layout of 1-1.1 has more than 1000000 "
                                       "columns; name those that are wanted"));
    EXPECT_EQ(csv_of(log.cfg, {"--columns", "NO,LIST[1000000]"}),
              "_op,_position,NO,LIST[1000000]\r\nc,1-1.2,01,l\r\nc,1-1.4,02,l\r\n");
}
