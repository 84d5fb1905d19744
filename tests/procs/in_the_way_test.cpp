// Something else in the place of a file that a program reads or writes: a directory, a socket, a
// pipe, a symbolic link that leads nowhere or to itself, a path longer than the system takes.
// The program says what is wrong and ends, what was in the way stays, and once it is gone the
// run gets everything.
#include "tests/procs/small_run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

// What a program says when something is in the place of a file named X.  %: the system's text
// for the kind; a kind that has its own line below has another text.
struct place_row {
    const char *name; // of the file
    words command;
    const char *otherwise; // for a socket, a loop, a link to nowhere and a long path
    const char *directory;
    const char *pipe;    // null: the program waits for the other end, as for standard input
    const char *nowhere; // null: as otherwise; empty: the file is made where the link leads
};

#define FAILED "Fwu_process() failed.\n"
#define OPEN_CFG \
    "X: cannot open the configuration file: %; name it with the cfg argument or in FWUTIL_CFG\n"
#define READ_CFG "X: cannot read the configuration file: %\n"
#define OPEN_LOG "X: cannot open the log file: %\n"
#define READ_LOG "X: cannot read the log file: %\n"

// clang-format off
static const place_row PLACES[] = {
    {"cfg", {"Kestro", "-synconly", "-cfg", "cfg", "-stat", "s", "out"},
     "fwutil: " OPEN_CFG FAILED, "fwutil: " READ_CFG FAILED, nullptr, nullptr},
    {"cfg", {"fwlog", "info", "-cfg", "cfg"}, "fwlog: " OPEN_CFG, "fwlog: " READ_CFG, nullptr, nullptr},
    {"s", with(RUN, {"out"}),
     "fwutil: X: cannot open the status file: %\n" FAILED, "fwutil: X: cannot open the status file: %\n" FAILED,
     "fwutil: X: cannot read the status file: %\n" FAILED,
     "fwutil: none/there: cannot open the status file: %\n" FAILED},
    {"out", with(RUN, {"out"}),
     "CAPERR: Error opening file: %\nError opening message capture file: X\n" FAILED,
     "CAPERR: Error opening file: %\nError opening message capture file: X\n" FAILED,
     "CAPERR: Internal error: Bad handle.\nError opening message capture file: X\n" FAILED, nullptr},
    {"out", with(RUN, {"-ascii", "out"}),
     "CAPERR: %\nError opening ASCII capture file: X\n" FAILED,
     "CAPERR: %\nError opening ASCII capture file: X\n" FAILED, nullptr, nullptr},
    {"pid", with(RUN, {"-pidfile", "pid", "out"}),
     "Error opening pidfile X: %\n", "Error opening pidfile X: %\n", nullptr, nullptr},
    {"log/fw0001-00000001.log", {"fwlog", "tail", "-cfg", "fwutil.cfg"},
     "fwlog: " OPEN_LOG, "fwlog: " READ_LOG, "fwlog: " READ_LOG, nullptr},
    {"log/fw0001-00000001.log", {"fwlog", "repair", "-cfg", "fwutil.cfg"},
     "fwlog: " OPEN_LOG, "fwlog: " READ_LOG, "fwlog: " READ_LOG, nullptr},
    {"log/fw0001-00000001.log", {"fwlog", "load", "-cfg", "fwutil.cfg", "changes"},
     "fwlog: " READ_LOG, "fwlog: " READ_LOG, "fwlog: " READ_LOG, nullptr},
    {"log/writer.lock", {"fwlog", "repair", "-cfg", "fwutil.cfg"},
     "fwlog: X: cannot open the writer's lock file: %\n", "fwlog: X: cannot open the writer's lock file: %\n",
     "", "fwlog: X: cannot open the writer's lock file: Too many levels of symbolic links\n"}, // nothing is made elsewhere
    {"log/readers", {"fwlog", "prune", "-cfg", "fwutil.cfg", "--keep", "1"},
     "fwlog: X: cannot read the register of readers: %\nfwlog: what the registered readers still need is not known; nothing removed\n",
     "fwlog: X: cannot read the register of readers: %\nfwlog: what the registered readers still need is not known; nothing removed\n",
     "fwlog: X: damaged: it says which readers need the log; restore it from a copy, or remove it and register them again (fwlog readers --add)\n"
     "fwlog: what the registered readers still need is not known; nothing removed\n", ""},
    {"m", {"tmf", "info", "m"}, "tmf: X: %\n", "tmf: X: File is not a message file.\n",
     "tmf: X: File is not a message file.\n", nullptr},
    {"m", {"tmf", "repair", "m"}, "tmf: X: Error opening file: %\n", "tmf: X: Error opening file: %\n",
     "tmf: X: File is not a message file.\n", nullptr},
    {"m", {"tmf", "verify", "m"}, "tmf: X: %\n", "tmf: X: File is not a message file.\n",
     "tmf: X: File is not a message file.\n", nullptr},
    {"c", {"capread", "-cfg", "fwutil.cfg", "-ascii", "c"}, "capread: X: %\n", "capread: X: %\n", nullptr, nullptr},
    {"y", {"capread", "--layout", "y", "m"}, "capread: X: %\n", "capread: X: %\n", nullptr, nullptr},
};
// clang-format on

