// What the server has said to messages that were sent without waiting.  It says so in a thread of
// the library's.
#ifndef SHIP_ACKS_H
#define SHIP_ACKS_H

#include "util/outcome.h"

#include <cstdint>
#include <mutex>
#include <nats/nats.h>
#include <string>

struct ship_acks {
    const char *stream = nullptr; // that has to say it
    std::mutex mutex;             // of all below
    uint64_t count = 0;           // messages that are in the stream
    uint64_t last = 0;            // sequence of the last of them
    bool refused = false;         // the stream was not as expected
    std::string error;            // what else was wrong first; empty: nothing
};

// For jsOptions::PublishAsync; closure: the ship_acks, which has to outlive the library.
void ship_acks_take(jsCtx *js, natsMsg *message, jsPubAck *ack, jsPubAckErr *error, void *closure);

// OUTCOME_LOST when something was wrong; count and last as they are now.
outcome ship_acks_look(ship_acks &acks, uint64_t &count, uint64_t &last);

#endif
