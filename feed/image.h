// Record images: the bytes of a row by the item layout of its dataset.  An image is made
// wholly or not at all: a value that does not fit is refused, and cut only where the user
// wants texts cut.
#ifndef FEED_IMAGE_H
#define FEED_IMAGE_H

#include "feed/row.h"
#include "feed/table.h"
#include "feed/value.h"
#include "util/outcome.h"

#include <string>
#include <vector>

// What the making of images keeps from row to row.
struct feed_image_work : feed_value_work {
    std::vector<std::string> notes; // what is to be told; whoever tells it takes it away
};

// The image of a new row, of table.image_length bytes.  Columns that the row
// lacks are taken from the old row, when there is one (null: there is none).
// OUTCOME_BAD, with the column and the reason, when a value does not fit.
outcome feed_new_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &row, const feed_row *old_row);

// The image of an old row, which must have all columns.
outcome feed_old_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &old_row);

#endif
