// Who waits for what: read from /proc, as far as the kernel lets it be seen.
#include "tests/postgresql/stuck_report.h"

#include "tests/support/tempdir.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <unistd.h>
#include <vector>

// Of "PID (NAME) STATE PARENT ...": the text behind the name.
static std::string behind_name(const std::string &stat)
{
    const size_t end = stat.rfind(')');
    return end == std::string::npos || end + 2 > stat.size() ? "" : stat.substr(end + 2);
}

static std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', ' ');
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

static std::string described(int process)
{
    const std::string proc = "/proc/" + std::to_string(process) + "/";
    const std::string call = read_file(proc + "syscall");
    return std::to_string(process) + " " + behind_name(read_file(proc + "stat")).substr(0, 1) +
           " call " + one_line(call.substr(0, call.find(' '))) + " in " +
           one_line(read_file(proc + "wchan")) + ": " + one_line(read_file(proc + "cmdline")) +
           "\n";
}

std::string processes_report()
{
    std::multimap<int, int> children;
    std::error_code ignored; // processes come and go
    for (const auto &entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const int process = atoi(entry.path().filename().c_str());
        const std::string rest = process > 0 ? behind_name(read_file(entry.path() / "stat")) : "";
        if (rest.size() > 2)
            children.emplace(atoi(rest.c_str() + 2), process);
    }
    std::string text;
    std::vector<int> left = {getpid()};
    while (!left.empty()) {
        const int process = left.back();
        left.pop_back();
        text += described(process);
        const auto [first, last] = children.equal_range(process);
        for (auto child = first; child != last; ++child)
            left.push_back(child->second);
    }
    return text;
}

stuck_report::stuck_report(int seconds)
    : watch([this, seconds] {
          std::unique_lock lock(mutex);
          if (!over.wait_for(lock, std::chrono::seconds(seconds), [this] { return ended; }))
              fputs(processes_report().c_str(), stderr);
      })
{
}

stuck_report::~stuck_report()
{
    {
        const std::lock_guard lock(mutex);
        ended = true;
    }
    over.notify_one();
    watch.join();
}
