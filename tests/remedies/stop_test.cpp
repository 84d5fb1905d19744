// Kestro has stopped: what docs/operations.md says to do is done, and the capture files have every
// record, and what comes more than once is the record in hand.
#include "tests/remedies/remedy_fixture.h"

#include <csignal>
#include <sys/stat.h>

using testing::HasSubstr;

static const char OPERATIONS[] = "docs/operations.md";

class StopRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        append(RECORDS);
    }
    // "Start again (append)".
    void start_again(const std::string &words)
    {
        expect_good("KESTRO_TEXT=append Kestro -synconly " + words);
    }
    const std::vector<int> whole = from_to(1, RECORDS);
};

TEST_F(StopRemedy, ATextFileThatCannotBeOpened)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "Error opening ASCII capture file: "),
                HasSubstr("start again (append"));
    expect_error("Kestro -synconly -ascii one -ascii there/two",
                 "CAPERR: No such file or directory\n"
                 "Error opening ASCII capture file: there/two\n");
    ASSERT_EQ(sh("mkdir there").status, 0);
    start_again("-ascii one -ascii there/two");
    EXPECT_EQ(numbers("there/two"), whole);
    EXPECT_EQ(once(numbers("one")), whole);
    EXPECT_EQ(numbers("one").size(), whole.size() + 1) << "the record in hand, once more";
}

TEST_F(StopRemedy, SomethingElseHasTheNameOfTheCopyOfACutLine)
{
    write_file(dir.file("one"), "torn");
    ASSERT_EQ(sh("mkdir -p one.cut/full").status, 0);
    expect_error("KESTRO_TEXT=append Kestro -synconly -ascii one",
                 "Error opening ASCII capture file: one\n");
    ASSERT_EQ(sh("mv one.cut elsewhere").status, 0);
    const run_result run = sh("KESTRO_TEXT=append Kestro -synconly -ascii one");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(numbers("one"), whole);
    EXPECT_EQ(read_file(dir.file("one.cut")), "torn");
}

TEST_F(StopRemedy, OneTextFileUnderTwoNamesGetsTwoNames)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "Warning: capture files A and B are one text file"),
                HasSubstr("give each text file a name of its own"));
    EXPECT_THAT(sh("Kestro -synconly -stat other -ascii one -ascii ./one").err,
                HasSubstr("Warning: capture files one and ./one are one text file: "));
    expect_good("Kestro -synconly -ascii two -ascii three");
    EXPECT_EQ(numbers("two"), whole);
    EXPECT_EQ(numbers("three"), whole);
}

TEST_F(StopRemedy, ANameThatCannotBeOpenedAnewIsMendedAndSighupSentAgain)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "Error opening ASCII capture file anew: "),
                HasSubstr("send SIGHUP again"));
    const pid_t pid = start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, options, "",
                                    dir.file("err"));
    EXPECT_TRUE(poll_until([&] { return numbers("cap").size() == whole.size(); }));
    ASSERT_EQ(sh("mv cap cap.1 && mkdir cap").status, 0);
    kill(pid, SIGHUP);
    EXPECT_TRUE(poll_until([&] {
        return read_file(dir.file("err")).find("capture file anew: cap; the records go on into") !=
               std::string::npos;
    }));
    append(100);
    EXPECT_TRUE(poll_until([&] { return numbers("cap.1").size() == whole.size() + 100; }));
    ASSERT_EQ(sh("rmdir cap").status, 0);
    kill(pid, SIGHUP);
    struct stat there = {};
    EXPECT_TRUE(poll_until([&] { return stat(dir.file("cap").c_str(), &there) == 0; }));
    append(100);
    EXPECT_TRUE(poll_until([&] { return numbers("cap").size() == 100; }));
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_program(pid), 0);
    EXPECT_EQ(numbers("cap.1"), from_to(1, RECORDS + 100));
    EXPECT_EQ(numbers("cap"), from_to(RECORDS + 101, RECORDS + 200));
}

