// The names of datasets and items as the log tells them, for a log directory without the file.
#ifndef FEED_NAMES_LOG_H
#define FEED_NAMES_LOG_H

#include "feed/names.h"

// Takes the names of all tables, and of columns whose names were shortened, from the layouts in
// the log, all of which is read.  No log: none.  They are new: the next feed_names_keep writes
// them.
outcome feed_names_from_log(feed_names &names, const std::string &directory);

#endif
