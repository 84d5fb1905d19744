// fwlog readers on small logs: one transaction of three inserts in each file.
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_readers.h"
#include "tests/tools/fwlog/pruned_log.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;

// Whether the process has the file open.
static bool has_open(pid_t pid, const std::string &path)
{
    std::error_code code;
    for (const auto &row :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", code))
        if (std::filesystem::read_symlink(row.path(), code) == path)
            return true;
    return false;
}

class FwlogReadersTest : public PrunedLogTest {
  protected:
    run_result readers(std::vector<std::string> words = {})
    {
        words.insert(words.begin(), {program, "readers"});
        return run(words);
    }
    std::string here(const std::string &name) const
    {
        return real(dir.path()) + "/" + name;
    }
    // What the register is by its description: written out by hand.
    static std::string register_of(const std::string &lines)
    {
        const std::string text = "fwutil readers 1\n" + lines;
        char crc[16];
        (void)snprintf(crc, sizeof crc, "crc %08x\n", fwu_crc32c(0, text.data(), text.size()));
        return text + crc;
    }
};

TEST_F(FwlogReadersTest, ARegistrationSaysWhatStays)
{
    make(4);
    status("a.status", {1, 2, 4});
    two_places("b.status", {1, 4, 2}, {});
    const run_result result =
        readers({"--add", "a.status", "--add", "./b.status", "--add=" + dir.file("none.status")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              here("a.status") +
                  ": registered: position on disk 1-2.4; fw0001-00000002.log and all behind it "
                  "stays until that is behind its position on disk\n" +
                  here("b.status") +
                  ": registered: no position on disk yet; everything stays, from "
                  "fw0001-00000001.log, the log's oldest file, on, until it has a position on "
                  "disk\n" +
                  here("none.status") +
                  ": registered: no status file yet; everything stays, from fw0001-00000001.log, "
                  "the log's oldest file, on, until it has a position on disk\n");
    EXPECT_EQ(read_file(dir.file("log/readers")),
              register_of(here("a.status") + "\n" + here("b.status") + "\n" + here("none.status") +
                          "\n"));
    const run_result shown = readers();
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.out, here("a.status") +
                             "\n    position on disk 1-2.4\n    keeps 3 of 4 files, 1440 bytes, "
                             "from fw0001-00000002.log\n" +
                             here("b.status") +
                             "\n    no position on disk yet\n    keeps 4 of 4 files, 1920 bytes, "
                             "from fw0001-00000001.log\n" +
                             here("none.status") +
                             "\n    no status file yet\n    keeps 4 of 4 files, 1920 bytes, from "
                             "fw0001-00000001.log\n");
    EXPECT_EQ(readers({"--json"}).out,
              "{\"directory\":\"" + here("log") +
                  "\",\"files\":4,\"bytes\":1920,\"readers\":[{\"status\":\"" + here("a.status") +
                  "\",\"state\":\"known\",\"position\":\"1-2.4\",\"commit_us\":1700000000000000,"
                  "\"problem\":null,\"files\":3,\"bytes\":1440,\"oldest\":\"fw0001-00000002.log\"},"
                  "{\"status\":\"" +
                  here("b.status") +
                  "\",\"state\":\"no position\",\"position\":null,\"commit_us\":null,\"problem\":"
                  "null,\"files\":4,\"bytes\":1920,\"oldest\":\"fw0001-00000001.log\"},"
                  "{\"status\":\"" +
                  here("none.status") +
                  "\",\"state\":\"absent\",\"position\":null,\"commit_us\":null,\"problem\":null,"
                  "\"files\":4,\"bytes\":1920,\"oldest\":\"fw0001-00000001.log\"}]}\n");
}

TEST_F(FwlogReadersTest, ALogWithoutARegisterHasNone)
{
    make(2);
    EXPECT_EQ(readers().out, "no reader is registered\n");
    EXPECT_EQ(readers({"--json"}).out,
              "{\"directory\":\"" + here("log") + "\",\"files\":2,\"bytes\":960,\"readers\":[]}\n");
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/readers")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/readers.lock")));
}

