// Text capture files that have another writer: told, since their lines are mixed or lost.
#ifndef CAPTURE_SHARED_H
#define CAPTURE_SHARED_H

struct capfil;
struct capinfo;

// Warns of each pair of capture files of the run that are one text file, by whatever
// names.  Nothing is opened.
void capture_warn_twice(const capinfo *ci);

// Warns when another process has the file open for writing, which a text file is about to
// be.  Told where the system tells.
void capture_warn_shared(const capfil *cf);

#endif
