// Which of the sources' texts the programs tell people as errors, warnings and notes, alone or as
// a part of one.
#ifndef TESTS_DOCS_TOLD_MESSAGES_H
#define TESTS_DOCS_TOLD_MESSAGES_H

#include "tests/docs/source_messages.h"

#include <vector>

// Those of all programs and libraries, but for the texts of message-file codes, which have a
// table of their own.
std::vector<source_message> told_messages();

// What was passed over by name and is not there: the names are to go.
std::vector<std::string> told_messages_unused();

#endif
