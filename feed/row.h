// A row of a change stream: its columns by name, each value as the source wrote
// it.
#ifndef FEED_ROW_H
#define FEED_ROW_H

#include <cstddef>
#include <string>
#include <vector>

enum pgr_kind { PGR_NULL, PGR_FALSE, PGR_TRUE, PGR_NUMBER, PGR_STRING };

struct pgr_column {
    std::string name;
    std::string type;  // as the server names it: "numeric(9,2)", "smallint[]"
    std::string value; // PGR_NUMBER: its digits as written; PGR_STRING: UTF-8; else empty
    pgr_kind kind = PGR_NULL;
};

// Only the first count columns are valid, the others keep their memory.
struct pgr_row {
    bool present = false;
    size_t count = 0;
    std::vector<pgr_column> columns;
};

#endif
