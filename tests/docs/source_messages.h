// The English texts of the sources, as a page names them: literals that stand side by side or are
// joined by + are one, and "..." is in the place of what is put in.
#ifndef TESTS_DOCS_SOURCE_MESSAGES_H
#define TESTS_DOCS_SOURCE_MESSAGES_H

#include <string>
#include <vector>

struct source_message {
    std::string text;
    std::string file;                 // below the root
    std::vector<std::string> callers; // whose arguments it stands in, the innermost last
};

// The texts of a source, those of two words and more, in their order.
std::vector<source_message> messages_of(const std::string &file, const std::string &source);

// Those of all sources in folders of the root.
std::vector<source_message> messages_in(const std::vector<std::string> &folders);

#endif
