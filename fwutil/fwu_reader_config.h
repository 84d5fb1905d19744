// The configuration file as readers of the log need it: where the log is, and what its marks
// mean to whoever follows it.
#ifndef FWUTIL_FWU_READER_CONFIG_H
#define FWUTIL_FWU_READER_CONFIG_H

#include <string>

// What every program needs, and all that a reader needs.
struct fwu_reader_config {
    std::string path;               // the file read, for messages
    std::string log_directory;      // absolute, or relative to the working directory
    bool stops_at_truncate = false; // Fwu_process ends where a table was truncated
};

// As fwu_config_read for a writer: the file must be good in all its lines.
int fwu_config_read(fwu_reader_config &config, const char *path);

#endif
