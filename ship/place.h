// The place of a message in the log that it is of: what stands in its header, so that a stream
// tells by itself how far it goes, and a reader whether anything is missing, comes twice or in
// another order.
#ifndef SHIP_PLACE_H
#define SHIP_PLACE_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_file_number.h"
#include "fwutil/fwu_identity.h"

#include <cstdint>
#include <string>
#include <string_view>

// Names of the headers.  The first one is the server's: it passes over a message whose id it has.
constexpr char SHIP_ID_HEADER[] = "Nats-Msg-Id";
constexpr char SHIP_EXPECTED_HEADER[] = "Nats-Expected-Last-Sequence";
constexpr char SHIP_PLACE_HEADER[] = "Kestro-Place";

struct ship_place {
    fwu_identity log = {};
    fwu_file_number file = {}; // generation 0: no place
    int64_t from = 0;          // the message's bytes in this file; 0: the file's header comes first
    int64_t to = 0;
    int64_t begin = 0; // those of its transaction; begin == end: the file holds none
    int64_t end = 0;
    fwu_commit commit = {}; // of its transaction
    // Of the first message of a file: the file before and its size; generation 0: not known.
    fwu_file_number file_before = {};
    int64_t size_before = 0;
    // Of the first message of another transaction: the one before, in the same file.
    bool has_commit_before = false;
    fwu_commit commit_before = {};
};

inline bool ship_place_first(const ship_place &place)
{
    return place.from == place.begin || place.from == 0;
}
inline bool ship_place_last(const ship_place &place)
{
    return place.to == place.end;
}

// "1-25 4096 5120 4096 6000 1700000001000000 0/16B3748 7 ..."
void ship_place_put(std::string &out, const ship_place &place);

// "101112131415161718191a1b1c1d1e1f.1-25.5120": the same for the same bytes of the same log.
void ship_id_put(std::string &out, const ship_place &place);

// Reads both.  False: they are none, or do not belong together.
bool ship_place_get(ship_place &place, std::string_view text, std::string_view id);

// "1-25 offset 5120"
std::string ship_place_text(const ship_place &place);

#endif
