// The change stream as transactions: checks that its lines stand in order and
// takes them apart.
#ifndef FEED_WAL2JSON_STREAM_H
#define FEED_WAL2JSON_STREAM_H

#include "feed/transaction.h"
#include "feed/wal2json/line.h"

#include <cstdint>
#include <string>
#include <string_view>

struct w2j_stream {
    feed_transaction tx;
    feed_tables tables = {.old_row_remedy = "run ALTER TABLE % REPLICA IDENTITY FULL"};
    uint64_t opened_at = 0; // number of the B line of the transaction in hand
    std::string lsn;        // as that line writes it
    w2j_line line;
};

// Takes the next line.  After a failure the transaction in hand has been forgotten and
// the stream cannot go on.
outcome w2j_stream_line(w2j_stream &stream, std::string_view text, uint64_t number);

#endif
