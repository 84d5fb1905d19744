// Texts worked out by hand, in tests/golden/.
#ifndef TESTS_SUPPORT_GOLDEN_H
#define TESTS_SUPPORT_GOLDEN_H

#include "tests/support/tempdir.h"

inline std::string golden(const std::string &name)
{
    std::string text = read_file(std::string(KESTRO_SOURCE_DIR "/tests/golden/") + name);
    if (text.empty())
        throw std::runtime_error("no golden text " + name);
    return text;
}

#endif
