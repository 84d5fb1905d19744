// The status file of a run, with each system call failing in turn: who reads it finds the old one
// or the new one whole, a failure is told, and nobody else's file is taken for one.
#include "tests/support/failing_calls.h"

#include "driver/run_state.h"
#include "tests/support/captured.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

using testing::HasSubstr;

class FailingStatusFile : public testing::Test {
  protected:
    ~FailingStatusFile() override
    {
        run_state_file_release();
        (void)run_state_file_open("", {});
    }

    static run_state state_named(const char *name)
    {
        run_state state = {};
        state.state = name;
        state.boot = "boot pid:[1] 77";
        return state;
    }
    int open_file()
    {
        int rc = 0;
        err = capture([&] { rc = run_state_file_open(path, {}); }).err;
        return rc;
    }
    void put(const char *name)
    {
        err = capture([&] { run_state_file_put(state_named(name)); }).err;
    }

    const tempdir dir;
    const std::string path = dir.file("state.json");
    const std::string failed =
        "KESTRO_STATUS: " + path + " cannot be written: Input/output error; the run goes on\n";
    std::string err;
};

TEST_F(FailingStatusFile, IsTheOldOneOrTheNewOne)
{
    const std::string before = run_state_json(state_named("starting"));
    const std::string after = run_state_json(state_named("running"));
    int left = 0;
    const auto prepare = [&] {
        std::filesystem::remove(path);
        ASSERT_EQ(0, open_file());
        put("starting");
        ASSERT_EQ(before, read_file(path));
        write_file(path + ".new", "left by a run that was killed");
    };
    const auto operation = [&] {
        errno = ENOLCK; // of what is being told
        put("running");
        left = errno;
    };
    int told = 0;
    const int blows = strike_each(prepare, operation, [&](const blow_told &blow) {
        EXPECT_EQ(ENOLCK, left);
        const std::string found = read_file(path);
        if (found == before) {
            EXPECT_TRUE(blow.fatal());
            EXPECT_EQ(failed, err);
            told++;
        } else {
            EXPECT_EQ(after, found);
            EXPECT_EQ("", err);
        }
        if (blow.call != "unlink") {
            EXPECT_FALSE(std::filesystem::exists(path + ".new"));
        }
        put("running");
        EXPECT_EQ(after, read_file(path));
        EXPECT_EQ("", err);
    });
    EXPECT_GE(told, 4); // what is removed, made, written and named
    EXPECT_GE(blows, 7);
}

TEST_F(FailingStatusFile, AFailureIsToldOnce)
{
    ASSERT_EQ(0, open_file());
    std::filesystem::create_directory(path + ".new");
    put("starting");
    EXPECT_THAT(err, HasSubstr("cannot be written: Is a directory; the run goes on\n"));
    put("running");
    EXPECT_EQ("", err);
    std::filesystem::remove(path + ".new");
    put("stopped");
    EXPECT_EQ(run_state_json(state_named("stopped")), read_file(path));
}

TEST_F(FailingStatusFile, ItIsTakenOrRefused)
{
    const std::string text = run_state_json(state_named("stopped"));
    int rc = 0;
    const auto prepare = [&] {
        run_state_file_release();
        write_file(path, text);
        write_file(path + ".new", text.substr(0, 20));
    };
    strike_each(
        prepare, [&] { rc = open_file(); },
        [&](const blow_told &blow) {
            if (blow.call.empty() || blow.kind == BLOW_HALF) {
                EXPECT_EQ(0, rc);
            }
            if (rc != 0) {
                EXPECT_THAT(err, HasSubstr("cannot be read: "));
            }
            EXPECT_EQ(text, read_file(path));
            EXPECT_EQ(0, open_file()) << err;
        });
}

// Two runs that write one file would both be shown by it, by turns.
TEST_F(FailingStatusFile, AnotherRunsFileIsRefusedWhateverFails)
{
    const std::string text = run_state_json(state_named("running"));
    write_file(path, text);
    const int other = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
    int rc = 0;
    const int blows = strike_each(
        run_state_file_release, [&] { rc = open_file(); },
        [&](const blow_told &blow) {
            EXPECT_NE(0, rc);
            const bool asked = err.ends_with(" has not ended: name another file\n");
            EXPECT_TRUE(asked ||
                        (blow.fatal() && err.ends_with(" cannot be read: Input/output error\n")))
                << err;
            EXPECT_EQ(text, read_file(path));
        },
        {BLOW_ERROR, BLOW_HALF});
    EXPECT_GE(blows, 5);
    EXPECT_EQ(0, ::close(other));
    EXPECT_EQ(0, open_file()) << err;
}

TEST_F(FailingStatusFile, SomebodyElsesFileIsRefusedWhateverFails)
{
    for (const char *end : {"", ".new"}) {
        int rc = 0;
        const auto prepare = [&] {
            run_state_file_release();
            std::filesystem::remove(path);
            write_file(path + end, "letters, no status\n");
        };
        const int blows = strike_each(
            prepare, [&] { rc = open_file(); },
            [&](const blow_told &) {
                EXPECT_NE(0, rc);
                EXPECT_THAT(err, testing::AnyOf(HasSubstr("cannot be read: "),
                                                HasSubstr("is no status file of a run")));
                EXPECT_EQ("letters, no status\n", read_file(path + end));
            });
        EXPECT_GE(blows, 4);
    }
}
