// fwlog repair on small logs: what it cuts, keeps and says; that a writer goes on behind it;
// and that whatever interrupts it can be repaired again.
#include "tests/support/log_header.h"
#include "tests/tools/fwlog/repair_fixture.h"

#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>

using testing::HasSubstr;

TEST_F(FwlogRepairTest, SoundLogStaysAsItIs)
{
    make();
    const run_result result = repair();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "log: sound: 3 files, 6 transactions, ends behind position 1-3.9 (source "
                          "position 0/11); nothing to repair\n");
    EXPECT_EQ(repair({"--json"}).out,
              "{\"directory\":\"log\",\"sound\":true,\"repaired\":false,\"files\":3,"
              "\"transactions\":6,\"end\":\"1-3.9\",\"end_source\":\"0/11\",\"unfinished\":0,"
              "\"acknowledged\":\"1-3.9\",\"acknowledged_source\":\"0/11\"}\n");
    EXPECT_EQ(everything(), whole);
}

TEST_F(FwlogRepairTest, ATailIsLeftToTheNextWriter)
{
    make();
    write_file(file(3), whole["fw0001-00000003.log"] + "torn");
    const run_result result = repair();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("; nothing to repair\n4 bytes behind offset 800 of the last "
                                      "file are not a whole transaction: the next writer cuts "
                                      "them off\n"));
    EXPECT_EQ(read_file(file(3)).size(), 804U);
}

