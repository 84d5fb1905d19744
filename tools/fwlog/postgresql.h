// fwlog postgresql: what its command line asks for, and the work, which needs libpq.
#ifndef TOOLS_FWLOG_POSTGRESQL_H
#define TOOLS_FWLOG_POSTGRESQL_H

#include "util/outcome.h"

struct fwlog_postgresql_options {
    const char *cfg = nullptr;
    const char *conninfo = "";
    const char *slot = "kestro";
    const char *publication = "kestro";
    const char *status = nullptr; // file; null: the one in the log directory
    int timeout_s = 60;
    bool create = false;
    bool snapshot = false;
    bool truncate = false;
    bool ignore_truncate = false;
    bool accept_gap = false;
    bool once = false;
    bool verbose = false;
};

outcome fwlog_postgresql(const fwlog_postgresql_options &options);

#endif
