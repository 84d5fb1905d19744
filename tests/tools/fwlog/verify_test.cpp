// fwlog verify and info on small logs: sound, with a tail, damaged, a file missing.
#include "fwutil/fwu_ack.h"
#include "tests/procs/growing_log.h"
#include "tests/support/golden.h"
#include "tests/support/log_header.h"
#include "tests/tools/fwlog/built_log.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class FwlogVerifyTest : public testing::Test {
  protected:
    // Transactions of three inserts each, TESTDB.COUNTER.
    void make(int transactions, const std::string &file_size = "64M")
    {
        write_config(dir, file_size);
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (int n = 0; n < transactions; n++)
            ASSERT_TRUE(append_transaction(writer, 1 + 3 * n, 3));
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    void acknowledge()
    {
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    run_result run(const std::vector<std::string> &words)
    {
        run_setup options;
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}};
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), words.begin(), words.end());
        return run_program(argv, options);
    }
    std::string file(int n) const
    {
        return dir.file("log/fw0001-0000000" + std::to_string(n) + ".log");
    }
    void flip(const std::string &path, size_t at)
    {
        std::string bytes = read_file(path);
        bytes.at(at) = static_cast<char>(bytes[at] ^ 1);
        write_file(path, bytes);
    }
    tempdir dir;
};

TEST_F(FwlogVerifyTest, SoundLogIsToldFileByFile)
{
    make(2);
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 0) << result.err;
    // A layout, two times three inserts and a commit.
    EXPECT_EQ(result.out, "log/fw0001-00000001.log: 2 transactions, 9 entries\n");
    EXPECT_EQ(
        run({"verify", "--json"}).out,
        "{\"file\":\"log/fw0001-00000001.log\",\"transactions\":2,\"entries\":9,\"tail\":0}\n");
}

TEST_F(FwlogVerifyTest, TailOfTheLastFileIsNoDamage)
{
    make(2);
    const std::string bytes = read_file(file(1));
    write_file(file(1), bytes + std::string(10, '\xFF'));
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "log/fw0001-00000001.log: 2 transactions, 9 entries; 10 bytes behind offset " +
                  std::to_string(bytes.size()) + " are not a whole transaction (yet)\n");
}

TEST_F(FwlogVerifyTest, EachDamagedFileIsToldWithItsOffset)
{
    make(200, "4K");
    ASSERT_TRUE(std::filesystem::exists(file(4)));
    flip(file(1), 64 + 24); // the first entry's payload
    flip(file(3), 64);      // the first entry's length
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000001.log: damaged at offset 64: "));
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000002.log: "));
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000003.log: damaged at offset 64: "));
    EXPECT_THAT(run({"verify", "--json"}).out, HasSubstr(",\"offset\":64}\n"));
    EXPECT_EQ(run({"info"}).status, 1);
}

TEST_F(FwlogVerifyTest, MissingFileIsTold)
{
    make(200, "4K");
    ASSERT_TRUE(std::filesystem::remove(file(2)));
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out,
                HasSubstr("log/fw0001-00000003.log: log files 2 to 2 are missing before it\n"));
    EXPECT_THAT(run({"verify", "--json"}).out,
                HasSubstr(",\"missing_from\":2,\"missing_to\":2}\n"));
}

// Whoever wrote the log was wrong; the checksums are right.
TEST_F(FwlogVerifyTest, ARecordOfAnotherLengthThanItsLayoutIsDamage)
{
    write_config(dir, "64M");
    std::filesystem::create_directory(dir.file("log"));
    log_file built(1, false);
    const auto put_layout = [&](std::vector<fwu_item> items) {
        const fwu_layout layout{.dbname = "SALES", .dsetname = "ORDERS", .items = std::move(items)};
        fwu_entry_put_layout(built.bytes, ++built.tag, layout);
        built.added();
    };
    put_layout({{.name = "NO", .type = 'I', .size = 8}});
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    built.commit();
    put_layout({{.name = "NO", .type = 'I', .size = 4}});
    const size_t at = built.bytes.size();
    built.change(FWU_OP_UPDATE, OLD_IMAGE, NEW_IMAGE);
    built.commit();
    write_file(file(1), {built.bytes.begin(), built.bytes.end()});
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "log/fw0001-00000001.log: damaged at offset " + std::to_string(at) +
                              ": the record has another length than its dataset's layout; what "
                              "follows in this file was not looked at\n");
    EXPECT_EQ(run({"verify", "--json"}).out,
              "{\"file\":\"log/fw0001-00000001.log\",\"transactions\":1,\"entries\":4,\"tail\":0,"
              "\"damage\":\"the record has another length than its dataset's layout\",\"offset\":" +
                  std::to_string(at) + "}\n");
    EXPECT_EQ(run({"info"}).status, 1);
    // The transaction that holds it goes.
    EXPECT_EQ(run({"repair"}).status, 0);
    EXPECT_EQ(run({"verify"}).out, "log/fw0001-00000001.log: 1 transactions, 3 entries\n");
}

