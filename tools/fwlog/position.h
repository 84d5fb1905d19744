// Comparing with the positions of fwlog's command line.
#ifndef TOOLS_FWLOG_POSITION_H
#define TOOLS_FWLOG_POSITION_H

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_start.h"

#include <cstdint>

// Whether an option has given it.
bool fwlog_position_given(const fwu_position &position);

// Below 0: file and tag stand before position; above 0: behind it.  A position
// without a generation is in each, one without a tag holds every tag of its file.
int fwlog_position_compare(const fwu_log_file &file, int32_t tag, const fwu_position &position);

#endif
