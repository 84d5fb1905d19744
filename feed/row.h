// A row of a change stream: its columns by name, each value as the source wrote
// it.
#ifndef FEED_ROW_H
#define FEED_ROW_H

#include <cstddef>
#include <string>
#include <vector>

enum feed_kind { FEED_NULL, FEED_FALSE, FEED_TRUE, FEED_DIGITS, FEED_TEXT };

struct feed_column {
    std::string name;
    std::string type;  // as the server names it: "numeric(9,2)", "smallint[]"
    std::string value; // FEED_DIGITS: its digits as written; FEED_TEXT: UTF-8; else empty
    feed_kind kind = FEED_NULL;
};

// Only the first count columns are valid, the others keep their memory.
struct feed_row {
    bool present = false;
    size_t count = 0;
    std::vector<feed_column> columns;
};

#endif
