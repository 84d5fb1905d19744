// One line of a PostgreSQL change stream as wal2json's format version 2 writes
// it, taken apart into a record that is reused from line to line.
#ifndef TOOLS_WAL2JSON_H
#define TOOLS_WAL2JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum w2j_kind { W2J_NULL, W2J_FALSE, W2J_TRUE, W2J_NUMBER, W2J_STRING };

struct w2j_column {
    std::string name;
    std::string type;  // as the server names it: "numeric(9,2)", "smallint[]"
    std::string value; // W2J_NUMBER: its digits as written; W2J_STRING: UTF-8; else empty
    w2j_kind kind = W2J_NULL;
};

// A row; only the first count columns are valid, the others keep their memory.
struct w2j_row {
    bool present = false;
    size_t count = 0;
    std::vector<w2j_column> columns;
};

struct w2j_line {
    char action = 0; // B I U D C M T
    uint64_t xid = 0;
    std::string lsn;            // B, C: position of the commit, "hi/lo"
    std::string timestamp;      // B, C: time of the commit
    std::string schema;         // I, U, D, T
    std::string table;          // I, U, D, T
    w2j_row columns;            // I, U: the new row
    w2j_row identity;           // U, D: the old row
    bool transactional = false; // M
    std::string prefix;         // M
    std::string content;        // M
};

// Reads one line.  Returns true, or false with the reason in error: not JSON, not
// UTF-8, a member that is missing, given twice or of the wrong type.
bool w2j_parse(w2j_line &line, std::string_view text, std::string &error);

// Reads a log position, two hexadecimal numbers with "/" between them.
bool w2j_lsn(uint64_t &lsn, std::string_view text);

// The same, written.
std::string w2j_lsn_text(uint64_t lsn);

#endif
