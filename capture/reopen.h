// Text capture files whose names have been given to other files since they were opened.
#ifndef CAPTURE_REOPEN_H
#define CAPTURE_REOPEN_H

struct capinfo;

// Goes on in the files that have the names of the open text files now, or in new ones,
// behind what they hold; what was written to the others is on disk then.  A file that
// still has its name, a pipe and a device stay as they are, and so does one whose name
// cannot be opened (told).  Called between two records.  1: the next position that is
// forced is to be so before the next record, 0: nothing is other than before, -1: a file
// could not be brought to disk (reported).
int capture_reopen(capinfo *ci);

#endif
