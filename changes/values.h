// Whole values, which stand in pieces in front of the change that they belong to.
#ifndef CHANGES_VALUES_H
#define CHANGES_VALUES_H

#include "changes/change.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Only the functions here change it.
struct change_values {
    struct whole {
        int32_t item = 0;
        fwu_image image = FWU_IMAGE_AFTER;
        size_t begin = 0; // in bytes
    };
    std::string bytes;           // of all values, one behind the other
    std::vector<whole> wholes;   // in the order of the log
    bool more = false;           // another piece of the last one has to follow
    bool given = false;          // to a change: the next piece is of another one
    std::vector<fwu_value> rows; // what the change's rows point into
};

// Takes the next piece.  False: it does not go on with the one before.
bool change_values_take(change_values &values, const fwu_value_piece &piece);

// Gives a change with these images the values that were taken for it, of which its dataset has so
// many items; they are valid until the next call.  False: they are not such that it can have them.
bool change_values_give_some(change_values &values, size_t items, change_row &before,
                             change_row &after);
inline bool change_values_give(change_values &values, size_t items, change_row &before,
                               change_row &after)
{
    return values.wholes.empty() || change_values_give_some(values, items, before, after);
}

// Whether values were taken that no change has been given.
inline bool change_values_wait(const change_values &values)
{
    return !values.given && !values.wholes.empty();
}

void change_values_clear(change_values &values);

#endif
