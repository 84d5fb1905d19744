// Whether a program is there, for tests that cannot do without it.
#ifndef TESTS_SUPPORT_PROGRAM_H
#define TESTS_SUPPORT_PROGRAM_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>

inline bool program_found(const std::string &name)
{
    const char *const path = getenv("PATH");
    std::istringstream directories(path == nullptr ? "" : path);
    for (std::string directory; std::getline(directories, directory, ':');) {
        if (access((directory + "/" + name).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

// Skips the test when the program of a Debian package is missing.
#define NEED_PROGRAM(name, package)                                            \
    do {                                                                       \
        if (!program_found(name))                                              \
            GTEST_SKIP() << name << " is missing: Debian package " << package; \
    } while (false)

#endif
