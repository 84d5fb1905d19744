// Whole runs over a log: order, start positions, layouts, failures.
#include "fwutil/fwu_process.h"

#include "fwutil/fwu_txn.h"
#include "tests/fwutil/log_fixture.h"

#include <csignal>
#include <gmock/gmock.h>

using testing::HasSubstr;

class ProcessTest : public log_test {
  protected:
    static std::string position()
    {
        return std::to_string(Fwu_CurrentLogGeneration()) + "-" +
               std::to_string(Fwu_CurrentLogSequence()) + "." +
               std::to_string(Fwu_CurrentTagSequence());
    }
};

TEST_F(ProcessTest, DeliversAllInOrderAcrossFilesAndThenNothingMore)
{
    two_files();
    EXPECT_EQ(run().records, written);
    EXPECT_EQ(position(), "1-2.3");
    EXPECT_TRUE(run().records.empty());
    EXPECT_EQ(position(), "1-2.3") << "the position of the status file";
    open_writer();
    add({insert(9)});
    close_writer();
    EXPECT_EQ(run().records, written_from(6));
}

TEST_F(ProcessTest, AnEmptyDirectoryIsTheEndOfTheData)
{
    std::filesystem::create_directory(log);
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(position(), "0-0.0");
    EXPECT_THAT(read_file(status), HasSubstr("position none"));
}

TEST_F(ProcessTest, AMissingDirectoryIsAnErrorWithItsRemedy)
{
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err, "fwutil: " + log +
                               ": cannot find the log directory: No such file or directory; create "
                               "it, or correct log-directory in " +
                               cfg + "\n");
}

TEST_F(ProcessTest, ABadConfigurationOrNoCallbackFails)
{
    EXPECT_THAT(stderr_of([] { EXPECT_EQ(Fwu_process(nullptr, nullptr, nullptr, nullptr), -1); }),
                HasSubstr("without a callback"));
    write_file(cfg, "nonsense\n");
    EXPECT_THAT(run().err, HasSubstr(cfg + ":1: "));
}

TEST_F(ProcessTest, AFailedRecordIsDeliveredAgain)
{
    two_files();
    on_record = [](const seen &record) { return record.recnum == 3 ? -1 : 0; };
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.records, written_from(1, 2));
    EXPECT_THAT(read_file(status), HasSubstr("position 0001-00000001.0000000004 time "));
    EXPECT_TRUE(run().records.empty()) << "again, not passed over";
    on_record = nullptr;
    EXPECT_EQ(run().records, written_from(3));
}

struct from_row {
    const char *start;
    size_t first; // record delivered first
};

TEST_F(ProcessTest, StartsWhereItIsTold)
{
    two_files();
    // Tags of file 1: layout 1, insert 2, commit 3, update 4, delete 5, commit 6;
    // of file 2: layout 1, insert 2, insert 3, commit 4.
    for (const from_row &row : std::vector<from_row>{{"1", 1},
                                                     {"2", 4},
                                                     {"1-1.0", 1},
                                                     {"1-1.1", 1},
                                                     {"1-1.2", 2},
                                                     {"1-1.3", 2},
                                                     {"1-1.4", 3},
                                                     {"1-1.5", 4},
                                                     {"1-1.6", 4},
                                                     {"1-2.0", 4},
                                                     {"1-2.2", 5},
                                                     {"1-2.3", 6}}) {
        const run_outcome outcome = run(row.start);
        EXPECT_EQ(outcome.result, 0) << row.start << outcome.err;
        EXPECT_EQ(outcome.records, written_from(row.first)) << row.start;
    }
}

TEST_F(ProcessTest, AStartPositionOverridesTheStatus)
{
    two_files();
    EXPECT_EQ(run().records, written);
    EXPECT_EQ(run("1-2.2").records, written_from(5));
    EXPECT_TRUE(run().records.empty());
}

TEST_F(ProcessTest, PositionBeforeTheFirstRecordIsWhereReadingStarts)
{
    two_files();
    EXPECT_EQ(run("1-2.4").result, 0);
    EXPECT_EQ(position(), "1-2.4");
    std::string during;
    on_record = [&](const seen &) {
        during += position() + " ";
        return 0;
    };
    run("1-1.4");
    EXPECT_EQ(during, "1-1.5 1-2.2 1-2.3 ");
}

