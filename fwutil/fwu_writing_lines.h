// The statements for writers while they are being read.
#ifndef FWUTIL_FWU_WRITING_LINES_H
#define FWUTIL_FWU_WRITING_LINES_H

#include "fwutil/fwu_config_text.h"
#include "fwutil/fwu_writing.h"

#include <set>
#include <string>
#include <unordered_set>

// What came in the lines so far, and the line in hand.
struct fwu_writing_lines {
    fwu_writing &writing;
    fwu_config_at at;
    std::string database{};
    int database_line = 0; // 0: no database line yet
    bool have_size = false;
    bool have_order = false;
    bool have_sync = false;
    std::set<std::string> databases{};
    std::unordered_set<std::string> columns{}; // fwu_source_names
};

#endif
