// A run that cannot tell where to begin: the messages of the forward log's library say what to do,
// and what they say is done, with the position that they give; then each record is there once.
#include "tests/remedies/remedy_fixture.h"

#include <csignal>

using testing::HasSubstr;

class PositionRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        append(RECORDS);
    }
    // A run that follows the log into "cap", once it has all of it.
    pid_t follow()
    {
        options.env["KESTRO_TEXT"] = "append";
        const pid_t pid = start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, options,
                                        "", dir.file("err"));
        EXPECT_TRUE(poll_until([&] { return static_cast<int>(numbers("cap").size()) == logged; }));
        return pid;
    }
    // What follows a text in a message, up to what cannot be in a position.
    static std::string position_in(const std::string &err, const std::string &before)
    {
        const size_t at = err.find(before);
        if (at == std::string::npos)
            throw std::runtime_error("no \"" + before + "\" in " + err);
        const size_t begin = at + before.size();
        std::string position =
            err.substr(begin, err.find_first_not_of("0123456789-.", begin) - begin);
        while (!position.empty() && position.back() == '.')
            position.pop_back();
        return position;
    }
    const std::string again = "KESTRO_TEXT=append Kestro -synconly -ascii cap";
};

TEST_F(PositionRemedy, ADamagedStatusFileIsReplacedByThePositionThatIsKnown)
{
    expect_good(again);
    const std::string known = position_in(sh("Kestro -showstat").out, "Position: ");
    append(100);
    const std::string damaged(read_file(dir.file("fwutil.status")).size(), '?');
    write_file(dir.file("fwutil.status"), damaged);
    const std::string err =
        expect_error(again, "the status file is damaged; give the position that "
                            "you know as start position, or remove the file to "
                            "begin with the log's oldest record");
    expect_good(again + " -start " + known);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    append(100);
    expect_good(again);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    write_file(dir.file("fwutil.status"), damaged);
    (void)expect_error(again, "the status file is damaged; ");
    expect_good("rm fwutil.status && Kestro -synconly -ascii anew");
    EXPECT_EQ(numbers("anew"), from_to(1, logged));
}

TEST_F(PositionRemedy, AStatusFileInUseIsLeftOrItsRunStopped)
{
    const pid_t pid = follow();
    (void)expect_error("Kestro -synconly -ascii other",
                       "the status file is in use by process " + std::to_string(pid) +
                           "; stop that, or name another status file");
    expect_good("Kestro -synconly -stat other.status -ascii other");
    EXPECT_EQ(numbers("other"), from_to(1, logged));
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_program(pid), 0);
    append(100);
    expect_good(again);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(PositionRemedy, AStatusFileThatWasRemovedUnderARunLeavesItsPositionInTheMessage)
{
    const pid_t pid = follow();
    ASSERT_EQ(sh("rm fwutil.status").status, 0);
    append(100);
    EXPECT_EQ(wait_program(pid), 1);
    const std::string err = read_file(dir.file("err"));
    EXPECT_THAT(
        err, HasSubstr("the status file was removed or replaced while in use; the position is "));
    expect_good(again + " -start " + position_in(err, "the position is "));
    EXPECT_EQ(once(numbers("cap")), from_to(1, logged));
    EXPECT_LE(numbers("cap").size(), static_cast<size_t>(logged) + 1) << "the record in hand";
}

TEST_F(PositionRemedy, AStatusFileOfAnotherLogIsLeftForAnotherOne)
{
    expect_good(again);
    ASSERT_EQ(sh("mkdir second && cp fwutil.cfg second && cp -r log second/log").status, 0);
    const std::string other = "Kestro -synconly -cfg second/fwutil.cfg ";
    (void)expect_error(other + "-ascii other", "the status file belongs to the log in ");
    expect_good(other + "-stat second/status -ascii other");
    EXPECT_EQ(numbers("other"), from_to(1, logged));
    append(100);
    expect_good(again);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

// The log was restored from a copy that is older than the position.
TEST_F(PositionRemedy, ALogThatIsOlderThanThePositionIsGoneOnWithFromItsEnd)
{
    ASSERT_EQ(sh("cp -r log copy").status, 0);
    append(100);
    expect_good(again);
    ASSERT_EQ(sh("rm -r log && mv copy log").status, 0);
    logged -= 100;
    const std::string err = expect_error(again, "as start position (");
    const std::string start = position_in(err, "as start position (-start ");
    append(100); // comes again
    const size_t before = numbers("cap").size();
    expect_good(again + " -start " + start);
    std::vector<int> got = numbers("cap");
    EXPECT_EQ(std::vector<int>(got.begin() + static_cast<long>(before), got.end()),
              from_to(RECORDS + 1, logged))
        << "what the log has got since, and all of it";
    append(100);
    expect_good(again);
    EXPECT_EQ(numbers("cap").back(), logged);
}

TEST_F(PositionRemedy, AStartPositionThatTheLogDoesNotHaveIsOneThatItNames)
{
    const std::string err =
        expect_error("Kestro -synconly -start 1-9 -ascii cap", "the log does not have that file");
    expect_good("Kestro -synconly -ascii cap -start " + position_in(err, "(start position "));
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}

TEST_F(PositionRemedy, ALogOrAConfigurationThatIsNotThereIsNamed)
{
    ASSERT_EQ(sh("mv log elsewhere").status, 0);
    (void)expect_error("Kestro -synconly -ascii cap", "; create it, or correct log-directory in ");
    ASSERT_EQ(sh("echo 'log-directory elsewhere' >fwutil.cfg").status, 0);
    expect_good("Kestro -synconly -ascii cap");
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
    ASSERT_EQ(sh("mv fwutil.cfg other.cfg").status, 0);
    (void)expect_error(again, "cannot open the configuration file: ");
    expect_good(again + " -cfg other.cfg");
    expect_good("FWUTIL_CFG=other.cfg " + again);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}
