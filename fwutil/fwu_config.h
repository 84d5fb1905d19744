// The configuration file: names the log directory and, for programs that write
// the log, what fwu_writing holds.  Its grammar is described in docs/forward-log.md.
#ifndef FWUTIL_FWU_CONFIG_H
#define FWUTIL_FWU_CONFIG_H

#include "fwutil/fwu_writing.h"

#include <string>

// What every program needs, and all that a reader needs.
struct fwu_reader_config {
    std::string path;          // the file read, for messages
    std::string log_directory; // absolute, or relative to the working directory
};

struct fwu_config : fwu_reader_config, fwu_writing {};

// Reads the file at path, or, when path is null, the one named by the
// environment variable FWUTIL_CFG, else "fwutil.cfg".  Returns 0; or -1 after
// reporting an error with file and line on standard error.  A reader's must be
// good in all its lines, too.
int fwu_config_read(fwu_config &config, const char *path);
int fwu_config_read(fwu_reader_config &config, const char *path);

#endif
