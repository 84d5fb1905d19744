// Which capture files take a dataset's records.  What the patterns say of a dataset stays the same
// as long as the run lasts: it is decided at its first record and kept, so that the number of files
// and patterns costs nothing later.  Takes a few hundred bytes a dataset and a pointer for each of
// its files.
#ifndef CAPTURE_SELECTION_H
#define CAPTURE_SELECTION_H

#include <span>

struct capfil;
struct capinfo;
struct log_record;
struct selection;

// The files that take the record, in command-line order; valid until the next call.
std::span<capfil *const> select_files(capinfo *ci, const log_record *record);

void free_selection(selection *selected); // null is allowed

#endif
