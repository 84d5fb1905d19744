// The built tmf on a message file of the test's own.
#ifndef TESTS_TOOLS_TMF_FIXTURE_H
#define TESTS_TOOLS_TMF_FIXTURE_H

#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/support/run.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
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
    static run_result tmf(const std::vector<std::string> &words, const std::string &input = "")
    {
        run_setup setup;
        setup.input = input;
        return run_program(command(words), setup);
    }
    // Starts it in the background, standard output and error into "out" and "err".
    pid_t start(const std::vector<std::string> &words) const
    {
        return start_program(command(words), {}, dir.file("out"), dir.file("err"));
    }
    // The same with its standard input or output at these descriptors (below 0:
    // /dev/null), and no file growing beyond limit.
    pid_t start_at(const std::vector<std::string> &words, int in, int out,
                   rlim_t limit = RLIM_INFINITY) const
    {
        std::vector<std::string> argv = command(words);
        std::vector<char *> pointers;
        for (std::string &word : argv)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        const pid_t pid = fork();
        if (pid != 0)
            return pid;
        const int null = ::open("/dev/null", O_RDWR);
        const int err = ::open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in < 0 ? null : in, 0);
        dup2(out < 0 ? null : out, 1);
        dup2(err, 2);
        const rlimit most = {.rlim_cur = limit, .rlim_max = RLIM_INFINITY};
        if (limit != RLIM_INFINITY)
            setrlimit(RLIMIT_FSIZE, &most);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    // Sends SIGTERM, once the program is ready for it, until it ends; its status.
    static int signalled_to_its_end(pid_t pid)
    {
        int status = -1;
        EXPECT_TRUE(poll_until([&] { return notes_sigterm(pid); }));
        EXPECT_TRUE(poll_until([&] {
            kill(pid, SIGTERM);
            return waitpid(pid, &status, WNOHANG) == pid;
        }));
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    // Whether a process has a handler for SIGTERM.
    static bool notes_sigterm(pid_t pid)
    {
        const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
        const size_t at = status.find("SigCgt:");
        return at != std::string::npos &&
               (std::stoull(status.substr(at + 7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
    }
    std::string output() const
    {
        return read_file(dir.file("out"));
    }
    std::string errors() const
    {
        return read_file(dir.file("err"));
    }

    // What is in the closed file, in order.
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
