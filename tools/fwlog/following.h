// What subcommands that follow a log share: output that a signal does not cut short, and
// waiting for more.
#ifndef TOOLS_FWLOG_FOLLOWING_H
#define TOOLS_FWLOG_FOLLOWING_H

#include "fwutil/fwu_log.h"
#include "fwutil/fwu_wait.h"
#include "util/outcome.h"

#include <cstddef>
#include <string>

// As much text as is collected before it is written out.
constexpr size_t FWLOG_WRITE_AFTER = 65536;

// OUTCOME_STOPPED, by the signal in fwu_stop.
outcome fwlog_stopped();

// Writes the text to standard output and empties it.  A signal does not cut it short unless
// nobody takes it.
outcome fwlog_write_out(std::string &text);

// Waits for more to read.  Ends by SIGPIPE when the reader of standard output is gone.
outcome fwlog_wait_for_more(fwu_log &log, fwu_watch &watch);

#endif