TEST_F(ProcessTest, PositionsThatTheLogLacksAreErrors)
{
    two_files();
    run_outcome outcome = run("3");
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err, "fwutil: start position \"3\": the log does not have that file; it has "
                           "fw0001-00000001.log (start position 1-1.0) to fw0001-00000002.log "
                           "(1-2.0)\n");
    outcome = run("1-2.5");
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err, "fwutil: start position \"1-2.5\": fw0001-00000002.log holds positions "
                           "up to 1-2.4 only; the log has fw0001-00000001.log to "
                           "fw0001-00000002.log\n");
    EXPECT_EQ(run("1-1.7").result, -1);
    EXPECT_EQ(run("x").result, -1);

    // The file that the status names is gone.
    on_record = [](const seen &record) { return record.recnum == 4 ? -1 : 0; };
    EXPECT_EQ(run().records, written_from(1, 3));
    std::filesystem::remove(file(1));
    outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err,
                HasSubstr(status + ": position 1-1.5: the log does not have that file; "
                                   "it has fw0001-00000002.log"));
}

// Type and size of all items of the record being delivered.
static std::string items()
{
    std::string text;
    int32_t type = 0;
    int32_t size = 0;
    while (Fwu_get_item(nullptr, &type, &size, nullptr, nullptr) != 0)
        text += static_cast<char>(type) + std::to_string(size) + " ";
    return text;
}

TEST_F(ProcessTest, LayoutsAreKnownWhereverReadingStartsAndWhenTheyChange)
{
    const seen part{"SALES", "PARTS", 5, FWU_OP_INSERT, 0, "", "1234567"};
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(1)), 0); // tags 1 and 2
    ASSERT_EQ(put(part, 1), 0);   // 3 and 4
    config.datasets[0].layout.items[1] = {"TEXT", 'U', 6, 2, 0};
    ASSERT_EQ(put(insert(2)), 0); // 5 and 6
    ASSERT_EQ(commit(), 0);       // 7
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(part, 1), 0);   // 8
    ASSERT_EQ(put(insert(3)), 0); // 9
    ASSERT_EQ(commit(), 0);       // 10
    close_writer();
    std::string all;
    on_record = [&](const seen &) {
        const std::string once = items();
        EXPECT_EQ(items(), once) << "begins again behind the last item";
        all += once + "| ";
        return 0;
    };
    EXPECT_EQ(run().result, 0);
    EXPECT_EQ(all, "I4 X12 | I2 P5 | I4 U6 | I2 P5 | I4 U6 | ");
    all.clear();
    EXPECT_EQ(run("1-1.6").result, 0);
    EXPECT_EQ(all, "I2 P5 | I4 U6 | ");
    EXPECT_EQ(items(), "") << "outside the callback there is no dataset";
}

TEST_F(ProcessTest, ALayoutOfATransactionThatWasNeverCommittedCountsForNothing)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const size_t end = log_file_bytes(1).size();
    open_writer();
    config.datasets[0].layout.items = {{"WHOLE", 'X', 16, 1, 0}};
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(2)), 0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    write_file(file(1), log_file_bytes(1).substr(0, end + 80)); // layout and no commit
    stderr_of([&] { open_writer(); });
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(3)), 0);
    ASSERT_EQ(commit(), 0);
    close_writer();
    std::string all;
    on_record = [&](const seen &) {
        all += items() + "| ";
        return 0;
    };
    EXPECT_EQ(run().result, 0);
    EXPECT_EQ(all, "I4 X12 | X16 | ");
}

