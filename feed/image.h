// Record images: the bytes of a row by the item layout of its dataset.  What an item cannot
// hold, or the row does not have, is refused, or marked in the null map: the item's policy.
#ifndef FEED_IMAGE_H
#define FEED_IMAGE_H

#include "feed/image_work.h"
#include "feed/row.h"
#include "feed/table.h"
#include "util/outcome.h"

#include <vector>

// The image of a new row, of table.image_length bytes.  Columns that the row
// lacks are taken from the old row, when there is one (null: there is none).
// OUTCOME_BAD, with the column and the reason, when a value is refused.
outcome feed_new_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &row, const feed_row *old_row);

// The image of an old row.
outcome feed_old_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &old_row);

#endif
