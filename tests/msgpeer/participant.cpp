// Starting participants and following what they answer.
#include "tests/msgpeer/participant.h"

#include <csignal>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int RESULT_SECONDS = 30; // a round of waiting lasts up to 60

static const std::string python = MSGPEER_PYTHON;
static const std::string python_program = KESTRO_SOURCE_DIR "/tests/msgpeer/message_file.py";
static const std::string compiled_modules = "pycache_prefix=" MSGPEER_PYCACHE;
static const std::string worker = MSGPEER_WORKER;
static const std::string worker32 = MSGPEER_WORKER_32;
static const std::string worker_s390x = MSGPEER_WORKER_S390X;
static const std::string emulator = MSGPEER_QEMU_S390X;

std::string missing_for(peer kind)
{
    switch (kind) {
    case peer::python:
    case peer::python_big:
        return python.empty() ? "no Python 3 (Debian package python3)" : "";
    case peer::library32:
        return worker32.empty() ? "no 32-bit compiler (g++-12-multilib)" : "";
    case peer::s390x:
        return worker_s390x.empty() ? "no s390x (g++-s390x-linux-gnu, qemu-user)" : "";
    case peer::library:
        break;
    }
    return "";
}

bool is_big_endian(peer kind)
{
    return kind == peer::s390x || kind == peer::python_big;
}

// Without site packages and with its modules compiled before: tests start
// it often.
static std::vector<std::string> python_command(const std::vector<std::string> &words)
{
    std::vector<std::string> argv = {python, "-S", "-E", "-X", compiled_modules, python_program};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
}

static std::vector<std::string> command_of(peer kind)
{
    switch (kind) {
    case peer::python:
        return python_command({"serve"});
    case peer::python_big:
        return python_command({"--byte-order", "big", "serve"});
    case peer::library32:
        return {worker32};
    case peer::s390x:
        return {emulator, worker_s390x};
    case peer::library:
        break;
    }
    return {worker};
}

run_result run_python_peer(const std::vector<std::string> &words)
{
    return run_program(python_command(words));
}

std::string disagreements(const std::string &path)
{
    if (python.empty())
        return "";
    const run_result result = run_python_peer({"check", path});
    return result.status == 0 ? "" : result.out + result.err;
}

participant::participant(peer kind)
{
    std::vector<std::string> argv = command_of(kind);
    std::vector<char *> words;
    words.reserve(argv.size() + 1);
    for (std::string &word : argv)
        words.push_back(word.data());
    words.push_back(nullptr);

    int input[2];
    answers_ = memfd_create("answers", MFD_CLOEXEC);
    if (answers_ < 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)
        throw std::runtime_error("no socket or memory file for a participant");
    steps_ = input[1];
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("no process for a participant");
    if (pid_ == 0) {
        if (dup2(input[0], 0) < 0 || dup2(answers_, 1) < 0)
            _exit(126);
        execv(words[0], words.data());
        _exit(127);
    }
    close(input[0]);
}

participant::~participant()
{
    kill();
    close(steps_);
    close(answers_);
}

void participant::kill()
{
    if (pid_ < 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void participant::start(const std::string &step)
{
    records_.clear();
    info_.clear();
    value_.clear();
    step_ = step;
    const std::string line = step + "\n";
    const ssize_t sent = send(steps_, line.data(), line.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("a participant does not take: " + step);
}

// Moves its next line into line_, when there is a whole one.
bool participant::take_line()
{
    line_.clear();
    off_t at = taken_;
    char part[4096];
    for (ssize_t n; (n = pread(answers_, part, sizeof part, at)) > 0; at += n) {
        line_.append(part, static_cast<size_t>(n));
        const size_t end = line_.find('\n', line_.size() - static_cast<size_t>(n));
        if (end != std::string::npos) {
            line_.resize(end);
            taken_ += static_cast<off_t>(end) + 1;
            return true;
        }
    }
    return false;
}

// Looks at what has come; true when the step has ended, or the process has.
bool participant::answered()
{
    const bool gone = pid_ < 0 || waitpid(pid_, nullptr, WNOHANG) == pid_;
    while (value_.empty() && take_line()) {
        const size_t space = line_.find(' ');
        const std::string word = line_.substr(0, space);
        if (word == "=")
            value_ = line_.substr(space + 1);
        else if (word == "record")
            records_.push_back(line_.substr(space + 1));
        else
            info_ = line_;
    }
    if (gone)
        pid_ = -1;
    return gone || !value_.empty();
}

int participant::result()
{
    (void)poll_until([this] { return answered(); }, RESULT_SECONDS); // value_ tells
    if (value_.empty())
        throw std::runtime_error((pid_ < 0 ? "ended at: " : "no result of: ") + step_);
    return std::stoi(value_);
}

int participant::interrupt()
{
    (void)poll_until(
        [this] {
            ::kill(pid_, SIGUSR1);
            return answered();
        },
        RESULT_SECONDS);
    return result();
}

int participant::run(const std::string &step)
{
    start(step);
    return result();
}
