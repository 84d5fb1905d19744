// A dataset's layout made ready for its changes.
#ifndef CHANGES_DATASET_H
#define CHANGES_DATASET_H

#include "changes/change.h"
#include "fwutil/fwu_writing.h"

// Fills everything from the dataset's layout.  What the configuration says of its null map
// counts where the layout's source says nothing; an item NULL-MAP that can be one is one where
// both are silent.  A key that the configuration names goes before the source's.
void change_dataset_complete(change_dataset &dataset, const fwu_writing &said);

#endif
