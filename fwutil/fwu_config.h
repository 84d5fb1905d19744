// The configuration file: names the log directory and, for programs that write
// the log, what fwu_writing holds.  Its grammar is described in docs/forward-log.md.
#ifndef FWUTIL_FWU_CONFIG_H
#define FWUTIL_FWU_CONFIG_H

#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_writing.h"

struct fwu_config : fwu_reader_config, fwu_writing {};

// Reads the file at path, or, when path is null, the one named by the
// environment variable FWUTIL_CFG, else "fwutil.cfg".  Returns 0; -1 after
// reporting an error with file and line on standard error; or FWU_STOPPED.
int fwu_config_read(fwu_config &config, const char *path);

#endif