static std::string replaced(std::string text, const std::string &what, const std::string &by)
{
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

class InTheWay : public small_run, public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override
    {
        make_log();
        write_file(dir.file("changes"), "");
    }

    // Puts the kind at a path: the errno that says so.
    static int put(const std::string &kind, const std::string &path)
    {
        if (kind == "Directory")
            return fs::create_directory(path) ? EISDIR : -1;
        if (kind == "Pipe")
            return mkfifo(path.c_str(), 0600) == 0 ? ESPIPE : -1;
        if (kind == "LinkToNowhere")
            return symlink("none/there", path.c_str()) == 0 ? ENOENT : -1;
        if (kind == "LinkToItself")
            return symlink(fs::path(path).filename().c_str(), path.c_str()) == 0 ? ELOOP : -1;
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path)
            return -1;
        path.copy(address.sun_path, path.size());
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int result = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
        close(fd);
        return result == 0 ? ENXIO : -1;
    }

    static const char *text_of(const place_row &row, const std::string &kind)
    {
        if (kind == "Directory")
            return row.directory;
        if (kind == "Pipe")
            return row.pipe;
        if (kind == "LinkToNowhere" && row.nowhere != nullptr)
            return row.nowhere;
        return row.otherwise;
    }
};

TEST_P(InTheWay, IsToldStaysAndCostsNothing)
{
    const std::string kind = GetParam();
    for (const place_row &row : PLACES) {
        SCOPED_TRACE(testing::PrintToString(row.command));
        const char *text = text_of(row, kind);
        if (text == nullptr || *text == '\0')
            continue;
        const std::string path = dir.file(row.name);
        const std::string kept = dir.file("kept");
        const bool was_there = fs::exists(path);
        if (was_there)
            fs::rename(path, kept);
        const int os_errno = put(kind, path);
        ASSERT_GT(os_errno, 0);
        const fs::file_type type = fs::symlink_status(path).type();
        const run_result result = run(row.command);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, replaced(replaced(text, "X", row.name), "%", strerror(os_errno)));
        EXPECT_EQ(fs::symlink_status(path).type(), type);
        fs::remove_all(path);
        if (was_there)
            fs::rename(kept, path);
        fs::remove(dir.file("s"));
        fs::remove(dir.file("out"));
    }
    expect_all_captured();
}

INSTANTIATE_TEST_SUITE_P(All, InTheWay,
                         testing::Values("Directory", "Pipe", "Socket", "LinkToNowhere",
                                         "LinkToItself"),
                         [](const auto &kind) { return std::string(kind.param); });

class LongPath : public InTheWay {};

