// From a forward log into a stream, until a signal.
#ifndef SHIP_PUSH_H
#define SHIP_PUSH_H

#include "ship/server.h"
#include "util/outcome.h"

#include <cstdint>

struct ship_push_options {
    ship_server_options server;
    const char *cfg = nullptr; // configuration that names the log
    bool create = false;       // the stream, if it is missing
    uint64_t replicas = 1;     // of a stream that is made
    uint64_t pending = 4096;   // messages on their way at most
    bool once = false;         // end when the stream has all that the log has
    bool verbose = false;
};

// OUTCOME_STOPPED: a signal has ended it.
outcome ship_push(const ship_push_options &options);

#endif
