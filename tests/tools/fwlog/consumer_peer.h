// A consumer of changes at the other end of fwlog's standard input and output.
#ifndef TESTS_TOOLS_FWLOG_CONSUMER_PEER_H
#define TESTS_TOOLS_FWLOG_CONSUMER_PEER_H

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// The text behind "name": in a line of JSON, up to the comma or brace behind it.
inline std::string json_field(const std::string &line, const std::string &name)
{
    const size_t at = line.find("\"" + name + "\":");
    if (at == line.npos)
        return "";
    const size_t begin = at + name.size() + 3;
    std::string text = line.substr(begin, line.find_first_of(",}", begin) - begin);
    if (text.size() > 1 && text.front() == '"')
        text = text.substr(1, text.size() - 2);
    return text;
}

class peer {
  public:
    peer(const std::vector<std::string> &argv, const std::string &error_file)
    {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        std::vector<char *> words;
        words.reserve(argv.size() + 1);
        for (const std::string &word : argv)
            words.push_back(const_cast<char *>(word.c_str()));
        words.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            const int error = open(error_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (dup2(in[0], 0) < 0 || dup2(out[1], 1) < 0 || dup2(error, 2) < 0)
                _exit(126);
            execvp(words[0], words.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to = in[1];
        from = out[0];
    }
    ~peer()
    {
        end_input();
        end_output();
        if (pid > 0) {
            (void)kill(pid, SIGKILL);
            (void)waitpid(pid, nullptr, 0);
        }
    }
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;

    // The next line; empty: there is none, or none comes within so many milliseconds.
    std::string line(int milliseconds = 30000)
    {
        size_t end = 0;
        while ((end = held.find('\n')) == held.npos) {
            pollfd row = {.fd = from, .events = POLLIN, .revents = 0};
            char bytes[4096];
            const ssize_t n =
                poll(&row, 1, milliseconds) == 1 ? read(from, bytes, sizeof bytes) : 0;
            if (n <= 0)
                return "";
            held.append(bytes, static_cast<size_t>(n));
        }
        std::string found = held.substr(0, end);
        held.erase(0, end + 1);
        return found;
    }
    // The next line that is a change.
    std::string change(int milliseconds = 30000)
    {
        std::string found;
        do
            found = line(milliseconds);
        while (!found.empty() && found.find("\"op\":") == found.npos);
        return found;
    }
    // False: nobody takes it.
    bool say(const std::string &text) const
    {
        for (size_t at = 0; at < text.size();) {
            const ssize_t n = write(to, text.data() + at, text.size() - at);
            if (n <= 0)
                return false;
            at += static_cast<size_t>(n);
        }
        return true;
    }
    void end_input()
    {
        if (to >= 0)
            close(to);
        to = -1;
    }
    void end_output()
    {
        if (from >= 0)
            close(from);
        from = -1;
    }
    void signal(int number) const
    {
        (void)kill(pid, number);
    }
    int wait()
    {
        const int status = wait_program(pid);
        pid = -1;
        return status;
    }

  private:
    pid_t pid = -1;
    int to = -1;
    int from = -1;
    std::string held;
};

#endif
