// The asking side: another process has the log, and answers as it likes.
#include "feed/postgresql/answer.h"
#include "feed/postgresql/resume.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"
#include "util/stop_signal.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Resume : public testing::Test {
  protected:
    Resume()
    {
        write_file(dir.file("writer.lock"), "");
    }
    ~Resume() override
    {
        end_holder();
    }

    // A process has the log, and does this in it.
    void hold(const std::function<void()> &does = [] {})
    {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        holder = fork();
        if (holder == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            const int fd = open(dir.file("writer.lock").c_str(), O_RDWR);
            if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0 || write(ready[1], "x", 1) != 1)
                _exit(1);
            does();
            for (;;)
                pause();
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }

    void end_holder()
    {
        if (holder > 0) {
            kill(holder, SIGKILL);
            waitpid(holder, nullptr, 0);
        }
        holder = -1;
    }

    std::vector<std::string> files(const std::string &suffix) const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(dir.path()))
            if (const std::string name = entry.path().filename();
                name.starts_with("resume-") && name.ends_with(suffix))
                names.push_back(entry.path());
        return names;
    }

    // The holder's side: waits for the request; its path without what tells both files apart.
    std::string request() const
    {
        poll_until([this] { return !files(".request").empty(); });
        const std::string path = files(".request").at(0);
        return path.substr(0, path.size() - sizeof ".request" + 1);
    }

    static void answer(const std::string &path, bool done, std::vector<pgr_table> tables)
    {
        write_file(path + ".new", pgr_answer_text({.done = done, .tables = std::move(tables)}));
        std::filesystem::rename(path + ".new", path + ".answer");
    }

    void write_state(const std::string &state, const std::string &error = "") const
    {
        write_file(dir.file("postgresql.json"),
                   "{\"state\":\"" + state + "\",\"error\":\"" + error + "\",\"pid\":" +
                       std::to_string(holder) + ",\"updated\":\"2026-03-09 08:18:01.000000\"}\n");
    }

    outcome_kind resume(const std::vector<const char *> &tables)
    {
        tell_as("fwlog");
        testing::internal::CaptureStderr();
        const outcome done = pgr_resume(dir.path(), dir.file("postgresql.json"), tables, patience);
        told = testing::internal::GetCapturedStderr();
        EXPECT_THAT(files(""), IsEmpty()) << "nothing stays";
        return done.kind();
    }

    // What is told when the time is up, of a holder that does its part before: with more time
    // where the machine was too slow for that.
    void expect_told(const std::function<void()> &does, const std::vector<const char *> &tables,
                     const std::string &text)
    {
        told.clear();
        for (patience.answer_ms = 300; patience.answer_ms < 100'000 && told != text;
             patience.answer_ms *= 4) {
            end_holder();
            hold(does);
            EXPECT_EQ(resume(tables), OUTCOME_FAILED);
        }
        EXPECT_EQ(told, text);
    }

    const tempdir dir;
    pid_t holder = -1;
    pgr_patience patience;
    std::string told;
};

TEST_F(Resume, TheRequestHasALineForEachTable)
{
    hold([this] {
        const std::string path = request();
        answer(path, true,
               {{.name = read_file(path + ".request"), .state = PGR_REFUSED, .reason = "read"}});
    });
    EXPECT_EQ(resume({"sales.orders", "all"}), OUTCOME_FAILED);
    EXPECT_EQ(told, "fwlog: table sales.orders\\x0aall\\x0a is not taken in: read\n");
}