TEST_F(StopRemedy, AStatusFileThatIsRefusedGetsAnotherName)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "KESTRO_STATUS: FILE "), HasSubstr("name another file"));
    write_file(dir.file("mine"), "somebody's\n");
    for (const char *name : {"cap", "mine", "log/status", "."}) {
        expect_error("KESTRO_STATUS=" + std::string(name) + " Kestro -synconly -ascii cap",
                     "KESTRO_STATUS: ");
        EXPECT_EQ(sh("test -e cap || test -e fwutil.status").status, 1) << "nothing was opened";
    }
    EXPECT_EQ(read_file(dir.file("mine")), "somebody's\n");
    expect_good("KESTRO_STATUS=run.json Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), whole);
    EXPECT_THAT(read_file(dir.file("run.json")), HasSubstr("\"stopped\""));
}

TEST_F(StopRemedy, ASettingThatIsNoneIsCorrectedByAWordOfTheMessage)
{
    for (const char *name : {"KESTRO_TEXT", "KESTRO_SYNC"}) {
        EXPECT_EQ(md_remedy(OPERATIONS, name + std::string(": ...")), "correct it and start again");
        const std::string err = expect_error(name + std::string("=no Kestro -synconly -ascii cap"),
                                             name + std::string(": \"no\" is none of "));
        EXPECT_EQ(sh("test -e cap || test -e fwutil.status").status, 1) << "nothing was opened";
        std::istringstream words(err.substr(err.find("none of ") + 8));
        for (std::string word; std::getline(words, word, ',');) {
            word.erase(0, word.find_first_not_of(' '));
            word.erase(word.find_last_not_of('\n') + 1);
            const size_t number = word.find("MILLISECONDS");
            if (number != std::string::npos)
                word.replace(number, std::string::npos, "250");
            if (word.rfind("1 to", 0) == 0)
                continue;
            expect_good(std::string(name) + "='" + word + "' Kestro -synconly -ascii cap");
            EXPECT_EQ(numbers("cap"), whole) << word;
            ASSERT_EQ(sh("rm cap fwutil.status").status, 0);
        }
    }
}

TEST_F(StopRemedy, AMessageFileThatCannotBeOpened)
{
    const std::string remedy = md_remedy(OPERATIONS, "Error opening message capture file: ");
    EXPECT_THAT(remedy, HasSubstr("mend what the detail names and start again (append)"));
    expect_error("Kestro -synconly -ascii one there/msg",
                 "Error opening message capture file: there/msg\n");
    ASSERT_EQ(sh("mkdir there").status, 0);
    start_again("-ascii one there/msg");
    EXPECT_EQ(message_numbers("there/msg"), whole);
    EXPECT_EQ(once(numbers("one")), whole);
    // "For a text file give -ascii before the name."
    write_file(dir.file("text"), "a line of text\n");
    expect_error("Kestro -synconly -stat second text",
                 "CAPERR: File is not a message file.\n"
                 "Error opening message capture file: text\n");
    start_again("-stat second " + md_command(remedy, "-ascii") + " text");
    EXPECT_EQ(numbers("text").size(), whole.size() + 1);
    EXPECT_THAT(read_file(dir.file("text")), testing::StartsWith("a line of text\n"));
}

TEST_F(StopRemedy, AFullMessageFileThatReadersEmptyOrAnotherName)
{
    const std::string remedy = md_remedy(OPERATIONS, "End of file on capture file NAME");
    EXPECT_THAT(remedy, HasSubstr("let readers empty the file, or name another one"));
    const std::string full = "KESTRO_MAXCAP=20000 Kestro -synconly ";
    std::vector<int> all;
    for (const char *name : {"msg", "msg", "other"}) {
        expect_error(full + name, "End of file on capture file " + std::string(name) + "\n");
        if (all.empty())
            expect_error(full + name, "Capture file msg is full.\n");
        const std::vector<int> more = message_numbers(name);
        all.insert(all.end(), more.begin(), more.end());
        EXPECT_EQ(sh("tmf read --count 100000 " + std::string(name)).status, 0);
    }
    start_again("msg");
    const std::vector<int> rest = message_numbers("msg");
    all.insert(all.end(), rest.begin(), rest.end());
    EXPECT_EQ(once(all), whole);
    EXPECT_EQ(all.size(), whole.size() + 3) << "the record in hand of each stop";
    EXPECT_EQ(md_remedy(OPERATIONS, "Capture file NAME is full."), "as above");
}

