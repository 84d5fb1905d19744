// What Kestro's -dset would take of a log, for fwlog info --dset.
#ifndef TOOLS_FWLOG_INFO_DSET_H
#define TOOLS_FWLOG_INFO_DSET_H

#include "tools/fwlog/survey.h"

#include <string>

// Takes a pattern as -dset does; false for one that it refuses (reported).
bool info_take_dset(const char *word);

// Whether there are patterns.
bool info_has_dsets();

// A dataset's name and counts as info shows them.
std::string info_dataset_line(const std::string &database, const std::string &dataset,
                              const survey_counts &counts);
std::string info_dataset_json(const std::string &database, const std::string &dataset,
                              const survey_counts &counts);

// Prints for each pattern which of the datasets it takes, or what was probably meant.  True
// when each takes something.
bool info_print_dsets(const survey_datasets &datasets, bool json);

#endif
