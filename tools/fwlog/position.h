// Positions on fwlog's command line: a log file, or an entry in one.
#ifndef TOOLS_FWLOG_POSITION_H
#define TOOLS_FWLOG_POSITION_H

#include "fwutil/fwu_cursor.h"

#include <cstdint>
#include <string_view>

struct fwlog_position {
    bool given = false;
    int32_t generation = 0; // 0: any
    int32_t sequence = 0;
    int32_t tag = 0; // 0: the whole file
};

// "25", "1-25" or "1-25.340"; false when text is none of these.
bool fwlog_position_parse(fwlog_position &position, std::string_view text);

// Below 0: file and tag stand before position; above 0: behind it.  A position
// without a tag holds every tag of its file.
int fwlog_position_compare(const fwu_log_file &file, int32_t tag, const fwlog_position &position);

#endif
