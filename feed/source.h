// Where the records of a table's dataset come from, as the log keeps it beside their layout.
#ifndef FEED_SOURCE_H
#define FEED_SOURCE_H

#include "feed/table.h"

#include <string>
#include <vector>

// Takes the source's description of a table, which has a dataset.  The source of its layout
// is another object only when it says something else, so that records of one source are known
// by its address.  Which columns are the key, the configuration says; else the description.
// A key of which a column is not there is none; that of the configuration is worth a note.
void feed_describe(feed_table &table, const fwu_config &config, feed_told told,
                   std::vector<std::string> &notes);

#endif
