// The built tmf on a message file of the test's own.
#ifndef TESTS_TOOLS_TMF_TMF_FIXTURE_H
#define TESTS_TOOLS_TMF_TMF_FIXTURE_H

#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/support/run.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

// Reverses all numbers of the common area that have the byte order of a host.
inline void turn_around(std::string &file)
{
    for (const long at : {8, 12, 16, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60})
        std::reverse(file.begin() + at, file.begin() + at + 4);
    for (const long at : {0, 2, 64, 66, 68, 70, 72, 74, 76, 78})
        std::reverse(file.begin() + at, file.begin() + at + 2);
}

// Both ends of a pipe, closed with it; programs started later do not have them.
struct pipe_ends {
    pipe_ends()
    {
        if (pipe2(fd, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
    }
    ~pipe_ends()
    {
        close_end(0);
        close_end(1);
    }
    pipe_ends(const pipe_ends &) = delete;
    pipe_ends &operator=(const pipe_ends &) = delete;
    void close_end(int end)
    {
        if (fd[end] >= 0)
            ::close(fd[end]);
        fd[end] = -1;
    }
    // Everything up to the end, or so many bytes.
    std::string read_all(size_t most = SIZE_MAX)
    {
        std::string got;
        char piece[4096];
        while (got.size() < most) {
            const ssize_t n = ::read(fd[0], piece, std::min(sizeof piece, most - got.size()));
            if (n <= 0)
                break;
            got.append(piece, static_cast<size_t>(n));
        }
        return got;
    }
    int bytes_inside() const
    {
        int n = 0;
        return ioctl(fd[0], FIONREAD, &n) == 0 ? n : -1;
    }
    int fd[2];
};

class TmfTool : public MessageFile {
  protected:
    static std::vector<std::string> command(const std::vector<std::string> &words)
    {
        std::vector<std::string> argv = {KESTRO_BUILD_DIR "/bin/tmf"};
        argv.insert(argv.end(), words.begin(), words.end());
        return argv;
    }
    // Runs it to its end.
    run_result tmf(const std::vector<std::string> &words, const std::string &input = "") const
    {
        write_file(dir.file("run-in"), input);
        const int in = ::open(dir.file("run-in").c_str(), O_RDONLY | O_CLOEXEC);
        const int out = create("run-out");
        run_result result;
        result.status = finish(start_at(words, in, out, "run-err"));
        ::close(in);
        ::close(out);
        result.out = read_file(dir.file("run-out"));
        result.err = read_file(dir.file("run-err"));
        return result;
    }
    // Starts it in the background, standard output and error into "out" and "err".
    pid_t start(const std::vector<std::string> &words, const std::string &out_name = "out") const
    {
        const int out = create(out_name);
        const pid_t pid = start_at(words, -1, out);
        ::close(out);
        return pid;
    }
    // The same with its standard input and output at these descriptors (below 0:
    // /dev/null), and no file growing beyond limit.
    pid_t start_at(const std::vector<std::string> &words, int in, int out,
                   const std::string &err_name = "err", rlim_t limit = RLIM_INFINITY) const
    {
        std::vector<std::string> argv = {KESTRO_BUILD_DIR "/bin/tmf"};
        argv.insert(argv.end(), words.begin(), words.end());
        std::vector<char *> pointers;
        for (std::string &word : argv)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        const int err = create(err_name);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(in < 0 ? null : in, 0);
            dup2(out < 0 ? null : out, 1);
            dup2(err, 2);
            const rlimit most = {.rlim_cur = limit, .rlim_max = RLIM_INFINITY};
            if (limit != RLIM_INFINITY)
                setrlimit(RLIMIT_FSIZE, &most);
            execv(pointers[0], pointers.data());
            _exit(127);
        }
        ::close(null);
        ::close(err);
        return pid;
    }
    // Waits for a program and gives its exit status, or 128 + signal number; kills
    // one that does not end.
    static int finish(pid_t pid)
    {
        int status = 0;
        const auto gone = [&] { return waitpid(pid, &status, WNOHANG) == pid; };
        if (!poll_until(gone)) {
            ADD_FAILURE() << "the program does not end";
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    int create(const std::string &name) const
    {
        return ::open(dir.file(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }
    // Sends SIGTERM, once the program is ready for it, until it ends; its status.
    static int signalled_to_its_end(pid_t pid)
    {
        EXPECT_TRUE(poll_until([&] { return signals_of(pid, "SigCgt:"); }));
        siginfo_t gone = {};
        EXPECT_TRUE(poll_until([&] {
            kill(pid, SIGTERM);
            return waitid(P_PID, static_cast<id_t>(pid), &gone, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   gone.si_pid == pid;
        }));
        return finish(pid);
    }
    // Sends SIGTERM to a program that sleeps in a system call, and waits until it
    // has noted it and sleeps again.
    static void signal_asleep(pid_t pid)
    {
        ASSERT_TRUE(poll_until([&] { return is_asleep(pid); }));
        kill(pid, SIGTERM);
        ASSERT_TRUE(poll_until([&] { return !signals_of(pid, "ShdPnd:") && is_asleep(pid); }));
    }
    // Whether SIGTERM is among these signals of a process: those with a handler
    // ("SigCgt:"), those not delivered yet ("ShdPnd:").
    static bool signals_of(pid_t pid, const std::string &set)
    {
        const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
        const size_t at = status.find(set);
        return at != std::string::npos &&
               (std::stoull(status.substr(at + set.size()), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
    }
    std::string output() const
    {
        return read_file(dir.file("out"));
    }
    std::string errors() const
    {
        return read_file(dir.file("err"));
    }

    // What is in the file, in order.
    std::vector<std::string> records() const
    {
        return split(tmf({"read", "--keep", path}).out);
    }
    static std::vector<std::string> split(const std::string &text)
    {
        std::istringstream lines(text);
        std::vector<std::string> all;
        for (std::string line; std::getline(lines, line);)
            all.push_back(line);
        return all;
    }
    int32_t record_count() const
    {
        return stored<int32_t>(16);
    }
    bool reader_waits() const
    {
        return (bytes()[124] & 1) != 0;
    }
    // Expects no registration; a wait that was broken off stays in the wait list.
    void expect_no_user() const
    {
        const std::string file = bytes();
        EXPECT_EQ(number_at<int16_t>(file, 68), 0);
        EXPECT_EQ(number_at<int16_t>(file, 70), 0);
        EXPECT_EQ(number_at<uint16_t>(file, 72) & 6, 0);
        EXPECT_EQ(file.substr(126, 128), std::string(128, '\0'));
        EXPECT_EQ(file.substr(256, 4096), std::string(4096, '\0'));
    }
    std::string complaint(const std::string &text) const
    {
        return "tmf: " + path + ": " + text + "\n";
    }
};

// A writer in another process: open at once; write() and close() are its steps.
class other_writer : public other_process {
  public:
    other_writer(const std::string &path, const std::vector<std::string> &records)
        : other_process(steps(path, records))
    {
        if (run() != 0)
            throw std::runtime_error("another process cannot open");
    }
    int write()
    {
        return run();
    }
    int close()
    {
        return run();
    }

  private:
    static std::vector<std::function<int()>> steps(const std::string &path,
                                                   const std::vector<std::string> &records)
    {
        const auto h = std::make_shared<tmf_handle *>(nullptr);
        std::vector<std::function<int()>> all = {[=] {
            *h = tmf_fopen(path.c_str(), 0);
            return *h != nullptr ? 0 : tmf_geterrno(nullptr);
        }};
        for (const std::string &record : records)
            all.emplace_back(
                [=] { return tmf_fwrite(*h, record.data(), static_cast<int>(record.size())); });
        all.emplace_back([=] { return tmf_fclose(*h); });
        return all;
    }
};

#endif
