// A message file seen as a whole: its numbers against its records, without a
// handle and without a user.  The caller holds the common lock.
#ifndef MSGFILE_TMF_SURVEY_H
#define MSGFILE_TMF_SURVEY_H

#include "msgfile/tmf.h"
#include "msgfile/tmf_layout.h"

struct tmf_survey {
    tmf_check_result result;
    // In this host's order, with the numbers right that every file has alike; not of a file
    // with TMF_FOUND_ZEROS, or an empty one.
    tmf_common common;
    uint16_t flags; // as they stand in the file, in its order
};

// Looks at the file of fd, whose records are kept up to keep_end (0: all), so that
// result.sound is where they end then.  0 or a code.
int tmf_survey_file(int fd, int keep_end, tmf_survey *survey);

#endif
