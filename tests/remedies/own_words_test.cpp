// Messages whose own words say what to do: it is done, and each record is there once.
#include "tests/remedies/remedy_fixture.h"

#include <csignal>
#include <sys/stat.h>

using testing::HasSubstr;

class OwnWordsRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        append(RECORDS);
    }
    // What docs/messages.md says of a message is that its own words are the remedy.
    static void expect_own_words(const std::string &message)
    {
        EXPECT_THAT(md_remedy("docs/messages.md", message), HasSubstr("as it says"));
    }
    // What stands behind the words, up to the next bracket.
    static std::string option_in(const std::string &err, const std::string &before)
    {
        const size_t at = err.find(before);
        if (at == std::string::npos)
            throw std::runtime_error("no \"" + before + "\" in " + err);
        const size_t begin = at + before.size();
        return err.substr(begin, err.find(')', begin) - begin);
    }
};

TEST_F(OwnWordsRemedy, AStatusFileOfARunIsNamedElsewhere)
{
    ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
    write_file(dir.file("mine"), "somebody's\n");
    const struct {
        const char *row;
        const char *name;
        const char *said;
    } rows[] = {
        {"KESTRO_STATUS: ... has the name of ...", "cap",
         "cap has the name of cap, which this run uses: name another file"},
        {"KESTRO_STATUS: ... is no regular file", "pipe",
         "pipe is no regular file: name another one"},
        {"KESTRO_STATUS: ... is no regular file", ".", ". is no regular file: name another one"},
        {"KESTRO_STATUS: ... is no status file of a run", "mine",
         "mine is no status file of a run, and would be replaced by one: name another file, or "
         "remove it"},
        {"KESTRO_STATUS: ...: a log directory is no place", "log/run.json",
         "log/run.json: a log directory is no place for the status file of a run: name one "
         "elsewhere"},
    };
    int n = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.said);
        expect_own_words(row.row);
        ASSERT_EQ(sh("rm -f cap fwutil.status").status, 0);
        expect_error("KESTRO_STATUS=" + std::string(row.name) + " Kestro -synconly -ascii cap",
                     row.said);
        EXPECT_EQ(sh("test -e cap || test -e fwutil.status").status, 1) << "nothing was opened";
        const std::string other = "run" + std::to_string(++n) + ".json";
        expect_good("KESTRO_STATUS=" + other + " Kestro -synconly -ascii cap");
        EXPECT_EQ(numbers("cap"), from_to(1, RECORDS));
        EXPECT_THAT(read_file(dir.file(other)), HasSubstr("\"stopped\""));
    }
    EXPECT_EQ(read_file(dir.file("mine")), "somebody's\n");
    expect_good("rm mine cap fwutil.status; KESTRO_STATUS=mine Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), from_to(1, RECORDS));
}

TEST_F(OwnWordsRemedy, AFileThatTheRunOrTheLogHasAlreadyIsNamedElsewhere)
{
    ASSERT_EQ(sh("echo waits | tmf write mm && ln fwutil.cfg hard && "
                 "ln -s log/acknowledged soft && ln -s s.real s")
                  .status,
              0);
    const char *const run = "cannot be the ..., being the ... of this run";
    const char *const log = "cannot be the ..., being a file of the forward log";
    const char *const mail = "cannot be the ..., being a message file";
    const char *const capture = " cannot be the capture file, being ";
    const char *const pid = " cannot be the PID file, being ";
    const char *const status = " cannot be the status file, being ";
    const char *const copy = " cannot be the copy of what is cut off a capture file, being ";
    const char *const config_end = "the configuration file of this run: name another file\n";
    const char *const status_end = "the status file of this run: name another file\n";
    const char *const pid_end = "the PID file of this run: name another file\n";
    const char *const log_end = "a file of the forward log: name another file\n";
    const char *const mail_end =
        "a message file: name another file, or remove it with its records\n";
    const struct {
        const char *row;
        const char *before; // the name
        const char *name;
        const char *behind;
        const char *as;
        const char *being;
    } rows[] = {
        {run, "-ascii ", "fwutil.cfg", "", capture, config_end},
        {run, "", "fwutil.cfg", "", capture, config_end},
        {run, "-ascii ", "./hard", "", capture, config_end},
        {run, "-stat s -ascii ", "s", "", capture, status_end},
        {run, "-stat s -ascii o -ascii ", "s.real", "", capture, status_end},
        {run, "-pidfile o -ascii ", "o", "", capture, pid_end},
        {run, "-pidfile ", "fwutil.cfg", " -ascii o", pid, config_end},
        {run, "-pidfile ", "fwutil.status", " -ascii o", pid, status_end},
        {run, "-stat ", "fwutil.cfg", " -ascii o", status, config_end},
        {run, "-stat ", "o.cut", " -ascii o", copy, status_end},
        {run, "-pidfile ", "o.cut.part", " -ascii o", copy, pid_end},
        {log, "-ascii ", "log/fw0001-00000001.log", "", capture, log_end},
        {log, "", "log/../log/fw0001-00000002.log", "", capture, log_end},
        {log, "-pidfile ", "log/writer.lock", " -ascii o", pid, log_end},
        {log, "-stat ", "log/names", " -ascii o", status, log_end},
        {log, "-ascii ", "soft", "", capture, log_end},
        {mail, "-ascii ", "mm", "", capture, mail_end},
        {mail, "-pidfile ", "mm", " -ascii o", pid, mail_end},
    };
    const char *const look = "cksum fwutil.cfg mm log/*; ls -A . log";
    const std::string before = sh(look).out;
    for (const auto &row : rows) {
        expect_own_words(row.row);
        const std::string said = std::string(row.name) + row.as + row.being;
        EXPECT_EQ(expect_error(
                      std::string("Kestro -synconly ") + row.before + row.name + row.behind, said),
                  said);
        EXPECT_EQ(sh(look).out, before) << said;
    }
    // Another name; an empty name beside; what has no beginning to lose.
    expect_good(
        "Kestro -synconly -pidfile o.pid -stat s -ascii o -ascii log/mine -ascii mm.txt mm");
    for (const char *name : {"o", "log/mine", "mm.txt"})
        EXPECT_EQ(numbers(name), from_to(1, RECORDS)) << name;
    expect_good(
        "rm mm; Kestro -synconly -stat again -ascii mm -pidfile /dev/null -ascii /dev/null");
    EXPECT_EQ(numbers("mm"), from_to(1, RECORDS));
}

