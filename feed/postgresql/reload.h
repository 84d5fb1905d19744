// SIGHUP: the configuration is read again while the bridge runs.  What the log and the
// server's tables are made by stays as it was at the start.
#ifndef FEED_POSTGRESQL_RELOAD_H
#define FEED_POSTGRESQL_RELOAD_H

#include <map>
#include <string>

struct fwu_writer;

// What the configuration said: by the first word of a line, all these lines.
using pgl_said = std::map<std::string, std::string>;

struct pgl_reload {
    const char *cfg = nullptr; // as the user names it
    pgl_said said = {};        // what counts, or will from the next start on
    bool never_syncs = false;  // the log is written with "sync none", as was said at the start
};

// Notes what the configuration says at the start.
void pgl_open(pgl_reload &reload, const char *cfg, const std::string &path);

// Reads it again when that was asked for: what may change while the writer runs counts from
// here on, the rest is told.  A configuration with an error changes nothing (told).
void pgl_look(pgl_reload &reload, fwu_writer *writer);

#endif
