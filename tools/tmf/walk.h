// The records of a message file by what stands in their frames, whatever its counters say: one
// after the other, and between them what is none.  The file is read, never written, and its
// users wait meanwhile.
#ifndef TOOLS_TMF_WALK_H
#define TOOLS_TMF_WALK_H

#include "tools/tmf/look.h"

#include <string>
#include <string_view>

enum tmft_piece_kind {
    TMFT_PIECE_END,
    TMFT_PIECE_RECORD, // the lengths in front of it and behind it agree
    TMFT_PIECE_LOST,   // no whole record, up to where the next one is or the records end
};

struct tmft_piece {
    tmft_piece_kind kind = TMFT_PIECE_END;
    int64_t at = 0;
    int64_t length = 0;    // with its frame
    std::string_view data; // of a record; valid until the next call
    std::string wrong;     // what is wrong with it; of a record as a rule nothing
};

struct tmft_walk {
    int fd = -1;
    int64_t size = 0;     // of the file
    int64_t at = 0;       // of the next piece
    int64_t end = 0;      // of the records
    bool by_mark = false; // end is the file's, since where the end mark stands is not known yet
    int64_t hole = -1;    // at or behind at, as far as it is known
    int64_t held_at = 0;  // offset of the bytes held
    std::string held;
};

// Opens the file, and keeps its users from changing it until fd is closed.
outcome tmft_open_still(int &fd, const char *file);

// Begins where the area, which was found to be one, says that its oldest record is, and goes to
// where it says that the records end; places that can be none are replaced by the first and the
// last that can.
tmft_walk tmft_walk_by_area(int fd, const tmft_facts &facts);

// The end of the records by the area's word; below 0 when it is no place in any file.
int64_t tmft_stated_end(const tmft_facts &facts);

// Begins at the first place that a record can have, in a file without an area.  OUTCOME_BAD
// when no record is there that another one or the end mark follows.
outcome tmft_walk_without_area(tmft_walk &walk, int fd, int64_t size);

// The next piece.  OUTCOME_BAD when the system cannot read the file.
outcome tmft_next_piece(tmft_walk &walk, tmft_piece &piece);

// Goes on behind the end with whole records that the file does not count, which the end mark
// follows: a writer was killed before it had counted its own, or the count did not come to the
// disk.  Nothing when there are none.
outcome tmft_walk_uncounted(tmft_walk &walk);

#endif