TEST_F(FwlogRepairTest, WithoutAcceptLossNothingAcknowledgedIsCutOff)
{
    make();
    flip(file(2), 510); // in the second transaction
    const file_map damaged = everything();
    const std::string would =
        "log/fw0001-00000002.log: damaged at offset 480: the checksum of the entry's payload is "
        "wrong\n"
        "log: would end behind position 1-2.5 (source position 0/8): 2 files, 3 transactions\n"
        "would be lost: 3 transactions, 8 records, as far as they are whole; positions 1-2.9 to "
        "1-3.9, source positions 0/B to 0/11\n"
        "acknowledged had been up to position 1-3.9 (source position 0/11)\n"
        "would be kept: cut-fw0001-00000002.log-from-480, 320 bytes of fw0001-00000002.log from "
        "offset 480 on\n"
        "would be kept: cut-fw0001-00000003.log, 800 bytes of fw0001-00000003.log from offset 0 "
        "on\n";
    const std::string refused =
        "fwlog: log: not repaired: the log was acknowledged up to position 1-3.9 (source position "
        "0/11), and would end behind position 1-2.5 (source position 0/8); what lies between is "
        "not sent again: restore the log from a copy; only if there is none, repair with "
        "--accept-loss\n";
    for (const auto &words : std::vector<std::vector<std::string>>{{}, {"--dry-run"}}) {
        const run_result result = repair(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, would);
        EXPECT_EQ(result.err, refused);
        EXPECT_EQ(everything(), damaged);
    }
    const run_result dry = repair({"--accept-loss", "--dry-run"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(dry.out, would);
    EXPECT_EQ(dry.err, "");
    EXPECT_EQ(everything(), damaged);
    // The first remedy.
    put_back(whole);
    EXPECT_EQ(repair().status, 0);
    EXPECT_EQ(commits().size(), 6U);
}

TEST_F(FwlogRepairTest, AcceptedLossIsKeptAsideAndMarkedAndTheLogGoesOn)
{
    make();
    flip(file(2), 510);
    const std::string damaged = read_file(file(2));
    const run_result result = repair({"--accept-loss"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "log/fw0001-00000002.log: damaged at offset 480: the checksum of the entry's payload "
              "is wrong\n"
              "log: now ends behind position 1-2.5 (source position 0/8): 2 files, 3 transactions\n"
              "is lost: 3 transactions, 8 records, as far as they are whole; positions 1-2.9 to "
              "1-3.9, source positions 0/B to 0/11\n"
              "acknowledged had been up to position 1-3.9 (source position 0/11)\n"
              "is kept: cut-fw0001-00000002.log-from-480, 320 bytes of fw0001-00000002.log from "
              "offset 480 on\n"
              "is kept: cut-fw0001-00000003.log, 800 bytes of fw0001-00000003.log from offset 0 "
              "on\n");
    EXPECT_EQ(commits(), (std::vector<uint64_t>{2, 5, 8}));
    EXPECT_EQ(read_file(dir.file("log/cut-fw0001-00000002.log-from-480")), damaged.substr(480));
    EXPECT_EQ(read_file(dir.file("log/cut-fw0001-00000003.log")), whole["fw0001-00000003.log"]);
    const fwu_ack ack = acked();
    EXPECT_EQ(fwu_position_text(ack.position), "1-2.5");
    EXPECT_EQ(ack.end, 480);
    EXPECT_EQ(ack.commit.lsn, 0x11U);
    EXPECT_TRUE(ack.lost);
    EXPECT_THAT(repair().out, HasSubstr("log: sound: 2 files, 3 transactions"));

    append(3, 6, true);
    EXPECT_EQ(commits(), (std::vector<uint64_t>{2, 5, 8, 0xB, 0xE, 0x11}));
    // A recovery keeps its newest piece only, and leaves those of a repair.
    write_file(file(3), read_file(file(3)) + std::string(30, 't'));
    append(6, 7, true);
    EXPECT_TRUE(std::filesystem::exists(dir.file("log/cut-fw0001-00000003.log-800")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("log/cut-fw0001-00000002.log-from-480")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("log/cut-fw0001-00000003.log")));
    // What a later repair keeps takes the place of nothing.
    flip(file(3), 70);
    EXPECT_THAT(repair({"--accept-loss"}).out, HasSubstr("is kept: cut-fw0001-00000004.log, "));
    append(6, 9, true);
    flip(file(3), 0);
    EXPECT_THAT(repair({"--accept-loss"}).out, HasSubstr("is kept: cut-fw0001-00000003.log.2, "));
    EXPECT_EQ(commits(), (std::vector<uint64_t>{2, 5, 8, 0xB}));
}

class FwlogRepairAnywhere : public FwlogRepairTest {
  protected:
    // Repairs what change leaves of a whole log, with and without what was acknowledged.
    void expect(const std::string &name, const std::function<void()> &change,
                const std::string &says, const std::vector<uint64_t> &left)
    {
        SCOPED_TRACE(name);
        for (const bool known : {true, false}) {
            put_back(whole);
            if (!known)
                std::filesystem::remove(dir.file("log/acknowledged"));
            change();
            if (known) {
                EXPECT_EQ(repair().status, 1);
            }
            EXPECT_EQ(run({program, "verify"}).status, 1);
            const run_result result = repair({known ? "--accept-loss" : "--json"});
            EXPECT_EQ(result.status, 0) << result.err;
            EXPECT_THAT(result.out, HasSubstr(says));
            EXPECT_EQ(commits(), left);
            EXPECT_TRUE(acked().lost);
            EXPECT_EQ(acked().commit.lsn, 0x11U);
            const auto count = static_cast<int>(left.size());
            append(count, count + 1, true);
            EXPECT_EQ(commits().size(), left.size() + 1);
        }
    }
};

TEST_F(FwlogRepairAnywhere, AnyFirstDamageIsFound)
{
    make();
    expect("first entry", [&] { flip(file(1), 70); }, "the checksum of the entry's header", {});
    expect("header of the first file", [&] { flip(file(1), 20); },
           "the checksum of its file header is wrong", {});
    expect("header of a file", [&] { flip(file(2), 0); }, "it does not begin as a log file does",
           {2, 5});
    expect("file cut short", [&] { std::filesystem::resize_file(file(2), 700); },
           "it ends inside a transaction, but a newer log file follows", {2, 5, 8});
    expect("file cut to nothing", [&] { std::filesystem::resize_file(file(2), 0); },
           "its file header is incomplete, but a newer log file follows", {2, 5});
    expect("file missing", [&] { std::filesystem::remove(file(2)); }, "the log file is missing",
           {2, 5});
    expect("two places", [&] { flip(file(1), 510), flip(file(3), 100); },
           "the checksum of the entry's payload is wrong", {2});
    expect("file of another log",
           [&] {
               fwu_file_header header = header_of(read_file(file(3)));
               header.identity.bytes[3] ^= 1;
               write_file(file(3), header_bytes(header) + read_file(file(3)).substr(64));
           },
           "it belongs to another log than the files before it: its identity differs",
           {2, 5, 8, 0xB});
    expect("hole in the last file",
           [&] { write_file(file(3), read_file(file(3)).replace(100, 50, 50, '\0')); },
           "the checksum of the entry's payload is wrong", {2, 5, 8, 0xB});
}

TEST_F(FwlogRepairTest, ALastFileThatIsMissingOrOlderNeedsAcceptedLoss)
{
    make();
    std::filesystem::remove(file(3));
    run_result result = repair();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000003.log: damaged at offset 0: the log file "
                                      "is missing\nlog: would end behind position 1-2.9"));
    put_back(whole);
    write_file(file(3), whole["fw0001-00000003.log"].substr(0, 480));
    result = repair();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("log/fw0001-00000003.log: damaged at offset 480: it ends "
                                      "before what was acknowledged\n"));
    EXPECT_EQ(run({program, "verify"}).status, 1);
    result = repair({"--accept-loss", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"directory\":\"log\",\"sound\":false,\"repaired\":true,\"files\":3,"
              "\"transactions\":5,\"end\":\"1-3.5\",\"end_source\":\"0/E\",\"unfinished\":0,"
              "\"acknowledged\":\"1-3.9\",\"acknowledged_source\":\"0/11\","
              "\"file\":\"log/fw0001-00000003.log\",\"offset\":480,\"damage\":\"it ends before "
              "what was acknowledged\",\"below_acknowledged\":true,\"lost\":{\"transactions\":0,"
              "\"records\":0},\"kept\":[]}\n");
    EXPECT_EQ(commits().size(), 5U);
    std::filesystem::remove_all(dir.file("log"));
    put_back({{"acknowledged", whole["acknowledged"]}});
    EXPECT_EQ(repair().status, 1);
    EXPECT_EQ(repair({"--accept-loss"}).status, 0);
    append(0, 1, true);
    EXPECT_EQ(commits().size(), 1U);
}

TEST_F(FwlogRepairTest, LogsOfVersion1)
{
    std::string bytes;
    write_config(dir, "4K");
    std::filesystem::create_directory(dir.file("log"));
    for (int n = 1; n <= 2; n++) {
        const log_file built = whole_file(n);
        bytes.assign(built.bytes.begin(), built.bytes.end());
        write_file(file(n), bytes);
    }
    EXPECT_THAT(repair().out, HasSubstr("log: sound: 2 files, 2 transactions"));
    flip(file(2), 70);
    const std::string damaged = read_file(file(2));
    // A writer cannot tell whether that was acknowledged; nor can a repair, which says so.
    const run_result result = repair();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("is lost: 1 transactions, 3 records"));
    EXPECT_THAT(result.out, HasSubstr("is kept: cut-fw0001-00000002.log-from-64, "));
    EXPECT_EQ(commits().size(), 1U);
    EXPECT_TRUE(acked().lost);
    append(2, 4, true);
    EXPECT_EQ(commits().size(), 3U);
    append(4, 5, true);
    EXPECT_EQ(commits().size(), 4U);
}

