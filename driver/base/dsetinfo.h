// The item layout of the dataset of the record being delivered, refilled from
// the forward-log library when a run needs it.
#ifndef DRIVER_BASE_DSETINFO_H
#define DRIVER_BASE_DSETINFO_H

#include <cstdint>

constexpr int DSETITEM_NAME_MAX = 17;

struct dsetitem {
    char name[20];    // at most 17 characters; the rest stays zero
    int32_t type;     // type letter
    int32_t size;     // bytes of one element
    int32_t count;    // number of elements
    int32_t item_aux; // as the library gives it
};

struct dsetinfo {
    int32_t nitems;   // items of the current dataset
    int32_t nalloc;   // descriptors allocated; only grows
    dsetitem **items; // the first nitems are valid; one spare follows them
};

dsetinfo *new_dsetinfo();           // empty
void free_dsetinfo(dsetinfo *info); // null is allowed

// Refills the layout with the library's answer for the current record.
void get_dsetinfo(dsetinfo *info);

#endif
