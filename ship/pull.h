// From a stream into a forward log, until a signal.
#ifndef SHIP_PULL_H
#define SHIP_PULL_H

#include "ship/server.h"
#include "util/outcome.h"

struct ship_pull_options {
    ship_server_options server;
    const char *durable = nullptr; // name of the consumer
    const char *file = nullptr;    // configuration that names the log
    bool once = false;             // end when the log has all that the stream has
    bool verbose = false;
};

// OUTCOME_STOPPED: a signal has ended it.
outcome ship_pull(const ship_pull_options &options);

#endif
