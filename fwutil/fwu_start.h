// Positions in the log, as text too, and where reading starts.
#ifndef FWUTIL_FWU_START_H
#define FWUTIL_FWU_START_H

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

struct fwu_log_file;

// An entry of the log.  Tag 0: before the first entry of the file.
struct fwu_position {
    int32_t generation = 0;
    int32_t sequence = 0;
    int32_t tag = 0;
    bool operator==(const fwu_position &) const = default;
    bool operator<(const fwu_position &other) const // in the order of the log
    {
        return std::tie(generation, sequence, tag) <
               std::tie(other.generation, other.sequence, other.tag);
    }
    bool operator<=(const fwu_position &other) const
    {
        return !(other < *this);
    }
};

// "1-25.340"
std::string fwu_position_text(const fwu_position &position);

// A position of the source, as commit entries keep it: a place in the source's own log, which
// only grows from commit to commit; 0 is before everything.  "0/1BC8080"
std::string fwu_lsn_text(uint64_t lsn);

// Reads one, two hexadecimal numbers with "/" between them.  False, with lsn as it was, when
// text is none.
bool fwu_lsn_parse(uint64_t &lsn, std::string_view text);

// Reads a position as all programs take it: a log file number ("25", any generation: 0),
// generation and number ("1-25"), or those and a tag ("1-25.340").  Tag 0: none was given.
// False when text is none of these.
bool fwu_position_parse(std::string_view text, fwu_position &position);

// Reads a start specification, which is a position.  A file number alone leaves
// generation 0: the newest generation that has the file.  0, or -1 (reported).
int fwu_start_parse(const char *text, fwu_position &position);

// The file that a position names, whose generation it completes; null: there is none.
const fwu_log_file *fwu_start_look(const std::vector<fwu_log_file> &files, fwu_position &position);

// What the log has, for a message about a file that it does not have.
std::string fwu_start_range(const std::vector<fwu_log_file> &files);

// As fwu_start_look; what says where the position comes from.  0, or -1 after
// reporting which files there are.
int fwu_start_find(const std::vector<fwu_log_file> &files, fwu_position &position,
                   const std::string &what, const fwu_log_file *&file);

#endif