TEST_F(OwnWordsRemedy, AStatusFileOfARunThatIsAnotherOnesIsNamedElsewhere)
{
    expect_own_words("KESTRO_STATUS: ... is the file of another run that has not ended");
    run_setup following = options;
    following.env["KESTRO_STATUS"] = "run.json";
    const pid_t pid = start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, following,
                                    "", dir.file("err"));
    EXPECT_TRUE(poll_until([&] { return numbers("cap").size() == size_t{RECORDS}; }));
    expect_error("KESTRO_STATUS=run.json Kestro -synconly -stat other.status -ascii other",
                 "run.json is the file of another run that has not ended: name another file");
    expect_good("KESTRO_STATUS=other.json Kestro -synconly -stat other.status -ascii other");
    EXPECT_EQ(numbers("other"), from_to(1, RECORDS));
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_program(pid), 0);
    EXPECT_EQ(numbers("cap"), from_to(1, RECORDS));
}

// "to begin with the first record that this log will have, remove the status file; or restore the
// log that belongs to it, or name another status file"
TEST_F(OwnWordsRemedy, ALogWithoutFilesIsRestoredOrBegunWithoutItsStatusFile)
{
    expect_own_words(
        "to begin with the first record that this log will have, remove the status file");
    expect_own_words("or restore the log that belongs to it, or name another status file");
    const std::string again = "KESTRO_TEXT=append Kestro -synconly -ascii ";
    const std::string said = "to begin with the first record that this log will have, remove the "
                             "status file; or restore the log that belongs to it, or name another "
                             "status file";
    expect_good(again + "cap");
    ASSERT_EQ(sh("mv log old && mkdir log").status, 0);
    expect_error(again + "cap", said);
    ASSERT_EQ(sh("rmdir log && mv old log").status, 0);
    append(100);
    expect_good(again + "cap");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    for (const bool removed : {true, false}) {
        SCOPED_TRACE(removed);
        ASSERT_EQ(sh("cp fwutil.status kept && rm -r log && mkdir log").status, 0);
        expect_error(again + "cap", said);
        logged = 0;
        append(RECORDS);
        const std::string name = removed ? "anew" : "other";
        expect_good(removed ? "rm fwutil.status && " + again + name
                            : again + name + " -stat other.status");
        EXPECT_EQ(numbers(name), from_to(1, RECORDS));
        ASSERT_EQ(sh("mv kept fwutil.status").status, 0);
    }
}

// The log was made anew, and is fed from another source than before.
TEST_F(OwnWordsRemedy, ANewLogIsGoneOnWithFromThePositionThatTheMessageGives)
{
    expect_own_words("the log has another record there: this one was");
    expect_own_words("or, when it is fed from another source than before, its oldest record");
    const std::string again = "KESTRO_TEXT=append Kestro -synconly -ascii ";
    append(RECORDS);
    expect_good(again + "cap");
    ASSERT_EQ(sh("rm -r log").status, 0);
    logged = 0;
    append(2 * RECORDS);
    const std::string err = expect_error(again + "cap", "the log has another record there: ");
    const std::string oldest = err.find("than before, its oldest record (") != std::string::npos
                                   ? option_in(err, "than before, its oldest record (")
                                   : option_in(err, "as start position (");
    expect_good(again + "anew " + oldest);
    EXPECT_EQ(numbers("anew"), from_to(1, logged));
    append(100);
    expect_good(again + "anew");
    EXPECT_EQ(numbers("anew"), from_to(1, logged));
}
