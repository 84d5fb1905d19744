// Tables that are to be taken back into the log, or in for the first time: asked for by another
// run, which leaves a file in the log directory, or by this one's own command line.
//
// The bridge looks for such files every second, whatever it is doing else, and answers in a file
// beside; their standing changes between two transactions of the stream only.  Whoever asks keeps
// its file locked, and takes both away at the end; where it is gone, the bridge does.
#ifndef FEED_POSTGRESQL_REQUEST_H
#define FEED_POSTGRESQL_REQUEST_H

#include "feed/postgresql/answer.h"
#include "feed/postgresql/relations.h"
#include "fwutil/fwu_writer.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

struct pgr_request {
    std::string file = {}; // "resume-4zT5x1", of both; empty: the command line's
    pgr_answer answer = {};
    std::string written = {}; // what the answer's file has
};

struct pgr_requests {
    std::string directory; // of the log
    mode_t mode = 0600;    // of the answers
    std::string publication;

    std::vector<pgr_request> open;
    int64_t look_ms = 0;  // not looked before this time, monotonic
    int64_t ask_ms = 0;   // ... nor asked, after there was no answer
    bool refused = false; // a table of the command line's
};

// Begins with what the command line names, and takes away what others have left for good.
void pgr_open(pgr_requests &requests, const pga_registry &aside,
              const std::vector<const char *> &own);

// What may be done at this moment.
struct pgr_moment {
    fwu_writer *writer = nullptr;
    uint64_t logged_lsn = 0; // everything before it is logged, also where that is nothing
    bool between = false;    // no transaction is in hand, and the server is there
    std::string waits = {};  // else: what for; empty: for the transaction's end
};

// Looks and answers, where that is due.  OUTCOME_FAILED when what was asked for could not be kept.
outcome pgr_look(pgr_requests &requests, pgb_relations &relations, const pgr_moment &moment);

// Looks and answers a last time: the run ends well, and tables may have been set aside since.
void pgr_close(pgr_requests &requests, pgb_relations &relations, fwu_writer *writer,
               uint64_t logged_lsn);

// Whether the command line names tables of which nothing was done yet.
bool pgr_waits(const pgr_requests &requests);

#endif
