// The statements for writers: which there are, and taking their lines.
#ifndef FWUTIL_FWU_STATEMENTS_H
#define FWUTIL_FWU_STATEMENTS_H

#include "fwutil/fwu_writing_lines.h"

#include <string_view>

// Whether a line that begins with this word is one of these statements.
bool fwu_writing_knows(std::string_view word);

// Whether names of the source stand in it, see fwu_config_split_names.
bool fwu_writing_has_names(std::string_view word);

// Takes such a line.  0 or -1 (reported).
int fwu_writing_take(fwu_writing_lines &lines, const fwu_words &words);

// What only the end of the file shows.  0 or -1 (reported).
int fwu_writing_check(fwu_writing_lines &lines);

#endif
