// How a program that tells of itself in a file is doing: a run of Kestro, a reader of the log,
// or what fills it from a server.
#ifndef TOOLS_FWLOG_HEALTH_LOOK_H
#define TOOLS_FWLOG_HEALTH_LOOK_H

#include <cstdint>
#include <string>
#include <sys/types.h>

// As monitors count.
enum health_verdict { HEALTH_OK, HEALTH_WARNING, HEALTH_CRITICAL, HEALTH_UNKNOWN };

struct health_item {
    std::string path;
    const char *kind = "unknown"; // run, reader, bridge
    health_verdict verdict = HEALTH_UNKNOWN;
    const char *state = "unknown"; // starting idle progressing stalled waiting failed stopped dead
    std::string detail;            // in words
    int64_t pid = 0;               // 0: none is known
    std::string position;          // of the log, or of the source; empty: none
    bool measured = false;         // the three below are known
    int64_t records = -1;          // that it has still to read; -1: not known of a bridge
    int64_t bytes = 0;
    double seconds = 0; // since the oldest of these was committed
};

// Looks at one file, which tells by its contents what it is; may take a moment to see whether
// something moves.  max_lag: seconds that are no warning yet; below 0: any.
health_item fwlog_health_look(const std::string &path, double max_lag);

#endif