TEST_F(ProcessTest, ARecordWithoutALayoutHasNoItemsAndSaysSo)
{
    open_writer();
    add({insert(1)});
    close_writer();
    fwu_txn txn;
    const std::string image = insert(1).after;
    fwu_txn_begin(txn, 1);
    fwu_entry_put_change(txn.entries, 1,
                         {"SALES", "ORDERS", 1001, FWU_OP_INSERT, 1, 16, nullptr,
                          reinterpret_cast<const unsigned char *>(image.data())});
    ASSERT_EQ(fwu_txn_added(txn, log), 0);
    fwu_entry_put_commit(txn.entries, 2, {{1, 1, 1}, txn.count, txn.chain}, {}, 0);
    write_file(file(1), plain_header(1) + std::string(txn.entries.begin(), txn.entries.end()));
    on_record = [](const seen &) {
        EXPECT_EQ(items(), "");
        return 0;
    };
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.records, written);
    EXPECT_EQ(outcome.err, "fwutil: the log file holds no layout of SALES.ORDERS before position "
                           "1-1.1; its items are not known\n");
}

TEST_F(ProcessTest, SessionInsideATransactionCountsFromThereOn)
{
    fwu_session session;
    session.pname = "desk";
    session.user = "ann";
    open_writer();
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_writer_session(writer, session), -1); }),
                testing::HasSubstr("a session outside a transaction"));
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(1)), 0);
    ASSERT_EQ(fwu_writer_session(writer, session), 0);
    ASSERT_EQ(put(insert(2)), 0);
    session = {};
    session.pname = "till";
    ASSERT_EQ(fwu_writer_session(writer, session), 0);
    ASSERT_EQ(put(insert(3)), 0);
    ASSERT_EQ(put(insert(4)), 0);
    ASSERT_EQ(commit(), 0);
    add({insert(5)});
    close_writer();
    std::string all;
    on_record = [&](const seen &) {
        for (const char *key : {"pname", "user"}) {
            const char *text = Fwu_get_session_entry(key);
            all += text == nullptr ? "-" : std::string("'") + text + "'";
        }
        all += " ";
        return 0;
    };
    EXPECT_EQ(run().result, 0);
    EXPECT_EQ(all, "-- 'desk''ann' 'till'- 'till'- -- ");
    all.clear();
    run("1-1.6"); // behind the first record of the third session
    EXPECT_EQ(all, "'till'- -- ");
}

TEST_F(ProcessTest, SessionInsideATransactionIsDamageInFilesOfVersionOne)
{
    fwu_txn txn;
    const std::string image = insert(1).after;
    fwu_txn_begin(txn, 1);
    fwu_entry_put_change(txn.entries, 1,
                         {"SALES", "ORDERS", 1001, FWU_OP_INSERT, 1, 16, nullptr,
                          reinterpret_cast<const unsigned char *>(image.data())});
    ASSERT_EQ(fwu_txn_added(txn, log), 0);
    fwu_entry_put_session(txn.entries, 2, {});
    ASSERT_EQ(fwu_txn_added(txn, log), 0);
    fwu_entry_put_commit(txn.entries, 3, {{1, 1, 1}, txn.count, txn.chain}, {}, 0);
    std::filesystem::create_directories(log);
    write_file(file(1), plain_header(1) + std::string(txn.entries.begin(), txn.entries.end()));
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err, testing::HasSubstr("a session entry does not begin its transaction"));
}

TEST_F(ProcessTest, SessionBelongsToItsTransactionOnly)
{
    fwu_session session;
    session.pname = "stock";
    session.pid = "";
    session.data = {"a", ""};
    open_writer();
    add({insert(1), insert(2)}, &session);
    add({insert(3)});
    session = fwu_session();
    session.info = "x";
    add({insert(4)}, &session);
    close_writer();
    std::string all;
    on_record = [&](const seen &) {
        for (const char *key : {"pname", "user", "login", "pid", "info", "PNAME", ""}) {
            const char *text = Fwu_get_session_entry(key);
            all += text == nullptr ? "-" : std::string("'") + text + "'";
        }
        EXPECT_EQ(Fwu_get_session_entry(nullptr), nullptr);
        EXPECT_EQ(Fwu_get_session_data(-1), nullptr);
        EXPECT_EQ(Fwu_get_session_data(Fwu_get_session_elements()), nullptr);
        for (int i = 0; i < Fwu_get_session_elements(); i++)
            all += std::string("[") + Fwu_get_session_data(i) + "]";
        all += " ";
        return 0;
    };
    EXPECT_EQ(run().result, 0);
    EXPECT_EQ(all, "'stock'--''---[a][] 'stock'--''---[a][] ------- ----'x'-- ");
    all.clear();
    run("1-1.3"); // behind the first record of the first session
    EXPECT_EQ(all, "'stock'--''---[a][] ------- ----'x'-- ");
    EXPECT_EQ(Fwu_get_session_elements(), 0) << "outside the callback";
    EXPECT_EQ(Fwu_get_session_entry("pname"), nullptr);
}

