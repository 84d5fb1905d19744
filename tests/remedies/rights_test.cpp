// Rights that somebody has to give: they are taken away, the programs say which, what the page says
// is done, and the run goes on. Root obeys rights as others do without two of its capabilities.
#include "tests/remedies/remedy_fixture.h"

#include <unistd.h>

using testing::HasSubstr;

class RightsRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        if (geteuid() == 0)
            without = "setpriv --bounding-set=-dac_override,-dac_read_search ";
        if (sh("touch none && chmod 0 none && " + without + "true && ! " + without +
               "cat none 2>said")
                .status != 0)
            GTEST_SKIP() << "this process obeys no rights";
        append(RECORDS);
    }

    // The command fails for want of rights, is the page's, and goes well with them.
    void carry_out(const char *page, const char *message, const char *word,
                   const std::string &command, const std::string &take, const std::string &give,
                   const std::string &said)
    {
        SCOPED_TRACE(command);
        EXPECT_THAT(md_remedy(page, message), HasSubstr(word));
        ASSERT_EQ(sh(take).status, 0);
        const std::string before = sh("cat log/*").out;
        const run_result failed = sh(without + command);
        EXPECT_EQ(failed.status, 1);
        EXPECT_THAT(failed.err, HasSubstr(said));
        EXPECT_THAT(failed.err, HasSubstr("Permission denied"));
        ASSERT_EQ(sh(give).status, 0);
        EXPECT_EQ(sh("cat log/*").out, before) << "nothing was changed";
        const run_result again = sh(without + command);
        EXPECT_EQ(again.status, 0) << again.err;
    }
    void expect_whole_log(int first)
    {
        append(100);
        expect_good(without + "Kestro -synconly -stat new.status -ascii all");
        EXPECT_EQ(numbers("all"), from_to(first, logged));
    }

    std::string without;
    static constexpr char CLOSE[] = "chmod 555 log";
    static constexpr char OPEN[] = "chmod 755 log";
};

TEST_F(RightsRemedy, OfTheRegisterOfReaders)
{
    static const char PAGE[] = "docs/fwlog.md";
    const std::string add = "fwlog readers --add fwutil.status";
    carry_out(PAGE, "DIR/readers.lock: cannot open the lock file", "rights on the log directory",
              add, CLOSE, OPEN,
              "readers.lock: cannot open the lock file of the register of readers");
    carry_out(PAGE, "DIR/readers: cannot write the register", "rights in the log directory",
              "fwlog readers --add other.status", CLOSE, OPEN,
              "readers: cannot write the register of readers");
    EXPECT_THAT(sh("fwlog readers").out,
                testing::AllOf(HasSubstr("/fwutil.status"), HasSubstr("/other.status")));
    expect_whole_log(1);
}

TEST_F(RightsRemedy, OfTheDirectoryOfALogThatIsRepaired)
{
    static const char PAGE[] = "docs/fwlog.md";
    const std::string damage = "printf '?' | dd of=log/fw0001-00000001.log bs=1 seek=80500 "
                               "conv=notrunc && rm log/acknowledged";
    ASSERT_EQ(sh(damage).status, 0);
    carry_out(PAGE, "DIR/NAME: cannot keep what is cut off", "then repair again", "fwlog repair",
              CLOSE, OPEN, "cannot keep what is cut off; nothing was changed");
    logged -= 100; // the last transaction
    append(100);
    expect_whole_log(1);
}

TEST_F(RightsRemedy, OfTheDirectoryOfALogWhoseOldFilesGo)
{
    static const char PAGE[] = "docs/fwlog.md";
    write_config(dir, "8K");
    append(500);
    ASSERT_EQ(sh("fwlog readers --add old && fwlog readers --remove old").status, 0);
    const std::string first = "log/fw0001-00000001.log";
    carry_out(PAGE, "FILE: cannot remove the log file", "rights on the directory",
              "fwlog prune --keep 1", CLOSE, OPEN,
              "fw0001-00000001.log: cannot remove the log file");
    EXPECT_EQ(sh("ls log/*.log | wc -l").out, "1\n");
    EXPECT_EQ(sh("fwlog verify").status, 0);
}

TEST_F(RightsRemedy, OfAStatusFileThatMayNotBeRead)
{
    EXPECT_THAT(md_remedy("docs/messages.md", "KESTRO_STATUS: ... cannot be read"),
                HasSubstr("as it says"));
    const std::string run =
        "KESTRO_STATUS=run.json KESTRO_TEXT=append " + without + "Kestro -synconly -ascii cap";
    expect_good(run);
    append(100);
    ASSERT_EQ(sh("chmod 0 run.json").status, 0);
    expect_error(run, "run.json cannot be read: Permission denied");
    EXPECT_EQ(numbers("cap"), from_to(1, RECORDS));
    ASSERT_EQ(sh("chmod 644 run.json").status, 0);
    expect_good(run);
    EXPECT_EQ(numbers("cap"), from_to(1, logged));
}
