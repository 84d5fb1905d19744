// The layouts that stand in a log file, as far as they are kept.  A log of very many datasets has
// more than are worth their memory: what the writer has forgotten it puts there again with the
// dataset's next record.
#ifndef FWUTIL_FWU_LAYOUTS_H
#define FWUTIL_FWU_LAYOUTS_H

#include "fwutil/fwu_items.h"

#include <cstddef>
#include <string>
#include <unordered_map>

// Items that are kept; each takes some 150 bytes, with its source.
constexpr size_t FWU_LAYOUTS_ITEMS_MAX = 40'000;

struct fwu_layouts {
    std::unordered_map<std::string, fwu_layout> known = {}; // by fwu_layout_key
    size_t items = 0;                                       // of all of these
};

void fwu_layout_key(std::string &key, const std::string &dbname, const std::string &dsetname);

// The layout of a key; null: none is known.
fwu_layout *fwu_layouts_find(fwu_layouts &layouts, const std::string &key);

// Takes the layout that counts for a key from here on.  False: that made too many, and all others
// were forgotten.
bool fwu_layouts_put(fwu_layouts &layouts, const std::string &key, fwu_layout layout);

void fwu_layouts_clear(fwu_layouts &layouts);

#endif
