// What parsers of JSON tell of a line, piece by piece, put into its record.  Each call returns
// false when the line is refused, and then says why in done: nothing more is to be told.
// Members that nothing here needs are passed over whatever they hold.
#ifndef FEED_WAL2JSON_PIECES_H
#define FEED_WAL2JSON_PIECES_H

#include "feed/wal2json/line.h"
#include "util/outcome.h"

#include <string>
#include <string_view>

// Members of a line; the bit of a member tells that it has been seen.
enum w2j_member : unsigned {
    W2J_ACTION,
    W2J_XID,
    W2J_LSN,
    W2J_TIMESTAMP,
    W2J_SCHEMA,
    W2J_TABLE,
    W2J_COLUMNS,
    W2J_IDENTITY,
    W2J_KEY,
    W2J_TRANSACTIONAL,
    W2J_PREFIX,
    W2J_CONTENT,
    W2J_MEMBERS,
    W2J_OTHER = W2J_MEMBERS,
};

struct w2j_pieces {
    enum place { BEFORE, IN_LINE, IN_ROW, IN_COLUMN };
    enum column_member : unsigned { OTHER_OF_COLUMN = 0, NAME = 1, TYPE = 2, VALUE = 4 };

    w2j_line &line;
    bool texts_stay = false; // values told are valid until the next line: they need no copies
    outcome done = {};       // why the line was refused
    place at = BEFORE;
    unsigned skip = 0; // depth inside a value that is passed over
    unsigned seen = 0;
    w2j_member now = W2J_OTHER;
    unsigned column_seen = 0;
    unsigned column_now = OTHER_OF_COLUMN;

    // Forgets the line before.
    explicit w2j_pieces(w2j_line &into);

    bool null();
    bool boolean(bool value);
    bool number(std::string_view digits); // as they are written
    bool string(std::string_view text);   // in UTF-8
    bool start_object();
    bool key(std::string_view name);
    bool end_object();
    bool start_array();
    bool end_array();

    // Refuses the line.
    bool fail(std::string text);

    // Behind the last piece: refuses a line that lacks a member.
    outcome check() const;
};

#endif
