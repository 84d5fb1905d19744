// What stands beside a forward log is damaged, held by others or in the way of a command: what
// docs/fwlog.md and docs/forward-log.md say to do is done, and the log goes on whole.
#include "tests/msgfile/other_process.h"
#include "tests/remedies/remedy_fixture.h"

using testing::HasSubstr;

static const char PAGE[] = "docs/fwlog.md";
static const char LOG[] = "docs/forward-log.md";

class LogRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        write_config(dir, "16K"); // a record has some 50 bytes: several files
        append(RECORDS);
    }
    // "-start 1-3.0" and the like, as a message has it.
    static std::string advised(const std::string &err, const std::string &before)
    {
        const size_t at = err.find(before);
        if (at == std::string::npos)
            throw std::runtime_error("no \"" + before + "\" in " + err);
        const size_t begin = at + before.size();
        return err.substr(begin, err.find_first_of(" ,;)\n", begin) - begin);
    }
    const std::vector<int> whole = from_to(1, RECORDS);
};

// A reader whose place is gone begins with the file that the message names.
TEST_F(LogRemedy, APositionThatWasRemovedIsLeftForTheOldestFile)
{
    expect_good("Kestro -synconly -start 1 -ascii first");
    append(RECORDS);
    ASSERT_EQ(sh("fwlog prune --keep 1").status, 0);
    const std::string err = expect_error("KESTRO_TEXT=append Kestro -synconly -ascii first",
                                         "the log does not have that file");
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii first -start " +
                advised(err, "(start position "));
    const std::vector<int> got = numbers("first");
    EXPECT_EQ(got.back(), logged);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii first");
    EXPECT_EQ(numbers("first"), got);
}

TEST_F(LogRemedy, ADamagedFileIsRestoredOrLeftOutByTheMessagesPosition)
{
    const std::string file = dir.file("log/fw0001-00000002.log");
    const std::string sound = read_file(file);
    std::string bad = sound;
    bad[4000] ^= 1;
    // 3 of the page: the start position of the message, once, then without.
    write_file(file, bad);
    const std::string err = expect_error("Kestro -synconly -ascii cap", "damaged at offset ");
    const std::vector<int> before = numbers("cap");
    const std::string start = advised(err, "start position (");
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap -start " + start);
    std::vector<int> got = numbers("cap");
    EXPECT_EQ(got.back(), RECORDS);
    const std::string behind = sh("fwlog dump --json --from 1-3 | grep -c '\"op\":\"c\"'").out;
    EXPECT_EQ(std::to_string(got.size() - before.size()) + "\n", behind)
        << "the rest of that file is left out, and no other";
    EXPECT_EQ(std::vector<int>(got.begin(), got.begin() + static_cast<long>(before.size())),
              before);
    append(100);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap").back(), logged);
    EXPECT_EQ(numbers("cap").size(), got.size() + 100);
    // 1: restored from a copy, nothing is lost.
    ASSERT_EQ(sh("rm cap fwutil.status").status, 0);
    expect_error("Kestro -synconly -ascii cap", "damaged at offset ");
    write_file(file, sound);
    EXPECT_EQ(sh("fwlog verify").status, 0);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(LogRemedy, AMissingFileIsRestoredOrPassedOver)
{
    const std::string file = dir.file("log/fw0001-00000002.log");
    const std::string sound = read_file(file);
    ASSERT_TRUE(std::filesystem::remove(file));
    const std::string err = expect_error("Kestro -synconly -ascii cap", "the log file is missing");
    const std::vector<int> before = numbers("cap");
    expect_good("KESTRO_TEXT=append Kestro -synconly -stat second.status -ascii second -start " +
                advised(err, "start position "));
    const std::string behind = sh("fwlog dump --json --from 1-3 | grep -c '\"op\":\"c\"'").out;
    EXPECT_EQ(numbers("second").back(), RECORDS);
    EXPECT_EQ(std::to_string(numbers("second").size()) + "\n", behind);
    write_file(file, sound);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), whole);
    EXPECT_LT(before.size(), whole.size());
}

TEST_F(LogRemedy, WhatWasAcknowledgedIsRestoredOrRemoved)
{
    EXPECT_THAT(md_remedy(PAGE, "DIR/acknowledged: damaged"),
                HasSubstr("restore it from a copy, or remove it"));
    expect_good("Kestro -synconly -ascii cap");
    const std::string file = dir.file("log/acknowledged");
    const std::string sound = read_file(file);
    for (const bool restored : {true, false}) {
        write_file(file, std::string(sound.size(), '?'));
        expect_error("fwlog repair", "/acknowledged: damaged");
        EXPECT_THAT(sh("KESTRO_TEXT=append Kestro -synconly -ascii cap").err,
                    HasSubstr("/acknowledged: damaged"));
        if (restored)
            write_file(file, sound);
        else
            ASSERT_TRUE(std::filesystem::remove(file));
        EXPECT_EQ(sh("fwlog repair").status, 0);
        append(100);
        EXPECT_EQ(sh("KESTRO_TEXT=append Kestro -synconly -ascii cap").status, 0);
        EXPECT_EQ(numbers("cap"), from_to(1, logged));
    }
}