TEST_F(FwlogReadersTest, ARegistrationIsMadeOnceAndTakenBack)
{
    make(2);
    status("a.status", {1, 2, 4});
    std::filesystem::create_symlink("a.status", dir.file("link.status"));
    ASSERT_EQ(readers({"--add", "a.status"}).status, 0);
    EXPECT_THAT(readers({"--add", "link.status"}).out,
                HasSubstr(here("a.status") + ": registered already: position on disk 1-2.4; "));
    EXPECT_EQ(read_file(dir.file("log/readers")), register_of(here("a.status") + "\n"));
    EXPECT_EQ(readers({"--remove", "other.status"}).err,
              "fwlog: " + here("other.status") +
                  ": no reader with this status file is registered\n");
    EXPECT_EQ(readers({"--remove", "link.status"}).out,
              here("a.status") + ": no longer registered\n");
    EXPECT_EQ(readers().out, "no reader is registered\n");
}

TEST_F(FwlogReadersTest, OneWhoseDirectoryIsGoneIsTakenBackByItsName)
{
    make(1);
    std::filesystem::create_directory(dir.file("run"));
    ASSERT_EQ(readers({"--add", "run/a.status"}).status, 0);
    std::filesystem::remove(dir.file("run"));
    EXPECT_EQ(readers({"--remove", "run/a.status"}).status, 1);
    EXPECT_EQ(readers({"--remove", here("run/a.status")}).status, 0);
    EXPECT_EQ(readers().out, "no reader is registered\n");
}

// All of a command line, or nothing.
TEST_F(FwlogReadersTest, WhatIsNoStatusFileOfThisLogIsRefused)
{
    make(3);
    status("good.status", {1, 2, 4});
    write_file(dir.file("torn.status"), "Kestro");
    status("other.status", {1, 3, 2}, "/var/other");
    status("none_of_other.status", {}, "/var/other");
    status("gone.status", {1, 7, 2});
    ASSERT_EQ(mkfifo(dir.file("fifo.status").c_str(), 0600), 0);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"torn.status", here("torn.status") + ": the status file is damaged; "},
        {"other.status",
         here("other.status") +
             ": the status file belongs to the log in /var/other, not to the one in " +
             here("log") + "; not registered\n"},
        {"none_of_other.status", ": the status file belongs to the log in /var/other"},
        {"gone.status",
         here("gone.status") + ": position on disk 1-7.2: the log does not have that file; "},
        {"fifo.status", here("fifo.status") + ": it is not a regular file; not registered\n"},
        {".", "it is not a regular file; not registered\n"},
        {"absent/a.status", "fwlog: absent/a.status: cannot find the status file's directory: No "
                            "such file or directory\n"},
        {"absent/", "cannot find the status file's directory: "},
        {"new\nline.status", "a status file with a control character in its path cannot be "
                             "registered\n"},
    };
    for (const auto &[name, message] : cases) {
        const run_result result = readers({"--add", "good.status", "--add", name});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_THAT(result.err, HasSubstr(message)) << name;
        EXPECT_FALSE(std::filesystem::exists(dir.file("log/readers"))) << name;
    }
}

TEST_F(FwlogReadersTest, OneThatCannotBeReadAnyMoreKeepsEverything)
{
    make(2);
    status("a.status", {1, 2, 4});
    ASSERT_EQ(readers({"--add", "a.status"}).status, 0);
    write_file(dir.file("a.status"), "Kestro");
    const run_result shown = readers();
    EXPECT_EQ(shown.status, 1);
    EXPECT_THAT(shown.out, HasSubstr(here("a.status") + ": the status file is damaged; "));
    EXPECT_THAT(shown.out,
                HasSubstr("    keeps 2 of 2 files, 960 bytes, from fw0001-00000001.log\n"));
    EXPECT_THAT(readers({"--json"}).out,
                HasSubstr("\"state\":\"unreadable\",\"position\":null,\"commit_us\":null,"
                          "\"problem\":\"" +
                          here("a.status") + ": the status file is damaged; "));
    const run_result pruned = run({program, "prune", "--keep", "1"});
    EXPECT_EQ(pruned.status, 1);
    EXPECT_THAT(pruned.err, HasSubstr(here("a.status") +
                                      ": what its run still needs is not known; nothing removed; "
                                      "mend the status file, or take it off the register when its "
                                      "run is over (fwlog readers --remove " +
                                      here("a.status") + ")\n"));
    EXPECT_EQ(left(), "1-1 1-2 ");
}

