// From the text of a line to its record.
#ifndef FEED_WAL2JSON_PARSE_H
#define FEED_WAL2JSON_PARSE_H

#include "feed/wal2json/line.h"
#include "util/outcome.h"

#include <string_view>

// Reads one line.  OUTCOME_BAD: not JSON, not UTF-8, a member that is missing, given
// twice or of the wrong type.
outcome w2j_parse(w2j_line &line, std::string_view text);

// The same without the swift parser.
outcome w2j_parse_plain(w2j_line &line, std::string_view text);

#endif
