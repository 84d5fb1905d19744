// The name of a log directory that status files and the register of readers have.
#ifndef TOOLS_FWLOG_LOG_DIRECTORY_H
#define TOOLS_FWLOG_LOG_DIRECTORY_H

#include "fwutil/fwu_reader_config.h"
#include "util/outcome.h"

#include <string>

// Absolute and without links; OUTCOME_FAILED, told, when it cannot be found.
outcome fwlog_log_directory(const fwu_reader_config &config, std::string &directory);

#endif
