// Texts and bytes worked out by hand, in tests/golden/.
#ifndef TESTS_SUPPORT_GOLDEN_H
#define TESTS_SUPPORT_GOLDEN_H

#include "tests/support/tempdir.h"

#include <sstream>

inline std::string golden(const std::string &name)
{
    std::string text = read_file(std::string(KESTRO_SOURCE_DIR "/tests/golden/") + name);
    if (text.empty())
        throw std::runtime_error("no golden text " + name);
    return text;
}

// The bytes of a .hex file of tests/golden: pairs of hex digits, "00*40" stands
// for 40 of them, "#" begins a comment.
inline std::string golden_bytes(const std::string &name)
{
    std::istringstream lines(golden(name));
    std::string bytes;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            const size_t times = word.size() == 2 ? 1 : std::stoul(word.substr(3));
            bytes.append(times, static_cast<char>(std::stoi(word.substr(0, 2), nullptr, 16)));
        }
    }
    return bytes;
}

#endif