TEST_F(LongPath, IsToldAndCostsNothing)
{
    const std::string long_name(256, 'd'); // one more than a name may have
    std::string long_path = "d";
    while (long_path.size() < 4096) // more than a path may have
        long_path += "/d";
    for (const place_row &row : PLACES) {
        if (fs::path(row.name).has_parent_path() || row.name == std::string("m"))
            continue; // names that the programs make, and one more command of tmf
        for (const std::string &path : {long_name, long_path}) {
            words command = row.command;
            std::replace(command.begin() + 1, command.end(), std::string(row.name), path);
            SCOPED_TRACE(testing::PrintToString(row.command));
            const run_result result = run(command);
            EXPECT_EQ(result.status, 1);
            const std::string text =
                replaced(replaced(row.otherwise, "%", strerror(ENAMETOOLONG)), "X", path);
            // Kept: Kestro's own messages end at 1023 characters.
            EXPECT_TRUE(result.err.substr(0, 1000) == text.substr(0, 1000))
                << result.err.substr(0, 100) << "..." << result.err.size();
            fs::remove(dir.file("s"));
            fs::remove(dir.file("out"));
        }
    }
    expect_all_captured();
}

// A pipe may stand for the configuration: its words are waited for.
class ConfigurationInAPipe : public small_run, public testing::Test {
  protected:
    void SetUp() override
    {
        make_log();
        ASSERT_EQ(mkfifo(dir.file("cfg").c_str(), 0600), 0);
    }
    int open_to_write() const
    {
        return open(dir.file("cfg").c_str(), O_RDWR | O_CLOEXEC); // waits for no reader
    }
    // Started, and asleep for want of words.
    pid_t start_waiting() const
    {
        const pid_t run = start_program(
            {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-cfg", "cfg", "-stat", "s", "out"}, here,
            dir.file("told"), dir.file("err"));
        EXPECT_TRUE(poll_until([&] { return has_it_open(run) && sleeps(run); }));
        return run;
    }
    static bool sleeps(pid_t run)
    {
        return read_file("/proc/" + std::to_string(run) + "/status").find("State:\tS") !=
               std::string::npos;
    }
    bool has_it_open(pid_t run) const
    {
        std::error_code gone;
        for (const auto &entry :
             fs::directory_iterator("/proc/" + std::to_string(run) + "/fd", gone))
            if (fs::read_symlink(entry, gone) == dir.file("cfg"))
                return true;
        return false;
    }
};

TEST_F(ConfigurationInAPipe, IsWaitedForUntilASignalComes)
{
    for (const bool a_silent_writer : {false, true}) {
        SCOPED_TRACE(a_silent_writer);
        const int writer = a_silent_writer ? open_to_write() : -1;
        const pid_t run = start_waiting();
        kill(run, SIGTERM);
        EXPECT_EQ(wait_program(run), 0) << "a stop like any other";
        EXPECT_EQ(read_file(dir.file("err")), "");
        EXPECT_THAT(read_file(dir.file("told")),
                    testing::HasSubstr("0 Vostrel forward log file records processed.\n"));
        EXPECT_FALSE(fs::exists(dir.file("s")));
        if (writer >= 0)
            close(writer);
    }
    expect_all_captured();
}

TEST_F(ConfigurationInAPipe, MayComeInPieces)
{
    const std::string text = read_file(dir.file("fwutil.cfg"));
    const pid_t run = start_waiting();
    const int writer = open_to_write();
    ASSERT_GE(writer, 0);
    for (const std::string &piece : {text.substr(0, 5), text.substr(5)}) {
        ASSERT_EQ(write(writer, piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
        EXPECT_TRUE(poll_until([&] {
            int left = 1;
            return ioctl(writer, FIONREAD, &left) == 0 && left == 0 && sleeps(run);
        }));
    }
    close(writer);
    EXPECT_EQ(wait_program(run), 0) << read_file(dir.file("err"));
    EXPECT_THAT(
        read_file(dir.file("told")),
        testing::HasSubstr(std::to_string(RECORDS) + " records written to capture file out\n"));
}
