// A log directory is known by one name however the configuration spells it, so that what
// one program wrote down is found by the others.
#include "tools/fwlog/log_directory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

outcome fwlog_log_directory(const fwu_reader_config &config, std::string &directory)
{
    char *real = realpath(config.log_directory.c_str(), nullptr);
    if (real == nullptr)
        return outcome_failed("%s: cannot find the log directory: %s; create it, or correct "
                              "log-directory in %s",
                              config.log_directory.c_str(), strerror(errno), config.path.c_str());
    directory = real;
    free(real);
    return {};
}
