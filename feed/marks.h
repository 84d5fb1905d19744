// Marks in the null map: items that do not hold what the source has.  They are counted, and
// told once in a run for each column and kind of mark.
#ifndef FEED_MARKS_H
#define FEED_MARKS_H

#include "feed/image_work.h"
#include "feed/table.h"

// An item of an image.
struct feed_item_at {
    feed_table &table;
    size_t item;
    fwu_image image;
};

// Takes into account that an item was cut, lost characters or was left blank, as place.flag says;
// then why is what was wrong.
void feed_mark(feed_image_work &work, const feed_item_at &at, const feed_place &place,
               const feed_column &column, const std::string &why);

// The same of an item whose value did not come; what is to be told of these is told
// at the end of the image.
void feed_mark_unknown(feed_image_work &work, const feed_item_at &at);
void feed_tell_unknown(feed_image_work &work, const feed_table &table, fwu_image image);

#endif