TEST_F(FwlogReadersTest, PruneLeavesARegisteredReaderWhatItNeeds)
{
    make(4);
    status("a.status", {1, 3, 2});
    ASSERT_EQ(readers({"--add", "a.status"}).status, 0);
    const run_result result = run({program, "prune", "--keep", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "fwlog: " + here("a.status") +
                  ": its position on disk 1-3.2 needs fw0001-00000003.log and the files "
                  "behind it; nothing removed; prune with --before 1-3, or when its run "
                  "has gone on\n");
    EXPECT_EQ(run({program, "prune", "--before", "1-3"}).status, 0);
    EXPECT_EQ(left(), "1-3 1-4 ");
    std::filesystem::remove(dir.file("a.status"));
    EXPECT_EQ(run({program, "prune", "--keep", "4"}).status, 0) << "nothing goes";
    EXPECT_THAT(run({program, "prune", "--keep", "1"}).err,
                HasSubstr(": cannot open the status file: No such file or directory\n"));
    ASSERT_EQ(readers({"--remove", "a.status"}).status, 0);
    EXPECT_EQ(run({program, "prune", "--keep", "1"}).status, 0);
    EXPECT_EQ(left(), "1-4 ");
}

// Cut short it would look like one with fewer readers.
TEST_F(FwlogReadersTest, ADamagedRegisterForbidsAll)
{
    make(2);
    status("a.status", {1, 2, 4});
    ASSERT_EQ(readers({"--add", "a.status", "--add", "b.status"}).status, 0);
    const std::string whole = read_file(dir.file("log/readers"));
    const std::string told = "log/readers: damaged: it says which readers need the log; ";
    const std::string path = dir.file("log/readers");
    const auto refused = [&] {
        std::vector<std::string> paths;
        testing::internal::CaptureStderr();
        const fwu_found found = fwu_readers_read(dir.file("log"), paths);
        return testing::internal::GetCapturedStderr().find(told) != std::string::npos &&
               found == FWU_FAILED && paths.empty();
    };
    for (size_t length = 0; length < whole.size(); length++) {
        write_file(path, whole.substr(0, length));
        EXPECT_TRUE(refused()) << length;
    }
    for (size_t at = 0; at < whole.size(); at++) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 4);
        write_file(path, changed);
        EXPECT_TRUE(refused()) << at;
    }
    for (const std::string &text :
         {register_of("relative\n"), register_of("\n"), register_of("/no/line/end")}) {
        write_file(path, text);
        EXPECT_TRUE(refused()) << text;
    }
    for (const std::vector<std::string> &words : {std::vector<std::string>{"readers"},
                                                  {"readers", "--add", "a.status"},
                                                  {"readers", "--remove", "a.status"},
                                                  {"prune", "--keep", "1"}}) {
        std::vector<std::string> all = {program};
        all.insert(all.end(), words.begin(), words.end());
        const run_result result = run(all);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err,
                    HasSubstr(told + "restore it from a copy, or remove it and register "
                                     "them again (fwlog readers --add)\n"));
    }
    EXPECT_EQ(left(), "1-1 1-2 ");
    // as the message says
    std::filesystem::remove(path);
    ASSERT_EQ(readers({"--add", "a.status", "--add", "b.status"}).status, 0);
    EXPECT_EQ(read_file(path), whole);
}