TEST_F(StopRemedy, NoNameIsLeftToRollOverTo)
{
    EXPECT_EQ(md_remedy(OPERATIONS, "Unable to find available rollover file for NAME"),
              "move old files away and start again (append)");
    ASSERT_EQ(sh("n=1; while [ $n -le 1024 ]; do : >msg$n; n=$((n+1)); done").status, 0);
    expect_error("KESTRO_MAXCAP=20000 Kestro -synconly -rollover msg",
                 "Unable to find available rollover file for msg\n");
    std::vector<int> all = message_numbers("msg");
    ASSERT_EQ(sh("mkdir old && mv msg?* old").status, 0);
    EXPECT_EQ(sh("KESTRO_MAXCAP=20000 Kestro -synconly -rollover msg").status, 0);
    EXPECT_EQ(message_numbers("msg"), all);
    for (int n = 1; std::filesystem::exists(dir.file("msg" + std::to_string(n))); n++) {
        const std::vector<int> more = message_numbers("msg" + std::to_string(n));
        all.insert(all.end(), more.begin(), more.end());
    }
    EXPECT_EQ(once(all), whole);
}

TEST_F(StopRemedy, TheNextFileCannotBeMade)
{
    EXPECT_EQ(md_remedy(OPERATIONS, "Error opening capture file NAME for rollover."),
              "mend what the detail names and start again (append)");
    ASSERT_EQ(sh("ln -s there/msg1 msg1").status, 0);
    expect_error("KESTRO_MAXCAP=60000 Kestro -synconly -ascii one -rollover msg",
                 "Error opening capture file msg1 for rollover.\n");
    ASSERT_EQ(sh("mkdir there").status, 0);
    const run_result run =
        sh("KESTRO_MAXCAP=60000 KESTRO_TEXT=append Kestro -synconly -ascii one -rollover msg");
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<int> all = message_numbers("msg");
    for (const char *name : {"msg1", "msg2"}) {
        const std::vector<int> more = message_numbers(name);
        all.insert(all.end(), more.begin(), more.end());
    }
    EXPECT_EQ(once(all), whole);
    EXPECT_EQ(once(numbers("one")), whole);
}

TEST_F(StopRemedy, CommandLinesAreCorrectedAndNothingWasCaptured)
{
    const struct {
        const char *wrong;
        const char *message;
        const char *row; // of the page
        const char *right;
    } cases[] = {
        {"", "No capture file specified.", "No capture file specified.", "-ascii cap"},
        {"-asci cap", "Unrecognized option -asci", "Unrecognized option ...", "-ascii cap"},
        {"-dirty cap", "DIRTY must only be specified with ASCII.",
         "DIRTY must only be specified with ASCII.", "-ascii -dirty cap"},
        {"-ascii -dset 'a$b:c' cap", "Invalid character in database name in -dset parameter.",
         "... in -dset parameter.", "-ascii -dset testdb:@ cap"},
        {"-pidfile there/pid -ascii cap", "Error opening pidfile there/pid",
         "Error opening pidfile ", "-pidfile pid -ascii cap"},
    };
    for (const auto &row : cases) {
        EXPECT_NE(md_remedy(OPERATIONS, row.row), "");
        expect_error("Kestro -synconly " + std::string(row.wrong), row.message);
        EXPECT_EQ(sh("test -e cap || test -e fwutil.status").status, 1) << "nothing was captured";
        expect_good("Kestro -synconly " + std::string(row.right));
        EXPECT_EQ(numbers("cap"), whole) << row.right;
        ASSERT_EQ(sh("rm cap fwutil.status").status, 0);
    }
}

TEST_F(StopRemedy, StandardOutputIsRedirectedAndNothingIsCapturedAgain)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "Error writing to standard output."),
                HasSubstr("nothing has to be captured again: later starts (append)"));
    expect_error("Kestro -synconly -ascii cap >/dev/full", "Error writing to standard output.\n");
    EXPECT_EQ(numbers("cap"), whole);
    append(100);
    expect_good("KESTRO_TEXT=append Kestro -synconly -ascii cap >out");
    EXPECT_EQ(numbers("cap"), from_to(1, RECORDS + 100));
}

