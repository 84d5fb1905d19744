// A parser that is made for streams, where its library was there when this was built.
#ifndef FEED_WAL2JSON_SWIFT_H
#define FEED_WAL2JSON_SWIFT_H

#include "feed/wal2json/line.h"

#include <string_view>

struct w2j_pieces;

// Tells the pieces of a line.  False: it may be wrong, or is too long or of
// a kind that is rare, and what was told is void: another parser has to say.  True: it is JSON,
// and all that it holds was told.  The memory is made at the first line.
bool w2j_swift_tell(w2j_swift_memory &swift, w2j_pieces &pieces, std::string_view text);

#endif