TEST_F(FwlogReadersTest, ARegisterThatCannotBeWrittenStaysAsItWas)
{
    make(2);
    ASSERT_EQ(readers({"--add", "a.status"}).status, 0);
    const std::string before = read_file(dir.file("log/readers"));
    std::filesystem::create_directory(dir.file("log/new-readers"));
    const run_result result = readers({"--add", "b.status"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "") << "nothing is promised";
    EXPECT_EQ(result.err, "fwlog: " + here("log") +
                              "/readers: cannot write the register of readers: Is a directory\n");
    EXPECT_EQ(read_file(dir.file("log/readers")), before);
    // What a killed one has left is made anew.
    std::filesystem::remove(dir.file("log/new-readers"));
    write_file(dir.file("log/new-readers"), "fwutil rea");
    EXPECT_EQ(readers({"--add", "b.status"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/new-readers")));
    EXPECT_THAT(readers().out, HasSubstr(here("b.status")));
}

// Whoever owns the log's directory must not get another file by way of the superuser.
TEST_F(FwlogReadersTest, NoLinkIsFollowed)
{
    make(1);
    const std::string other = dir.file("other");
    const bool superuser = geteuid() == 0;
    write_file(other, "");
    if (superuser) {
        ASSERT_EQ(chown(dir.file("log").c_str(), 65534, 65534), 0);
    }
    const auto still_ours = [&other] {
        struct stat about = {};
        return stat(other.c_str(), &about) == 0 && about.st_uid == geteuid();
    };
    for (const char *target : {"../other", "../none"}) {
        std::filesystem::create_symlink(target, dir.file("log/readers.lock"));
        const run_result result = readers({"--add", "a.status"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "fwlog: " + here("log") +
                                  "/readers.lock: cannot open the lock file of the register of "
                                  "readers: Too many levels of symbolic links\n");
        std::filesystem::remove(dir.file("log/readers.lock"));
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("none")));
    EXPECT_TRUE(still_ours());
    std::filesystem::create_hard_link(other, dir.file("log/readers.lock"));
    EXPECT_EQ(readers({"--add", "a.status"}).status, 0);
    EXPECT_TRUE(still_ours());
    std::filesystem::remove(dir.file("log/readers.lock"));
    std::filesystem::create_symlink("../other", dir.file("log/new-readers"));
    EXPECT_EQ(readers({"--add", "b.status"}).status, 0);
    EXPECT_TRUE(still_ours());
    EXPECT_EQ(read_file(other), "");
    for (const char *name : {"log/readers", "log/readers.lock"}) {
        struct stat about = {};
        ASSERT_EQ(lstat(dir.file(name).c_str(), &about), 0);
        EXPECT_EQ(about.st_uid, superuser ? 65534 : geteuid()) << name;
    }
}

TEST_F(FwlogReadersTest, WhoeverRemovesFilesMeanwhileIsWaitedFor)
{
    make(3);
    fwu_readers_lock lock;
    ASSERT_EQ(fwu_readers_take_lock(lock, dir.file("log"), false), FWU_FOUND);
    run_setup options;
    options.directory = dir.path();
    const pid_t adding = start_program({program, "readers", "--add", "a.status"}, options,
                                       dir.file("out"), dir.file("err"));
    const std::string lock_file = real(dir.file("log/readers.lock"));
    ASSERT_TRUE(poll_until([&] { return has_open(adding, lock_file); }));
    std::filesystem::remove(file(1)); // by who has the lock
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/readers")));
    close(lock.fd);
    lock.fd = -1;
    EXPECT_EQ(wait_program(adding), 0) << read_file(dir.file("err"));
    EXPECT_THAT(read_file(dir.file("out")),
                HasSubstr("from fw0001-00000002.log, the log's oldest file, on"));
}

TEST_F(FwlogReadersTest, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--add"}, "option lacks its status file: --add"},
        {{"--remove"}, "option lacks its status file: --remove"},
        {{"--bad"}, "unknown option: --bad"},
        {{"word"}, "unexpected word: word"},
    };
    make(1);
    for (const auto &[words, message] : cases) {
        const run_result result = readers(words);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.err, "fwlog: " + message + "\nTry \"fwlog --help\".\n");
    }
}
