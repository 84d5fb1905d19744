// What was given to a consumer of changes and is not acknowledged yet, and how far all is
// dealt with.
//
// Positions are given in the order of the log, the lines of a transaction, then its end.  An
// acknowledgement means everything up to it.
#ifndef TOOLS_FWLOG_OUTSTANDING_H
#define TOOLS_FWLOG_OUTSTANDING_H

#include "changes/change.h"
#include "fwutil/fwu_place.h"

#include <cstddef>
#include <cstdint>
#include <deque>

// Transactions that are kept; of more only each second, fourth, ... is, and an acknowledgement of
// one that is not counts as one of the kept one before it.
constexpr size_t FWLOG_OUTSTANDING_MAX = 65536;

struct fwlog_outstanding {
    struct transaction {
        fwu_place commit;
        fwu_place behind;      // how far all is dealt with when it is: what follows was not wanted
        int32_t first_tag = 0; // of the lines given
        int32_t last_tag = 0;
        bool ended = false;  // no more lines come
        uint64_t number = 0; // from 1
    };
    struct line {
        fwu_position position;
        uint64_t behind = 0; // it is with the consumer once so many bytes and one more are
    };
    std::deque<transaction> kept;
    uint64_t stride = 1;       // numbers that it divides are kept, and the last one
    std::deque<line> coming;   // given, and not known to be with the consumer
    fwu_position given;        // last line or end of a transaction with lines that was given
    fwu_position there;        // ... that is with the consumer
    fwu_position acked;        // last acknowledgement
    fwu_place dealt;           // everything up to here is dealt with
    uint64_t number = 0;       // of the last transaction with lines
    uint64_t dealt_number = 0; // ... that is dealt with
};

// Begins behind a position, up to which nothing comes any more; what is known of it is its place.
void fwlog_outstanding_begin(fwlog_outstanding &o, const fwu_place &place,
                             const fwu_position &behind);

// A line is given: it begins behind so many bytes of all that the consumer is given.
void fwlog_outstanding_line(fwlog_outstanding &o, const fwu_position &position,
                            const change_transaction &transaction, uint64_t bytes);

// A transaction has ended with so many bytes, whether a line of it was given or not.
void fwlog_outstanding_end(fwlog_outstanding &o, const change_transaction &transaction,
                           uint64_t bytes);

// So many bytes are with the consumer.
void fwlog_outstanding_written(fwlog_outstanding &o, uint64_t bytes);

enum fwlog_acked {
    FWLOG_ACKED,
    FWLOG_ACK_AHEAD,    // the position is not with the consumer
    FWLOG_ACK_BACKWARD, // it is before one that was acknowledged
};

// Takes an acknowledgement.
fwlog_acked fwlog_outstanding_take(fwlog_outstanding &o, const fwu_position &position);

// Transactions with the consumer of which something is not acknowledged; if some were forgotten,
// up to so many.
uint64_t fwlog_outstanding_count(const fwlog_outstanding &o);

#endif
