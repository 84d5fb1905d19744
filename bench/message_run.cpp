// Signals are blocked in the process that began the run and taken while it waits
// for its children, so that none is lost and none comes at a bad moment.
#include "bench/message_run.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static std::string g_directory; // empty in children and outside a run
static std::vector<pid_t> g_children;
static sigset_t g_former_mask;

static void remove_quietly(const std::string &path)
{
    std::error_code ignored; // what is left behind is under the temporary directory
    fs::remove_all(path, ignored);
}

static void end_children()
{
    for (const pid_t pid : g_children)
        kill(pid, SIGKILL);
    for (const pid_t pid : g_children)
        waitpid(pid, nullptr, 0);
    g_children.clear();
}

void run_fail(const char *what)
{
    fprintf(stderr, "message_bench: %s\n", what);
    if (g_directory.empty())
        _exit(1);
    end_children();
    run_end();
    exit(1);
}

// Ends as the signal would have ended a program that does not care for it.
[[noreturn]] static void end_by_signal(int number)
{
    end_children();
    run_end();
    raise(number);
    exit(128 + number);
}

static sigset_t handled_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&set, number);
    return set;
}

void run_begin(const std::string &parent)
{
    const sigset_t set = handled_signals();
    sigprocmask(SIG_BLOCK, &set, &g_former_mask);
    std::string directory = parent + "/message_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        fprintf(stderr, "message_bench: cannot make a directory in %s: %s\n", parent.c_str(),
                strerror(errno));
        exit(1);
    }
    g_directory = directory;
}

std::string run_file(const std::string &name)
{
    return g_directory + "/" + name;
}

void run_clear()
{
    for (const auto &entry : fs::directory_iterator(g_directory))
        remove_quietly(entry.path());
}

void run_end()
{
    remove_quietly(g_directory);
    g_directory.clear();
    sigprocmask(SIG_SETMASK, &g_former_mask, nullptr);
}

void run_start(const std::function<void()> &body)
{
    fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0)
        run_fail("cannot start a process");
    if (pid > 0) {
        g_children.push_back(pid);
        return;
    }
    g_directory.clear();
    sigprocmask(SIG_SETMASK, &g_former_mask, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) // it ended before the line above
        _exit(1);
    body();
    _exit(0);
}

// Forgets the children that have ended; false when one has failed.
static bool reap()
{
    bool good = true;
    std::erase_if(g_children, [&](pid_t pid) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) != pid)
            return false;
        good = good && status == 0;
        return true;
    });
    return good;
}

void run_wait()
{
    const sigset_t set = handled_signals();
    while (!g_children.empty()) {
        const int number = sigwaitinfo(&set, nullptr);
        if (number > 0 && number != SIGCHLD)
            end_by_signal(number);
        if (!reap())
            run_fail("a measuring process failed");
    }
}

void *run_shared(size_t size)
{
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        run_fail("out of memory");
    return memory;
}
