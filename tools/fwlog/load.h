// fwlog load: what its command line asks for, and the work, which needs a JSON parser.
#ifndef TOOLS_FWLOG_LOAD_H
#define TOOLS_FWLOG_LOAD_H

#include "util/outcome.h"

struct fwlog_load_options {
    const char *cfg = nullptr;
    const char *input = nullptr; // null or "-": standard input
    bool truncate = false;
};

outcome fwlog_load(const fwlog_load_options &options);

#endif