TEST_F(Resume, EndsWhenAllTablesAreFollowed)
{
    hold([this] {
        const std::string path = request();
        answer(path, false, {{.name = "sales.orders", .state = PGR_TAKING, .rows = 10}});
        usleep(300'000);
        answer(path, true, {{.name = "sales.orders", .state = PGR_FOLLOWED, .rows = 12}});
    });
    EXPECT_EQ(resume({"sales.orders"}), OUTCOME_OK);
    EXPECT_EQ(told, "fwlog: table sales.orders is followed; rows taken in: 12\n");
}

TEST_F(Resume, EachTablesEndIsToldOnce)
{
    hold([this] {
        const std::string path = request();
        std::vector<pgr_table> tables = {{.name = "a.a", .state = PGR_FOLLOWED, .rows = 1},
                                         {.name = "a.b", .state = PGR_ASKED},
                                         {.name = "a.c", .state = PGR_REFUSED, .reason = "no"}};
        answer(path, false, tables);
        usleep(300'000);
        tables[1] = {.name = "a.b", .state = PGR_FOLLOWED, .rows = 2};
        answer(path, true, tables);
    });
    EXPECT_EQ(resume({"a.a", "a.b", "a.c"}), OUTCOME_FAILED);
    EXPECT_EQ(told, "fwlog: table a.a is followed; rows taken in: 1\n"
                    "fwlog: table a.c is not taken in: no\n"
                    "fwlog: table a.b is followed; rows taken in: 2\n");
}

TEST_F(Resume, NothingSetAsideIsNoFailure)
{
    hold([this] { answer(request(), true, {}); });
    EXPECT_EQ(resume({"all"}), OUTCOME_OK);
    EXPECT_EQ(told, "fwlog: no table is set aside\n");
}

TEST_F(Resume, AProcessThatIsNoBridgeIsTold)
{
    patience.answer_ms = 300;
    hold();
    EXPECT_EQ(resume({"a.a"}), OUTCOME_FAILED);
    EXPECT_EQ(told, "fwlog: process " + std::to_string(holder) + " has the log in " + dir.path() +
                        " and does not answer: it is no fwlog postgresql; stop it, and give "
                        "--resume again\n");
}

TEST_F(Resume, ABridgeThatDoesNotAnswerIsToldWithItsState)
{
    patience.answer_ms = 300;
    hold();
    write_state("streaming");
    EXPECT_EQ(resume({"a.a"}), OUTCOME_FAILED);
    EXPECT_EQ(told, "fwlog: process " + std::to_string(holder) + " has the log in " + dir.path() +
                        " and does not answer: it is frozen, or of an older version (its state of "
                        "2026-03-09 08:18:01.000000: streaming); look at it, or stop it and give "
                        "--resume again\n");
}

TEST_F(Resume, ABridgeThatIsConnectingHasMoreTime)
{
    patience.answer_ms = 100;
    patience.server_ms = 60'000;
    hold([this] {
        const std::string path = request();
        usleep(500'000);
        answer(path, true, {{.name = "a.a", .state = PGR_FOLLOWED, .rows = 0}});
    });
    write_state("waiting", "the server is gone");
    EXPECT_EQ(resume({"a.a"}), OUTCOME_OK);
    EXPECT_EQ(told, "fwlog: table a.a is followed; rows taken in: 0\n");
}

TEST_F(Resume, ButNotForEver)
{
    patience.server_ms = 300;
    hold();
    write_state("waiting", "the server is gone");
    EXPECT_EQ(resume({"a.a"}), OUTCOME_FAILED);
    EXPECT_EQ(told, "fwlog: process " + std::to_string(holder) +
                        " waits for the server and does not answer: the server is gone; give "
                        "--resume again when the server is back\n");
}

TEST_F(Resume, AProcessThatEndsBeforeItAnswersIsTold)
{
    expect_told(
        [this] {
            request();
            _exit(0);
        },
        {"a.a"},
        "fwlog: nobody has the log in " + dir.path() +
            " any more: give --resume again, which then follows the server itself\n");
}

TEST_F(Resume, ABridgeThatEndsOnTheWayIsTold)
{
    expect_told(
        [this] {
            answer(request(), false,
                   {{.name = "a.a", .state = PGR_TAKING, .rows = 10, .estimate = 50},
                    {.name = "a.b", .state = PGR_ASKED}});
            usleep(300'000);
            _exit(0);
        },
        {"a.a", "a.b"},
        "fwlog: the process that had the log in " + dir.path() +
            " has ended, and no other one has taken its place: start fwlog postgresql, "
            "which goes on with what was begun, and give --resume again for what was "
            "not (0 of 2 tables; a.a: 10 of about 50 rows)\n");
}

TEST_F(Resume, AnotherBridgeMayTakeItsPlace)
{
    hold([this] {
        answer(request(), false, {{.name = "a.a", .state = PGR_TAKING, .rows = 10}});
        usleep(300'000);
        _exit(0);
    });
    const pid_t first = holder;
    const pid_t starter = fork();
    if (starter == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        poll_until([this] { return !pgr_find_holder(dir.path()).held; });
        hold([this] {
            answer(request(), true, {{.name = "a.a", .state = PGR_FOLLOWED, .rows = 20}});
        });
        for (;;)
            pause();
    }
    EXPECT_EQ(resume({"a.a"}), OUTCOME_OK);
    EXPECT_EQ(told, "fwlog: table a.a is followed; rows taken in: 20\n");
    kill(starter, SIGKILL);
    waitpid(starter, nullptr, 0);
    waitpid(first, nullptr, 0);
    holder = -1;
}

TEST_F(Resume, WhatIsWaitedForIsToldNowAndThen)
{
    patience.news_ms = 300;
    hold([this] {
        const std::string path = request();
        answer(path, false,
               {{.name = "a.a", .state = PGR_ASKED, .reason = "the server is not there"}});
        usleep(800'000);
        answer(path, true, {{.name = "a.a", .state = PGR_FOLLOWED, .rows = 1}});
    });
    EXPECT_EQ(resume({"a.a"}), OUTCOME_OK);
    EXPECT_THAT(told, HasSubstr("fwlog: process " + std::to_string(holder) +
                                " has no news: a.a: the server is not there\n"));
}

TEST_F(Resume, AnAnswerThatIsNoneIsWaitedOutOf)
{
    hold([this] {
        const std::string path = request();
        write_file(path + ".answer", "{\"done\":true");
        usleep(300'000);
        answer(path, true, {{.name = "a.a", .state = PGR_FOLLOWED, .rows = 1}});
    });
    EXPECT_EQ(resume({"a.a"}), OUTCOME_OK);
}

TEST_F(Resume, WhereNoRequestCanBeLeftThatIsTold)
{
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    const std::string nowhere = dir.file("nowhere");
    EXPECT_EQ(pgr_resume(nowhere, nowhere + "/postgresql.json", {"a.a"}).kind(), OUTCOME_FAILED);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("fwlog: .*/nowhere/resume-.*: cannot leave a request there: "
                                      "No such file or directory\n"));
}

TEST_F(Resume, TheHolderOfALogIsFound)
{
    EXPECT_FALSE(pgr_find_holder(dir.file("nowhere")).known);
    EXPECT_FALSE(pgr_find_holder(dir.path()).held);
    EXPECT_TRUE(pgr_find_holder(dir.path()).known);
    hold();
    EXPECT_TRUE(pgr_find_holder(dir.path()).held);
    EXPECT_EQ(pgr_find_holder(dir.path()).pid, holder);
}

// The last one: from here on a signal has come.
TEST_F(Resume, ZASignalLeavesTheBridgeAtIt)
{
    stop_signal_install();
    const pid_t self = getpid();
    hold([this, self] {
        answer(request(), false, {{.name = "a.a", .state = PGR_TAKING, .rows = 10}});
        usleep(300'000);
        kill(self, SIGTERM);
    });
    EXPECT_EQ(resume({"a.a"}), OUTCOME_STOPPED);
    EXPECT_EQ(told, "fwlog: process " + std::to_string(holder) +
                        " goes on with what it has begun (a.a: 10 rows); its state file tells how "
                        "far it is\n");
    stop_signal_note(0);
}