TEST_F(ProcessTest, ATransactionLargerThanTheWindowIsDeliveredWhole)
{
    configure("database SALES\ndataset ORDERS\nitem NO I 4\nitem TEXT X 12\n");
    open_writer();
    std::vector<seen> many;
    many.reserve(40000);
    for (int32_t i = 0; i < 40000; i++) // 3 MB
        many.push_back(i % 3 == 0 ? insert(i) : i % 3 == 1 ? update(i) : erase(i));
    add(many);
    add({insert(1)});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    ASSERT_EQ(outcome.records.size(), written.size());
    EXPECT_TRUE(outcome.records == written);
    EXPECT_TRUE(run("1-1.30000").records == written_from(30000));
}

TEST_F(ProcessTest, ARecordLargerThanTheWindowIsDelivered)
{
    configure("database SALES\ndataset ORDERS\nitem TEXT X 32767 x100\n");
    open_writer();
    const std::string image(3276700, 'b');
    add({{"SALES", "ORDERS", 1, FWU_OP_UPDATE, 0, image, std::string(3276700, 'a')},
         {"SALES", "ORDERS", 1, FWU_OP_DELETE, 0, image, ""}});
    close_writer();
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_TRUE(outcome.records == written);
}

TEST_F(ProcessTest, SignalHandlersAreBackAfterwardsOnEveryPath)
{
    const auto handler = [](int) {};
    two_files();
    (void)std::signal(SIGTERM, handler);
    (void)std::signal(SIGINT, SIG_IGN);
    on_record = [](const seen &record) { return record.recnum == 2 ? 1 : 0; };
    EXPECT_EQ(run().result, -1);
    EXPECT_EQ(run("7").result, -1);
    on_record = nullptr;
    EXPECT_EQ(run().result, 0);
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), static_cast<void (*)(int)>(handler));
    EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_IGN);
}

TEST_F(ProcessTest, ASignalWhileDeliveringStopsBehindTheRecordInHand)
{
    two_files();
    on_record = [](const seen &record) { return record.recnum == 2 ? std::raise(SIGINT) : 0; };
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.records, written_from(1, 2));
    on_record = nullptr;
    outcome = run();
    EXPECT_EQ(outcome.records, written_from(3));
}

TEST_F(ProcessTest, VerboseTellsWhatIsOpenedAndWhyItStops)
{
    two_files();
    Fwu_verbose(1);
    const run_outcome outcome = run();
    on_record = [](const seen &) { return 1; };
    const run_outcome failed = run("1-2.2");
    Fwu_verbose(0);
    const std::string real = std::filesystem::canonical(log).string();
    EXPECT_EQ(outcome.err, "fwutil: configuration " + cfg + "\nfwutil: log directory " + real +
                               "\nfwutil: status file " + status +
                               "\nfwutil: starting with the oldest record\nfwutil: reading " +
                               real + "/fw0001-00000001.log\nfwutil: reading " + real +
                               "/fw0001-00000002.log\nfwutil: stopped: end of the log\n");
    EXPECT_THAT(failed.err, HasSubstr("fwutil: starting at start position \"1-2.2\"\n"));
    EXPECT_THAT(failed.err, HasSubstr("fwutil: stopped: the record at 1-2.3 was refused"));
}

TEST_F(ProcessTest, LogFilesThatCannotBeOpenedOrReadStopTheRun)
{
    std::filesystem::create_directory(log);
    std::filesystem::create_symlink("nowhere", file(1));
    EXPECT_EQ(run().err,
              "fwutil: " + file(1) + ": cannot open the log file: No such file or directory\n");
    std::filesystem::remove(file(1));
    std::filesystem::create_directory(file(1));
    EXPECT_EQ(run().err, "fwutil: " + file(1) + ": cannot read the log file: Is a directory\n");
}
