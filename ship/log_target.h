// Messages of a log as that log again, on another host: the same files, byte for byte.  The log
// itself tells how far it is, so that each message is taken once, whatever comes again.
#ifndef SHIP_LOG_TARGET_H
#define SHIP_LOG_TARGET_H

#include "fwutil/fwu_replica.h"
#include "ship/place.h"
#include "util/outcome.h"

#include <cstddef>

struct ship_log_target {
    fwu_replica *replica = nullptr; // owned
};

outcome ship_target_open(ship_log_target &target, const fwu_config &config);
void ship_target_close(ship_log_target &target);

enum ship_taken {
    SHIP_TAKEN,   // it is part of a transaction that is not whole yet
    SHIP_WHOLE,   // its transaction stands in the log
    SHIP_HAS,     // the log has it
    SHIP_MISSING, // what comes before it is not there
};

// Takes the message of a place.  OUTCOME_BAD: it is of another log, or this one has something else
// there.
outcome ship_target_take(ship_taken &taken, ship_log_target &target, const ship_place &place,
                         const unsigned char *data, size_t length);

// Whether the log has the message of a place, as SHIP_HAS; for a search.
bool ship_target_has(const ship_log_target &target, const ship_place &place);

// What the log has, for people.
std::string ship_target_text(const ship_log_target &target);

#endif
