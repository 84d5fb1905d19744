// The statements that speak of the source: its tables, columns and types.
#ifndef FWUTIL_FWU_WRITING_SOURCE_H
#define FWUTIL_FWU_WRITING_SOURCE_H

#include "fwutil/fwu_writing_lines.h"

// The canonical name of a table.  False: the text is no name of a table.
bool fwu_writing_table(std::string &table, std::string_view text);

// Each takes its line.  0 or -1 (reported).
int fwu_writing_take_values(fwu_writing_lines &r, const fwu_words &w);
int fwu_writing_take_default_width(fwu_writing_lines &r, const fwu_words &w);
int fwu_writing_take_skip_table(fwu_writing_lines &r, const fwu_words &w);
int fwu_writing_take_table(fwu_writing_lines &r, const fwu_words &w);
int fwu_writing_take_column(fwu_writing_lines &r, const fwu_words &w);

#endif