TEST_F(LogRemedy, AnotherWriterIsStoppedBeforeARepair)
{
    EXPECT_EQ(md_remedy(PAGE, "DIR/writer.lock: another writer"), "stop it, then repair");
    {
        lock_holder writer(dir.file("log/writer.lock"), 0, 1);
        expect_error("fwlog repair", "another writer, process " + std::to_string(writer.pid()) +
                                         ", has the log open; stop it first");
        writer.kill();
    }
    EXPECT_EQ(sh("fwlog repair").status, 0);
    append(100);
    expect_good("Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(LogRemedy, ADamagedRegisterIsRestoredOrMadeAnew)
{
    for (const char *page : {PAGE, LOG})
        EXPECT_NE(md_remedy(page, "DIR/readers: damaged"), "");
    EXPECT_THAT(md_remedy(PAGE, "DIR/readers: damaged"),
                HasSubstr("restore it from a copy, or remove it and register the readers again"));
    expect_good("Kestro -synconly -ascii cap");
    ASSERT_EQ(sh("fwlog readers --add fwutil.status").status, 0);
    const std::string file = dir.file("log/readers");
    const std::string sound = read_file(file);
    for (const bool restored : {true, false}) {
        write_file(file, "?" + sound);
        const std::string files = sh("ls log").out;
        expect_error("fwlog prune --keep 1",
                     "/readers: damaged: it says which readers need the log");
        EXPECT_EQ(sh("ls log").out, files) << "nothing is removed meanwhile";
        if (restored)
            write_file(file, sound);
        else
            ASSERT_EQ(sh("rm log/readers && fwlog readers --add fwutil.status").status, 0);
        EXPECT_THAT(sh("fwlog readers").out, HasSubstr("fwutil.status"));
    }
    EXPECT_EQ(sh("fwlog prune --keep 1").status, 0);
    append(100);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(LogRemedy, WhoHoldsTheRegistersLockIsEnded)
{
    EXPECT_THAT(md_remedy(PAGE, "DIR/readers.lock: another process, N"), HasSubstr("end it"));
    EXPECT_THAT(md_remedy(LOG, "DIR/readers.lock: another process has held"), HasSubstr("end it"));
    expect_good("Kestro -synconly -ascii cap");
    ASSERT_EQ(sh("fwlog readers --add fwutil.status").status, 0);
    lock_holder other(dir.file("log/readers.lock"), 0, 0);
    const std::string held = "/readers.lock: another process, " + std::to_string(other.pid());
    expect_error("fwlog readers --add second.status", held);
    other.kill();
    EXPECT_EQ(sh("fwlog readers --add second.status").status, 0);
    EXPECT_THAT(sh("fwlog readers").out, HasSubstr("second.status"));
}

TEST_F(LogRemedy, AReaderThatKeepsFilesIsTakenOffOrGoesOn)
{
    expect_good("Kestro -synconly -start 1 -ascii cap");
    append(RECORDS);
    const std::string position = md_remedy(PAGE, "STATUS: its position on disk P needs FILE");
    EXPECT_EQ(position, "prune up to that file, or wait until the run has gone on");
    const std::string needs = "fwlog prune --keep 1 --status fwutil.status";
    const std::string err = expect_error(needs, "; nothing removed; prune with --before ");
    EXPECT_EQ(sh("fwlog prune --status fwutil.status --before " + advised(err, "--before ")).status,
              0);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(sh(needs).status, 0) << "the run has gone on";
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    // One that never came keeps everything, until it is taken off as the message says.
    EXPECT_THAT(md_remedy(PAGE, "STATUS: what its run still needs is not known"),
                HasSubstr("(a registered one: `fwlog readers --remove STATUS`)"));
    ASSERT_EQ(sh("fwlog readers --add none.status").status, 0);
    append(RECORDS);
    const std::string unknown = expect_error("fwlog prune --keep 1", "; nothing removed; ");
    const size_t command = unknown.rfind("(fwlog readers --remove ") + 1;
    EXPECT_EQ(sh(unknown.substr(command, unknown.find(')', command) - command)).status, 0);
    expect_error(needs, "; nothing removed; ");
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap");
    EXPECT_EQ(sh(needs).status, 0);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    EXPECT_THAT(md_remedy(PAGE, "STATUS: the status file names no record yet"),
                HasSubstr("let the run capture something first, or leave out its `--status`"));
    write_file(dir.file("new.status"), "");
    expect_error("fwlog prune --keep 1 --status new.status", "the status file names no record yet");
    EXPECT_EQ(sh("Kestro -synconly -stat new.status -ascii new").status, 0);
    EXPECT_EQ(sh("fwlog prune --keep 1 --status new.status").status, 0);
    EXPECT_EQ(md_remedy(PAGE, "--before: the log does not have that file yet"),
              "give a position that the log has reached");
    expect_error("fwlog prune --before 1-9999", "the log does not have that file yet");
    EXPECT_EQ(sh("fwlog prune --before 1-2").status, 0);
}

TEST_F(LogRemedy, ARegistrationIsCorrectedByThePathsThatAreShown)
{
    EXPECT_EQ(md_remedy(PAGE, "STATUS: no reader with this status file is registered"),
              "`fwlog readers` shows the paths");
    ASSERT_EQ(sh("fwlog readers --add fwutil.status").status, 0);
    expect_error("fwlog readers --remove other.status",
                 "no reader with this status file is registered");
    std::string path;
    std::istringstream shown(sh("fwlog readers; true").out);
    std::getline(shown, path);
    EXPECT_EQ(sh("fwlog readers --remove " + path).status, 0);
    EXPECT_EQ(md_remedy(PAGE, "STATUS: cannot find the status file's directory"),
              "correct the path");
    expect_error("fwlog readers --add there/fwutil.status",
                 "cannot find the status file's directory");
    EXPECT_EQ(sh("mkdir there && fwlog readers --add there/fwutil.status").status, 0);
    EXPECT_EQ(md_remedy(PAGE, "nothing is registered with the log in DIR"), "as it says");
    ASSERT_EQ(sh("fwlog readers --remove there/fwutil.status").status, 0);
    EXPECT_THAT(sh("fwlog health").err, HasSubstr("register its readers with fwlog readers"));
    expect_good("Kestro -synconly -ascii cap");
    EXPECT_EQ(sh("fwlog readers --add fwutil.status && fwlog health").status, 0);
    EXPECT_EQ(sh("fwlog health --state fwutil.status").status, 0);
}

TEST_F(LogRemedy, AStatusFileIsGivenWithItsLogAndAPlainName)
{
    EXPECT_EQ(md_remedy(PAGE, "STATUS: the status file belongs to the log in DIR"),
              "name the configuration of that log");
    ASSERT_EQ(sh("mkdir second && cp fwutil.cfg second && cp -r log second/log").status, 0);
    expect_good("Kestro -synconly -cfg second/fwutil.cfg -stat second.status -ascii cap");
    expect_error("fwlog prune --keep 1 --status second.status",
                 "the status file belongs to the log in ");
    EXPECT_EQ(sh("fwlog prune -cfg second/fwutil.cfg --keep 1 --status second.status").status, 0);
    EXPECT_EQ(md_remedy(PAGE, "STATUS: a status file with a control character in its path"),
              "give it another name");
    expect_error("fwlog readers --add \"$(printf 'a\\nb')\"",
                 "a status file with a control character in its path cannot be registered");
    EXPECT_EQ(sh("fwlog readers --add b").status, 0);
}

TEST_F(LogRemedy, AStateFileOfAnotherProgramGetsAnotherName)
{
    EXPECT_THAT(md_remedy(PAGE, "FILE: it is the status file of a program that keeps more"),
                HasSubstr("as it says"));
    expect_good("Kestro -synconly -ascii cap msg");
    expect_error("fwlog dump --json --state fwutil.status",
                 "it is the status file of a program that keeps more in it than its position; name "
                 "another file with --state");
    EXPECT_EQ(sh("fwlog dump --json --state other.status | grep -c '\"op\":\"c\"'").out,
              std::to_string(RECORDS) + "\n");
    append(100);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap msg");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(LogRemedy, AConsumerThatAcknowledgesWrongGetsTheRestAgain)
{
    const struct {
        const char *acknowledged;
        const char *said;
        const char *row;
    } cases[] = {
        {"yes", "standard input, line 1: \"yes\" is no position of the form 1-25.340",
         "standard input, line N: X is no position"},
        {"9-1.1", "was not written yet; the last position that was is ",
         "standard input, line N: P was not written yet"},
    };
    for (const auto &row : cases) {
        EXPECT_NE(md_remedy(PAGE, row.row), "");
        expect_error("echo " + std::string(row.acknowledged) +
                         " | fwlog dump --json --state acks.status --ack >out",
                     row.said);
    }
    EXPECT_THAT(md_remedy(PAGE, "standard input has ended without acknowledging all"),
                HasSubstr("start again"));
    expect_error("fwlog dump --json --state acks.status --ack </dev/null >out",
                 "standard input has ended without acknowledging all that was written");
    EXPECT_EQ(sh("fwlog dump --json --state acks.status | grep -c '\"op\":\"c\"'").out,
              std::to_string(RECORDS) + "\n")
        << "nothing was acknowledged, so all of it comes";
    EXPECT_EQ(sh("fwlog dump --json --state acks.status | grep -c '\"op\":\"c\"'").out, "0\n");
}