TEST_F(FwlogVerifyTest, TheLogsEndIsComparedWithWhatWasAcknowledged)
{
    make(200, "4K");
    acknowledge();
    fwu_ack ack;
    ASSERT_EQ(fwu_ack_read(dir.file("log"), ack), FWU_FOUND);
    const std::string name =
        "log/" + fwu_log_file_name(ack.position.generation, ack.position.sequence);
    const std::string last = dir.file(name);
    const std::string whole = read_file(last);
    write_file(last, whole.substr(0, static_cast<size_t>(ack.end) - 320));
    run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out,
                HasSubstr(name + ": damaged at offset " + std::to_string(ack.end - 320) +
                          ": it ends before what was acknowledged; what follows"));
    EXPECT_THAT(run({"verify", "--json"}).out,
                HasSubstr("\"damage\":\"it ends before what was acknowledged\",\"offset\":" +
                          std::to_string(ack.end - 320) + "}\n"));

    std::filesystem::remove(last);
    result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    const std::string damage = "the log file is missing, and the log was acknowledged up to "
                               "position " +
                               fwu_position_text(ack.position) + " in it";
    EXPECT_THAT(result.out, HasSubstr(name + ": " + damage + "\n"));
    EXPECT_THAT(result.err, HasSubstr("but it was acknowledged up to position " +
                                      fwu_position_text(ack.position) + " (source position "));
    EXPECT_THAT(result.err, HasSubstr("restore the log from a copy, or go on without what is "
                                      "missing: fwlog repair --accept-loss\n"));
    result = run({"verify", "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out,
                HasSubstr("{\"file\":\"" + name +
                          "\",\"transactions\":0,\"entries\":0,\"tail\":0,\"damage\":\"" + damage +
                          "\",\"offset\":0}\n"));
    write_file(last, whole);
    EXPECT_EQ(run({"verify"}).status, 0);
}

// Files come, and more is acknowledged, while it reads.
TEST_F(FwlogVerifyTest, AHealthyWriterBesideItIsNoLoss)
{
    make(200, "4K");
    acknowledge();
    fwu_config config;
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    config.sync = FWU_SYNC_NONE;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    std::atomic<bool> stop = false;
    std::thread appends([&] {
        for (int n = 1000; !stop && n < 200'000; n += 30) {
            EXPECT_TRUE(append_transaction(writer, n, 30) && fwu_writer_acknowledge(writer) == 0);
            usleep(1000);
        }
    });
    for (int i = 0; i < 20; i++) {
        const run_result result = run({"verify"});
        EXPECT_EQ(result.status, 0) << result.err;
        if (i % 5 == 0) {
            EXPECT_EQ(run({"info"}).status, 0);
        }
    }
    stop = true;
    appends.join();
    EXPECT_EQ(fwu_writer_close(writer), 0);
}

TEST_F(FwlogVerifyTest, ARecordWithoutALayoutInItsFileIsDamage)
{
    write_config(dir, "64M");
    std::filesystem::create_directory(dir.file("log"));
    log_file built(1, false);
    built.layout();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    built.commit();
    const size_t at = built.bytes.size();
    built.change(FWU_OP_INSERT, nullptr, NEW_IMAGE, "OTHERS");
    built.commit();
    write_file(file(1), {built.bytes.begin(), built.bytes.end()});
    const run_result result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "log/fw0001-00000001.log: damaged at offset " + std::to_string(at) +
                              ": no layout of the record's dataset stands before it in the file; "
                              "what follows in this file was not looked at\n");
    EXPECT_EQ(run({"repair"}).status, 0);
    EXPECT_EQ(run({"verify"}).status, 0);
}

TEST_F(FwlogVerifyTest, TheFileOfWhatWasAcknowledgedBelongsToTheLog)
{
    make(2);
    fwu_ack ack;
    ASSERT_EQ(fwu_ack_read(dir.file("log"), ack), FWU_FOUND);
    ack.identity.bytes[0] ^= 1;
    ASSERT_EQ(fwu_ack_write(dir.file("log"), ack), 0);
    for (const char *command : {"verify", "repair"}) {
        const run_result result = run({command});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("fwlog: log/acknowledged: it belongs to the log "));
    }
    // One of the remedies.
    std::filesystem::remove(dir.file("log/acknowledged"));
    EXPECT_EQ(run({"verify"}).status, 0);
}

