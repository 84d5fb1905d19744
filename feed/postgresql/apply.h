// Messages of the stream to transactions of the log.
#ifndef FEED_POSTGRESQL_APPLY_H
#define FEED_POSTGRESQL_APPLY_H

#include "feed/postgresql/bridge.h"
#include "feed/postgresql/pgoutput.h"

#include <cstdint>
#include <string_view>

struct pgb_apply {
    pgo_message message;
    uint64_t end = 0; // behind the last whole transaction
};

// Takes the next message of the output plugin.
pgs_outcome pgb_apply_message(pgb_bridge &bridge, pgb_apply &apply, std::string_view bytes);

// Reports that the server lacks the last transaction of the log; PGS_REFUSED.
pgs_outcome pgb_diverged(const pgb_bridge &bridge);

#endif
