// What a case that does not end tells: the processes below it, where they wait, and nothing before
// its time.
#include "tests/postgresql/stuck_report.h"

#include "tests/support/run.h"

#include <csignal>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;

TEST(StuckReportTest, ShowsWhoWaitsForWhat)
{
    const pid_t shell = start_program({"sh", "-c", "sleep 600 & wait"}, {}, "", "");
    const bool seen =
        poll_until([] { return processes_report().find(": sleep 600 \n") != std::string::npos; });
    kill(shell, SIGSTOP);
    const bool stopped = poll_until([&] {
        return processes_report().find(std::to_string(shell) + " T call ") != std::string::npos;
    });
    const std::string report = processes_report();
    const size_t sleeper = report.find(": sleep 600 \n");
    kill(atoi(report.c_str() + report.rfind('\n', sleeper) + 1), SIGKILL);
    kill(shell, SIGKILL);
    wait_program(shell);
    EXPECT_TRUE(seen && stopped) << report;
    EXPECT_THAT(report, HasSubstr(std::to_string(getpid()) + " "));
}

TEST(StuckReportTest, IsPrintedOnlyWhenTheTimeHasPassed)
{
    testing::internal::CaptureStderr();
    {
        stuck_report soon(600);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    {
        stuck_report late(0);
        struct stat out = {}; // standard error is a file now
        EXPECT_TRUE(poll_until([&] { return fstat(STDERR_FILENO, &out) == 0 && out.st_size > 0; }));
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(std::to_string(getpid()) + " "));
}
