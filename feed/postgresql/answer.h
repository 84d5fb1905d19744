// What a bridge says, in the log directory, of the tables that another run has asked it to take
// back: a line of JSON that only the two of them read.
#ifndef FEED_POSTGRESQL_ANSWER_H
#define FEED_POSTGRESQL_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Names in the log directory: both begin so, and have six characters between.
constexpr char PGR_PREFIX[] = "resume-";
constexpr char PGR_REQUEST[] = ".request"; // names of tables, a line each, or PGR_ALL
constexpr char PGR_ANSWER[] = ".answer";
constexpr char PGR_ALL[] = "all"; // every table that is set aside

enum pgr_state {
    PGR_ASKED,    // nothing was done yet: the bridge waits for something, or will do it next
    PGR_TAKING,   // its rows are being taken in
    PGR_FOLLOWED, // it is done
    PGR_REFUSED,  // it will not be done
};

struct pgr_table {
    std::string name = {}; // as messages write it
    pgr_state state = PGR_ASKED;
    uint64_t rows = 0;       // taken in so far
    int64_t estimate = -1;   // of all there are, as the server guesses; -1: it does not
    std::string reason = {}; // PGR_REFUSED: why; before the end: what is waited for, if anything
    bool aside = false;      // it was set aside when it was asked for; not in the answer's text
    bool operator==(const pgr_table &) const = default;
};

struct pgr_answer {
    bool done = false; // nothing will change any more
    std::vector<pgr_table> tables;
    bool operator==(const pgr_answer &) const = default;
};

std::string pgr_answer_text(const pgr_answer &answer);

// False, with the answer as it was: the text is none.
bool pgr_answer_read(pgr_answer &answer, std::string_view text);

// A table's name as messages write it, from one that means the same; empty: it is none.
std::string pgr_table_name(std::string_view word);

#endif