TEST_F(FwlogRepairTest, WhatANewerVersionWroteIsNoDamage)
{
    make();
    fwu_file_header header = header_of(read_file(file(3)));
    std::string bytes = header_bytes(header);
    bytes[8] = 3;
    const uint32_t crc = fwu_crc32c(0, bytes.data(), 60);
    for (size_t i = 0; i < 4; i++)
        bytes[60 + i] = static_cast<char>(crc >> 8 * i);
    write_file(file(3), bytes + read_file(file(3)).substr(64));
    const file_map before = everything();
    const run_result result = repair({"--accept-loss"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: log/fw0001-00000003.log: not repaired, since a newer version has "
                          "written it: it has another format version; a newer libfwutil is needed "
                          "to read it; nothing was changed\n");
    EXPECT_EQ(everything(), before);
}

TEST_F(FwlogRepairTest, AWriterKeepsItOut)
{
    make();
    flip(file(3), 500);
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    const int fd = open(dir.file("log/writer.lock").c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    for (const char *option : {"--accept-loss", "--dry-run"}) {
        const run_result result = repair({option});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "fwlog: log/writer.lock: another writer, process " +
                                  std::to_string(getpid()) + ", has the log open; stop it first\n");
    }
    close(fd);
    EXPECT_EQ(repair({"--accept-loss"}).status, 0);
}

// Interrupted at each call that changes a file, and run again.
TEST_F(FwlogRepairTest, WhateverInterruptsItIsRepairedByTheNextRun)
{
    make();
    const std::string third = whole["fw0001-00000003.log"];
    for (const char *how : {"kill:", "fail:"}) {
        for (const bool known : {true, false}) {
            int ended = 0;
            for (int number = 1;; number++) {
                SCOPED_TRACE(how + std::to_string(number));
                put_back(whole);
                if (!known)
                    std::filesystem::remove(dir.file("log/acknowledged"));
                std::filesystem::resize_file(file(2), 700);
                const run_result first = repair({"--accept-loss"}, how + std::to_string(number));
                if (first.status == 0)
                    break;
                ended++;
                EXPECT_EQ(first.status, how[0] == 'k' ? 137 : 1);
                const bool sound = run({program, "verify"}).status == 0;
                if (sound) { // only the unfinished end is left to cut
                    EXPECT_TRUE(acked().lost);
                }
                const run_result second = repair({"--accept-loss"});
                EXPECT_EQ(second.status, 0) << second.err;
                EXPECT_EQ(commits(), (std::vector<uint64_t>{2, 5, 8}));
                EXPECT_TRUE(acked().lost);
                EXPECT_EQ(acked().commit.lsn, 0x11U);
                EXPECT_EQ(read_file(dir.file("log/cut-fw0001-00000003.log")), third);
                append(3, 4, true);
                EXPECT_EQ(commits(), (std::vector<uint64_t>{2, 5, 8, 0xB}));
                if (HasFailure())
                    return;
            }
            EXPECT_GT(ended, 8);
        }
    }
}

TEST_F(FwlogRepairTest, WrongCommandLinesAreRefused)
{
    make();
    EXPECT_EQ(repair({"--bad"}).status, 2);
    EXPECT_EQ(repair({"-cfg"}).status, 2);
    EXPECT_EQ(repair({"word"}).err, "fwlog: unexpected word: word\nTry \"fwlog --help\".\n");
    EXPECT_THAT(repair({"--help"}).out, HasSubstr("Usage: fwlog repair [-cfg FILE] [--dry-run]"));
    std::filesystem::remove_all(dir.file("log"));
    EXPECT_EQ(repair().err, "fwlog: log: cannot open the log directory: No such file or "
                            "directory\n");
}
