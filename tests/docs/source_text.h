// The text of the sources, for tests that look in it for what a page says.
#ifndef TESTS_DOCS_SOURCE_TEXT_H
#define TESTS_DOCS_SOURCE_TEXT_H

#include "tests/support/tempdir.h"

#include <string>
#include <vector>

// The sources in folders of the root, one behind the other.
inline std::string source_text(const std::vector<std::string> &folders)
{
    std::string text;
    for (const std::string &folder : folders) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(
                 std::filesystem::path(KESTRO_SOURCE_DIR) / folder)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")
                text += read_file(entry.path().string());
        }
    }
    return text;
}

#endif
