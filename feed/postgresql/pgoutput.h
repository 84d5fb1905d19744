// Messages of PostgreSQL's output plugin pgoutput, protocol version 1, taken apart.
#ifndef FEED_POSTGRESQL_PGOUTPUT_H
#define FEED_POSTGRESQL_PGOUTPUT_H

#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct pgo_column {
    std::string name;
    uint32_t type = 0;     // OID
    int32_t modifier = -1; // atttypmod
    bool identity = true;  // old rows that are keys have it
    bool operator==(const pgo_column &) const = default;
};

struct pgo_relation {
    uint32_t id = 0; // OID of the table
    std::string schema;
    std::string name;
    char identity = 'f'; // d default, n nothing, f full, i index
    std::vector<pgo_column> columns;
    bool operator==(const pgo_relation &) const = default;
};

// A checksum of the names and types of a table's columns, in their order; never 0.
uint32_t pgo_shape(const pgo_relation &relation);

struct pgo_value {
    char kind = 'n'; // n null, u unchanged and not sent, t text
    std::string_view text;
};

// A row; only the first count values are valid.
struct pgo_tuple {
    char kind = 0; // 0: there is none; N new row, O whole old row, K key of the old row
    size_t count = 0;
    std::vector<pgo_value> values;
};

// One message.  Texts point into the bytes that were decoded.
struct pgo_message {
    char kind = 0;                   // B C O R Y I U D T M
    uint64_t lsn = 0;                // B, C: position of the commit
    uint64_t end_lsn = 0;            // C: behind the transaction
    int64_t time_us = 0;             // B, C: commit time since 1970
    uint32_t xid = 0;                // B
    uint32_t relation_id = 0;        // I, U, D
    pgo_relation relation;           // R
    pgo_tuple old_row;               // U, D
    pgo_tuple new_row;               // I, U
    std::vector<uint32_t> truncated; // T
    bool transactional = false;      // M
    std::string_view prefix;         // M
    std::string_view content;        // M
    std::string_view origin;         // O
};

// Reads one message.  OUTCOME_BAD when it is cut short, goes on behind its end or is of an
// unknown kind.
outcome pgo_decode(pgo_message &message, std::string_view bytes);

#endif