TEST_F(FwlogVerifyTest, InfoTellsWhoseLogItIsAndWhatWasAcknowledged)
{
    make(2);
    EXPECT_THAT(run({"info"}).out, HasSubstr("\nacknowledged      nothing yet\n"));
    acknowledge();
    fwu_ack ack;
    ASSERT_EQ(fwu_ack_read(dir.file("log"), ack), FWU_FOUND);
    const std::string identity = fwu_identity_text(ack.identity);
    EXPECT_THAT(run({"info"}).out,
                HasSubstr("\nidentity          " + identity +
                          "\nacknowledged      position 1-1.9, source 0/5, committed 2023-11-14 "
                          "22:13:20.000000 UTC\n"));
    EXPECT_THAT(run({"info", "--json"}).out,
                HasSubstr(",\"identity\":\"" + identity +
                          "\",\"acknowledged\":{\"position\":\"1-1.9\",\"source\":\"0/5\","
                          "\"commit_us\":1700000000000000,\"lost\":false},\"datasets\":["));
    flip(file(1), 500);
    ASSERT_EQ(run({"repair", "--accept-loss"}).status, 0);
    EXPECT_THAT(run({"info"}).out,
                HasSubstr("\nacknowledged      position 1-1.5, source 0/5, committed 2023-11-14 "
                          "22:13:20.000000 UTC\nlost              a repair cut the log back; it "
                          "had been acknowledged up to source 0/5\n"));
    EXPECT_THAT(run({"info", "--json"}).out, HasSubstr(",\"lost\":true},"));
    std::filesystem::remove(dir.file("log/acknowledged"));
    EXPECT_THAT(run({"info"}).out, HasSubstr("\nacknowledged      not known (no file "
                                             "\"acknowledged\")\n"));
    EXPECT_THAT(run({"info", "--json"}).out, HasSubstr(",\"acknowledged\":null,"));
}

