// Short connections beside those that are at work, and their answers, whose texts are as the
// server sends them.  Deadlines are those of fwu_monotonic_ms.
#ifndef FEED_POSTGRESQL_BESIDE_H
#define FEED_POSTGRESQL_BESIDE_H

#include "feed/postgresql/server.h"

#include <cstdint>
#include <string>

constexpr int64_t PGS_BESIDE_MS = 2000; // that a question may take

// One to the host that another connection goes to; null when there is none in time; why: what the
// server has said to that.
pgs_connection pgs_beside_connect(const pgs_server &server, const PGconn *beside,
                                  int64_t deadline_ms, std::string *why = nullptr);

// Gets the result of the last of several commands, which may be an error; false when time is up.
bool pgs_beside_run(PGconn *connection, const std::string &query, int64_t deadline_ms,
                    pgs_result &answer);

#endif
