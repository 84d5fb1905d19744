// A consumer of changes, what was written to it, and the file that says how far it has dealt
// with them: the next start goes on behind that.
//
// The file is a status file of the log (fwutil/fwu_status.h).  With acknowledgements it follows
// the positions that the consumer writes, one a line, to standard input; without, what was written
// to standard output counts as dealt with.
#ifndef TOOLS_FWLOG_CONSUMER_H
#define TOOLS_FWLOG_CONSUMER_H

#include "changes/reader.h"
#include "fwutil/fwu_map.h"
#include "fwutil/fwu_status.h"
#include "fwutil/fwu_wait.h"
#include "tools/fwlog/outstanding.h"
#include "util/cli.h"

#include <csignal>
#include <string>

// What the options have said.
struct fwlog_state_options {
    const char *file = nullptr; // --state
    bool acknowledge = false;   // --ack
};
extern fwlog_state_options fwlog_state;

// Rows of these options.
constexpr cli_option FWLOG_STATE = {"--state", CLI_FILE, &fwlog_state.file};
constexpr cli_option FWLOG_ACK = {"--ack", CLI_FLAG, &fwlog_state.acknowledge};

// Only the functions here change it.  Both signals and faults of the file's map are handled as
// long as it lives.
struct fwlog_consumer {
    const fwu_signals signals;
    const fwu_map_faults faults;
    bool acknowledges = false;
    struct sigaction pipe_before = {}; // what SIGPIPE did
    fwu_status state;
    int64_t looked_ms = 0; // monotonic time at which the state was brought to disk, or looked at
    fwlog_outstanding outstanding;
    uint64_t written = 0;     // bytes
    bool deaf = false;        // nobody reads standard output any more
    bool silent = false;      // standard input has ended
    bool inside_line = false; // what was written last did not end a line
    std::string input;        // of a line that has not ended
    uint64_t line = 0;        // lines of standard input
    fwlog_consumer();
    ~fwlog_consumer();
    fwlog_consumer(const fwlog_consumer &) = delete;
    fwlog_consumer &operator=(const fwlog_consumer &) = delete;
};

// Opens the state file for the log of the configuration at cfg (null: as fwu_config_read).  What
// fwlog_selected says of the start overrides the place that the file names; else that becomes
// fwlog_selected.after.
outcome fwlog_consumer_open(fwlog_consumer &consumer, const char *cfg);

// A change's line is about to be put behind the text that is not written yet; or a transaction has
// ended there.
void fwlog_consumer_line(fwlog_consumer &consumer, const std::string &text, const change &next,
                         const change_transaction &transaction);
outcome fwlog_consumer_end(fwlog_consumer &consumer, const std::string &text,
                           const change_transaction &transaction);

// Whether there is nobody any more to write to, or to hear of it.
bool fwlog_consumer_gone(const fwlog_consumer &consumer);

// As fwlog_write_out, and takes acknowledgements meanwhile; what it cannot write when the consumer
// is gone is dropped.
outcome fwlog_consumer_write(fwlog_consumer &consumer, std::string &text);

// As fwlog_wait_for_more, and takes acknowledgements meanwhile.
outcome fwlog_consumer_wait(fwlog_consumer &consumer, fwu_log &log, fwu_watch &watch);

// Ends the run: when all went well so far it waits for the acknowledgements that are missing, as
// long as the consumer may write them.  Then the state is brought to disk.
outcome fwlog_consumer_close(fwlog_consumer &consumer, outcome done);

#endif