// A start behind a power cut moves what comes again into cap.cut, where something else is.
TEST_F(StopRemedy, WhatIsInTheWayOfThePartThatIsTakenBackIsMovedAway)
{
    EXPECT_EQ(md_remedy(OPERATIONS, "Error taking back what capture file "), "as there");
    EXPECT_THAT(md_section(md_page(OPERATIONS), "Power cuts"),
                HasSubstr("move away what is in the way (`NAME.cut`"));
    options.env["KESTRO_SYNC"] = "interval 86400000"; // behind the first record only
    const pid_t pid =
        start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, options, "", "");
    EXPECT_TRUE(poll_until([&] { return numbers("cap") == whole; }));
    kill(pid, SIGKILL);
    wait_program(pid);
    const std::string again = "KESTRO_TEXT=append Kestro -synconly -ascii cap";
    const run_result run =
        sh("exec unshare -m sh -c '"
           "echo 01234567-89ab-cdef-0123-456789abcdef >boot\n"
           "mount --bind boot /proc/sys/kernel/random/boot_id || exit 77\n"
           "mkdir -p cap.cut/full\n" +
           again + " 2>refused && exit 1\nmv cap.cut elsewhere\n" + again + " 2>err'");
    if (run.status == 77 || run.err.find("unshare") != std::string::npos)
        GTEST_SKIP() << "no mounts of one's own: " << run.err;
    EXPECT_EQ(run.status, 0) << read_file(dir.file("err"));
    EXPECT_THAT(read_file(dir.file("refused")), HasSubstr("Error taking back what capture file "));
    EXPECT_EQ(numbers("cap"), whole);
    EXPECT_EQ(numbers("cap.cut"), from_to(2, RECORDS));
}

// One dataset's item has a size that no column has.
TEST_F(StopRemedy, ADatasetWithoutAColumnFormIsLeftOut)
{
    const std::string remedy = md_remedy(OPERATIONS, "ASCII unsupported data type: X size N");
    EXPECT_EQ(remedy, "leave that dataset out with `-dset`");
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const fwu_layout odd = {"TESTDB", "ODD", {{"RATE", 'I', 3}}, {}};
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, odd, 1700000000, 3, nullptr, "abc"), 0);
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = 1000000;
    ASSERT_EQ(fwu_writer_commit(writer, commit), 0);
    fwu_writer_close(writer);
    logged = 1000000; // numbers go on behind that position
    append(100);
    expect_error("Kestro -synconly -ascii cap", "ASCII unsupported data type: I size 3");
    start_again("-ascii -dset TESTDB:COUNTER cap");
    std::vector<int> expected = whole;
    for (int n = 1000001; n <= logged; n++)
        expected.push_back(n);
    std::vector<int> got = numbers("cap");
    std::erase(got, -1); // the odd record, as far as it goes
    EXPECT_EQ(got, expected);
}

TEST_F(StopRemedy, MemoryThatIsNotToBeHadIsGiven)
{
    if (sh("Kestro -help | head -1; nm -D \"$(command -v Kestro)\" | grep -q asan").status == 0)
        GTEST_SKIP() << "a sanitizer needs all the address space";
    EXPECT_EQ(md_remedy(OPERATIONS, "Out of memory: N bytes are not to be had."),
              "start again (append) with more memory");
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const std::string image(8000000, 'x');
    const fwu_layout large = {"TESTDB", "LARGE", {{"TEXT", 'X', 8000000}}, {}};
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_UPDATE, large, 1700000000, 8000000, image.data(),
                                image.data()),
              0);
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = 1000000;
    ASSERT_EQ(fwu_writer_commit(writer, commit), 0);
    fwu_writer_close(writer);
    // So little that the program starts, and what is in front of the large record is captured.
    for (int kilobytes = 40000; kilobytes > 15000; kilobytes -= 2000) {
        ASSERT_EQ(sh("rm -f cap fwutil.status").status, 0);
        const run_result run = sh("ulimit -v " + std::to_string(kilobytes) +
                                  "; exec Kestro -synconly -ascii -dset TESTDB:COUNTER cap "
                                  "-ascii -dset TESTDB:LARGE large");
        if (run.err.find("Out of memory: ") == std::string::npos)
            continue;
        EXPECT_NE(run.status, 0);
        start_again("-ascii -dset TESTDB:COUNTER cap -ascii -dset TESTDB:LARGE large");
        EXPECT_EQ(once(numbers("cap")), whole);
        EXPECT_EQ(std::filesystem::file_size(dir.file("large")) % (62 + 16000000 + 1), 0U);
        return;
    }
    GTEST_SKIP() << "no limit lets it start and run out of memory";
}
