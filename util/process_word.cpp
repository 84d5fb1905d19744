// From /proc; a system without it tells nothing.
#include "util/process_word.h"

#include <fstream>
#include <sstream>
#include <unistd.h>

// A field of a process's line, counted behind its name, which may hold anything; empty: there
// is no such process.
static std::string field_of(pid_t pid, int wanted)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const size_t name_end = line.rfind(')');
    std::istringstream words(name_end == line.npos ? "" : line.substr(name_end + 1));
    std::string word;
    for (int field = 3; field <= wanted; field++)
        if (!(words >> word))
            return "";
    return word;
}

std::string process_word(pid_t pid)
{
    char space[64] = {};
    std::string boot;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    const std::string ticks = field_of(pid, 22);
    const ssize_t n = readlink("/proc/self/ns/pid", space, sizeof space - 1);
    if (boot.empty() || ticks.empty() || n <= 0)
        return "";
    return boot + ' ' + space + ' ' + ticks;
}

char process_letter(pid_t pid)
{
    const std::string letter = field_of(pid, 3);
    return letter.empty() ? '\0' : letter[0];
}
