// One line of a PostgreSQL change stream as wal2json's format version 2 writes
// it, taken apart into a record that is reused from line to line.
#ifndef FEED_WAL2JSON_LINE_H
#define FEED_WAL2JSON_LINE_H

#include "feed/row.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

// The memory of feed/wal2json/swift, which is kept from line to line.
struct w2j_swift;
struct w2j_swift_free {
    void operator()(w2j_swift *swift) const;
};
using w2j_swift_memory = std::unique_ptr<w2j_swift, w2j_swift_free>;

struct w2j_line {
    char action = 0; // B I U D C M T
    uint64_t xid = 0;
    std::string lsn;               // B, C: position of the commit, "hi/lo"
    std::string timestamp;         // B, C: time of the commit
    std::string schema;            // I, U, D, T
    std::string table;             // I, U, D, T
    feed_row columns;              // I, U: the new row
    feed_row identity;             // U, D: the old row
    feed_row key;                  // I, U, D: names of the primary key's columns, if they are told
    bool transactional = false;    // M
    std::string prefix;            // M
    std::string content;           // M
    std::deque<std::string> texts; // the first used ones hold values of the rows
    size_t used = 0;
    w2j_swift_memory swift; // holds the others
};

#endif
