// A forward log as the messages that go into a stream: each change of a record with all that stands
// before it in its transaction, in the order of the log.
//
// The messages of a transaction are its bytes one behind the other, and those of a file are the
// file: whoever has them all has the log.
#ifndef SHIP_LOG_SOURCE_H
#define SHIP_LOG_SOURCE_H

#include "fwutil/fwu_log.h"
#include "ship/place.h"
#include "util/outcome.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Only the functions here change it.
struct ship_log_source {
    fwu_log log;
    size_t most = 0;                  // bytes in a message at most
    ship_place place;                 // of the next message, as far as it is known
    bool inside = false;              // a transaction is in hand
    bool begun = false;               // ... whose place is known
    int64_t passed = 0;               // the file's bytes up to here were in the stream at the start
    std::vector<unsigned char> bytes; // of the file
    int64_t bytes_at = 0;             // where the first of these stands
    size_t given = 0;                 // how many of these were given
    bool whole = false;               // they end with a change
    std::string dbname;               // of that
    std::string dsetname;
    fwu_file_number file;    // the one that the stream holds last; generation 0: none
    int64_t size = 0;        // and as much of it
    bool has_commit = false; // its last transaction
    fwu_commit commit;
    int64_t synced = 0;              // bytes of the file that are on disk
    std::vector<fwu_log_file> empty; // files without a transaction, to come next
};

struct ship_message {
    ship_place place = {};
    std::string_view dbname = {}; // empty: of no dataset
    std::string_view dsetname = {};
    const unsigned char *data = nullptr; // valid until the next call
    size_t length = 0;
};

// Begins behind the message that a stream has last, or with the log's oldest file when place is of
// no file.  OUTCOME_BAD: the log does not have it.
outcome ship_log_open(ship_log_source &source, const std::string &directory,
                      const ship_place &place, size_t most);

// The next message; found: false when there is no more for now.
outcome ship_log_next(ship_log_source &source, ship_message &message, bool &found);

void ship_log_close(ship_log_source &source);

#endif