TEST_F(FwlogVerifyTest, InfoTellsPositionsTimesAndDatasets)
{
    make(2);
    const run_result result = run({"info"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("    transactions  2\n"
                                      "    commits       2023-11-14 22:13:20.000000 UTC to "
                                      "2023-11-14 22:13:20.000000 UTC\n"
                                      "    last          position 1-1.9, source 0/5\n"
                                      "1 files, "));
    EXPECT_THAT(
        result.out,
        HasSubstr("\nTESTDB.COUNTER                             6          0          0\n"));
    const std::string json = run({"info", "--json"}).out;
    EXPECT_THAT(json, HasSubstr("\"last_tag\":9,\"first_commit_us\":1700000000000000,"));
    EXPECT_THAT(json,
                HasSubstr("\"datasets\":[{\"database\":\"TESTDB\",\"dataset\":\"COUNTER\","
                          "\"inserts\":6,\"updates\":0,\"deletes\":0}],"
                          "\"marks\":{\"truncate\":0,\"gap\":0},"
                          "\"whole_values\":{\"count\":0,\"bytes\":0},\"retention\":{\"keep\":null,"
                          "\"readers\":0,\"held_by\":null,\"held_at\":null,\"held_files\":0}}\n"));
    EXPECT_THAT(json, HasSubstr(",\"damage\":null,\"text_encoding\":\"iso-8859-1\"}]"));
    EXPECT_EQ(result.out.find("\nmarks "), std::string::npos);
    EXPECT_EQ(result.out.find("whole values"), std::string::npos);
    EXPECT_EQ(result.out.find("UTF-8"), std::string::npos);
}

TEST_F(FwlogVerifyTest, SourcesAndMarksAreCounted)
{
    write_config(dir, "64M");
    std::filesystem::create_directory(dir.file("log"));
    write_file(file(1), golden_bytes("forward_log_source.hex"));
    EXPECT_EQ(run({"verify"}).out, "log/fw0001-00000001.log: 1 transactions, 5 entries\n");
    EXPECT_THAT(run({"info"}).out, HasSubstr("\nmarks             1 truncate, 0 gap\n"));
    EXPECT_THAT(run({"info", "--json"}).out, HasSubstr("}],\"marks\":{\"truncate\":1,\"gap\":0},"));
}

TEST_F(FwlogVerifyTest, WholeValuesAndTheEncodingAreTold)
{
    write_config(dir, "64M");
    std::filesystem::create_directory(dir.file("log"));
    write_file(file(1), golden_bytes("forward_log_values.hex"));
    EXPECT_EQ(run({"verify"}).out, "log/fw0001-00000001.log: 1 transactions, 4 entries\n");
    const std::string out = run({"info"}).out;
    EXPECT_THAT(out, HasSubstr("    created       2023-11-14 22:13:20.000000 UTC, little-endian "
                               "images, UTF-8 texts\n"));
    EXPECT_THAT(out, HasSubstr("\nwhole values      1, 8 bytes\n"));
    const std::string json = run({"info", "--json"}).out;
    EXPECT_THAT(json, HasSubstr(",\"damage\":null,\"text_encoding\":\"utf-8\"}]"));
    EXPECT_THAT(json, HasSubstr(",\"whole_values\":{\"count\":1,\"bytes\":8},\"retention\":"));
}

// Of a value in pieces whose record follows, and of one whose record does not: the checksums
// are right in both.
TEST_F(FwlogVerifyTest, AWholeValueWithoutItsRecordIsDamage)
{
    write_config(dir, "64M");
    fwu_config config;
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const std::string text(2 * FWU_VALUE_PIECE_MAX + 1, 'x');
    const std::string image(24, ' ');
    const fwu_value value = {1, FWU_IMAGE_AFTER, text};
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, counter_layout(), 1700000000, 24, nullptr,
                                image.data(), {&value, 1}),
              0);
    ASSERT_EQ(fwu_writer_commit(writer, {1700000000000000, 1, 1}), 0);
    ASSERT_EQ(fwu_writer_close(writer), 0);
    EXPECT_EQ(run({"verify"}).out, "log/fw0001-00000001.log: 1 transactions, 6 entries\n");
    EXPECT_THAT(run({"info"}).out, HasSubstr("\nwhole values      1, 2097153 bytes\n"));

    std::string bytes = read_file(file(1));
    const fwu_file_header header = header_of(bytes);
    const std::string whole = bytes;
    const auto at = static_cast<int64_t>(bytes.size());
    std::vector<unsigned char> more;
    fwu_entry_put_value(more, 7, {1, FWU_IMAGE_AFTER, false, "lost"});
    fwu_commit_entry commit;
    commit.entries = 1;
    commit.chain = fwu_crc32c(0, more.data() + FWU_ENTRY_CRC_AT, FWU_ENTRY_CRC_SIZE);
    const int64_t commit_at = at + static_cast<int64_t>(more.size());
    fwu_entry_put_commit(more, 8, commit, header, commit_at);
    bytes.append(more.begin(), more.end());
    write_file(file(1), bytes);
    EXPECT_EQ(run({"verify"}).out,
              "log/fw0001-00000001.log: damaged at offset " + std::to_string(commit_at) +
                  ": the record of the whole values before it is missing; what follows in this "
                  "file was not looked at\n");
    EXPECT_EQ(run({"repair", "--accept-loss"}).status, 0);
    EXPECT_EQ(read_file(file(1)), whole);
    EXPECT_EQ(run({"verify"}).status, 0);
}

TEST_F(FwlogVerifyTest, WrongCommandLinesAreRefused)
{
    make(1);
    for (const char *command : {"verify", "info"}) {
        EXPECT_EQ(run({command, "--bad"}).status, 2);
        EXPECT_EQ(run({command, "-cfg"}).status, 2);
        EXPECT_EQ(run({command, "word"}).err,
                  "fwlog: unexpected word: word\nTry \"fwlog --help\".\n");
        EXPECT_THAT(run({command, "--help"}).out,
                    HasSubstr(std::string("Usage: fwlog ") + command));
        EXPECT_EQ(run({command, "-cfg", "absent.cfg"}).status, 1);
    }
}

TEST_F(FwlogVerifyTest, PathsStandInJsonAsTheyAre)
{
    make(1);
    std::filesystem::rename(dir.file("log"), dir.file("b\xC3\xBC"
                                                      "cher"));
    write_file(dir.file("fwutil.cfg"), "log-directory b\xC3\xBC"
                                       "cher\n");
    EXPECT_THAT(run({"verify", "--json"}).out, HasSubstr("b\xC3\xBC"
                                                         "cher/fw0001-00000001.log\","));
    EXPECT_THAT(run({"info", "--json"}).out, HasSubstr("b\xC3\xBC"
                                                       "cher\","));
}
